// The library's vector layer: value types for float, 32-bit integer and
// double lanes, and the few composite operations whose exact arithmetic is
// part of the library's results (the refined reciprocal and reciprocal square
// root, the widening loads and saturating stores of the volume element
// types). All SIMD code of the library is written against this layer; no
// family uses an intrinsic directly.
//
// Widths. F32<4>, I32<4> and F64<2> exist on every target; on the AVX2 target
// F32<8>, I32<8> and F64<4> are single registers as well. Kernels are written
// once against the native width `kLanes` (4 on SSE3, 8 on AVX2) through the
// aliases Vf, Vi and Vd; Vd has as many lanes as Vf (a pair of registers), so
// floats widen to doubles lane for lane.
//
// Bits. Every lane operation is one IEEE (or two's complement) operation, the
// same at every width and on every target, so a lane's result does not depend
// on the width or the target that computed it. Operations that combine lanes
// (sumLanes, pairwiseAdd) fix their order of summation. Masks are the results
// of comparisons: every lane all ones or all zeros.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "simd/target.h"
#include "simd/vec4.h"
#include "simd/vec8.h"

namespace qelr::QELR_ISA::simd {

// ---------------------------------------------------------------------------
// Doubles with as many lanes as the native float vector: a pair of registers.

template <int N>
struct F64 {
    static constexpr int kLanes = N;
    F64<N / 2> lo, hi;
    F64() = default;
    QELR_INLINE F64(F64<N / 2> l, F64<N / 2> h) : lo(l), hi(h) {}
    QELR_INLINE F64(double x) : lo(x), hi(x) {}  // NOLINT: broadcast
    QELR_INLINE static F64 zero() { return F64(F64<N / 2>::zero(), F64<N / 2>::zero()); }
    QELR_INLINE static F64 load(const double* p) {
        return F64(F64<N / 2>::load(p), F64<N / 2>::load(p + N / 2));
    }
    QELR_INLINE static F64 loadu(const double* p) {
        return F64(F64<N / 2>::loadu(p), F64<N / 2>::loadu(p + N / 2));
    }
};

// Whether a type is such a pair (wider than the widest double register).
template <class T>
inline constexpr bool kIsPair = false;
template <int N>
requires(N > QELR_SIMD_LANES / 2) inline constexpr bool kIsPair<F64<N>> = true;

#define QELR_PAIR_BINARY(op) \
    template <class P>       \
    requires kIsPair<P> QELR_INLINE P op(P a, P b) { return P(op(a.lo, b.lo), op(a.hi, b.hi)); }
QELR_PAIR_BINARY(operator+)
QELR_PAIR_BINARY(operator-)
QELR_PAIR_BINARY(operator*)
QELR_PAIR_BINARY(operator/)
QELR_PAIR_BINARY(min)
QELR_PAIR_BINARY(max)
QELR_PAIR_BINARY(operator==)
QELR_PAIR_BINARY(operator!=)
QELR_PAIR_BINARY(operator<)
QELR_PAIR_BINARY(operator<=)
QELR_PAIR_BINARY(operator>)
QELR_PAIR_BINARY(operator>=)
QELR_PAIR_BINARY(operator&)
QELR_PAIR_BINARY(operator|)
QELR_PAIR_BINARY(operator^)
QELR_PAIR_BINARY(andNot)
#undef QELR_PAIR_BINARY

template <class P>
requires kIsPair<P> QELR_INLINE P sqrt(P a) { return P(sqrt(a.lo), sqrt(a.hi)); }
template <class P>
requires kIsPair<P> QELR_INLINE P select(P mask, P a, P b) {
    return P(select(mask.lo, a.lo, b.lo), select(mask.hi, a.hi, b.hi));
}
template <class P>
requires kIsPair<P> QELR_INLINE int laneBits(P mask) {
    return laneBits(mask.lo) | (laneBits(mask.hi) << (P::kLanes / 2));
}
template <class P>
requires kIsPair<P> QELR_INLINE double firstLane(P a) { return firstLane(a.lo); }
template <class P>
requires kIsPair<P> QELR_INLINE void store(double* p, P a) {
    store(p, a.lo);
    store(p + P::kLanes / 2, a.hi);
}
template <class P>
requires kIsPair<P> QELR_INLINE void storeu(double* p, P a) {
    storeu(p, a.lo);
    storeu(p + P::kLanes / 2, a.hi);
}

// ---------------------------------------------------------------------------
// The native width and its types

inline constexpr int kLanes = QELR_SIMD_LANES;
using Vf = F32<kLanes>;
using Vi = I32<kLanes>;
using Vd = F64<kLanes>;

// ---------------------------------------------------------------------------
// Float and double lanes, lane for lane

#if QELR_SIMD_LANES == 4
QELR_INLINE F64<4> widen(F32<4> a) { return F64<4>(widenLow(a), widenHigh(a)); }
QELR_INLINE F32<4> narrow(F64<4> a) {
    return F32<4>(_mm_movelh_ps(narrowLow(a.lo).v, narrowLow(a.hi).v));
}
QELR_INLINE I32<4> truncToInt(F64<4> a) {
    return I32<4>(_mm_unpacklo_epi64(_mm_cvttpd_epi32(a.lo.v), _mm_cvttpd_epi32(a.hi.v)));
}
QELR_INLINE I32<4> roundToInt(F64<4> a) {
    return I32<4>(_mm_unpacklo_epi64(_mm_cvtpd_epi32(a.lo.v), _mm_cvtpd_epi32(a.hi.v)));
}
QELR_INLINE F64<4> toDouble(I32<4> a) {
    return F64<4>(F64<2>(_mm_cvtepi32_pd(a.v)),
                  F64<2>(_mm_cvtepi32_pd(_mm_unpackhi_epi64(a.v, a.v))));
}
#else
QELR_INLINE F64<8> widen(F32<8> a) { return F64<8>(widen(lowHalf(a)), widen(highHalf(a))); }
QELR_INLINE F32<8> narrow(F64<8> a) { return combine(narrow(a.lo), narrow(a.hi)); }
QELR_INLINE I32<8> truncToInt(F64<8> a) { return combine(truncToInt(a.lo), truncToInt(a.hi)); }
QELR_INLINE I32<8> roundToInt(F64<8> a) { return combine(roundToInt(a.lo), roundToInt(a.hi)); }
QELR_INLINE F64<8> toDouble(I32<8> a) {
    return F64<8>(toDouble(lowHalf(a)), toDouble(highHalf(a)));
}
#endif

// ---------------------------------------------------------------------------
// Generic lane operations, written once for every width

// Float and double lane types (sign-bit operations apply to them).
template <class V>
concept FloatLanes = std::is_floating_point_v<decltype(firstLane(std::declval<V>()))>;

// |a| and -a: the sign bit cleared or flipped, nothing else changed.
template <FloatLanes V>
QELR_INLINE V abs(V a) {
    return andNot(V(-0.0f), a);
}
template <FloatLanes V>
QELR_INLINE V operator-(V a) {
    return a ^ V(-0.0f);
}
template <class M>
QELR_INLINE bool anyLane(M mask) {
    return laneBits(mask) != 0;
}
template <class M>
QELR_INLINE bool allLanes(M mask) {
    return laneBits(mask) == (1 << M::kLanes) - 1;
}

// Reciprocal: the processor's approximation r of 1/x refined by one
// Newton-Raphson step, (r + r) - (r * r) * x, in that order.
template <class V>
QELR_INLINE V reciprocalRefined(V x) {
    const V r = reciprocalApprox(x);
    return (r + r) - (r * r) * x;
}

// Reciprocal square root: the approximation r of 1/sqrt(s) refined by one
// Newton-Raphson step, (-0.5 * r) * (s * (r * r) - 3), in that order.
template <class V>
QELR_INLINE V rsqrtRefined(V s) {
    const V r = rsqrtApprox(s);
    return (V(-0.5f) * r) * (s * (r * r) - V(3.0f));
}

// ---------------------------------------------------------------------------
// Widening loads: N elements of a narrow type as N 32-bit integers

namespace detail {
template <class T>
QELR_INLINE __m128i loadLow(const T* p, int bytes) {
    // Exactly `bytes` bytes are read (4 or 8).
    if (bytes == 4) {
        int32_t v;
        std::memcpy(&v, p, 4);
        return _mm_cvtsi32_si128(v);
    }
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
}
}  // namespace detail

template <int N>
QELR_INLINE I32<N> loadWidenU8(const uint8_t* p);
template <int N>
QELR_INLINE I32<N> loadWidenU16(const uint16_t* p);
template <int N>
QELR_INLINE I32<N> loadWidenI16(const int16_t* p);

template <>
QELR_INLINE I32<4> loadWidenU8<4>(const uint8_t* p) {
    const __m128i b = detail::loadLow(p, 4);
#if defined(__SSE4_1__)
    return I32<4>(_mm_cvtepu8_epi32(b));
#else
    const __m128i z = _mm_setzero_si128();
    return I32<4>(_mm_unpacklo_epi16(_mm_unpacklo_epi8(b, z), z));
#endif
}
template <>
QELR_INLINE I32<4> loadWidenU16<4>(const uint16_t* p) {
    const __m128i w = detail::loadLow(p, 8);
#if defined(__SSE4_1__)
    return I32<4>(_mm_cvtepu16_epi32(w));
#else
    return I32<4>(_mm_unpacklo_epi16(w, _mm_setzero_si128()));
#endif
}
template <>
QELR_INLINE I32<4> loadWidenI16<4>(const int16_t* p) {
    const __m128i w = detail::loadLow(p, 8);
#if defined(__SSE4_1__)
    return I32<4>(_mm_cvtepi16_epi32(w));
#else
    return I32<4>(_mm_srai_epi32(_mm_unpacklo_epi16(w, w), 16));
#endif
}
#if QELR_SIMD_LANES == 8
template <>
QELR_INLINE I32<8> loadWidenU8<8>(const uint8_t* p) {
    return I32<8>(_mm256_cvtepu8_epi32(detail::loadLow(p, 8)));
}
template <>
QELR_INLINE I32<8> loadWidenU16<8>(const uint16_t* p) {
    return I32<8>(_mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))));
}
template <>
QELR_INLINE I32<8> loadWidenI16<8>(const int16_t* p) {
    return I32<8>(_mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))));
}
#endif

