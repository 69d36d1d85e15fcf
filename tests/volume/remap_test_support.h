// Planar volumes, coordinate maps and a literal scalar remap reference for
// the remap tests. The reference accumulates in double; its tap weights
// follow the table rule in single precision from tables built here from the
// kernel polynomials.
#pragma once

#include <qelr.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace remap_test {

// A planar volume, each plane in its own allocation so that the address
// sanitizer sees reads past a plane. Rows are exact, or, with `flipRows`,
// padded by three elements and stored bottom-up with a negative row step.
template <class T>
struct PlanarVolume {
    int w = 0, h = 0, d = 0;
    int rowStep = 0;                          // bytes
    std::vector<std::vector<uint8_t>> bytes;  // per plane
    std::vector<T*> planes;

    PlanarVolume(int width, int height, int depth, bool flipRows = false)
        : w(width), h(height), d(depth) {
        const int rowBytes = static_cast<int>((width + (flipRows ? 3 : 0)) * sizeof(T));
        rowStep = flipRows ? -rowBytes : rowBytes;
        bytes.assign(depth, std::vector<uint8_t>(static_cast<size_t>(rowBytes) * height, 0));
        for (auto& plane : bytes)
            planes.push_back(reinterpret_cast<T*>(
                plane.data() + (flipRows ? static_cast<size_t>(rowBytes) * (height - 1) : 0)));
    }
    // The plane pointers point into `bytes`: moving keeps them valid, copying would not.
    PlanarVolume(PlanarVolume&&) = default;
    PlanarVolume(const PlanarVolume&) = delete;
    PlanarVolume& operator=(const PlanarVolume&) = delete;

    T& at(int x, int y, int z) {
        return reinterpret_cast<T*>(reinterpret_cast<uint8_t*>(planes[z]) +
                                    static_cast<ptrdiff_t>(y) * rowStep)[x];
    }
    T at(int x, int y, int z) const { return const_cast<PlanarVolume*>(this)->at(x, y, z); }
    QelVolumeSize size() const { return {w, h, d}; }
    const T* const* in() const { return planes.data(); }
    T* const* out() { return planes.data(); }
};

template <class T>
T randomElement(std::mt19937& rng) {
    if constexpr (std::is_same_v<T, float>) {
        return std::uniform_real_distribution<float>(-100.0f, 100.0f)(rng);
    } else {
        return static_cast<T>(
            std::uniform_int_distribution<int>(0, sizeof(T) == 1 ? 255 : 65535)(rng));
    }
}

template <class T>
void fillRandom(PlanarVolume<T>& v, std::mt19937& rng) {
    for (int z = 0; z < v.d; ++z)
        for (int y = 0; y < v.h; ++y)
            for (int x = 0; x < v.w; ++x) v.at(x, y, z) = randomElement<T>(rng);
}

// The three maps of a destination.
struct Maps {
    PlanarVolume<float> x, y, z;
    Maps(int w, int h, int d, bool flipRows = false)
        : x(w, h, d, flipRows), y(w, h, d, flipRows), z(w, h, d, flipRows) {}
};

// A coordinate for an axis with inclusive bounds [lo, hi]: mostly inside,
// often on the bounds or just past them, sometimes NaN.
inline float randomCoordinate(std::mt19937& rng, int lo, int hi) {
    const int pick = std::uniform_int_distribution<int>(0, 19)(rng);
    switch (pick) {
        case 0:
            return static_cast<float>(lo);
        case 1:
            return static_cast<float>(hi);
        case 2:
            return static_cast<float>(hi) + 0.001f;
        case 3:
            return static_cast<float>(lo) - 0.001f;
        case 4:
            return std::nanf("");
        case 5:
            return static_cast<float>(std::uniform_int_distribution<int>(lo, hi)(rng));
        default:  // an axis one voxel thick is read at its voxel only
            return lo == hi ? static_cast<float>(lo)
                            : std::uniform_real_distribution<float>(lo - 0.3f, hi + 0.3f)(rng);
    }
}

struct Bounds {
    int lo[3], hi[3];
};

inline Bounds boundsOf(const QelBox3D& box) {
    return {{box.x, box.y, box.z},
            {box.x + box.width - 1, box.y + box.height - 1, box.z + box.depth - 1}};
}

// Maps of a w x h x d destination with random coordinates around bounds b.
inline Maps randomMaps(int w, int h, int d, const Bounds& b, std::mt19937& rng,
                       bool flipRows = false) {
    Maps maps(w, h, d, flipRows);
    for (int z = 0; z < d; ++z)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                maps.x.at(x, y, z) = randomCoordinate(rng, b.lo[0], b.hi[0]);
                maps.y.at(x, y, z) = randomCoordinate(rng, b.lo[1], b.hi[1]);
                maps.z.at(x, y, z) = randomCoordinate(rng, b.lo[2], b.hi[2]);
            }
    return maps;
}

