// Eight-lane vectors of the AVX2 target: eight floats, eight 32-bit integers
// and four doubles, each in one 256-bit register. Every operation is the same
// IEEE or integer operation per lane as its four-lane counterpart, so a lane
// gets the same bits whichever width computes it.
//
// Include "simd/simd.h", not this file.
#pragma once

#include "simd/vec4.h"

#if QELR_SIMD_LANES == 8

namespace qelr::QELR_ISA::simd {

// ---------------------------------------------------------------------------
// Eight floats

template <>
struct F32<8> {
    static constexpr int kLanes = 8;
    __m256 v;
    F32() = default;
    QELR_INLINE explicit F32(__m256 x) : v(x) {}
    QELR_INLINE F32(float x) : v(_mm256_set1_ps(x)) {}  // NOLINT: broadcast
    QELR_INLINE static F32 zero() { return F32(_mm256_setzero_ps()); }
    // 32-byte aligned load; unaligned load.
    QELR_INLINE static F32 load(const float* p) { return F32(_mm256_load_ps(p)); }
    QELR_INLINE static F32 loadu(const float* p) { return F32(_mm256_loadu_ps(p)); }
    QELR_INLINE static F32 ramp() {
        return F32(_mm256_setr_ps(0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f));
    }
};

QELR_INLINE void store(float* p, F32<8> a) { _mm256_store_ps(p, a.v); }
QELR_INLINE void storeu(float* p, F32<8> a) { _mm256_storeu_ps(p, a.v); }
// Non-temporal store (32-byte aligned).
QELR_INLINE void stream(float* p, F32<8> a) { _mm256_stream_ps(p, a.v); }

QELR_INLINE F32<8> operator+(F32<8> a, F32<8> b) { return F32<8>(_mm256_add_ps(a.v, b.v)); }
QELR_INLINE F32<8> operator-(F32<8> a, F32<8> b) { return F32<8>(_mm256_sub_ps(a.v, b.v)); }
QELR_INLINE F32<8> operator*(F32<8> a, F32<8> b) { return F32<8>(_mm256_mul_ps(a.v, b.v)); }
QELR_INLINE F32<8> operator/(F32<8> a, F32<8> b) { return F32<8>(_mm256_div_ps(a.v, b.v)); }
QELR_INLINE F32<8> min(F32<8> a, F32<8> b) { return F32<8>(_mm256_min_ps(a.v, b.v)); }
QELR_INLINE F32<8> max(F32<8> a, F32<8> b) { return F32<8>(_mm256_max_ps(a.v, b.v)); }
QELR_INLINE F32<8> sqrt(F32<8> a) { return F32<8>(_mm256_sqrt_ps(a.v)); }
QELR_INLINE F32<8> reciprocalApprox(F32<8> a) { return F32<8>(_mm256_rcp_ps(a.v)); }
QELR_INLINE F32<8> rsqrtApprox(F32<8> a) { return F32<8>(_mm256_rsqrt_ps(a.v)); }

QELR_INLINE F32<8> operator==(F32<8> a, F32<8> b) {
    return F32<8>(_mm256_cmp_ps(a.v, b.v, _CMP_EQ_OQ));
}
QELR_INLINE F32<8> operator!=(F32<8> a, F32<8> b) {
    return F32<8>(_mm256_cmp_ps(a.v, b.v, _CMP_NEQ_UQ));
}
QELR_INLINE F32<8> operator<(F32<8> a, F32<8> b) {
    return F32<8>(_mm256_cmp_ps(a.v, b.v, _CMP_LT_OS));
}
QELR_INLINE F32<8> operator<=(F32<8> a, F32<8> b) {
    return F32<8>(_mm256_cmp_ps(a.v, b.v, _CMP_LE_OS));
}
QELR_INLINE F32<8> operator>(F32<8> a, F32<8> b) {
    return F32<8>(_mm256_cmp_ps(a.v, b.v, _CMP_GT_OS));
}
QELR_INLINE F32<8> operator>=(F32<8> a, F32<8> b) {
    return F32<8>(_mm256_cmp_ps(a.v, b.v, _CMP_GE_OS));
}

QELR_INLINE F32<8> operator&(F32<8> a, F32<8> b) { return F32<8>(_mm256_and_ps(a.v, b.v)); }
QELR_INLINE F32<8> operator|(F32<8> a, F32<8> b) { return F32<8>(_mm256_or_ps(a.v, b.v)); }
QELR_INLINE F32<8> operator^(F32<8> a, F32<8> b) { return F32<8>(_mm256_xor_ps(a.v, b.v)); }
QELR_INLINE F32<8> andNot(F32<8> a, F32<8> b) { return F32<8>(_mm256_andnot_ps(a.v, b.v)); }
QELR_INLINE F32<8> select(F32<8> mask, F32<8> a, F32<8> b) {
    return F32<8>(_mm256_blendv_ps(b.v, a.v, mask.v));
}
QELR_INLINE int laneBits(F32<8> mask) { return _mm256_movemask_ps(mask.v); }
QELR_INLINE float firstLane(F32<8> a) { return _mm256_cvtss_f32(a.v); }

// Each half as the four-lane pairwiseAdd of the halves of a and b:
// (a0 + a1, a2 + a3, b0 + b1, b2 + b3, a4 + a5, a6 + a7, b4 + b5, b6 + b7).
QELR_INLINE F32<8> pairwiseAdd(F32<8> a, F32<8> b) { return F32<8>(_mm256_hadd_ps(a.v, b.v)); }

// Rows of two 4 x 4 blocks (lanes 0-3 and 4-7): each block transposed, as the
// four-lane transpose does, so lane 4h + j of row i and lane 4h + i of row j
// change places.
QELR_INLINE void transpose(F32<8>& r0, F32<8>& r1, F32<8>& r2, F32<8>& r3) {
    const __m256 t0 = _mm256_shuffle_ps(r0.v, r1.v, 0x44), t2 = _mm256_shuffle_ps(r0.v, r1.v, 0xEE);
    const __m256 t1 = _mm256_shuffle_ps(r2.v, r3.v, 0x44), t3 = _mm256_shuffle_ps(r2.v, r3.v, 0xEE);
    r0 = F32<8>(_mm256_shuffle_ps(t0, t1, 0x88));
    r1 = F32<8>(_mm256_shuffle_ps(t0, t1, 0xDD));
    r2 = F32<8>(_mm256_shuffle_ps(t2, t3, 0x88));
    r3 = F32<8>(_mm256_shuffle_ps(t2, t3, 0xDD));
}

// The four-lane halves, and eight lanes made of two halves.
QELR_INLINE F32<4> lowHalf(F32<8> a) { return F32<4>(_mm256_castps256_ps128(a.v)); }
QELR_INLINE F32<4> highHalf(F32<8> a) { return F32<4>(_mm256_extractf128_ps(a.v, 1)); }
QELR_INLINE F32<8> combine(F32<4> lo, F32<4> hi) {
    return F32<8>(_mm256_insertf128_ps(_mm256_castps128_ps256(lo.v), hi.v, 1));
}

// ---------------------------------------------------------------------------
// Eight 32-bit integers

template <>
struct I32<8> {
    static constexpr int kLanes = 8;
    __m256i v;
    I32() = default;
    QELR_INLINE explicit I32(__m256i x) : v(x) {}
    QELR_INLINE I32(int32_t x) : v(_mm256_set1_epi32(x)) {}  // NOLINT: broadcast
    QELR_INLINE static I32 zero() { return I32(_mm256_setzero_si256()); }
    QELR_INLINE static I32 load(const int32_t* p) {
        return I32(_mm256_load_si256(reinterpret_cast<const __m256i*>(p)));
    }
    QELR_INLINE static I32 loadu(const int32_t* p) {
        return I32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
    }
    QELR_INLINE static I32 ramp() { return I32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }
};

QELR_INLINE void store(int32_t* p, I32<8> a) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(p), a.v);
}
QELR_INLINE void storeu(int32_t* p, I32<8> a) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a.v);
}
QELR_INLINE I32<8> operator+(I32<8> a, I32<8> b) { return I32<8>(_mm256_add_epi32(a.v, b.v)); }
QELR_INLINE I32<8> operator-(I32<8> a, I32<8> b) { return I32<8>(_mm256_sub_epi32(a.v, b.v)); }
QELR_INLINE I32<8> mulWrap(I32<8> a, I32<8> b) { return I32<8>(_mm256_mullo_epi32(a.v, b.v)); }
QELR_INLINE I32<8> operator&(I32<8> a, I32<8> b) { return I32<8>(_mm256_and_si256(a.v, b.v)); }
QELR_INLINE I32<8> operator|(I32<8> a, I32<8> b) { return I32<8>(_mm256_or_si256(a.v, b.v)); }
QELR_INLINE I32<8> operator^(I32<8> a, I32<8> b) { return I32<8>(_mm256_xor_si256(a.v, b.v)); }
QELR_INLINE I32<8> andNot(I32<8> a, I32<8> b) { return I32<8>(_mm256_andnot_si256(a.v, b.v)); }
template <int S>
QELR_INLINE I32<8> shiftLeft(I32<8> a) {
    return I32<8>(_mm256_slli_epi32(a.v, S));
}
template <int S>
QELR_INLINE I32<8> shiftRightLogical(I32<8> a) {
    return I32<8>(_mm256_srli_epi32(a.v, S));
}
template <int S>
QELR_INLINE I32<8> shiftRightArith(I32<8> a) {
    return I32<8>(_mm256_srai_epi32(a.v, S));
}
QELR_INLINE I32<8> operator==(I32<8> a, I32<8> b) { return I32<8>(_mm256_cmpeq_epi32(a.v, b.v)); }
QELR_INLINE I32<8> operator>(I32<8> a, I32<8> b) { return I32<8>(_mm256_cmpgt_epi32(a.v, b.v)); }
QELR_INLINE I32<8> operator<(I32<8> a, I32<8> b) { return I32<8>(_mm256_cmpgt_epi32(b.v, a.v)); }
QELR_INLINE I32<8> select(I32<8> mask, I32<8> a, I32<8> b) {
    return I32<8>(_mm256_blendv_epi8(b.v, a.v, mask.v));
}
QELR_INLINE I32<8> min(I32<8> a, I32<8> b) { return I32<8>(_mm256_min_epi32(a.v, b.v)); }
QELR_INLINE I32<8> max(I32<8> a, I32<8> b) { return I32<8>(_mm256_max_epi32(a.v, b.v)); }
QELR_INLINE int laneBits(I32<8> mask) { return _mm256_movemask_ps(_mm256_castsi256_ps(mask.v)); }
QELR_INLINE I32<8> mulLow16(I32<8> a, I32<8> b) { return I32<8>(_mm256_mullo_epi16(a.v, b.v)); }
QELR_INLINE I32<8> mulAddPairs16(I32<8> a, I32<8> b) {
    return I32<8>(_mm256_madd_epi16(a.v, b.v));
}
QELR_INLINE int32_t firstLane(I32<8> a) { return _mm256_cvtsi256_si32(a.v); }
QELR_INLINE I32<4> lowHalf(I32<8> a) { return I32<4>(_mm256_castsi256_si128(a.v)); }
QELR_INLINE I32<4> highHalf(I32<8> a) { return I32<4>(_mm256_extracti128_si256(a.v, 1)); }
QELR_INLINE I32<8> combine(I32<4> lo, I32<4> hi) {
    return I32<8>(_mm256_inserti128_si256(_mm256_castsi128_si256(lo.v), hi.v, 1));
}

