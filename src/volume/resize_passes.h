// The passes of the separable resize: x resampling of one source row into a
// float row, weighted sums of float rows (y and z), and the conversion of the
// final sums to the element type. Four destination elements at a time with
// SSE; the scalar forms add in the same order, so both give the same bits.
#pragma once

#include <pmmintrin.h>

#include <cstdint>
#include <cstring>

#include "simd/target.h"
#include "volume/resize_internal.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume::resize {

// ---------------------------------------------------------------------------
// Loads of source elements as floats

inline __m128 widenLowU8(__m128i v) {
    const __m128i zero = _mm_setzero_si128();
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(v, zero), zero));
}

inline __m128 widenLowU16(__m128i v) {
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(v, _mm_setzero_si128()));
}

// p[0..3].
template <class T>
__m128 loadFour(const T* p);

template <>
inline __m128 loadFour(const uint8_t* p) {
    int32_t v;
    std::memcpy(&v, p, 4);
    return widenLowU8(_mm_cvtsi32_si128(v));
}

template <>
inline __m128 loadFour(const uint16_t* p) {
    return widenLowU16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

template <>
inline __m128 loadFour(const float* p) {
    return _mm_loadu_ps(p);
}

// p[0], p[1], q[0], q[1].
template <class T>
__m128 loadTwoPairs(const T* p, const T* q);

template <>
inline __m128 loadTwoPairs(const uint8_t* p, const uint8_t* q) {
    uint16_t a, b;
    std::memcpy(&a, p, 2);
    std::memcpy(&b, q, 2);
    return widenLowU8(_mm_cvtsi32_si128(static_cast<int32_t>(a | (uint32_t{b} << 16))));
}

template <>
inline __m128 loadTwoPairs(const uint16_t* p, const uint16_t* q) {
    int32_t a, b;
    std::memcpy(&a, p, 4);
    std::memcpy(&b, q, 4);
    return widenLowU16(_mm_unpacklo_epi32(_mm_cvtsi32_si128(a), _mm_cvtsi32_si128(b)));
}

template <>
inline __m128 loadTwoPairs(const float* p, const float* q) {
    int64_t a, b;  // element pairs need not be 8-byte aligned
    std::memcpy(&a, p, 8);
    std::memcpy(&b, q, 8);
    return _mm_castsi128_ps(_mm_set_epi64x(b, a));
}

// ---------------------------------------------------------------------------
// Stores with the resize conversion (+0.5000001, truncate, saturate)

template <class T>
void storeFour(T* p, __m128 v);

template <>
inline void storeFour(float* p, __m128 v) {
    _mm_storeu_ps(p, v);
}

template <>
inline void storeFour(uint8_t* p, __m128 v) {
    // max(s, 0) takes 0 for NaN, as the scalar rule does.
    const __m128 s = _mm_min_ps(
        _mm_max_ps(_mm_add_ps(v, _mm_set1_ps(0.5000001f)), _mm_setzero_ps()), _mm_set1_ps(255.0f));
    const __m128i i = _mm_cvttps_epi32(s);
    const __m128i b = _mm_packus_epi16(_mm_packs_epi32(i, i), _mm_setzero_si128());
    const int32_t bytes = _mm_cvtsi128_si32(b);
    std::memcpy(p, &bytes, 4);
}

template <>
inline void storeFour(uint16_t* p, __m128 v) {
    const __m128 s =
        _mm_min_ps(_mm_max_ps(_mm_add_ps(v, _mm_set1_ps(0.5000001f)), _mm_setzero_ps()),
                   _mm_set1_ps(65535.0f));
    // Signed saturation packs [0, 65535] shifted down by 32768 unchanged.
    const __m128i bias = _mm_set1_epi32(32768);
    const __m128i i = _mm_sub_epi32(_mm_cvttps_epi32(s), bias);
    const __m128i w = _mm_xor_si128(_mm_packs_epi32(i, i), _mm_set1_epi16(-32768));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), w);
}

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

// Linear: out[k] = w0 * src[i] + w1 * src[i + 1] with the pair (w0, w1) of k;
// an index before the row or at its last element takes that end element
// unweighted.
template <class T>
float linearSample(const T* src, int32_t extent, int32_t i, const float* pair) {
    if (i < 0) return static_cast<float>(src[0]);
    if (i > extent - 2) return static_cast<float>(src[extent - 1]);
    return pair[0] * static_cast<float>(src[i]) + pair[1] * static_cast<float>(src[i + 1]);
}