// Kernel of a cubic mode at distance d, from the (B, C) family or the
// Lagrange cubic, in the evaluation order that fixes the bits.
inline double cubicPolynomial(int mode, double d) {
    if (d >= 2.0) return 0.0;
    if (mode == qelInterpCubic)
        return d < 1 ? ((0.5 * d - 1.0) * d - 0.5) * d + 1.0
                     : ((-0.16666666666666666 * d + 1.0) * d - 1.8333333333333333) * d + 1.0;
    if (mode == qelInterpCubicBSpline)
        return d < 1 ? ((0.5 * d - 1.0) * d) * d + 0.6666666666666666
                     : ((-0.16666666666666666 * d + 1.0) * d) * d + (1.3333333333333333 - d - d);
    if (mode == qelInterpCubicCatmullRom)
        return d < 1 ? (1.5 * d - 2.5) * (d * d) + 1.0 : ((-0.5 * d + 2.5) * d - 4.0) * d + 2.0;
    return d < 1 ? (0.95 * d - 1.7) * (d * d) + 0.8333333333333334
                 : ((-0.38333333333333336 * d + 2.0) * d - 3.4) * d + 1.8666666666666667;
}

// Tap weight by the table rule: entries at d = k / 100, linear in between.
inline float tableTapWeight(int mode, float f, int offset) {
    float table[202];
    for (int k = 0; k <= 200; ++k) table[k] = static_cast<float>(cubicPolynomial(mode, k / 100.0));
    table[201] = 0.0f;
    const float d = std::fabs(static_cast<float>(offset) - f);
    const float s = std::fmin(d, 2.0f) * 100.0f;
    const int k = static_cast<int>(s);
    const float r = s - static_cast<float>(k);
    return table[k] + (table[k + 1] - table[k]) * r;
}

inline int clampTo(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

// Reference sample at p (x, y, z); false when the position is outside.
template <class T>
bool referenceSample(const PlanarVolume<T>& src, const Bounds& b, int mode, const float p[3],
                     double& out) {
    for (int a = 0; a < 3; ++a)
        if (!(p[a] >= static_cast<float>(b.lo[a]) && p[a] <= static_cast<float>(b.hi[a])))
            return false;
    int base[3];
    float frac[3];
    if (mode == qelInterpNearest) {
        for (int a = 0; a < 3; ++a) base[a] = static_cast<int>(std::nearbyint(p[a]));
        out = src.at(base[0], base[1], base[2]);
        return true;
    }
    if (mode == qelInterpLinear) {
        double w[3][2];
        int idx[3][2];
        for (int a = 0; a < 3; ++a) {
            int i = static_cast<int>(p[a]);
            if (i == b.hi[a] && i > b.lo[a]) --i;
            const double f = static_cast<double>(p[a]) - i;
            w[a][0] = 1 - f;
            w[a][1] = f;
            idx[a][0] = i;
            idx[a][1] = std::min(i + 1, b.hi[a]);
        }
        out = 0;
        for (int k = 0; k < 2; ++k)
            for (int j = 0; j < 2; ++j)
                for (int i = 0; i < 2; ++i)
                    out += w[2][k] * w[1][j] * w[0][i] * src.at(idx[0][i], idx[1][j], idx[2][k]);
        return true;
    }
    double w[3][4];
    int idx[3][4];
    for (int a = 0; a < 3; ++a) {
        base[a] = static_cast<int>(p[a]);
        frac[a] = p[a] - static_cast<float>(base[a]);
        for (int t = 0; t < 4; ++t) {
            w[a][t] = tableTapWeight(mode, frac[a], t - 1);
            idx[a][t] = clampTo(base[a] - 1 + t, b.lo[a], b.hi[a]);
        }
    }
    out = 0;
    for (int k = 0; k < 4; ++k)
        for (int j = 0; j < 4; ++j)
            for (int i = 0; i < 4; ++i)
                out += w[2][k] * w[1][j] * w[0][i] * src.at(idx[0][i], idx[1][j], idx[2][k]);
    return true;
}

// Whether an integer result equals the reference rounded and saturated; true
// when the reference lies within `tieMargin` of a rounding tie (the float
// arithmetic may fall on either side there).
template <class T>
bool integerResultMatches(T got, double ref, double tieMargin) {
    const double lo = 0, hi = sizeof(T) == 1 ? 255 : 65535;
    const double fracPart = ref - std::floor(ref);
    if (std::fabs(fracPart - 0.5) < tieMargin) return true;
    const double want = std::fmin(std::fmax(std::nearbyint(ref), lo), hi);
    return static_cast<double>(got) == want;
}

}  // namespace remap_test
