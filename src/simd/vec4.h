// Four-lane vectors: four floats, four 32-bit integers, two doubles, each in
// one 128-bit register. They exist on every target; on the AVX2 target they
// carry the four-lane parts of kernels (rows of four rays, tails) with the
// same per-lane results as on SSE3.
//
// Include "simd/simd.h", not this file.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "simd/target.h"

namespace qelr::QELR_ISA::simd {

template <int N>
struct F32;
template <int N>
struct I32;
template <int N>
struct F64;

// ---------------------------------------------------------------------------
// Four floats

template <>
struct F32<4> {
    static constexpr int kLanes = 4;
    __m128 v;
    F32() = default;
    QELR_INLINE explicit F32(__m128 x) : v(x) {}
    QELR_INLINE F32(float x) : v(_mm_set1_ps(x)) {}  // NOLINT: broadcast, reads like a scalar
    QELR_INLINE static F32 zero() { return F32(_mm_setzero_ps()); }
    // 16-byte aligned load; unaligned load.
    QELR_INLINE static F32 load(const float* p) { return F32(_mm_load_ps(p)); }
    QELR_INLINE static F32 loadu(const float* p) { return F32(_mm_loadu_ps(p)); }
    // Lane i holds a[i].
    QELR_INLINE static F32 of(float a0, float a1, float a2, float a3) {
        return F32(_mm_setr_ps(a0, a1, a2, a3));
    }
    // Lane i holds float(i).
    QELR_INLINE static F32 ramp() { return F32(_mm_setr_ps(0.0f, 1.0f, 2.0f, 3.0f)); }
};

QELR_INLINE void store(float* p, F32<4> a) { _mm_store_ps(p, a.v); }
QELR_INLINE void storeu(float* p, F32<4> a) { _mm_storeu_ps(p, a.v); }
// Non-temporal store (16-byte aligned); see streamFence().
QELR_INLINE void stream(float* p, F32<4> a) { _mm_stream_ps(p, a.v); }

QELR_INLINE F32<4> operator+(F32<4> a, F32<4> b) { return F32<4>(_mm_add_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator-(F32<4> a, F32<4> b) { return F32<4>(_mm_sub_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator*(F32<4> a, F32<4> b) { return F32<4>(_mm_mul_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator/(F32<4> a, F32<4> b) { return F32<4>(_mm_div_ps(a.v, b.v)); }
// IEEE min and max as the processor computes them: the second operand is
// returned when either is NaN or both are zero.
QELR_INLINE F32<4> min(F32<4> a, F32<4> b) { return F32<4>(_mm_min_ps(a.v, b.v)); }
QELR_INLINE F32<4> max(F32<4> a, F32<4> b) { return F32<4>(_mm_max_ps(a.v, b.v)); }
QELR_INLINE F32<4> sqrt(F32<4> a) { return F32<4>(_mm_sqrt_ps(a.v)); }
// The processor's approximations (about 12 bits); use the refined forms of
// simd.h unless the approximation itself is wanted.
QELR_INLINE F32<4> reciprocalApprox(F32<4> a) { return F32<4>(_mm_rcp_ps(a.v)); }
QELR_INLINE F32<4> rsqrtApprox(F32<4> a) { return F32<4>(_mm_rsqrt_ps(a.v)); }

// Comparisons give masks: all ones in the lanes where they hold, zero
// elsewhere. Ordered comparisons are false for NaN, != is true.
QELR_INLINE F32<4> operator==(F32<4> a, F32<4> b) { return F32<4>(_mm_cmpeq_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator!=(F32<4> a, F32<4> b) { return F32<4>(_mm_cmpneq_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator<(F32<4> a, F32<4> b) { return F32<4>(_mm_cmplt_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator<=(F32<4> a, F32<4> b) { return F32<4>(_mm_cmple_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator>(F32<4> a, F32<4> b) { return F32<4>(_mm_cmpgt_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator>=(F32<4> a, F32<4> b) { return F32<4>(_mm_cmpge_ps(a.v, b.v)); }

QELR_INLINE F32<4> operator&(F32<4> a, F32<4> b) { return F32<4>(_mm_and_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator|(F32<4> a, F32<4> b) { return F32<4>(_mm_or_ps(a.v, b.v)); }
QELR_INLINE F32<4> operator^(F32<4> a, F32<4> b) { return F32<4>(_mm_xor_ps(a.v, b.v)); }
// b with the bits of a cleared: (~a) & b.
QELR_INLINE F32<4> andNot(F32<4> a, F32<4> b) { return F32<4>(_mm_andnot_ps(a.v, b.v)); }

// Lanes of a where the mask is set, of b elsewhere. The mask must come from
// a comparison (each lane all ones or all zeros).
QELR_INLINE F32<4> select(F32<4> mask, F32<4> a, F32<4> b) {
#if defined(__AVX__)
    return F32<4>(_mm_blendv_ps(b.v, a.v, mask.v));
#else
    return F32<4>(_mm_or_ps(_mm_and_ps(mask.v, a.v), _mm_andnot_ps(mask.v, b.v)));
#endif
}

// Bit i set when lane i's sign bit is set (for masks: when lane i is set).
QELR_INLINE int laneBits(F32<4> mask) { return _mm_movemask_ps(mask.v); }
QELR_INLINE float firstLane(F32<4> a) { return _mm_cvtss_f32(a.v); }
// Every lane holds lane L of a.
template <int L>
QELR_INLINE F32<4> broadcastLane(F32<4> a) {
    return F32<4>(_mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(L, L, L, L)));
}

// (a0 + a1, a2 + a3, b0 + b1, b2 + b3).
QELR_INLINE F32<4> pairwiseAdd(F32<4> a, F32<4> b) { return F32<4>(_mm_hadd_ps(a.v, b.v)); }
// (a0 + a1) + (a2 + a3): the one order in which the library sums four lanes.
QELR_INLINE float sumLanes(F32<4> a) {
    const __m128 h = _mm_hadd_ps(a.v, a.v);
    return _mm_cvtss_f32(_mm_hadd_ps(h, h));
}

// Rows become columns.
QELR_INLINE void transpose(F32<4>& r0, F32<4>& r1, F32<4>& r2, F32<4>& r3) {
    _MM_TRANSPOSE4_PS(r0.v, r1.v, r2.v, r3.v);
}

// (a[0], a[1], b[0], b[1]): two pairs of adjacent floats from two addresses.
QELR_INLINE F32<4> loadTwoPairs(const float* a, const float* b) {
    const __m128 lo = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(a));
    return F32<4>(_mm_loadh_pi(lo, reinterpret_cast<const __m64*>(b)));
}
// From (a0, a1, a2, a3) and (b0, b1, b2, b3): the even lanes (a0, a2, b0, b2)
// and the odd lanes (a1, a3, b1, b3).
QELR_INLINE F32<4> evenLanes(F32<4> a, F32<4> b) {
    return F32<4>(_mm_shuffle_ps(a.v, b.v, _MM_SHUFFLE(2, 0, 2, 0)));
}
QELR_INLINE F32<4> oddLanes(F32<4> a, F32<4> b) {
    return F32<4>(_mm_shuffle_ps(a.v, b.v, _MM_SHUFFLE(3, 1, 3, 1)));
}

// Three consecutive floats at each of four addresses, as three vectors of
// their first, second and third floats: x = (p0[0], p1[0], p2[0], p3[0]),
// y and z likewise. Exactly three floats are read at each address.
QELR_INLINE void loadTriples(const float* p0, const float* p1, const float* p2, const float* p3,
                             F32<4>& x, F32<4>& y, F32<4>& z) {
    const F32<4> a = loadTwoPairs(p0, p1), b = loadTwoPairs(p2, p3);
    x = evenLanes(a, b);
    y = oddLanes(a, b);
    z = F32<4>::of(p0[2], p1[2], p2[2], p3[2]);
}

// ---------------------------------------------------------------------------
// Four 32-bit integers

template <>
struct I32<4> {
    static constexpr int kLanes = 4;
    __m128i v;
    I32() = default;
    QELR_INLINE explicit I32(__m128i x) : v(x) {}
    QELR_INLINE I32(int32_t x) : v(_mm_set1_epi32(x)) {}  // NOLINT: broadcast
    QELR_INLINE static I32 zero() { return I32(_mm_setzero_si128()); }
    QELR_INLINE static I32 load(const int32_t* p) {
        return I32(_mm_load_si128(reinterpret_cast<const __m128i*>(p)));
    }
    QELR_INLINE static I32 loadu(const int32_t* p) {
        return I32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    }
    QELR_INLINE static I32 of(int32_t a0, int32_t a1, int32_t a2, int32_t a3) {
        return I32(_mm_setr_epi32(a0, a1, a2, a3));
    }
    QELR_INLINE static I32 ramp() { return I32(_mm_setr_epi32(0, 1, 2, 3)); }
};

QELR_INLINE void store(int32_t* p, I32<4> a) {
    _mm_store_si128(reinterpret_cast<__m128i*>(p), a.v);
}
QELR_INLINE void storeu(int32_t* p, I32<4> a) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.v);
}

// Wrap-around arithmetic, as 32-bit two's complement.
QELR_INLINE I32<4> operator+(I32<4> a, I32<4> b) { return I32<4>(_mm_add_epi32(a.v, b.v)); }
QELR_INLINE I32<4> operator-(I32<4> a, I32<4> b) { return I32<4>(_mm_sub_epi32(a.v, b.v)); }
// The low 32 bits of the product.
QELR_INLINE I32<4> mulWrap(I32<4> a, I32<4> b) {
#if defined(__SSE4_1__)
    return I32<4>(_mm_mullo_epi32(a.v, b.v));
#else
    const __m128i even = _mm_mul_epu32(a.v, b.v);
    const __m128i odd = _mm_mul_epu32(_mm_srli_epi64(a.v, 32), _mm_srli_epi64(b.v, 32));
    return I32<4>(_mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0)),
                                     _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0))));
#endif
}
QELR_INLINE I32<4> operator&(I32<4> a, I32<4> b) { return I32<4>(_mm_and_si128(a.v, b.v)); }
QELR_INLINE I32<4> operator|(I32<4> a, I32<4> b) { return I32<4>(_mm_or_si128(a.v, b.v)); }
QELR_INLINE I32<4> operator^(I32<4> a, I32<4> b) { return I32<4>(_mm_xor_si128(a.v, b.v)); }
QELR_INLINE I32<4> andNot(I32<4> a, I32<4> b) { return I32<4>(_mm_andnot_si128(a.v, b.v)); }
template <int S>
QELR_INLINE I32<4> shiftLeft(I32<4> a) {
    return I32<4>(_mm_slli_epi32(a.v, S));
}
template <int S>
QELR_INLINE I32<4> shiftRightLogical(I32<4> a) {
    return I32<4>(_mm_srli_epi32(a.v, S));
}
template <int S>
QELR_INLINE I32<4> shiftRightArith(I32<4> a) {
    return I32<4>(_mm_srai_epi32(a.v, S));
}

QELR_INLINE I32<4> operator==(I32<4> a, I32<4> b) { return I32<4>(_mm_cmpeq_epi32(a.v, b.v)); }
QELR_INLINE I32<4> operator>(I32<4> a, I32<4> b) { return I32<4>(_mm_cmpgt_epi32(a.v, b.v)); }
QELR_INLINE I32<4> operator<(I32<4> a, I32<4> b) { return I32<4>(_mm_cmplt_epi32(a.v, b.v)); }

QELR_INLINE I32<4> select(I32<4> mask, I32<4> a, I32<4> b) {
#if defined(__AVX__)
    return I32<4>(_mm_blendv_epi8(b.v, a.v, mask.v));
#else
    return I32<4>(_mm_or_si128(_mm_and_si128(mask.v, a.v), _mm_andnot_si128(mask.v, b.v)));
#endif
}
QELR_INLINE I32<4> min(I32<4> a, I32<4> b) {
#if defined(__SSE4_1__)
    return I32<4>(_mm_min_epi32(a.v, b.v));
#else
    return select(a > b, b, a);
#endif
}
QELR_INLINE I32<4> max(I32<4> a, I32<4> b) {
#if defined(__SSE4_1__)
    return I32<4>(_mm_max_epi32(a.v, b.v));
#else
    return select(a > b, a, b);
#endif
}
QELR_INLINE int laneBits(I32<4> mask) { return _mm_movemask_ps(_mm_castsi128_ps(mask.v)); }
QELR_INLINE int32_t firstLane(I32<4> a) { return _mm_cvtsi128_si32(a.v); }

// Operations on the eight signed 16-bit halves of four 32-bit lanes (half 2i
// is the low half of lane i).
//
// Halves 0-3 (zipLow16) or 4-7 (zipHigh16) of a and b interleaved: lane i
// holds half i (or 4 + i) of a in its low half and that of b in its high half.
QELR_INLINE I32<4> zipLow16(I32<4> a, I32<4> b) { return I32<4>(_mm_unpacklo_epi16(a.v, b.v)); }
QELR_INLINE I32<4> zipHigh16(I32<4> a, I32<4> b) { return I32<4>(_mm_unpackhi_epi16(a.v, b.v)); }
// Per half, the low 16 bits of the product.
QELR_INLINE I32<4> mulLow16(I32<4> a, I32<4> b) { return I32<4>(_mm_mullo_epi16(a.v, b.v)); }
// Per lane, the products of the two pairs of halves added: a.lo * b.lo +
// a.hi * b.hi, the products exact and the sum wrapping in 32 bits.
QELR_INLINE I32<4> mulAddPairs16(I32<4> a, I32<4> b) { return I32<4>(_mm_madd_epi16(a.v, b.v)); }

// ---------------------------------------------------------------------------
// Two doubles

template <>
struct F64<2> {
    static constexpr int kLanes = 2;
    __m128d v;
    F64() = default;
    QELR_INLINE explicit F64(__m128d x) : v(x) {}
    QELR_INLINE F64(double x) : v(_mm_set1_pd(x)) {}  // NOLINT: broadcast
    QELR_INLINE static F64 zero() { return F64(_mm_setzero_pd()); }
    QELR_INLINE static F64 load(const double* p) { return F64(_mm_load_pd(p)); }
    QELR_INLINE static F64 loadu(const double* p) { return F64(_mm_loadu_pd(p)); }
    QELR_INLINE static F64 of(double a0, double a1) { return F64(_mm_setr_pd(a0, a1)); }
};

QELR_INLINE void store(double* p, F64<2> a) { _mm_store_pd(p, a.v); }
QELR_INLINE void storeu(double* p, F64<2> a) { _mm_storeu_pd(p, a.v); }
QELR_INLINE F64<2> operator+(F64<2> a, F64<2> b) { return F64<2>(_mm_add_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator-(F64<2> a, F64<2> b) { return F64<2>(_mm_sub_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator*(F64<2> a, F64<2> b) { return F64<2>(_mm_mul_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator/(F64<2> a, F64<2> b) { return F64<2>(_mm_div_pd(a.v, b.v)); }
QELR_INLINE F64<2> min(F64<2> a, F64<2> b) { return F64<2>(_mm_min_pd(a.v, b.v)); }
QELR_INLINE F64<2> max(F64<2> a, F64<2> b) { return F64<2>(_mm_max_pd(a.v, b.v)); }
QELR_INLINE F64<2> sqrt(F64<2> a) { return F64<2>(_mm_sqrt_pd(a.v)); }
QELR_INLINE F64<2> operator==(F64<2> a, F64<2> b) { return F64<2>(_mm_cmpeq_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator!=(F64<2> a, F64<2> b) { return F64<2>(_mm_cmpneq_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator<(F64<2> a, F64<2> b) { return F64<2>(_mm_cmplt_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator<=(F64<2> a, F64<2> b) { return F64<2>(_mm_cmple_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator>(F64<2> a, F64<2> b) { return F64<2>(_mm_cmpgt_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator>=(F64<2> a, F64<2> b) { return F64<2>(_mm_cmpge_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator&(F64<2> a, F64<2> b) { return F64<2>(_mm_and_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator|(F64<2> a, F64<2> b) { return F64<2>(_mm_or_pd(a.v, b.v)); }
QELR_INLINE F64<2> operator^(F64<2> a, F64<2> b) { return F64<2>(_mm_xor_pd(a.v, b.v)); }
QELR_INLINE F64<2> andNot(F64<2> a, F64<2> b) { return F64<2>(_mm_andnot_pd(a.v, b.v)); }
QELR_INLINE F64<2> select(F64<2> mask, F64<2> a, F64<2> b) {
#if defined(__AVX__)
    return F64<2>(_mm_blendv_pd(b.v, a.v, mask.v));
#else
    return F64<2>(_mm_or_pd(_mm_and_pd(mask.v, a.v), _mm_andnot_pd(mask.v, b.v)));
#endif
}
QELR_INLINE int laneBits(F64<2> mask) { return _mm_movemask_pd(mask.v); }
QELR_INLINE double firstLane(F64<2> a) { return _mm_cvtsd_f64(a.v); }

// ---------------------------------------------------------------------------
// Conversions between the four-lane types

QELR_INLINE F32<4> toFloat(I32<4> a) { return F32<4>(_mm_cvtepi32_ps(a.v)); }
// Toward zero; out of range and NaN give INT32_MIN, as the processor does.
QELR_INLINE I32<4> truncToInt(F32<4> a) { return I32<4>(_mm_cvttps_epi32(a.v)); }
// To nearest in the current rounding mode (ties to even by default); out of
// range and NaN give INT32_MIN.
QELR_INLINE I32<4> roundToInt(F32<4> a) { return I32<4>(_mm_cvtps_epi32(a.v)); }
QELR_INLINE I32<4> asInt(F32<4> a) { return I32<4>(_mm_castps_si128(a.v)); }
QELR_INLINE F32<4> asFloat(I32<4> a) { return F32<4>(_mm_castsi128_ps(a.v)); }
// Lanes 0 and 1 widened; the two lanes rounded to float in lanes 0 and 1
// (lanes 2 and 3 zero).
QELR_INLINE F64<2> widenLow(F32<4> a) { return F64<2>(_mm_cvtps_pd(a.v)); }
QELR_INLINE F64<2> widenHigh(F32<4> a) { return F64<2>(_mm_cvtps_pd(_mm_movehl_ps(a.v, a.v))); }
QELR_INLINE F32<4> narrowLow(F64<2> a) { return F32<4>(_mm_cvtpd_ps(a.v)); }

}  // namespace qelr::QELR_ISA::simd
