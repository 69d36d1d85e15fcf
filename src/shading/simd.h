// Small helpers shared by the shading functions: path selection, lane masks
// and the 32-bit index arithmetic of the triangle lookups.
#pragma once

#include <pmmintrin.h>

#include <cstdint>

#include "core/align.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::shading {

using core::aligned16;

// True when every pointer starts on a 16-byte boundary.
template <typename... P>
inline bool allAligned16(const P*... p) {
    return (aligned16(p) && ...);
}

inline bool planesAligned16(const float* const planes[3]) {
    return allAligned16(planes[0], planes[1], planes[2]);
}

// The four-rays path runs only on whole groups of four.
inline bool wholeGroups(int len) { return (len & 3) == 0; }

// Product of two 32-bit signed integers, wrapping as 32-bit arithmetic does.
inline int32_t mulWrap32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// All-ones lanes where mask[i] >= 0 (the ray is processed).
inline __m128 activeLanes(const int* mask) {
    const __m128i m = _mm_load_si128(reinterpret_cast<const __m128i*>(mask));
    return _mm_castsi128_ps(_mm_cmpgt_epi32(m, _mm_set1_epi32(-1)));
}

// Lanes of `a` where `m` is set, lanes of `b` elsewhere.
inline __m128 select(__m128 m, __m128 a, __m128 b) {
    return _mm_or_ps(_mm_and_ps(m, a), _mm_andnot_ps(m, b));
}

inline __m128 absLanes(__m128 x) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), x); }

}  // namespace qelr::QELR_ISA::shading
