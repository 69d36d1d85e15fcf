// Evaluation of the real spherical-harmonic basis for packs of directions.
//
// Directions are taken a vector at a time (four lanes on SSE3, eight on
// AVX2); the kernels write the directions' coefficients coefficient-major into
// a scratch block, which is then transposed into the caller's direction-major
// output. Every lane performs the same IEEE operations, so a direction gets
// the same bits at either width and in any position of the pack.
// NaN inputs are canonicalised first (see simd::canonicalNaN), so a NaN
// direction also gives the same bits on every path.
#include "sh/sh_basis.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/align.h"
#include "core/impl.h"
#include "sh/sh_engine.h"
#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

namespace {

using simd::F32;
using simd::Vf;

// Writes a row of four floats; with Stream, non-temporally (16-byte aligned).
template <bool Stream>
QELR_INLINE void putRow(float* p, F32<4> r) {
    if constexpr (Stream) {
        simd::stream(p, r);
    } else {
        simd::storeu(p, r);
    }
}

// Writes `count` coefficients of the Vf::kLanes directions held
// coefficient-major in soa (one vector per coefficient) to dst, dst + stride,
// dst + 2 stride, ... With Stream, the stores are non-temporal and dst and
// stride must keep every group of four coefficients 16-byte aligned.
template <bool Stream = false>
void transposeOut(const float* soa, int count, float* dst, ptrdiff_t stride) {
    constexpr int N = Vf::kLanes;
    int k = 0;
    for (; k + 4 <= count; k += 4) {
        Vf r[4] = {Vf::load(soa + N * k), Vf::load(soa + N * (k + 1)),
                   Vf::load(soa + N * (k + 2)), Vf::load(soa + N * (k + 3))};
        // Each block of four lanes is transposed on its own: row j then holds
        // coefficients k..k+3 of direction j (and of direction j + 4).
        simd::transpose(r[0], r[1], r[2], r[3]);
        for (int j = 0; j < 4; ++j) {
#if QELR_SIMD_LANES == 8
            putRow<Stream>(dst + j * stride + k, simd::lowHalf(r[j]));
            putRow<Stream>(dst + (j + 4) * stride + k, simd::highHalf(r[j]));
#else
            putRow<Stream>(dst + j * stride + k, r[j]);
#endif
        }
    }
    for (; k < count; ++k) {
        for (int j = 0; j < N; ++j) dst[j * stride + k] = soa[N * k + j];
    }
}

// Copies len floats with non-temporal stores for the 16-byte aligned part.
void streamCopy(const float* src, float* dst, int len) {
    int k = 0;
    for (; k < len && !core::aligned16(dst + k); ++k) dst[k] = src[k];
    for (; k + 4 <= len; k += 4) simd::stream(dst + k, F32<4>::loadu(src + k));
    for (; k < len; ++k) dst[k] = src[k];
}

// Runs kernel(x, y, z, out) over n > 0 directions, Vf::kLanes at a time,
// and writes their `count` coefficients each to dst, direction-major.
template <class Kernel>
void forEachDirection(const float* pX, const float* pY, const float* pZ, int n, float* dst,
                      int count, Kernel kernel) {
    constexpr int N = Vf::kLanes;
    alignas(32) float soa[N * kMaxCoeffs];
    alignas(32) float aos[N * kMaxCoeffs];
    const bool streaming = size_t(n) * size_t(count) * sizeof(float) >= kStreamingBytes;
    int i = 0;
    for (; i + N <= n; i += N) {
        kernel(simd::canonicalNaN(Vf::loadu(pX + i)), simd::canonicalNaN(Vf::loadu(pY + i)),
               simd::canonicalNaN(Vf::loadu(pZ + i)), soa);
        float* out = dst + static_cast<ptrdiff_t>(i) * count;
        if (streaming && count % 4 == 0 && core::aligned16(out)) {
            transposeOut<true>(soa, count, out, count);
        } else if (streaming) {
            transposeOut(soa, count, aos, count);
            streamCopy(aos, out, N * count);
        } else {
            transposeOut(soa, count, out, count);
        }
    }
    if (streaming) simd::streamFence();
    if (i < n) {
        // The last directions fill a vector, padded with copies of the last
        // one, so that every direction takes the same instructions.
        const int rest = n - i;
        alignas(32) float tail[3][N];
        for (int j = 0; j < N; ++j) {
            const int k = i + (j < rest ? j : rest - 1);
            tail[0][j] = pX[k];
            tail[1][j] = pY[k];
            tail[2][j] = pZ[k];
        }
        kernel(simd::canonicalNaN(Vf::load(tail[0])), simd::canonicalNaN(Vf::load(tail[1])),
               simd::canonicalNaN(Vf::load(tail[2])), soa);
        transposeOut(soa, count, aos, count);
        std::memcpy(dst + static_cast<ptrdiff_t>(i) * count, aos,
                    sizeof(float) * static_cast<size_t>(rest) * static_cast<size_t>(count));
    }
}

template <int Band>
void runBand(const float* pX, const float* pY, const float* pZ, int n, float* dst) {
    forEachDirection(pX, pY, pZ, n, dst, 2 * Band + 1, [](auto x, auto y, auto z, float* out) {
        using V = decltype(simd::widen(x));
        DirectTerms<V> t;
        makeTerms(simd::widen(x), simd::widen(y), simd::widen(z), Band, t);
        directBand<Band>(t, out);
    });
}

using BandRunner = void (*)(const float*, const float*, const float*, int, float*);

constexpr auto kBandRunners = []<int... B>(std::integer_sequence<int, B...>) {
    return std::array<BandRunner, sizeof...(B)>{&runBand<B>...};
}
(std::make_integer_sequence<int, kMaxOrder + 1>{});

}  // namespace

