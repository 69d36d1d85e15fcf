// Sampling pieces shared by the volume remap and the single-plane remap:
// inclusive bounds, integer minimum on SSE lanes, tap weights from the
// tabulated kernels, loads of four neighbouring elements as floats and
// stores of rounded lanes that leave unselected elements unwritten.
#pragma once

#include <pmmintrin.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "simd/target.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume {

// Inclusive bounds of an accepted box: first and last index on each axis.
struct InclusiveBox {
    int32_t x0, y0, z0, x1, y1, z1;
};

inline InclusiveBox inclusiveBoundsOf(const QelBox3D& b) {
    return {b.x, b.y, b.z, b.x + b.width - 1, b.y + b.height - 1, b.z + b.depth - 1};
}

inline int32_t clampIndex(int32_t v, int32_t lo, int32_t hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

// Signed 32-bit minimum per lane (SSE2 has no instruction for it).
inline __m128i minEpi32(__m128i a, __m128i b) {
    const __m128i aGreater = _mm_cmpgt_epi32(a, b);
    return _mm_or_si128(_mm_and_si128(aGreater, b), _mm_andnot_si128(aGreater, a));
}

// Lanes where lo <= v <= hi; NaN lanes fail.
inline __m128 inRange(__m128 v, __m128 lo, __m128 hi) {
    return _mm_and_ps(_mm_cmpge_ps(v, lo), _mm_cmple_ps(v, hi));
}

// Broadcast of lane i.
template <int i>
inline __m128 lane(__m128 v) {
    return _mm_shuffle_ps(v, v, _MM_SHUFFLE(i, i, i, i));
}

// Sum of the four lanes as (v0 + v1) + (v2 + v3).
inline float horizontalSum(__m128 v) {
    const __m128 pairs = _mm_hadd_ps(v, v);
    return _mm_cvtss_f32(_mm_hadd_ps(pairs, pairs));
}

// A cubic table stored as pairs (T[k], T[k + 1] - T[k]): one 8-byte load
// fetches what a weight interpolates between, and the difference is the one
// the table rule forms, so the weights keep their bits.
struct CubicPairTable {
    float pair[kCubicTableSize - 1][2];
};
const CubicPairTable& cubicPairTable(int mode);  // mode 4..7

// The weights of the four taps at offsets -1, 0, 1, 2 from a base with
// fraction f: d = |offset - f| formed as -f + offset, then the table rule of
// cubicTableWeight lane by lane.
inline __m128 cubicTapWeights(const CubicPairTable& table, float f) {
    const __m128 signBit = _mm_set1_ps(-0.0f);
    const __m128 t = _mm_add_ps(_mm_set1_ps(-f), _mm_setr_ps(-1.0f, 0.0f, 1.0f, 2.0f));
    const __m128 d = _mm_andnot_ps(signBit, t);
    const __m128 x = _mm_mul_ps(_mm_min_ps(d, _mm_set1_ps(2.0f)), _mm_set1_ps(100.0f));
    const __m128i k = _mm_cvttps_epi32(x);
    const __m128 r = _mm_sub_ps(x, _mm_cvtepi32_ps(k));
    alignas(16) int32_t ki[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(ki), k);
    const auto pairAt = [&](int i) { return reinterpret_cast<const __m64*>(table.pair[ki[i]]); };
    const __m128 p01 = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), pairAt(0)), pairAt(1));
    const __m128 p23 = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), pairAt(2)), pairAt(3));
    const __m128 entry = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 step = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(3, 1, 3, 1));
    return _mm_add_ps(entry, _mm_mul_ps(step, r));
}

// ((w0 a + w1 b) + w2 c) + w3 d with the lanes of w broadcast.
inline __m128 blendFour(__m128 w, __m128 a, __m128 b, __m128 c, __m128 d) {
    __m128 s = _mm_mul_ps(lane<0>(w), a);
    s = _mm_add_ps(s, _mm_mul_ps(lane<1>(w), b));
    s = _mm_add_ps(s, _mm_mul_ps(lane<2>(w), c));
    return _mm_add_ps(s, _mm_mul_ps(lane<3>(w), d));
}