// N elements of an element type as N floats (exact for every such element).
template <int N, class T>
QELR_INLINE F32<N> loadAsFloat(const T* p) {
    if constexpr (sizeof(T) == 4) {
        return F32<N>::loadu(p);
    } else if constexpr (sizeof(T) == 1) {
        return toFloat(loadWidenU8<N>(p));
    } else if constexpr (T(-1) > T(0)) {
        return toFloat(loadWidenU16<N>(p));
    } else {
        return toFloat(loadWidenI16<N>(p));
    }
}

// ---------------------------------------------------------------------------
// Saturating narrowing stores: N 32-bit integers written as N elements of a
// narrow type, each saturated to the type's range. Exactly N elements are
// written.

namespace detail {
QELR_INLINE void storeLow(void* p, __m128i v, int bytes) {
    if (bytes == 4) {
        const int32_t w = _mm_cvtsi128_si32(v);
        std::memcpy(p, &w, 4);
    } else if (bytes == 8) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v);
    } else {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
    }
}
// Eight int32 as eight int16, saturated (lanes of a, then of b).
QELR_INLINE __m128i packI16(__m128i a, __m128i b) { return _mm_packs_epi32(a, b); }
// Eight int32 as eight uint16, saturated.
QELR_INLINE __m128i packU16(__m128i a, __m128i b) {
#if defined(__SSE4_1__)
    return _mm_packus_epi32(a, b);
#else
    // Negative lanes become 0; then a bias of 32768 moves [0, 65535] onto
    // the signed range, whose saturating pack is undone by flipping bit 15.
    const __m128i zero = _mm_setzero_si128();
    const __m128i bias = _mm_set1_epi32(32768);
    a = _mm_and_si128(a, _mm_cmpgt_epi32(a, zero));
    b = _mm_and_si128(b, _mm_cmpgt_epi32(b, zero));
    const __m128i s = _mm_packs_epi32(_mm_sub_epi32(a, bias), _mm_sub_epi32(b, bias));
    return _mm_xor_si128(s, _mm_set1_epi16(static_cast<int16_t>(0x8000)));
#endif
}
}  // namespace detail