BasisEvaluator::BasisEvaluator(const QelSHEngine* engine, uint32_t order)
    : order_(order), direct_(engineAlgorithm(engine) == qelSHDirect) {
    if (direct_) return;
    // The tables of the bands in use with every entry broadcast to a vector.
    const float* a = tableA(engine);
    const float* b = tableB(engine);
    const uint32_t entries = (order + 1) * (order + 2) / 2;
    for (uint32_t k = 0; k < entries; ++k) {
        simd::store(aN_ + Vf::kLanes * k, Vf(a[k]));
        simd::store(bN_ + Vf::kLanes * k, Vf(b[k]));
    }
}

void BasisEvaluator::operator()(const float* pX, const float* pY, const float* pZ, int n,
                                float* dst) const {
    const uint32_t order = order_;
    const int count = static_cast<int>((order + 1) * (order + 1));
    if (direct_) {
        forEachDirection(pX, pY, pZ, n, dst, count, [order](auto x, auto y, auto z, float* out) {
            evalDirect(simd::widen(x), simd::widen(y), simd::widen(z), order, out);
        });
        return;
    }
    forEachDirection(pX, pY, pZ, n, dst, count, [this, order](Vf x, Vf y, Vf z, float* out) {
        evalRecurrence(x, y, z, order, aN_, bN_, out);
    });
}

}  // namespace qelr::QELR_ISA::sh

namespace qelr::QELR_ISA::impl {

QelStatus qelrSH_32f(const float* pX, const float* pY, const float* pZ, int n, float* dst,
                     uint32_t order, const QelSHEngine* engine) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr || dst == nullptr || engine == nullptr)
        return qelErrNullPointer;
    if (n == 0) return qelErrSize;
    if (order > sh::engineOrder(engine)) return qelErrBadArgument;
    const uint32_t algorithm = sh::engineAlgorithm(engine);
    if (algorithm != qelSHDirect && algorithm != qelSHRecurrence) return qelErrBadArgument;
    // Both evaluations stop at band 15 (for the recurrence this also refuses
    // an order that is negative when read as signed).
    if (order > sh::kMaxOrder) return qelErrBadArgument;
    if (n < 0) return qelOk;
    // A state whose 32-bit block size wrapped around may lack the bands.
    if (algorithm == qelSHRecurrence && !sh::recurrenceTablesCover(engine, order))
        return qelErrBadArgument;
    const sh::BasisEvaluator evaluate(engine, order);
    evaluate(pX, pY, pZ, n, dst);
    return qelOk;
}

QelStatus qelrSHBand_32f(const float* pX, const float* pY, const float* pZ, int n, float* dst,
                         uint32_t band) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr || dst == nullptr) return qelErrNullPointer;
    if (band > sh::kMaxOrder) return qelErrBadArgument;
    if (n == 0) return qelErrSize;
    if (n < 0) return qelOk;
    sh::kBandRunners[band](pX, pY, pZ, n, dst);
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