// ---------------------------------------------------------------------------
// Four doubles

template <>
struct F64<4> {
    static constexpr int kLanes = 4;
    __m256d v;
    F64() = default;
    QELR_INLINE explicit F64(__m256d x) : v(x) {}
    QELR_INLINE F64(double x) : v(_mm256_set1_pd(x)) {}  // NOLINT: broadcast
    QELR_INLINE static F64 zero() { return F64(_mm256_setzero_pd()); }
    QELR_INLINE static F64 load(const double* p) { return F64(_mm256_load_pd(p)); }
    QELR_INLINE static F64 loadu(const double* p) { return F64(_mm256_loadu_pd(p)); }
    QELR_INLINE static F64 of(double a0, double a1, double a2, double a3) {
        return F64(_mm256_setr_pd(a0, a1, a2, a3));
    }
};

QELR_INLINE void store(double* p, F64<4> a) { _mm256_store_pd(p, a.v); }
QELR_INLINE void storeu(double* p, F64<4> a) { _mm256_storeu_pd(p, a.v); }
QELR_INLINE F64<4> operator+(F64<4> a, F64<4> b) { return F64<4>(_mm256_add_pd(a.v, b.v)); }
QELR_INLINE F64<4> operator-(F64<4> a, F64<4> b) { return F64<4>(_mm256_sub_pd(a.v, b.v)); }
QELR_INLINE F64<4> operator*(F64<4> a, F64<4> b) { return F64<4>(_mm256_mul_pd(a.v, b.v)); }
QELR_INLINE F64<4> operator/(F64<4> a, F64<4> b) { return F64<4>(_mm256_div_pd(a.v, b.v)); }
QELR_INLINE F64<4> min(F64<4> a, F64<4> b) { return F64<4>(_mm256_min_pd(a.v, b.v)); }
QELR_INLINE F64<4> max(F64<4> a, F64<4> b) { return F64<4>(_mm256_max_pd(a.v, b.v)); }
QELR_INLINE F64<4> sqrt(F64<4> a) { return F64<4>(_mm256_sqrt_pd(a.v)); }
QELR_INLINE F64<4> operator==(F64<4> a, F64<4> b) {
    return F64<4>(_mm256_cmp_pd(a.v, b.v, _CMP_EQ_OQ));
}
QELR_INLINE F64<4> operator!=(F64<4> a, F64<4> b) {
    return F64<4>(_mm256_cmp_pd(a.v, b.v, _CMP_NEQ_UQ));
}
QELR_INLINE F64<4> operator<(F64<4> a, F64<4> b) {
    return F64<4>(_mm256_cmp_pd(a.v, b.v, _CMP_LT_OS));
}
QELR_INLINE F64<4> operator<=(F64<4> a, F64<4> b) {
    return F64<4>(_mm256_cmp_pd(a.v, b.v, _CMP_LE_OS));
}
QELR_INLINE F64<4> operator>(F64<4> a, F64<4> b) {
    return F64<4>(_mm256_cmp_pd(a.v, b.v, _CMP_GT_OS));
}
QELR_INLINE F64<4> operator>=(F64<4> a, F64<4> b) {
    return F64<4>(_mm256_cmp_pd(a.v, b.v, _CMP_GE_OS));
}
QELR_INLINE F64<4> operator&(F64<4> a, F64<4> b) { return F64<4>(_mm256_and_pd(a.v, b.v)); }
QELR_INLINE F64<4> operator|(F64<4> a, F64<4> b) { return F64<4>(_mm256_or_pd(a.v, b.v)); }
QELR_INLINE F64<4> operator^(F64<4> a, F64<4> b) { return F64<4>(_mm256_xor_pd(a.v, b.v)); }
QELR_INLINE F64<4> andNot(F64<4> a, F64<4> b) { return F64<4>(_mm256_andnot_pd(a.v, b.v)); }
QELR_INLINE F64<4> select(F64<4> mask, F64<4> a, F64<4> b) {
    return F64<4>(_mm256_blendv_pd(b.v, a.v, mask.v));
}
QELR_INLINE int laneBits(F64<4> mask) { return _mm256_movemask_pd(mask.v); }
QELR_INLINE double firstLane(F64<4> a) { return _mm256_cvtsd_f64(a.v); }