QELR_INLINE void storeSaturated(uint8_t* p, I32<4> a) {
    const __m128i w = detail::packI16(a.v, a.v);
    detail::storeLow(p, _mm_packus_epi16(w, w), 4);
}
QELR_INLINE void storeSaturated(uint16_t* p, I32<4> a) {
    detail::storeLow(p, detail::packU16(a.v, a.v), 8);
}
QELR_INLINE void storeSaturated(int16_t* p, I32<4> a) {
    detail::storeLow(p, detail::packI16(a.v, a.v), 8);
}
#if QELR_SIMD_LANES == 8
QELR_INLINE void storeSaturated(uint8_t* p, I32<8> a) {
    const __m128i w = detail::packI16(lowHalf(a).v, highHalf(a).v);
    detail::storeLow(p, _mm_packus_epi16(w, w), 8);
}
QELR_INLINE void storeSaturated(uint16_t* p, I32<8> a) {
    detail::storeLow(p, detail::packU16(lowHalf(a).v, highHalf(a).v), 16);
}
QELR_INLINE void storeSaturated(int16_t* p, I32<8> a) {
    detail::storeLow(p, detail::packI16(lowHalf(a).v, highHalf(a).v), 16);
}
#endif

// ---------------------------------------------------------------------------
// Gathers: lane i reads base[index[i]].

