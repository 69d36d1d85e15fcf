// The sampling core of the volume operations, shared by resize, remap, warp
// and filter: argument checks, element addressing, the inclusive bounds of an
// accepted box with its clamp and mode-degrade rule, the cubic kernels and
// their tables, and the conversions of sums to the element types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "qelr.h"
#include "simd/simd.h"

namespace qelr::QELR_ISA::volume {

using simd::kLanes;
using simd::Vf;
using simd::Vi;

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

inline bool isCubicMode(int mode) { return mode >= qelInterpCubic && mode <= qelInterpCubicB05C03; }

// The modes accepted by resize, remap and warp: 1, 2, 4, 5, 6, 7.
inline bool isVolumeMode(int mode) {
    return mode == qelInterpNearest || mode == qelInterpLinear || isCubicMode(mode);
}

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

// The mode a source supports, given its smallest extent over the axes it is
// interpolated along: the cubics need 4 elements (else linear), linear 2
// (else nearest).
inline int degradeMode(int mode, int32_t smallestExtent) {
    if (isCubicMode(mode) && smallestExtent < 4) mode = qelInterpLinear;
    if (smallestExtent < 2) mode = qelInterpNearest;
    return mode;
}

inline int32_t smallestOf(const QelVolumeSize& s) {
    const int32_t m = s.width < s.height ? s.width : s.height;
    return m < s.depth ? m : s.depth;
}

// ---------------------------------------------------------------------------
// Inclusive bounds of an accepted box: first and last index per axis (x, y, z).

struct Bounds {
    int32_t first[3];
    int32_t last[3];
};

inline Bounds boundsOf(const QelBox3D& b) {
    return {{b.x, b.y, b.z}, {b.x + b.width - 1, b.y + b.height - 1, b.z + b.depth - 1}};
}

inline int32_t clampIndex(int32_t v, int32_t lo, int32_t hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

// ---------------------------------------------------------------------------
// Addressing. Steps are in bytes and may be negative. Coordinates are taken
// in 64 bits: a box may start near INT32_MAX and reach past it, and an
// anchor may move a row index beyond the 32-bit range; the caller's pointers
// then address those elements, and the arithmetic must not wrap.

template <class T>
inline T* byteOffset(T* p, ptrdiff_t bytes) {
    using Byte = std::conditional_t<std::is_const_v<T>, const uint8_t, uint8_t>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(p) + bytes);
}

template <class T>
inline T* rowOfV(T* base, int rowStep, int planeStep, ptrdiff_t y, ptrdiff_t z) {
    return byteOffset(base, z * planeStep + y * rowStep);
}

template <class T>
inline T* rowOfPV(T* const* planes, int rowStep, ptrdiff_t y, ptrdiff_t z) {
    return byteOffset(planes[z], y * rowStep);
}

// ---------------------------------------------------------------------------
// Cubic kernels

// The four weights of the taps at -1, 0, +1, +2 from the floor of a sample
// position with fraction f: the tap distances are formed in single precision
// from -1 - f, the kernel evaluated in double and rounded to float.
void cubicWeights(int mode, float f, float w[4]);

// The mode's kernel sampled at d = k / 100 for k = 0..200, rounded to float,
// followed by seven zeros (so the entry after any index up to 200 exists);
// kept as pairs (T[k], T[k + 1] - T[k]), so one 8-byte read fetches what a
// weight interpolates between.
constexpr int kCubicTableSize = 208;
struct KernelTable {
    float pair[kCubicTableSize - 1][2];
};
const KernelTable& kernelTable(int mode);  // mode 4..7

// The weights of the four taps at offsets -1, 0, 1, 2 from a base with
// fraction f (one per lane): d = |-f + offset| capped at 2, scaled by 100,
// k = trunc, r the remainder, weight T[k] + (T[k + 1] - T[k]) * r.
inline simd::F32<4> tapWeights(const KernelTable& table, float f) {
    using F4 = simd::F32<4>;
    const F4 d = simd::abs(F4(-f) + F4::of(-1.0f, 0.0f, 1.0f, 2.0f));
    const F4 x = simd::min(d, F4(2.0f)) * F4(100.0f);
    const simd::I32<4> k = simd::truncToInt(x);
    const F4 r = x - simd::toFloat(k);
    alignas(16) int32_t ki[4];
    simd::store(ki, k);
    const F4 p01 = simd::loadTwoPairs(table.pair[ki[0]], table.pair[ki[1]]);
    const F4 p23 = simd::loadTwoPairs(table.pair[ki[2]], table.pair[ki[3]]);
    return simd::evenLanes(p01, p23) + simd::oddLanes(p01, p23) * r;
}

// ---------------------------------------------------------------------------
// Conversions of float sums to the element types

template <class T>
struct ElementLimits;
template <>
struct ElementLimits<uint8_t> {
    static constexpr float lo = 0.0f, hi = 255.0f;
};
template <>
struct ElementLimits<uint16_t> {
    static constexpr float lo = 0.0f, hi = 65535.0f;
};
template <>
struct ElementLimits<int16_t> {
    static constexpr float lo = -32768.0f, hi = 32767.0f;
};

// Rounds to nearest in the current rounding mode (ties to even by default)
// and saturates to the type. Floats pass through. NaN gives the lower limit.
template <class T>
inline T roundToElement(float v) {
    if constexpr (std::is_same_v<T, float>) {
        return v;
    } else {
        constexpr float lo = ElementLimits<T>::lo, hi = ElementLimits<T>::hi;
        return static_cast<T>(simd::roundToInt32(v > lo ? (v < hi ? v : hi) : lo));
    }
}

// Rounding constants of the resize, fixed by its published rules: a mapped
// start with fraction exactly .5 rounds down and an end rounds up (so an edge
// on a half element belongs to both ends); a nearest position moves down by
// 1e-10 (one exactly on an element boundary takes the lower element); and a
// sum converted to an integer type gains 0.5000001 before truncation (a sum a
// few float steps under a half still rounds up).
constexpr double kRoundStartDown = 0.4999999999;
constexpr double kRoundEndUp = 0.5000000001;
constexpr double kNearestDown = 1e-10;
constexpr float kResizeHalf = 0.5000001f;

// The resize rule: add kResizeHalf, saturate, truncate toward zero.
template <class T>
inline T truncateToElement(float v) {
    if constexpr (std::is_same_v<T, float>) {
        return v;
    } else {
        constexpr float lo = ElementLimits<T>::lo, hi = ElementLimits<T>::hi;
        const float s = v + kResizeHalf;
        return static_cast<T>(static_cast<int32_t>(s > lo ? (s < hi ? s : hi) : lo));
    }
}

// The same rules on N lanes, storing N elements. max(v, lo) takes lo for a
// NaN lane, as the scalar forms do.
template <class T, int N>
QELR_INLINE void storeRounded(T* p, simd::F32<N> v) {
    if constexpr (std::is_same_v<T, float>) {
        simd::storeu(p, v);
    } else {
        const simd::F32<N> c = simd::min(simd::max(v, simd::F32<N>(ElementLimits<T>::lo)),
                                         simd::F32<N>(ElementLimits<T>::hi));
        simd::storeSaturated(p, simd::roundToInt(c));
    }
}

template <class T, int N>
QELR_INLINE void storeTruncated(T* p, simd::F32<N> v) {
    if constexpr (std::is_same_v<T, float>) {
        simd::storeu(p, v);
    } else {
        const simd::F32<N> s = v + simd::F32<N>(kResizeHalf);
        const simd::F32<N> c = simd::min(simd::max(s, simd::F32<N>(ElementLimits<T>::lo)),
                                         simd::F32<N>(ElementLimits<T>::hi));
        simd::storeSaturated(p, simd::truncToInt(c));
    }
}

// Rounded lanes written only where bit l of `mask` is set.
template <class T, int N>
QELR_INLINE void storeRoundedMasked(T* p, simd::F32<N> v, int mask) {
    if (mask == (1 << N) - 1) {
        storeRounded(p, v);
        return;
    }
    alignas(32) float lanes[N];
    simd::store(lanes, v);
    for (int l = 0; l < N; ++l) {
        if (mask & (1 << l)) p[l] = roundToElement<T>(lanes[l]);
    }
}

// ---------------------------------------------------------------------------
// Vectors from per-lane values

template <class T, int N>
QELR_INLINE simd::F32<N> vectorOf(const T (&v)[N]) {
    using F4 = simd::F32<4>;
    using I4 = simd::I32<4>;
    const auto four = [&](int o) {
        if constexpr (std::is_same_v<T, float>)
            return F4::of(v[o], v[o + 1], v[o + 2], v[o + 3]);
        else
            return simd::toFloat(
                I4::of(int32_t(v[o]), int32_t(v[o + 1]), int32_t(v[o + 2]), int32_t(v[o + 3])));
    };
#if QELR_SIMD_LANES == 8
    if constexpr (N == 8) return simd::combine(four(0), four(4));
#endif
    if constexpr (N == 4) return four(0);
}

// The element pairs (p[l][0], p[l][1]) of every lane as two float vectors:
// floats as one 8-byte read per pair, split into even and odd lanes; narrow
// elements as one integer per pair, split by mask and shift.
namespace detail {
template <class T>
QELR_INLINE void loadFourPairs(const T* const* p, simd::F32<4>& first, simd::F32<4>& second) {
    using F4 = simd::F32<4>;
    if constexpr (std::is_same_v<T, float>) {
        const F4 p01 = simd::loadTwoPairs(p[0], p[1]), p23 = simd::loadTwoPairs(p[2], p[3]);
        first = simd::evenLanes(p01, p23);
        second = simd::oddLanes(p01, p23);
    } else {
        using Pair = std::conditional_t<sizeof(T) == 1, uint16_t, uint32_t>;
        Pair v[4];
        for (int l = 0; l < 4; ++l) std::memcpy(&v[l], p[l], sizeof(Pair));
        const simd::I32<4> both =
            simd::I32<4>::of(int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3]));
        constexpr int kBits = 8 * sizeof(T);
        first = simd::toFloat(both & simd::I32<4>((1 << kBits) - 1));
        second = simd::toFloat(simd::shiftRightLogical<kBits>(both));
    }
}
}  // namespace detail

