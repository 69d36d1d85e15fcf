// Evaluation of the real spherical-harmonic basis for packs of directions.
//
// Directions are taken four at a time into SSE registers; the kernels write
// the four directions' coefficients coefficient-major into a scratch block,
// which is then transposed into the caller's direction-major output. The
// remaining one to three directions take the scalar instantiation of the same
// kernel, which performs the same operations and so gives the same bits.
#include "sh/sh_basis.h"

#include <pmmintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "sh/sh_engine.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

namespace {

// Writes `count` coefficients of four directions, held coefficient-major in
// soa (4 floats per coefficient), to dst, dst + stride, dst + 2 stride and
// dst + 3 stride. With Stream, the stores are non-temporal and dst and
// stride must keep every group of four coefficients 16-byte aligned.
template <bool Stream = false>
void transposeOut(const float* soa, int count, float* dst, ptrdiff_t stride) {
    int k = 0;
    for (; k + 4 <= count; k += 4) {
        __m128 r0 = _mm_load_ps(soa + 4 * k);
        __m128 r1 = _mm_load_ps(soa + 4 * k + 4);
        __m128 r2 = _mm_load_ps(soa + 4 * k + 8);
        __m128 r3 = _mm_load_ps(soa + 4 * k + 12);
        _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
        if constexpr (Stream) {
            _mm_stream_ps(dst + k, r0);
            _mm_stream_ps(dst + stride + k, r1);
            _mm_stream_ps(dst + 2 * stride + k, r2);
            _mm_stream_ps(dst + 3 * stride + k, r3);
        } else {
            _mm_storeu_ps(dst + k, r0);
            _mm_storeu_ps(dst + stride + k, r1);
            _mm_storeu_ps(dst + 2 * stride + k, r2);
            _mm_storeu_ps(dst + 3 * stride + k, r3);
        }
    }
    for (; k < count; ++k) {
        for (int j = 0; j < 4; ++j) dst[j * stride + k] = soa[4 * k + j];
    }
}

// Copies len floats with non-temporal stores for the 16-byte aligned part.
void streamCopy(const float* src, float* dst, int len) {
    int k = 0;
    for (; k < len && (reinterpret_cast<uintptr_t>(dst + k) & 15) != 0; ++k) dst[k] = src[k];
    for (; k + 4 <= len; k += 4) _mm_stream_ps(dst + k, _mm_loadu_ps(src + k));
    for (; k < len; ++k) dst[k] = src[k];
}

// Runs kernel(x, y, z, out) over n > 0 directions whose outputs are `count`
// floats apart: packs of four with Float4 components, then single directions
// with float components.
template <class Kernel>
void forEachDirection(const float* pX, const float* pY, const float* pZ, int n, float* dst,
                      int count, Kernel kernel) {
    alignas(16) float soa[4 * kMaxCoeffs];
    alignas(16) float aos[4 * kMaxCoeffs];
    const bool streaming = size_t(n) * size_t(count) * sizeof(float) >= kStreamingBytes;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        kernel(Float4(_mm_loadu_ps(pX + i)), Float4(_mm_loadu_ps(pY + i)),
               Float4(_mm_loadu_ps(pZ + i)), soa);
        float* out = dst + static_cast<ptrdiff_t>(i) * count;
        if (streaming && count % 4 == 0 && core::aligned16(out)) {
            transposeOut<true>(soa, count, out, count);
        } else if (streaming) {
            transposeOut(soa, count, aos, count);
            streamCopy(aos, out, 4 * count);
        } else {
            transposeOut(soa, count, out, count);
        }
    }
    if (streaming) _mm_sfence();
    for (; i < n; ++i) kernel(pX[i], pY[i], pZ[i], dst + static_cast<ptrdiff_t>(i) * count);
}

void runDirect(const float* pX, const float* pY, const float* pZ, int n, float* dst,
               uint32_t order) {
    const int count = static_cast<int>((order + 1) * (order + 1));
    forEachDirection(pX, pY, pZ, n, dst, count, [order](auto x, auto y, auto z, float* out) {
        evalDirect(widen(x), widen(y), widen(z), order, out);
    });
}

void runRecurrence(const float* pX, const float* pY, const float* pZ, int n, float* dst,
                   uint32_t order, const QelSHEngine* engine) {
    const int count = static_cast<int>((order + 1) * (order + 1));
    const float* a = tableA(engine);
    const float* b = tableB(engine);
    // The tables of the bands in use with every entry broadcast to four lanes.
    const uint32_t entries = (order + 1) * (order + 2) / 2;
    alignas(16) float a4[4 * kMaxTableEntries];
    alignas(16) float b4[4 * kMaxTableEntries];
    for (uint32_t k = 0; k < entries; ++k) {
        _mm_store_ps(a4 + 4 * k, _mm_set1_ps(a[k]));
        _mm_store_ps(b4 + 4 * k, _mm_set1_ps(b[k]));
    }
    forEachDirection(pX, pY, pZ, n, dst, count, [&](auto x, auto y, auto z, float* out) {
        if constexpr (kLanes<decltype(x)> == 4) {
            evalRecurrence(x, y, z, order, a4, b4, out);
        } else {
            evalRecurrence(x, y, z, order, a, b, out);
        }
    });
}

template <int Band>
void runBand(const float* pX, const float* pY, const float* pZ, int n, float* dst) {
    forEachDirection(pX, pY, pZ, n, dst, 2 * Band + 1, [](auto x, auto y, auto z, float* out) {
        using V = decltype(widen(x));
        DirectTerms<V> t;
        makeTerms(widen(x), widen(y), widen(z), Band, t);
        directBand<Band>(t, out);
    });
}

using BandRunner = void (*)(const float*, const float*, const float*, int, float*);

constexpr auto kBandRunners = []<int... B>(std::integer_sequence<int, B...>) {
    return std::array<BandRunner, sizeof...(B)>{&runBand<B>...};
}
(std::make_integer_sequence<int, kMaxOrder + 1>{});

}  // namespace

void evaluateOne(float x, float y, float z, uint32_t order, const QelSHEngine* engine, float* out) {
    if (engineAlgorithm(engine) == qelSHDirect) {
        evalDirect(widen(x), widen(y), widen(z), order, out);
    } else {
        evalRecurrence(x, y, z, order, tableA(engine), tableB(engine), out);
    }
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
    if (algorithm == qelSHDirect) {
        sh::runDirect(pX, pY, pZ, n, dst, order);
    } else {
        sh::runRecurrence(pX, pY, pZ, n, dst, order, engine);
    }
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