QELR_INLINE F32<4> gather(const float* base, I32<4> index) {
#if QELR_SIMD_LANES == 8
    return F32<4>(_mm_i32gather_ps(base, index.v, 4));
#else
    alignas(16) int32_t k[4];
    store(k, index);
    return F32<4>::of(base[k[0]], base[k[1]], base[k[2]], base[k[3]]);
#endif
}
#if QELR_SIMD_LANES == 8
QELR_INLINE F32<8> gather(const float* base, I32<8> index) {
    return F32<8>(_mm256_i32gather_ps(base, index.v, 4));
}
#endif

// ---------------------------------------------------------------------------
// Planes known to start on 16-byte boundaries (and no more)

// Loads and stores of V at such an address: the aligned instruction when V
// is 16 bytes wide, the unaligned one when it is wider.
template <class V, class T>
QELR_INLINE V load16(const T* p) {
    if constexpr (V::kLanes * sizeof(T) <= 16) {
        return V::load(p);
    } else {
        return V::loadu(p);
    }
}
template <class V, class T>
QELR_INLINE void store16(T* p, V a) {
    if constexpr (V::kLanes * sizeof(T) <= 16) {
        store(p, a);
    } else {
        storeu(p, a);
    }
}

// Runs f(lanes, i) over the groups of a run of `len` elements, len a multiple
// of four: groups of the native width, then one group of four when four
// elements remain. `lanes` is a value of the group's float vector type (Vf
// or F32<4>), to be read with decltype; i is the group's first element.
template <class F>
QELR_INLINE void forGroupsOfFour(int len, F&& f) {
    int i = 0;
    if constexpr (kLanes > 4) {
        for (; i <= len - kLanes; i += kLanes) f(Vf::zero(), i);
    }
    for (; i < len; i += 4) f(F32<4>::zero(), i);
}

// Orders the non-temporal stores before any later store.
QELR_INLINE void streamFence() { _mm_sfence(); }

// ---------------------------------------------------------------------------
// Scalar conversions with the processor's rules (what a one-element path
// needs to give the same bits as a lane).

// Toward zero; out of range and NaN give INT32_MIN.
QELR_INLINE int32_t truncToInt32(float v) { return _mm_cvtt_ss2si(_mm_set_ss(v)); }
QELR_INLINE int32_t truncToInt32(double v) { return _mm_cvttsd_si32(_mm_set_sd(v)); }
// To nearest in the current rounding mode (ties to even by default); out of
// range and NaN give INT32_MIN.
QELR_INLINE int32_t roundToInt32(float v) { return _mm_cvtss_si32(_mm_set_ss(v)); }
QELR_INLINE int32_t roundToInt32(double v) { return _mm_cvtsd_si32(_mm_set_sd(v)); }

// The low 32 bits of the product, as the lanes of mulWrap give them.
QELR_INLINE int32_t mulWrap(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// The one-lane forms of the refined approximations above.
QELR_INLINE float reciprocalRefined(float x) {
    const float r = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(x)));
    return (r + r) - (r * r) * x;
}
QELR_INLINE float rsqrtRefined(float s) {
    const float r = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(s)));
    return (-0.5f * r) * (s * (r * r) - 3.0f);
}

// Float from its bits and back.
QELR_INLINE float floatFromBits(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}
QELR_INLINE uint32_t bitsOf(float f) {
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}


// ---------------------------------------------------------------------------
// NaN lanes

// The NaN the processor makes for an invalid operation (0 * inf, inf - inf):
// sign set, quiet, payload zero.
QELR_INLINE float defaultNaN() { return floatFromBits(0xFFC00000u); }

// NaN lanes replaced by the default NaN, the others unchanged. Where two NaNs
// meet in one operation the result carries the payload of one of them, chosen
// by operand order, which the compiler is free to swap; a kernel that
// canonicalises its NaN inputs makes no NaN but the default one, and then
// every operand order gives the same bits.
template <FloatLanes V>
QELR_INLINE V canonicalNaN(V a) {
    return select(a != a, V(defaultNaN()), a);
}
QELR_INLINE float canonicalNaN(float a) { return a != a ? defaultNaN() : a; }

}  // namespace qelr::QELR_ISA::simd