// ---------------------------------------------------------------------------
// Conversions

QELR_INLINE F32<8> toFloat(I32<8> a) { return F32<8>(_mm256_cvtepi32_ps(a.v)); }
QELR_INLINE I32<8> truncToInt(F32<8> a) { return I32<8>(_mm256_cvttps_epi32(a.v)); }
QELR_INLINE I32<8> roundToInt(F32<8> a) { return I32<8>(_mm256_cvtps_epi32(a.v)); }
QELR_INLINE I32<8> asInt(F32<8> a) { return I32<8>(_mm256_castps_si256(a.v)); }
QELR_INLINE F32<8> asFloat(I32<8> a) { return F32<8>(_mm256_castsi256_ps(a.v)); }
QELR_INLINE F64<4> widen(F32<4> a) { return F64<4>(_mm256_cvtps_pd(a.v)); }
QELR_INLINE F32<4> narrow(F64<4> a) { return F32<4>(_mm256_cvtpd_ps(a.v)); }
QELR_INLINE I32<4> truncToInt(F64<4> a) { return I32<4>(_mm256_cvttpd_epi32(a.v)); }
QELR_INLINE I32<4> roundToInt(F64<4> a) { return I32<4>(_mm256_cvtpd_epi32(a.v)); }
QELR_INLINE F64<4> toDouble(I32<4> a) { return F64<4>(_mm256_cvtepi32_pd(a.v)); }

}  // namespace qelr::QELR_ISA::simd

#endif  // QELR_SIMD_LANES == 8
