// Lane types of the basis kernels.
//
// The basis kernels are templates over a value type V: `double` or `float`
// for one direction, `Double4` or `Float4` for four directions in SSE
// registers. Every operation of the four-lane types is the same IEEE
// operation on each lane as the scalar operation, so a direction gets the
// same bits whichever path evaluates it. A kernel writes coefficient k of its
// directions at out + k * kLanes<V>: straight into the caller's block for one
// direction, into a coefficient-major scratch block for four.
#pragma once

#include <pmmintrin.h>

#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

#define QELR_SH_INLINE inline __attribute__((always_inline))

// Four floats, one per direction.
struct Float4 {
    __m128 v;
    Float4() = default;
    explicit Float4(__m128 a) : v(a) {}
    Float4(float a) : v(_mm_set1_ps(a)) {}  // NOLINT: broadcast, like a scalar constant
};

QELR_SH_INLINE Float4 operator+(Float4 a, Float4 b) { return Float4(_mm_add_ps(a.v, b.v)); }
QELR_SH_INLINE Float4 operator-(Float4 a, Float4 b) { return Float4(_mm_sub_ps(a.v, b.v)); }
QELR_SH_INLINE Float4 operator*(Float4 a, Float4 b) { return Float4(_mm_mul_ps(a.v, b.v)); }

// Four doubles, one per direction: directions 0 and 1 in lo, 2 and 3 in hi.
struct Double4 {
    __m128d lo, hi;
    Double4() = default;
    Double4(__m128d a, __m128d b) : lo(a), hi(b) {}
    Double4(double a) : lo(_mm_set1_pd(a)), hi(lo) {}  // NOLINT: broadcast
};

QELR_SH_INLINE Double4 operator+(const Double4& a, const Double4& b) {
    return {_mm_add_pd(a.lo, b.lo), _mm_add_pd(a.hi, b.hi)};
}
QELR_SH_INLINE Double4 operator-(const Double4& a, const Double4& b) {
    return {_mm_sub_pd(a.lo, b.lo), _mm_sub_pd(a.hi, b.hi)};
}
QELR_SH_INLINE Double4 operator*(const Double4& a, const Double4& b) {
    return {_mm_mul_pd(a.lo, b.lo), _mm_mul_pd(a.hi, b.hi)};
}

template <class V>
inline constexpr int kLanes = 1;
template <>
inline constexpr int kLanes<Float4> = 4;
template <>
inline constexpr int kLanes<Double4> = 4;

// Loads and stores of single-precision lanes.
template <class V>
QELR_SH_INLINE V loadLanes(const float* p);
template <>
QELR_SH_INLINE float loadLanes<float>(const float* p) {
    return *p;
}
template <>
QELR_SH_INLINE Float4 loadLanes<Float4>(const float* p) {
    return Float4(_mm_load_ps(p));
}
QELR_SH_INLINE void storeLanes(float* p, float v) { *p = v; }
QELR_SH_INLINE void storeLanes(float* p, Float4 v) { _mm_store_ps(p, v.v); }

// Widens four single-precision direction components.
QELR_SH_INLINE Double4 widen(Float4 a) {
    return {_mm_cvtps_pd(a.v), _mm_cvtps_pd(_mm_movehl_ps(a.v, a.v))};
}
QELR_SH_INLINE double widen(float a) { return a; }

// Rounds to single precision (to nearest, as a conversion does) and widens.
QELR_SH_INLINE double roundToFloat(double a) { return static_cast<float>(a); }
QELR_SH_INLINE Double4 roundToFloat(const Double4& a) {
    return {_mm_cvtps_pd(_mm_cvtpd_ps(a.lo)), _mm_cvtps_pd(_mm_cvtpd_ps(a.hi))};
}

// Stores a double-precision result rounded to single precision.
QELR_SH_INLINE void storeRounded(float* p, double v) { *p = static_cast<float>(v); }
QELR_SH_INLINE void storeRounded(float* p, const Double4& v) {
    _mm_store_ps(p, _mm_movelh_ps(_mm_cvtpd_ps(v.lo), _mm_cvtpd_ps(v.hi)));
}

// Per-direction terms of the closed forms: z, z^2 rounded to single
// precision, and the sectoral factors c[m] = Re (x + iy)^m and
// s[m] = Im (x + iy)^m for m = 1..order, each formed in double precision and
// rounded to single precision. Index 0 of c and s is not used.
template <class V>
struct DirectTerms {
    V z, z2;
    V c[16], s[16];
};

}  // namespace qelr::QELR_ISA::sh
