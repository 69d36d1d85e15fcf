// Pieces of the affine warp shared by the volume path and the single-plane
// path: transform screening and inversion, the source view and the
// per-position sampling rules.
#pragma once

#include <cstdint>

#include "simd/simd.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume::warp {

// Whether the forward transform is refused before anything else: a zero
// diagonal, or rows 1 and 2 of the linear part (nearly) proportional.
bool transformDegenerate(const double c[3][4]);

// The inverse transform (adjugate times 1/det, translation carried through).
// Returns false, leaving `inv` unset, when the determinant lies within 1e-10 of zero.
bool invertTransform(const double c[3][4], double inv[3][4]);

// The source planes and the trimmed source cuboid in inclusive bounds.
template <class T>
struct SourceView {
    const T* const* planes;
    int rowStep;
    Bounds box;
    const T* row(ptrdiff_t y, ptrdiff_t z) const { return rowOfPV(planes, rowStep, y, z); }
};

// Whether (X, Y, Z) lies in the inclusive cuboid (compared in double).
template <class T>
inline bool insideSource(const SourceView<T>& s, double X, double Y, double Z) {
    const Bounds& b = s.box;
    return X >= b.first[0] && X <= b.last[0] && Y >= b.first[1] && Y <= b.last[1] &&
           Z >= b.first[2] && Z <= b.last[2];
}

// Nearest: round to nearest, ties to even. Only positions inside the source
// reach it.
template <class T>
inline T sampleNearest(const SourceView<T>& s, double X, double Y, int32_t z) {
    return s.row(simd::roundToInt32(Y), z)[simd::roundToInt32(X)];
}

// Linear: the lower index of the pair is trunc(p) (p >= 0, so the floor),
// lowered by one on the last element of the cuboid (fraction 1) so the pair
// stays inside; on a cuboid one element wide at index 0 it stays (fraction
// 0), the upper tap then lies inside the volume, which is at least two
// elements wide. The fraction is p - i rounded to float.
struct LinearTap {
    int32_t i;
    float f;
};

inline LinearTap linearTap(double p, int32_t last) {
    int32_t i = simd::truncToInt32(p);
    if (i == last && i > 0) --i;
    return {i, static_cast<float>(p - i)};
}

// Bilinear in plane z: x, then y.
template <class T>
inline float sampleLinear2(const SourceView<T>& s, double X, double Y, int32_t z) {
    const LinearTap tx = linearTap(X, s.box.last[0]);
    const LinearTap ty = linearTap(Y, s.box.last[1]);
    const auto along = [&](const T* row) {
        return lerp(static_cast<float>(row[tx.i]), static_cast<float>(row[tx.i + 1]), tx.f);
    };
    return lerp(along(s.row(ty.i, z)), along(s.row(ty.i + 1, z)), ty.f);
}

// Cubic: the four taps around trunc(p), clamped into the cuboid, weighted
// from the mode's table with the fraction p - trunc(p) rounded to float.
struct CubicAxis {
    int32_t base;
    simd::F32<4> w;
};

inline CubicAxis cubicAxis(double p, const KernelTable& table) {
    const int32_t i = simd::truncToInt32(p);
    return {i, tapWeights(table, static_cast<float>(p - i))};
}

// Separable cubic in plane z: y taps, then x taps.
template <class T>
inline float sampleCubic2(const SourceView<T>& s, const KernelTable& table, double X, double Y,
                          int32_t z) {
    const CubicAxis ax = cubicAxis(X, table), ay = cubicAxis(Y, table);
    const uint8_t* rows[4];
    for (int r = 0; r < 4; ++r) {
        rows[r] = reinterpret_cast<const uint8_t*>(
            s.row(clampIndex(ay.base - 1 + r, s.box.first[1], s.box.last[1]), z));
    }
    return cubicPlane<T>(rows, cubicColumns(ax.base, s.box.first[0], s.box.last[0]), ax.w, ay.w);
}

}  // namespace qelr::QELR_ISA::volume::warp