// Elements 0 and 1 at each of four pointers as two float vectors: lane l of
// `first` is p[l][0], lane l of `second` is p[l][1].
inline void loadPairs(const float* p0, const float* p1, const float* p2, const float* p3,
                      __m128& first, __m128& second) {
    const auto at = [](const float* p) { return reinterpret_cast<const __m64*>(p); };
    const __m128 p01 = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), at(p0)), at(p1));
    const __m128 p23 = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), at(p2)), at(p3));
    first = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(2, 0, 2, 0));
    second = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(3, 1, 3, 1));
}
template <class T>
inline void loadPairs(const T* p0, const T* p1, const T* p2, const T* p3, __m128& first,
                      __m128& second) {
    // Each pair read as one little-endian integer, then split.
    using Pair = std::conditional_t<sizeof(T) == 1, uint16_t, uint32_t>;
    Pair v[4];
    std::memcpy(&v[0], p0, sizeof(Pair));
    std::memcpy(&v[1], p1, sizeof(Pair));
    std::memcpy(&v[2], p2, sizeof(Pair));
    std::memcpy(&v[3], p3, sizeof(Pair));
    const __m128i both = _mm_setr_epi32(static_cast<int32_t>(v[0]), static_cast<int32_t>(v[1]),
                                        static_cast<int32_t>(v[2]), static_cast<int32_t>(v[3]));
    constexpr int bits = 8 * sizeof(T);
    first = _mm_cvtepi32_ps(_mm_and_si128(both, _mm_set1_epi32((1 << bits) - 1)));
    second = _mm_cvtepi32_ps(_mm_srli_epi32(both, bits));
}

// Four consecutive elements from p as floats.
inline __m128 loadFour(const float* p) { return _mm_loadu_ps(p); }
inline __m128 loadFour(const uint8_t* p) {
    int32_t bytes;
    std::memcpy(&bytes, p, 4);
    const __m128i zero = _mm_setzero_si128();
    const __m128i words = _mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero);
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(words, zero));
}
inline __m128 loadFour(const uint16_t* p) {
    const __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(words, _mm_setzero_si128()));
}

// Elements i0..i3 of a row as floats.
template <class T>
inline __m128 gatherFour(const T* row, int32_t i0, int32_t i1, int32_t i2, int32_t i3) {
    return _mm_setr_ps(static_cast<float>(row[i0]), static_cast<float>(row[i1]),
                       static_cast<float>(row[i2]), static_cast<float>(row[i3]));
}

// The four taps base-1 .. base+2 of a row with each index clamped into
// [lo, hi]; one unaligned load when all four lie inside.
template <class T>
inline __m128 rowTaps(const T* row, int32_t base, int32_t lo, int32_t hi) {
    if (base - 1 >= lo && base + 2 <= hi) return loadFour(row + base - 1);
    return gatherFour(row, clampIndex(base - 1, lo, hi), clampIndex(base, lo, hi),
                      clampIndex(base + 1, lo, hi), clampIndex(base + 2, lo, hi));
}

// Rounds four lanes to the element type as roundToElement does (saturate in
// float, convert in the current rounding mode) and writes the lanes whose
// bit is set in `mask`; the other elements are not written.
template <class T>
inline void storeLanes(T* dst, __m128 v, int mask) {
    if constexpr (std::is_same_v<T, float>) {
        if (mask == 0xF) {
            _mm_storeu_ps(dst, v);
            return;
        }
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, v);
        for (int i = 0; i < 4; ++i)
            if (mask & (1 << i)) dst[i] = lanes[i];
    } else {
        const __m128 lo = _mm_set1_ps(static_cast<float>(ElementLimits<T>::lo));
        const __m128 hi = _mm_set1_ps(static_cast<float>(ElementLimits<T>::hi));
        const __m128i n = _mm_cvtps_epi32(_mm_min_ps(_mm_max_ps(v, lo), hi));  // NaN gives lo
        if (mask == 0xF) {
            if constexpr (std::is_same_v<T, uint8_t>) {
                const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(n, n), n);
                const int32_t packed = _mm_cvtsi128_si32(bytes);
                std::memcpy(dst, &packed, 4);
            } else {
                // Unsigned 16-bit packing through the signed pack: shift to
                // the signed range and back.
                const __m128i bias = _mm_set1_epi32(32768);
                const __m128i s = _mm_packs_epi32(_mm_sub_epi32(n, bias), n);
                _mm_storel_epi64(reinterpret_cast<__m128i*>(dst),
                                 _mm_xor_si128(s, _mm_set1_epi16(static_cast<int16_t>(0x8000))));
            }
            return;
        }
        alignas(16) int32_t lanes[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(lanes), n);
        for (int i = 0; i < 4; ++i)
            if (mask & (1 << i)) dst[i] = static_cast<T>(lanes[i]);
    }
}

}  // namespace qelr::QELR_ISA::volume
