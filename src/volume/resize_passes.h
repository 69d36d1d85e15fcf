// The passes of the separable resize: x resampling of one source row into a
// float row, weighted sums of float rows (y and z), and the conversion of the
// final sums to the element type. A vector of destination elements at a time;
// the scalar forms (borders and tails) add in the same order, so every
// element gets the same bits whichever path computes it.
#pragma once

#include <cstdint>

#include "simd/simd.h"
#include "volume/resize_internal.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume::resize {

// ---------------------------------------------------------------------------
// x pass

// The runs of a row: `left` leading and `right` trailing destination elements
// whose taps need clamping; the elements between need none.
struct Runs {
    int32_t left;
    int32_t right;
};

inline int32_t clampTap(int32_t i, int32_t extent) {
    return i < 0 ? 0 : (i >= extent ? extent - 1 : i);
}

// Linear: out[k] = lerp(src[i], src[i + 1], f) with the fraction f of k; an
// index before the row or at its last element takes that end element
// unweighted.
template <class T>
float linearSample(const T* src, int32_t extent, int32_t i, float f) {
    if (i < 0) return static_cast<float>(src[0]);
    if (i > extent - 2) return static_cast<float>(src[extent - 1]);
    return lerp(static_cast<float>(src[i]), static_cast<float>(src[i + 1]), f);
}

template <class T>
void resampleRowLinear(const T* src, int32_t extent, const AxisTable& t, Runs runs, int32_t w,
                       float* out) {
    // Local copies: the stores to `out` could otherwise alias the table.
    const int32_t* const index = t.index;
    const float* const frac = t.weights;
    const int32_t end = w - runs.right;
    int32_t k = 0;
    for (; k < runs.left; ++k) out[k] = linearSample(src, extent, index[k], frac[k]);
    for (; k + kLanes <= end; k += kLanes) {
        const T* p[kLanes];
        for (int l = 0; l < kLanes; ++l) p[l] = src + index[k + l];
        Vf a, b;
        loadPairs(p, a, b);
        simd::storeu(out + k, lerp(a, b, Vf::loadu(frac + k)));
    }
    for (; k < w; ++k) out[k] = linearSample(src, extent, index[k], frac[k]);
}

// Cubic: taps i - 1 .. i + 2, each clamped into the row; summed as
// (w0 a + w1 b) + (w2 c + w3 d).
template <class T>
float cubicSample(const T* src, int32_t extent, int32_t i, const float* w) {
    const float a = static_cast<float>(src[clampTap(i - 1, extent)]);
    const float b = static_cast<float>(src[clampTap(i, extent)]);
    const float c = static_cast<float>(src[clampTap(i + 1, extent)]);
    const float d = static_cast<float>(src[clampTap(i + 2, extent)]);
    return (w[0] * a + w[1] * b) + (w[2] * c + w[3] * d);
}

// The products of the four taps of element k with its weights, one tap per
// lane (on eight lanes: element k in the low half, k + 4 in the high half).
template <class T>
QELR_INLINE Vf tapProducts(const T* src, const int32_t* index, const float* wq, int32_t k) {
#if QELR_SIMD_LANES == 8
    const Vf taps = simd::combine(simd::loadAsFloat<4>(src + index[k] - 1),
                                  simd::loadAsFloat<4>(src + index[k + 4] - 1));
    return taps *
           simd::combine(simd::F32<4>::load(wq + 4 * k), simd::F32<4>::load(wq + 4 * k + 16));
#else
    return simd::loadAsFloat<4>(src + index[k] - 1) * Vf::load(wq + 4 * k);
#endif
}

template <class T>
void resampleRowCubic(const T* src, int32_t extent, const AxisTable& t, Runs runs, int32_t w,
                      float* out) {
    const int32_t* const index = t.index;
    const float* const weights = t.weights;
    const int32_t end = w - runs.right;
    int32_t k = 0;
    for (; k < runs.left; ++k) out[k] = cubicSample(src, extent, index[k], weights + 4 * k);
    for (; k + kLanes <= end; k += kLanes) {
        // Element k + j's products in p[j] (k + j + 4 in the high half): two
        // rounds of pairwise sums give (p0 + p1) + (p2 + p3) per element.
        Vf p[4];
        for (int j = 0; j < 4; ++j) p[j] = tapProducts(src, index, weights, k + j);
        simd::storeu(out + k, simd::pairwiseAdd(simd::pairwiseAdd(p[0], p[1]),
                                                simd::pairwiseAdd(p[2], p[3])));
    }
    for (; k < w; ++k) out[k] = cubicSample(src, extent, index[k], weights + 4 * k);
}

// ---------------------------------------------------------------------------
// Weighted sums of float rows (y and z passes), stored as T. The rows are
// 64-byte aligned.

// Calls step.template operator()<N>(x) over [0, n): native vectors, then (on
// eight lanes) one four-lane vector, then single elements.
template <class Step, class Tail>
QELR_INLINE void forRow(int32_t n, Step&& step, Tail&& tail) {
    int32_t x = 0;
    for (; x + kLanes <= n; x += kLanes) step.template operator()<kLanes>(x);
    if constexpr (kLanes == 8) {
        if (x + 4 <= n) {
            step.template operator()<4>(x);
            x += 4;
        }
    }
    for (; x < n; ++x) tail(x);
}

// out = r0 converted.
template <class T>
void storeRow(const float* r0, int32_t n, T* out) {
    forRow(
        n, [&]<int N>(int32_t x) { storeTruncated(out + x, simd::F32<N>::load(r0 + x)); },
        [&](int32_t x) { out[x] = truncateToElement<T>(r0[x]); });
}

// out = w0 r0 + w1 r1.
template <class T>
void sumRows2(const float* r0, const float* r1, float w0, float w1, int32_t n, T* out) {
    forRow(
        n,
        [&]<int N>(int32_t x) {
            using V = simd::F32<N>;
            storeTruncated(out + x, V(w0) * V::load(r0 + x) + V(w1) * V::load(r1 + x));
        },
        [&](int32_t x) { out[x] = truncateToElement<T>(w0 * r0[x] + w1 * r1[x]); });
}

// out = (w0 r0 + w1 r1) + (w2 r2 + w3 r3).
template <class T>
void sumRows4(const float* const rows[4], const float weights[4], int32_t n, T* out) {
    // Local copies: the stores to `out` could otherwise alias them.
    const float* const r0 = rows[0];
    const float* const r1 = rows[1];
    const float* const r2 = rows[2];
    const float* const r3 = rows[3];
    const float w0 = weights[0], w1 = weights[1], w2 = weights[2], w3 = weights[3];
    forRow(
        n,
        [&]<int N>(int32_t x) {
            using V = simd::F32<N>;
            const V a = V(w0) * V::load(r0 + x) + V(w1) * V::load(r1 + x);
            const V b = V(w2) * V::load(r2 + x) + V(w3) * V::load(r3 + x);
            storeTruncated(out + x, a + b);
        },
        [&](int32_t x) {
            out[x] = truncateToElement<T>((w0 * r0[x] + w1 * r1[x]) + (w2 * r2[x] + w3 * r3[x]));
        });
}

}  // namespace qelr::QELR_ISA::volume::resize