template <class T>
void resampleRowLinear(const T* src, int32_t extent, const AxisTable& t, Runs runs, int32_t w,
                       float* out) {
    // Local copies: the stores to `out` could otherwise alias the table.
    const int32_t* const index = t.index;
    const float* const weights = t.weights;
    const int32_t end = w - runs.right;
    int32_t k = 0;
    for (; k < runs.left; ++k) out[k] = linearSample(src, extent, index[k], weights + 2 * k);
    for (; k + 4 <= end; k += 4) {
        const int32_t* i = index + k;
        const float* pairs = weights + 2 * k;
        const __m128 v01 = _mm_mul_ps(loadTwoPairs(src + i[0], src + i[1]), _mm_loadu_ps(pairs));
        const __m128 v23 =
            _mm_mul_ps(loadTwoPairs(src + i[2], src + i[3]), _mm_loadu_ps(pairs + 4));
        _mm_storeu_ps(out + k, _mm_hadd_ps(v01, v23));
    }
    for (; k < w; ++k) out[k] = linearSample(src, extent, index[k], weights + 2 * k);
}

// Cubic: taps i - 1 .. i + 2, each clamped into the row; summed as
// (w0 a + w1 b) + (w2 c + w3 d), the order of the vector pass.
template <class T>
float cubicSample(const T* src, int32_t extent, int32_t i, const float* w) {
    const float a = static_cast<float>(src[clampTap(i - 1, extent)]);
    const float b = static_cast<float>(src[clampTap(i, extent)]);
    const float c = static_cast<float>(src[clampTap(i + 1, extent)]);
    const float d = static_cast<float>(src[clampTap(i + 2, extent)]);
    return (w[0] * a + w[1] * b) + (w[2] * c + w[3] * d);
}

template <class T>
void resampleRowCubic(const T* src, int32_t extent, const AxisTable& t, Runs runs, int32_t w,
                      float* out) {
    const int32_t* const index = t.index;
    const float* const weights = t.weights;
    const int32_t end = w - runs.right;
    int32_t k = 0;
    for (; k < runs.left; ++k) out[k] = cubicSample(src, extent, index[k], weights + 4 * k);
    for (; k + 4 <= end; k += 4) {
        const int32_t* i = index + k;
        const float* wq = weights + 4 * k;
        const __m128 p0 = _mm_mul_ps(loadFour(src + i[0] - 1), _mm_load_ps(wq));
        const __m128 p1 = _mm_mul_ps(loadFour(src + i[1] - 1), _mm_load_ps(wq + 4));
        const __m128 p2 = _mm_mul_ps(loadFour(src + i[2] - 1), _mm_load_ps(wq + 8));
        const __m128 p3 = _mm_mul_ps(loadFour(src + i[3] - 1), _mm_load_ps(wq + 12));
        _mm_storeu_ps(out + k, _mm_hadd_ps(_mm_hadd_ps(p0, p1), _mm_hadd_ps(p2, p3)));
    }
    for (; k < w; ++k) out[k] = cubicSample(src, extent, index[k], weights + 4 * k);
}

// ---------------------------------------------------------------------------
// Weighted sums of float rows (y and z passes), stored as T

// out = r0 converted.
template <class T>
void storeRow(const float* r0, int32_t n, T* out) {
    int32_t x = 0;
    for (; x + 4 <= n; x += 4) storeFour(out + x, _mm_load_ps(r0 + x));
    for (; x < n; ++x) out[x] = truncateToElement<T>(r0[x]);
}

// out = w0 r0 + w1 r1.
template <class T>
void sumRows2(const float* r0, const float* r1, float w0, float w1, int32_t n, T* out) {
    const __m128 v0 = _mm_set1_ps(w0), v1 = _mm_set1_ps(w1);
    int32_t x = 0;
    for (; x + 4 <= n; x += 4) {
        const __m128 s =
            _mm_add_ps(_mm_mul_ps(v0, _mm_load_ps(r0 + x)), _mm_mul_ps(v1, _mm_load_ps(r1 + x)));
        storeFour(out + x, s);
    }
    for (; x < n; ++x) out[x] = truncateToElement<T>(w0 * r0[x] + w1 * r1[x]);
}

// out = (w0 r0 + w1 r1) + (w2 r2 + w3 r3).
template <class T>
void sumRows4(const float* const r[4], const float w[4], int32_t n, T* out) {
    const __m128 v0 = _mm_set1_ps(w[0]), v1 = _mm_set1_ps(w[1]);
    const __m128 v2 = _mm_set1_ps(w[2]), v3 = _mm_set1_ps(w[3]);
    int32_t x = 0;
    for (; x + 4 <= n; x += 4) {
        const __m128 a = _mm_add_ps(_mm_mul_ps(v0, _mm_load_ps(r[0] + x)),
                                    _mm_mul_ps(v1, _mm_load_ps(r[1] + x)));
        const __m128 b = _mm_add_ps(_mm_mul_ps(v2, _mm_load_ps(r[2] + x)),
                                    _mm_mul_ps(v3, _mm_load_ps(r[3] + x)));
        storeFour(out + x, _mm_add_ps(a, b));
    }
    for (; x < n; ++x) {
        out[x] = truncateToElement<T>((w[0] * r[0][x] + w[1] * r[1][x]) +
                                      (w[2] * r[2][x] + w[3] * r[3][x]));
    }
}

}  // namespace qelr::QELR_ISA::volume::resize
