// Pieces shared by the volume operations: argument checks, element addressing,
// interpolation modes, cubic kernels and conversions to the element types.
#pragma once

#include <pmmintrin.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::volume {

// ---------------------------------------------------------------------------
// Checks

// A box is well formed when x, y, z >= 0 and width, height, depth > 0
// (tested in the order x, width, y, height, z, depth).
inline bool boxWellFormed(const QelBox3D& b) {
    return b.x >= 0 && b.width > 0 && b.y >= 0 && b.height > 0 && b.z >= 0 && b.depth > 0;
}

// A volume size is well formed when all three extents are above 0.
inline bool sizeWellFormed(const QelVolumeSize& s) {
    return s.width > 0 && s.height > 0 && s.depth > 0;
}

// The modes accepted by resize, remap and warp: 1, 2, 4, 5, 6, 7.
inline bool isVolumeMode(int mode) {
    return mode == qelInterpNearest || mode == qelInterpLinear ||
           (mode >= qelInterpCubic && mode <= qelInterpCubicB05C03);
}

inline bool isCubicMode(int mode) { return mode >= qelInterpCubic && mode <= qelInterpCubicB05C03; }

// Whether the box's origin lies inside the volume.
inline bool originInside(const QelBox3D& b, const QelVolumeSize& s) {
    return b.x < s.width && b.y < s.height && b.z < s.depth;
}

// The box cut back to what remains of the volume from its origin (the origin
// must lie inside).
inline QelBox3D trimToVolume(QelBox3D b, const QelVolumeSize& s) {
    if (b.width > s.width - b.x) b.width = s.width - b.x;
    if (b.height > s.height - b.y) b.height = s.height - b.y;
    if (b.depth > s.depth - b.z) b.depth = s.depth - b.z;
    return b;
}

// Mode actually used for a source of this size: cubic modes need 4 elements
// on every axis (else linear), linear needs 2 (else nearest).
inline int degradeModeForSource(int mode, const QelVolumeSize& s) {
    if (isCubicMode(mode) && (s.width < 4 || s.height < 4 || s.depth < 4)) mode = qelInterpLinear;
    if (s.width < 2 || s.height < 2 || s.depth < 2) mode = qelInterpNearest;
    return mode;
}

// Conversion of a double to a signed 32-bit integer by truncation toward
// zero; values outside the range (and NaN) give INT32_MIN, as the processor's
// conversion does.
inline int32_t truncToInt32(double v) { return _mm_cvttsd_si32(_mm_set_sd(v)); }

// ---------------------------------------------------------------------------
// Addressing. Steps are in bytes and may be negative. Coordinates are taken
// in 64 bits: a box may start near INT32_MAX and reach past it, and an
// anchor may move a row index beyond the 32-bit range; the caller's pointers
// then address those elements, and the arithmetic must not wrap.

template <class T>
inline T* rowOfV(T* base, int rowStep, int planeStep, ptrdiff_t y, ptrdiff_t z) {
    using Byte = std::conditional_t<std::is_const_v<T>, const uint8_t, uint8_t>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + (z * planeStep + y * rowStep));
}

template <class T>
inline T* rowOfPV(T* const* planes, int rowStep, ptrdiff_t y, ptrdiff_t z) {
    using Byte = std::conditional_t<std::is_const_v<T>, const uint8_t, uint8_t>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(planes[z]) + y * rowStep);
}

// ---------------------------------------------------------------------------
// Cubic kernels

// Weight of the mode's cubic kernel at distance d >= 0 (0 from d = 2 on),
// each polynomial evaluated in double in the arrangement that fixes its bits.
double cubicKernel(int mode, double d);

// The four weights of the taps at -1, 0, +1, +2 from the floor of a sample
// position with fraction f. The tap distances are formed in single precision
// from -1 - f; the weights are rounded to float.
void cubicWeights(int mode, float f, float w[4]);

// The mode's kernel sampled at d = k / 100 for k = 0..200, rounded to float,
// followed by seven zeros (so the entry after any index up to 200 exists).
constexpr int kCubicTableSize = 208;
const float* cubicTable(int mode);

// Weight at distance d from a cubic table: d is capped at 2, scaled by 100,
// and the table is interpolated linearly between the neighbouring entries.
inline float cubicTableWeight(const float* table, float d) {
    const float x = (d < 2.0f ? d : 2.0f) * 100.0f;
    const int k = static_cast<int>(x);
    const float r = x - static_cast<float>(k);
    return table[k] + (table[k + 1] - table[k]) * r;
}

// ---------------------------------------------------------------------------
// Conversions to the element types

template <class T>
struct ElementLimits;
template <>
struct ElementLimits<uint8_t> {
    static constexpr int lo = 0, hi = 255;
};
template <>
struct ElementLimits<uint16_t> {
    static constexpr int lo = 0, hi = 65535;
};
template <>
struct ElementLimits<int16_t> {
    static constexpr int lo = -32768, hi = 32767;
};

// Rounds to nearest in the current rounding mode (ties to even by default)
// and saturates to the type. Floats pass through. NaN gives the lower limit.
template <class T>
inline T roundToElement(float v) {
    if constexpr (std::is_same_v<T, float>) {
        return v;
    } else {
        const float lo = static_cast<float>(ElementLimits<T>::lo);
        const float hi = static_cast<float>(ElementLimits<T>::hi);
        const float c = v > lo ? (v < hi ? v : hi) : lo;  // NaN clamps to lo
        return static_cast<T>(_mm_cvtss_si32(_mm_set_ss(c)));
    }
}

// The resize rule: add 0.5000001, truncate toward zero, saturate.
template <class T>
inline T truncateToElement(float v) {
    if constexpr (std::is_same_v<T, float>) {
        return v;
    } else {
        const float s = v + 0.5000001f;
        const float lo = static_cast<float>(ElementLimits<T>::lo);
        const float hi = static_cast<float>(ElementLimits<T>::hi);
        const float c = s > lo ? (s < hi ? s : hi) : lo;
        return static_cast<T>(static_cast<int>(c));
    }
}

}  // namespace qelr::QELR_ISA::volume
