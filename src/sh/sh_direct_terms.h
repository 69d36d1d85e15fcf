// Per-direction terms of the closed forms of the basis, and the rounding
// rules of the direct evaluation.
//
// The kernels are templates over the lane type V (simd::Vd, one lane per
// direction, as many as the target's float vector has). A kernel writes
// coefficient k of its directions at out + k * V::kLanes, a coefficient-major
// scratch block.
#pragma once

#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

// Rounds to single precision (to nearest, as a conversion does) and widens.
template <class V>
QELR_INLINE V roundToFloat(const V& a) {
    return simd::widen(simd::narrow(a));
}

// Stores a double-precision result rounded to single precision. Eight
// lanes are two four-lane halves, each rounded and stored on its own (no
// shuffle to join them).
template <class V>
QELR_INLINE void storeRounded(float* p, const V& v) {
    if constexpr (simd::kIsPair<V> && V::kLanes == 8) {
        simd::store(p, simd::narrow(v.lo));
        simd::store(p + 4, simd::narrow(v.hi));
    } else {
        simd::store(p, simd::narrow(v));
    }
}

// z, z^2 rounded to single precision, and the sectoral factors
// c[m] = Re (x + iy)^m and s[m] = Im (x + iy)^m for m = 1..order, each formed
// in double precision and rounded to single precision. Index 0 of c and s is
// not used.
template <class V>
struct DirectTerms {
    V z, z2;
    V c[16], s[16];
};

}  // namespace qelr::QELR_ISA::sh