template <class T, int N>
QELR_INLINE void loadPairs(const T* const (&p)[N], simd::F32<N>& first, simd::F32<N>& second) {
#if QELR_SIMD_LANES == 8
    if constexpr (N == 8) {
        simd::F32<4> a0, b0, a1, b1;
        detail::loadFourPairs(p, a0, b0);
        detail::loadFourPairs(p + 4, a1, b1);
        first = simd::combine(a0, a1);
        second = simd::combine(b0, b1);
    }
#endif
    if constexpr (N == 4) detail::loadFourPairs(p, first, second);
}

// a (1 - f) + b f.
template <class V>
QELR_INLINE V lerp(V a, V b, V f) {
    return a * (V(1.0f) - f) + b * f;
}

}  // namespace qelr::QELR_ISA::volume

// ---------------------------------------------------------------------------
// Shared interpolation cores (remap and warp)

namespace qelr::QELR_ISA::volume {

// Trilinear at N positions. corner(r, l) points at the first element of
// lane l's pair along x in row r: r = 0 (y0, z0), 1 (y1, z0), 2 (y0, z1),
// 3 (y1, z1); the pair is the element and the next one (or the element twice
// when `pairAlongX` is false). Blended along x, then y, then z.
template <class T, int N, class Corner>
QELR_INLINE simd::F32<N> trilinear(Corner&& corner, bool pairAlongX, simd::F32<N> fx,
                                   simd::F32<N> fy, simd::F32<N> fz) {
    simd::F32<N> along[4];
    for (int r = 0; r < 4; ++r) {
        const T* p[N];
        for (int l = 0; l < N; ++l) p[l] = corner(r, l);
        simd::F32<N> a, b;
        if (pairAlongX) {
            loadPairs(p, a, b);
        } else {
            T v[N];
            for (int l = 0; l < N; ++l) v[l] = p[l][0];
            a = b = vectorOf(v);
        }
        along[r] = lerp(a, b, fx);
    }
    return lerp(lerp(along[0], along[1], fy), lerp(along[2], along[3], fy), fz);
}

// The x taps base - 1 .. base + 2 of the cubic neighbourhood, clamped into
// [lo, hi] (one load per row when no clamping happens).
struct CubicColumns {
    int32_t idx[4];
    bool contiguous;
};

inline CubicColumns cubicColumns(int32_t base, int32_t lo, int32_t hi) {
    CubicColumns c{{base - 1, base, base + 1, base + 2}, base - 1 >= lo && base + 2 <= hi};
    if (!c.contiguous) {
        for (int32_t& i : c.idx) i = clampIndex(i, lo, hi);
    }
    return c;
}

// Calls body(taps) with taps(row) giving the four x taps of a row as floats,
// specialised for rows read in one load.
template <class T, class Body>
QELR_INLINE float withRowTaps(const CubicColumns& x, Body&& body) {
    if (x.contiguous) {
        return body([&](const uint8_t* row) {
            return simd::loadAsFloat<4>(reinterpret_cast<const T*>(row) + x.idx[0]);
        });
    }
    return body([&](const uint8_t* row) {
        const T* r = reinterpret_cast<const T*>(row);
        return simd::F32<4>::of(static_cast<float>(r[x.idx[0]]), static_cast<float>(r[x.idx[1]]),
                                static_cast<float>(r[x.idx[2]]), static_cast<float>(r[x.idx[3]]));
    });
}

// ((w0 a + w1 b) + w2 c) + w3 d, w broadcast from four scalars.
template <class V>
QELR_INLINE V blendFour(const float w[4], V a, V b, V c, V d) {
    return ((V(w[0]) * a + V(w[1]) * b) + V(w[2]) * c) + V(w[3]) * d;
}

// Separable cubic in one plane: rows[r] is the first byte of tap row r; the
// rows are blended along y, then the x taps weighted and summed.
template <class T>
QELR_INLINE float cubicPlane(const uint8_t* const rows[4], const CubicColumns& x, simd::F32<4> wx,
                             simd::F32<4> wy) {
    alignas(16) float y[4];
    simd::store(y, wy);
    return withRowTaps<T>(x, [&](auto taps) {
        return simd::sumLanes(
            blendFour(y, taps(rows[0]), taps(rows[1]), taps(rows[2]), taps(rows[3])) * wx);
    });
}

// Separable tricubic: plane c's row r starts at planes[c] + rowOffset[r]. The
// rows of each plane are blended along y, the planes along z, then the x taps
// weighted and summed; on eight lanes two planes share a vector.
template <class T>
QELR_INLINE float cubicVolume(const uint8_t* const planes[4], const ptrdiff_t rowOffset[4],
                              const CubicColumns& x, simd::F32<4> wx, simd::F32<4> wy,
                              simd::F32<4> wz) {
    using F4 = simd::F32<4>;
    alignas(16) float y[4], z[4];
    simd::store(y, wy);
    simd::store(z, wz);
    return withRowTaps<T>(x, [&](auto taps) {
        const auto row = [&](int c, int r) { return taps(planes[c] + rowOffset[r]); };
#if QELR_SIMD_LANES == 8
        const auto twoPlanes = [&](int c) {
            const auto rows = [&](int r) { return simd::combine(row(c, r), row(c + 1, r)); };
            return blendFour(y, rows(0), rows(1), rows(2), rows(3)) *
                   simd::combine(F4(z[c]), F4(z[c + 1]));
        };
        const Vf m01 = twoPlanes(0), m23 = twoPlanes(2);
        const F4 v =
            ((simd::lowHalf(m01) + simd::highHalf(m01)) + simd::lowHalf(m23)) + simd::highHalf(m23);
#else
        const auto plane = [&](int c) { return blendFour(y, row(c, 0), row(c, 1), row(c, 2), row(c, 3)); };
        const F4 v = blendFour(z, plane(0), plane(1), plane(2), plane(3));
#endif
        return simd::sumLanes(v * wx);
    });
}

}  // namespace qelr::QELR_ISA::volume
