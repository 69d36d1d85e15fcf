// Three-dimensional filter of 16-bit signed planar volumes with a kernel of
// 32-bit signed integers (true convolution: the kernel is applied mirrored).
//
// For each destination row the products of one kernel row are summed in
// wrapping 32-bit integer arithmetic and the row sum is added, as a float,
// into a row of float accumulators; after the last kernel row the
// accumulators are scaled by the reciprocal of the divisor, clamped, rounded
// to nearest with ties to even and stored.
//
// Four lanes (SSE3) form the integer products with the 16 x 16 -> 32-bit
// multiply-add on two taps at a time. A kernel value outside the 16-bit
// range is split into k = hi * 65536 + lo with lo its sign-extended low half;
// then k * s = lo * s + ((hi * s) mod 65536) * 65536 modulo 2^32, which the
// 16-bit multiplies give exactly. Eight lanes (AVX2) widen the source to 32
// bits and take the wrapping 32-bit product directly. Either way every row
// sum is the wrapping 32-bit sum of the wrapping products, whatever the order.
#include <climits>
#include <cstdint>

#include "core/impl.h"
#include "simd/simd.h"
#include "volume/volume_common.h"
#include "volume/volume_parallel.h"

namespace qelr::QELR_ISA::volume::filter {

namespace {

using simd::I32;

// Bytes of one thread's slice of the work buffer: a float per destination
// element plus 64 bytes (alignment slack), in 64 bits so that overflow shows.
int64_t sliceBytes(int32_t width) { return int64_t(width) * 4 + 64; }

struct FilterJob {
    const int16_t* const* src;
    int srcRowStep;
    int16_t* const* dst;
    int dstRowStep;
    QelVolumeSize roi;
    const int32_t* kernel;
    QelVolumeSize kernelSize;
    QelOffset3D anchor;
    float reciprocal;  // 1.0f / divisor
    bool unitDivisor;  // divisor 1: the scaling is the identity
};

bool fitsInt16(int32_t v) { return v >= INT16_MIN && v <= INT16_MAX; }

// Two taps as the 16-bit multiplier pair of the multiply-add, broadcast.
I32<4> tapPair(int32_t a, int32_t b) {
    return I32<4>(int32_t(uint32_t(uint16_t(a)) | (uint32_t(uint16_t(b)) << 16)));
}

// The high half of a kernel value for the split: (k - lo) / 65536 modulo 2^16.
int32_t highHalf(int32_t k) { return int32_t((int64_t(k) - int16_t(k)) >> 16); }

// Adds the products of one tap pair to the row sums of 8 destination
// elements: ab0 and ab1 hold the source elements of the two taps
// interleaved (elements 0-3 and 4-7), lo and hi the multiplier pair.
template <bool kWide>
QELR_INLINE void addPairProducts(I32<4> ab0, I32<4> ab1, I32<4> lo, I32<4> hi, I32<4>& sum0,
                                 I32<4>& sum1) {
    sum0 = sum0 + simd::mulAddPairs16(ab0, lo);
    sum1 = sum1 + simd::mulAddPairs16(ab1, lo);
    if constexpr (kWide) {
        const I32<4> ones(0x00010001);
        sum0 = sum0 + simd::shiftLeft<16>(simd::mulAddPairs16(simd::mulLow16(ab0, hi), ones));
        sum1 = sum1 + simd::shiftLeft<16>(simd::mulAddPairs16(simd::mulLow16(ab1, hi), ones));
    }
}

// Eight 16-bit elements, as the halves of four lanes.
QELR_INLINE I32<4> load8(const int16_t* s) {
    return I32<4>::loadu(reinterpret_cast<const int32_t*>(s));
}

// acc[i] += float(sum over p of k[p] * s[i - p]) for i in [0, width), the
// row sum wrapping in 32 bits. kWidth 3 and 5 are unrolled at compile time;
// 0 is the general width.
template <int kWidth, bool kWide>
void accumulateRow(float* acc, const int16_t* s, const int32_t* k, int32_t kw, int32_t width) {
    const int taps = kWidth > 0 ? kWidth : kw;
    int32_t i = 0;
    if constexpr (kLanes == 8) {
        for (; i + 8 <= width; i += 8) {
            Vi sum = simd::mulWrap(simd::loadWidenI16<kLanes>(s + i), Vi(k[0]));
            for (int p = 1; p < taps; ++p) {
                sum = sum + simd::mulWrap(simd::loadWidenI16<kLanes>(s + i - p), Vi(k[p]));
            }
            simd::store(acc + i, Vf::load(acc + i) + simd::toFloat(sum));
        }
    } else {
        const int fullPairs = taps / 2;
        const bool odd = taps & 1;
        // The multiplier pairs of an unrolled width, formed once per row.
        constexpr int kPairs = kWidth > 0 ? (kWidth + 1) / 2 : 1;
        I32<4> los[kPairs], his[kPairs];
        const auto pairOf = [&](int p, bool wide) {
            const int32_t a = k[2 * p], b = 2 * p + 1 < taps ? k[2 * p + 1] : 0;
            return wide ? tapPair(highHalf(a), highHalf(b)) : tapPair(int16_t(a), int16_t(b));
        };
        if constexpr (kWidth > 0) {
            for (int p = 0; p < kPairs; ++p) {
                los[p] = pairOf(p, false);
                his[p] = kWide ? pairOf(p, true) : I32<4>::zero();
            }
        }
        for (; i + 8 <= width; i += 8) {
            I32<4> sum0 = I32<4>::zero(), sum1 = I32<4>::zero();
            for (int p = 0; p < fullPairs; ++p) {
                const I32<4> lo = kWidth > 0 ? los[p] : pairOf(p, false);
                const I32<4> hi = !kWide ? I32<4>::zero() : kWidth > 0 ? his[p] : pairOf(p, true);
                // Tap 2p reads s[i - 2p + l], tap 2p + 1 the element before it.
                const I32<4> a = load8(s + i - 2 * p), b = load8(s + i - 2 * p - 1);
                addPairProducts<kWide>(simd::zipLow16(a, b), simd::zipHigh16(a, b), lo, hi, sum0,
                                       sum1);
            }
            if (odd) {
                const int p = taps - 1;
                const I32<4> lo = kWidth > 0 ? los[p / 2] : pairOf(p / 2, false);
                const I32<4> hi = !kWide       ? I32<4>::zero()
                                  : kWidth > 0 ? his[p / 2]
                                               : pairOf(p / 2, true);
                const I32<4> a = load8(s + i - p), z = I32<4>::zero();
                addPairProducts<kWide>(simd::zipLow16(a, z), simd::zipHigh16(a, z), lo, hi, sum0,
                                       sum1);
            }
            using F4 = simd::F32<4>;
            simd::store(acc + i, F4::load(acc + i) + simd::toFloat(sum0));
            simd::store(acc + i + 4, F4::load(acc + i + 4) + simd::toFloat(sum1));
        }
    }
    for (; i < width; ++i) {
        uint32_t sum = 0;
        for (int p = 0; p < taps; ++p) sum += uint32_t(k[p]) * uint32_t(int32_t(s[i - p]));
        acc[i] += float(int32_t(sum));
    }
}

// Scales, clamps to [-32768, 32767], rounds to nearest with ties to even
// and stores one destination row.
void storeRow(const float* acc, int16_t* out, int32_t width, float reciprocal, bool unit) {
    int32_t i = 0;
    for (; i + kLanes <= width; i += kLanes) {
        const Vf v = Vf::load(acc + i);
        storeRounded(out + i, unit ? v : v * Vf(reciprocal));
    }
    for (; i < width; ++i) out[i] = roundToElement<int16_t>(unit ? acc[i] : acc[i] * reciprocal);
}

template <int kWidth>
void accumulateKernelRow(float* acc, const int16_t* s, const int32_t* k, int32_t kw,
                         int32_t width) {
    bool narrow = true;
    for (int32_t p = 0; p < kw; ++p) narrow = narrow && fitsInt16(k[p]);
    if (narrow) {
        accumulateRow<kWidth, false>(acc, s, k, kw, width);
    } else {
        accumulateRow<kWidth, true>(acc, s, k, kw, width);
    }
}

// The first source element of tap 0 for destination element 0 of row (y, z)
// in kernel row (r, q): s[i - p] is the element of tap p for destination i.
// The anchor may move the row and plane past the 32-bit range: they are
// formed in 64 bits.
const int16_t* tapRow(const FilterJob& job, int32_t y, int32_t z, int32_t r, int32_t q) {
    return rowOfPV(job.src, job.srcRowStep, int64_t{y} + job.anchor.y - q,
                   int64_t{z} + job.anchor.z - r) +
           job.anchor.x;
}

// Destination elements from `first` to the end of row (y, z), kernel rows
// outer, through the float row accumulator `acc`.
void filterRowTail(const FilterJob& job, int32_t y, int32_t z, int32_t first, float* acc,
                   int16_t* out) {
    const int32_t n = job.roi.width - first;
    const int32_t kw = job.kernelSize.width, kh = job.kernelSize.height;
    for (int32_t i = 0; i < n; ++i) acc[i] = 0.0f;
    for (int32_t r = 0; r < job.kernelSize.depth; ++r) {
        for (int32_t q = 0; q < kh; ++q) {
            const int16_t* s = tapRow(job, y, z, r, q) + first;
            const int32_t* k = job.kernel + (int64_t(r) * kh + q) * kw;
            if (kw == 3) {
                accumulateKernelRow<3>(acc, s, k, kw, n);
            } else if (kw == 5) {
                accumulateKernelRow<5>(acc, s, k, kw, n);
            } else {
                accumulateKernelRow<0>(acc, s, k, kw, n);
            }
        }
    }
    storeRow(acc, out + first, n, job.reciprocal, job.unitDivisor);
}

#if QELR_SIMD_LANES == 8
// Eight lanes: blocks of destination elements outer and kernel rows inner,
// the float accumulators held in registers (the same additions in the same
// order as through the row accumulator). Returns the elements done.
template <int kWidth>
int32_t filterRowBlocks(const FilterJob& job, int32_t y, int32_t z, int16_t* out) {
    const int32_t kw = job.kernelSize.width, kh = job.kernelSize.height;
    const int taps = kWidth > 0 ? kWidth : kw;
    const auto sums = [&](int32_t i, auto&& add) {
        for (int32_t r = 0; r < job.kernelSize.depth; ++r) {
            for (int32_t q = 0; q < kh; ++q) {
                const int16_t* s = tapRow(job, y, z, r, q) + i;
                const int32_t* k = job.kernel + (int64_t(r) * kh + q) * kw;
                add(s, k);
            }
        }
    };
    const auto rowSum = [&](const int16_t* s, const int32_t* k) {
        Vi sum = simd::mulWrap(simd::loadWidenI16<8>(s), Vi(k[0]));
        for (int p = 1; p < taps; ++p)
            sum = sum + simd::mulWrap(simd::loadWidenI16<8>(s - p), Vi(k[p]));
        return sum;
    };
    const auto store = [&](int32_t i, Vf acc) {
        storeRounded(out + i, job.unitDivisor ? acc : acc * Vf(job.reciprocal));
    };
    int32_t i = 0;
    for (; i + 16 <= job.roi.width; i += 16) {
        Vf acc0 = Vf::zero(), acc1 = Vf::zero();
        sums(i, [&](const int16_t* s, const int32_t* k) {
            acc0 = acc0 + simd::toFloat(rowSum(s, k));
            acc1 = acc1 + simd::toFloat(rowSum(s + 8, k));
        });
        store(i, acc0);
        store(i + 8, acc1);
    }
    for (; i + 8 <= job.roi.width; i += 8) {
        Vf acc = Vf::zero();
        sums(i,
             [&](const int16_t* s, const int32_t* k) { acc = acc + simd::toFloat(rowSum(s, k)); });
        store(i, acc);
    }
    return i;
}
#endif

// Destination planes [zBegin, zEnd) with the float row accumulator `acc`.
void filterPlanes(const FilterJob& job, int32_t zBegin, int32_t zEnd, float* acc) {
    for (int32_t z = zBegin; z < zEnd; ++z) {
        for (int32_t y = 0; y < job.roi.height; ++y) {
            int16_t* out = rowOfPV(job.dst, job.dstRowStep, y, z);
            int32_t done = 0;
#if QELR_SIMD_LANES == 8
            const int32_t kw = job.kernelSize.width;
            done = kw == 3   ? filterRowBlocks<3>(job, y, z, out)
                   : kw == 5 ? filterRowBlocks<5>(job, y, z, out)
                             : filterRowBlocks<0>(job, y, z, out);
#endif
            if (done < job.roi.width) filterRowTail(job, y, z, done, acc, out);
        }
    }
}

// The slice's first 32-byte boundary (the slice has 64 bytes of slack).
float* alignedAccumulator(QelU8* slice) {
    const uintptr_t a = (reinterpret_cast<uintptr_t>(slice) + 31) & ~uintptr_t(31);
    return reinterpret_cast<float*>(a);
}

}  // namespace

}  // namespace qelr::QELR_ISA::volume::filter

