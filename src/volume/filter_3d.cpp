// Three-dimensional filter of 16-bit signed planar volumes with a kernel of
// 32-bit signed integers (true convolution: the kernel is applied mirrored).
//
// For each destination row the products of one kernel row are summed in
// wrapping 32-bit integer arithmetic and the row sum is added, as a float,
// into a row of float accumulators; after the last kernel row the
// accumulators are scaled by the reciprocal of the divisor, clamped, rounded
// to nearest with ties to even and stored.
//
// The integer products are formed with the 16 x 16 -> 32-bit multiply-add
// on two taps at a time. A kernel value outside the 16-bit range is split
// into k = hi * 65536 + lo with lo its sign-extended low half; then
// k * s = lo * s + ((hi * s) mod 65536) * 65536 modulo 2^32, which the 16-bit
// multiplies give exactly, so every path yields the wrapping 32-bit products.
#include <emmintrin.h>

#include <climits>
#include <cstdint>

#include "core/impl.h"
#include "simd/target.h"
#include "volume/volume_common.h"
#include "volume/volume_parallel.h"

namespace qelr::QELR_ISA::volume::filter {

namespace {

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
__m128i tapPair(int32_t a, int32_t b) {
    return _mm_set1_epi32(int32_t(uint32_t(uint16_t(a)) | (uint32_t(uint16_t(b)) << 16)));
}

// The high half of a kernel value for the split: (k - lo) / 65536 modulo 2^16.
int32_t highHalf(int32_t k) { return int32_t((int64_t(k) - int16_t(k)) >> 16); }

// Adds the products of one tap pair to the row sums of 8 destination
// elements: ab0 and ab1 hold the source elements of the two taps
// interleaved (elements 0-3 and 4-7), lo and hi the multiplier pair.
template <bool kWide>
inline void addPairProducts(__m128i ab0, __m128i ab1, __m128i lo, __m128i hi, __m128i& sum0,
                            __m128i& sum1) {
    sum0 = _mm_add_epi32(sum0, _mm_madd_epi16(ab0, lo));
    sum1 = _mm_add_epi32(sum1, _mm_madd_epi16(ab1, lo));
    if constexpr (kWide) {
        const __m128i ones = _mm_set1_epi16(1);
        sum0 =
            _mm_add_epi32(sum0, _mm_slli_epi32(_mm_madd_epi16(_mm_mullo_epi16(ab0, hi), ones), 16));
        sum1 =
            _mm_add_epi32(sum1, _mm_slli_epi32(_mm_madd_epi16(_mm_mullo_epi16(ab1, hi), ones), 16));
    }
}

inline __m128i load8(const int16_t* s) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
}

// acc[i] += float(sum over p of k[p] * s[i - p]) for i in [0, width), the
// row sum wrapping in 32 bits. kWidth 3 and 5 are unrolled at compile time;
// 0 is the general width.
template <int kWidth, bool kWide>
void accumulateRow(float* acc, const int16_t* s, const int32_t* k, int32_t kw, int32_t width) {
    const int taps = kWidth > 0 ? kWidth : kw;
    const int fullPairs = taps / 2;
    const bool odd = taps & 1;
    int32_t i = 0;
    for (; i + 8 <= width; i += 8) {
        __m128i sum0 = _mm_setzero_si128(), sum1 = _mm_setzero_si128();
        for (int p = 0; p < fullPairs; ++p) {
            const __m128i lo = tapPair(int16_t(k[2 * p]), int16_t(k[2 * p + 1]));
            const __m128i hi =
                kWide ? tapPair(highHalf(k[2 * p]), highHalf(k[2 * p + 1])) : _mm_setzero_si128();
            // Tap 2p reads s[i - 2p + l], tap 2p + 1 the element before it.
            const __m128i a = load8(s + i - 2 * p), b = load8(s + i - 2 * p - 1);
            addPairProducts<kWide>(_mm_unpacklo_epi16(a, b), _mm_unpackhi_epi16(a, b), lo, hi, sum0,
                                   sum1);
        }
        if (odd) {
            const int p = taps - 1;
            const __m128i lo = tapPair(int16_t(k[p]), 0);
            const __m128i hi = kWide ? tapPair(highHalf(k[p]), 0) : _mm_setzero_si128();
            const __m128i a = load8(s + i - p), z = _mm_setzero_si128();
            addPairProducts<kWide>(_mm_unpacklo_epi16(a, z), _mm_unpackhi_epi16(a, z), lo, hi, sum0,
                                   sum1);
        }
        _mm_store_ps(acc + i, _mm_add_ps(_mm_load_ps(acc + i), _mm_cvtepi32_ps(sum0)));
        _mm_store_ps(acc + i + 4, _mm_add_ps(_mm_load_ps(acc + i + 4), _mm_cvtepi32_ps(sum1)));
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
    const __m128 r = _mm_set1_ps(reciprocal);
    const __m128 lo = _mm_set1_ps(-32768.0f), hi = _mm_set1_ps(32767.0f);
    int32_t i = 0;
    for (; i + 8 <= width; i += 8) {
        __m128 v0 = _mm_load_ps(acc + i), v1 = _mm_load_ps(acc + i + 4);
        if (!unit) {
            v0 = _mm_mul_ps(v0, r);
            v1 = _mm_mul_ps(v1, r);
        }
        v0 = _mm_min_ps(_mm_max_ps(v0, lo), hi);
        v1 = _mm_min_ps(_mm_max_ps(v1, lo), hi);
        const __m128i packed = _mm_packs_epi32(_mm_cvtps_epi32(v0), _mm_cvtps_epi32(v1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), packed);
    }
    for (; i < width; ++i) {
        const float v = unit ? acc[i] : acc[i] * reciprocal;
        out[i] = roundToElement<int16_t>(v);
    }
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

// Destination planes [zBegin, zEnd) with the float row accumulator `acc`.
void filterPlanes(const FilterJob& job, int32_t zBegin, int32_t zEnd, float* acc) {
    const int32_t width = job.roi.width;
    const int32_t kw = job.kernelSize.width, kh = job.kernelSize.height;
    const int32_t kd = job.kernelSize.depth;
    for (int32_t z = zBegin; z < zEnd; ++z) {
        for (int32_t y = 0; y < job.roi.height; ++y) {
            for (int32_t i = 0; i < width; ++i) acc[i] = 0.0f;
            for (int32_t r = 0; r < kd; ++r) {
                for (int32_t q = 0; q < kh; ++q) {
                    // s[i - p] is the source element of tap p for destination i.
                    // The anchor may move the row and plane past the 32-bit
                    // range: they are formed in 64 bits.
                    const int16_t* s =
                        rowOfPV(job.src, job.srcRowStep, int64_t{y} + job.anchor.y - q,
                                int64_t{z} + job.anchor.z - r) +
                        job.anchor.x;
                    const int32_t* k = job.kernel + (int64_t(r) * kh + q) * kw;
                    if (kw == 3) {
                        accumulateKernelRow<3>(acc, s, k, kw, width);
                    } else if (kw == 5) {
                        accumulateKernelRow<5>(acc, s, k, kw, width);
                    } else {
                        accumulateKernelRow<0>(acc, s, k, kw, width);
                    }
                }
            }
            storeRow(acc, rowOfPV(job.dst, job.dstRowStep, y, z), width, job.reciprocal,
                     job.unitDivisor);
        }
    }
}

float* alignedAccumulator(QelU8* slice) {
    const uintptr_t a = (reinterpret_cast<uintptr_t>(slice) + 15) & ~uintptr_t(15);
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
