// Pieces of the affine warp shared by the volume path and the single-plane
// path: transform screening and inversion, and the per-sample interpolation.
#pragma once

#include <pmmintrin.h>

#include <cstdint>
#include <cstring>

#include "simd/target.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume::warp {

// ---------------------------------------------------------------------------
// Transform

// Whether the forward transform is refused before anything else: a zero
// diagonal, or rows 1 and 2 of the linear part (nearly) proportional.
bool transformDegenerate(const double c[3][4]);

// The inverse transform (adjugate times 1/det, translation carried through).
// Returns false, leaving `inv` unset, when -1e-10 < det < 1e-10.
bool invertTransform(const double c[3][4], double inv[3][4]);

// ---------------------------------------------------------------------------
// Source

// The trimmed source cuboid in inclusive bounds, with the planes and the
// mode's cubic table (null for nearest and linear).
template <class T>
struct SourceView {
    const T* const* planes;
    int rowStep;
    int32_t first[3];  // x, y, z
    int32_t last[3];
    const float* table;
};

template <class T>
inline SourceView<T> sourceViewOf(const T* const* planes, int rowStep, const QelBox3D& box,
                                  int mode) {
    return {planes,
            rowStep,
            {box.x, box.y, box.z},
            {box.x + box.width - 1, box.y + box.height - 1, box.z + box.depth - 1},
            cubicTable(mode)};
}

// Whether (X, Y, Z) lies in the inclusive cuboid (compared in double).
template <class T>
inline bool insideSource(const SourceView<T>& s, double X, double Y, double Z) {
    return X >= s.first[0] && X <= s.last[0] && Y >= s.first[1] && Y <= s.last[1] &&
           Z >= s.first[2] && Z <= s.last[2];
}

// Round to nearest, ties to even (the processor's conversion in the default
// rounding mode). Only positions inside the source reach it.
inline int32_t roundHalfEven(double v) { return _mm_cvtsd_si32(_mm_set_sd(v)); }

// ---------------------------------------------------------------------------
// Nearest

template <class T>
inline T sampleNearest(const SourceView<T>& s, double X, double Y, int32_t z) {
    return rowOfPV(s.planes, s.rowStep, roundHalfEven(Y), z)[roundHalfEven(X)];
}

// ---------------------------------------------------------------------------
// Linear

// Lower index and fraction of a linear pair. An index on the last element of
// the cuboid is lowered by one (fraction 1) so the pair stays inside; on a
// cuboid one element wide at index 0 it stays (fraction 0), the upper tap
// then lies inside the volume, which is at least two elements wide.
struct LinearTap {
    int32_t i;
    float f;
};

inline LinearTap linearTap(double p, int32_t last) {
    int32_t i = static_cast<int32_t>(p);  // p >= 0: truncation is the floor
    if (i == last && i > 0) --i;
    return {i, static_cast<float>(p - i)};
}

inline float lerp(float a, float b, float f) { return a * (1.0f - f) + b * f; }

template <class T>
inline float lerpRow(const T* row, const LinearTap& t) {
    return lerp(static_cast<float>(row[t.i]), static_cast<float>(row[t.i + 1]), t.f);
}

// Bilinear in plane z: x, then y.
template <class T>
inline float sampleLinear2(const SourceView<T>& s, double X, double Y, int32_t z) {
    const LinearTap tx = linearTap(X, s.last[0]);
    const LinearTap ty = linearTap(Y, s.last[1]);
    const float a = lerpRow(rowOfPV(s.planes, s.rowStep, ty.i, z), tx);
    const float b = lerpRow(rowOfPV(s.planes, s.rowStep, ty.i + 1, z), tx);
    return lerp(a, b, ty.f);
}

// Trilinear: x, then y, then z.
template <class T>
inline float sampleLinear3(const SourceView<T>& s, double X, double Y, double Z) {
    const LinearTap tz = linearTap(Z, s.last[2]);
    const float a = sampleLinear2(s, X, Y, tz.i);
    const float b = sampleLinear2(s, X, Y, tz.i + 1);
    return lerp(a, b, tz.f);
}

// ---------------------------------------------------------------------------
// Cubic

// The four taps around trunc(p), clamped into [first, last], and their
// weights from the mode's table: distances |-f - 1|, |-f|, |-f + 1|, |-f + 2|
// capped at 2, scaled by 100 and interpolated between table entries.
struct CubicTaps {
    int32_t idx[4];
    bool contiguous;  // idx[k] = idx[0] + k, no clamping happened
    __m128 w;
};