QelStatus qelr::impl::qelrFilterGetBufSize(QelVolumeSize dstRoiSize, QelVolumeSize kernelSize,
                                           int nChannels, int* outBufferSize) {
    if (outBufferSize == nullptr) return qelErrNullPointer;
    if (!volume::sizeWellFormed(dstRoiSize) || !volume::sizeWellFormed(kernelSize)) {
        return qelErrSize;
    }
    if (nChannels != 1) return qelErrChannels;
    const int64_t size = volume::filter::sliceBytes(dstRoiSize.width) * ownGetNumThreads();
    if (size > INT_MAX) return qelErrSize;  // not expressible as a buffer size
    *outBufferSize = static_cast<int>(size);
    return qelOk;
}

QelStatus qelr::impl::qelrFilter_16s_C1PV(const int16_t* const srcData[], int srcRowStep,
                                          int16_t* const dstData[], int dstRowStep,
                                          QelVolumeSize dstRoiSize, const int32_t* kernel,
                                          QelVolumeSize kernelSize, QelOffset3D anchor, int divisor,
                                          QelU8* workBuffer) {
    using namespace volume::filter;
    if (srcData == nullptr || dstData == nullptr || kernel == nullptr) return qelErrNullPointer;
    if (!volume::sizeWellFormed(dstRoiSize) || !volume::sizeWellFormed(kernelSize)) {
        return qelErrSize;
    }
    if (divisor == 0) return qelErrSize;
    const int threads = ownGetNumThreads();
    const int64_t total = sliceBytes(dstRoiSize.width) * threads;
    if (total > INT_MAX) return qelErrSize;  // no buffer of this size can be asked for

    const FilterJob job{srcData,     srcRowStep, dstData,
                        dstRowStep,  dstRoiSize, kernel,
                        kernelSize,  anchor,     1.0f / static_cast<float>(divisor),
                        divisor == 1};
    volume::runOverPlanes(dstRoiSize.width, dstRoiSize.height, dstRoiSize.depth,
                          [&](int32_t begin, int32_t end, int rank, int team) {
                              QelU8* slice = workBuffer + rank * (total / team);
                              filterPlanes(job, begin, end, alignedAccumulator(slice));
                          });
    return qelOk;
}