inline CubicTaps cubicTaps(double p, int32_t first, int32_t last, const float* table) {
    const int32_t i = static_cast<int32_t>(p);
    const float f = static_cast<float>(p - i);
    const __m128 t = _mm_add_ps(_mm_set1_ps(-f), _mm_setr_ps(-1.0f, 0.0f, 1.0f, 2.0f));
    const __m128 d = _mm_andnot_ps(_mm_set1_ps(-0.0f), t);
    const __m128 x = _mm_mul_ps(_mm_min_ps(d, _mm_set1_ps(2.0f)), _mm_set1_ps(100.0f));
    const __m128i k = _mm_cvttps_epi32(x);
    const __m128 r = _mm_sub_ps(x, _mm_cvtepi32_ps(k));
    alignas(16) int32_t kk[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(kk), k);
    const __m128 t0 = _mm_setr_ps(table[kk[0]], table[kk[1]], table[kk[2]], table[kk[3]]);
    const __m128 t1 =
        _mm_setr_ps(table[kk[0] + 1], table[kk[1] + 1], table[kk[2] + 1], table[kk[3] + 1]);
    CubicTaps taps;
    taps.w = _mm_add_ps(t0, _mm_mul_ps(_mm_sub_ps(t1, t0), r));
    taps.contiguous = i - 1 >= first && i + 2 <= last;
    for (int k2 = 0; k2 < 4; ++k2) {
        const int32_t v = i - 1 + k2;
        taps.idx[k2] = v < first ? first : (v > last ? last : v);
    }
    return taps;
}

// The four x taps of one source row as floats.
template <class T>
inline __m128 loadTaps(const T* row, const CubicTaps& tx) {
    if (!tx.contiguous) {
        return _mm_setr_ps(static_cast<float>(row[tx.idx[0]]), static_cast<float>(row[tx.idx[1]]),
                           static_cast<float>(row[tx.idx[2]]), static_cast<float>(row[tx.idx[3]]));
    }
    const T* p = row + tx.idx[0];
    if constexpr (std::is_same_v<T, float>) {
        return _mm_loadu_ps(p);
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        const __m128i v = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(v, _mm_setzero_si128()));
    } else {
        int32_t bytes;
        std::memcpy(&bytes, p, 4);
        const __m128i z = _mm_setzero_si128();
        const __m128i v = _mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), z);
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(v, z));
    }
}

// sum over the y taps of wy[j] * (x taps of row j) in plane z.
template <class T>
inline __m128 cubicColumn(const SourceView<T>& s, const CubicTaps& tx, const float wy[4],
                          const int32_t yIdx[4], int32_t z) {
    __m128 col =
        _mm_mul_ps(loadTaps(rowOfPV(s.planes, s.rowStep, yIdx[0], z), tx), _mm_set1_ps(wy[0]));
    for (int j = 1; j < 4; ++j) {
        const __m128 v = loadTaps(rowOfPV(s.planes, s.rowStep, yIdx[j], z), tx);
        col = _mm_add_ps(col, _mm_mul_ps(v, _mm_set1_ps(wy[j])));
    }
    return col;
}

// (w0 v0 + w1 v1) + (w2 v2 + w3 v3)
inline float dot4(__m128 v, __m128 w) {
    const __m128 p = _mm_mul_ps(v, w);
    const __m128 h = _mm_hadd_ps(p, p);
    return _mm_cvtss_f32(_mm_hadd_ps(h, h));
}

// Separable cubic in plane z: the y taps are summed first, then the x taps.
template <class T>
inline float sampleCubic2(const SourceView<T>& s, double X, double Y, int32_t z) {
    const CubicTaps tx = cubicTaps(X, s.first[0], s.last[0], s.table);
    const CubicTaps ty = cubicTaps(Y, s.first[1], s.last[1], s.table);
    alignas(16) float wy[4];
    _mm_store_ps(wy, ty.w);
    return dot4(cubicColumn(s, tx, wy, ty.idx, z), tx.w);
}

// Separable tricubic: y taps, then z taps, then x taps.
template <class T>
inline float sampleCubic3(const SourceView<T>& s, double X, double Y, double Z) {
    const CubicTaps tx = cubicTaps(X, s.first[0], s.last[0], s.table);
    const CubicTaps ty = cubicTaps(Y, s.first[1], s.last[1], s.table);
    const CubicTaps tz = cubicTaps(Z, s.first[2], s.last[2], s.table);
    alignas(16) float wy[4], wz[4];
    _mm_store_ps(wy, ty.w);
    _mm_store_ps(wz, tz.w);
    __m128 vol = _mm_mul_ps(cubicColumn(s, tx, wy, ty.idx, tz.idx[0]), _mm_set1_ps(wz[0]));
    for (int k = 1; k < 4; ++k) {
        const __m128 col = cubicColumn(s, tx, wy, ty.idx, tz.idx[k]);
        vol = _mm_add_ps(vol, _mm_mul_ps(col, _mm_set1_ps(wz[k])));
    }
    return dot4(vol, tx.w);
}

}  // namespace qelr::QELR_ISA::volume::warp
