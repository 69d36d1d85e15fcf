// Test support for the resize: volumes in both layouts, a call wrapper over
// the six entry points and a literal scalar reference of the resampling.
#pragma once

#include <qelr.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace resize_test {

// A volume whose planes are stored in reverse order with padded rows and
// planes: `planes` serves the PV calls, `base`/`sliceStep` the V calls (a
// negative plane step walks the reversed storage forward in z).
template <class T>
struct Volume {
    QelVolumeSize size{};
    int rowStep = 0, sliceStep = 0;
    std::vector<uint8_t> bytes;
    std::vector<T*> planes;

    Volume(QelVolumeSize s, int rowPad, int planePad) : size(s) {
        rowStep = static_cast<int>((s.width + rowPad) * sizeof(T));
        const int planeBytes = rowStep * s.height + planePad * static_cast<int>(sizeof(T));
        sliceStep = -planeBytes;
        bytes.assign(static_cast<size_t>(planeBytes) * s.depth, 0xA5);
        linkPlanes();
    }
    Volume(const Volume& o)
        : size(o.size), rowStep(o.rowStep), sliceStep(o.sliceStep), bytes(o.bytes) {
        linkPlanes();
    }
    Volume& operator=(const Volume&) = delete;
    void linkPlanes() {
        planes.clear();
        for (int z = 0; z < size.depth; ++z) {
            planes.push_back(reinterpret_cast<T*>(
                bytes.data() + static_cast<size_t>(size.depth - 1 - z) * -sliceStep));
        }
    }
    T* base() const { return planes[0]; }
    T& at(int x, int y, int z) const {
        return *reinterpret_cast<T*>(reinterpret_cast<uint8_t*>(planes[z]) +
                                     static_cast<ptrdiff_t>(y) * rowStep + x * sizeof(T));
    }
    void fillRandom(uint32_t seed) {
        std::mt19937 rng(seed);
        for (int z = 0; z < size.depth; ++z)
            for (int y = 0; y < size.height; ++y)
                for (int x = 0; x < size.width; ++x) {
                    if constexpr (std::is_same_v<T, float>) {
                        at(x, y, z) = std::uniform_real_distribution<float>(-100.0f, 100.0f)(rng);
                    } else {
                        at(x, y, z) = static_cast<T>(rng());
                    }
                }
    }
};

struct Params {
    double scale[3];
    double offset[3];
    int mode;
};

template <class T>
QelStatus resize(bool planar, const Volume<T>& src, QelBox3D srcBox, Volume<T>& dst,
                 QelBox3D dstBox, const Params& p, uint8_t* buf) {
    const double *s = p.scale, *o = p.offset;
    if (planar) {
        std::vector<const T*> sp(src.planes.begin(), src.planes.end());
        if constexpr (std::is_same_v<T, uint8_t>)
            return qelrResize_8u_C1PV(sp.data(), src.size, src.rowStep, srcBox, dst.planes.data(),
                                      dst.rowStep, dstBox, s[0], s[1], s[2], o[0], o[1], o[2],
                                      p.mode, buf);
        else if constexpr (std::is_same_v<T, uint16_t>)
            return qelrResize_16u_C1PV(sp.data(), src.size, src.rowStep, srcBox, dst.planes.data(),
                                       dst.rowStep, dstBox, s[0], s[1], s[2], o[0], o[1], o[2],
                                       p.mode, buf);
        else
            return qelrResize_32f_C1PV(sp.data(), src.size, src.rowStep, srcBox, dst.planes.data(),
                                       dst.rowStep, dstBox, s[0], s[1], s[2], o[0], o[1], o[2],
                                       p.mode, buf);
    }
    if constexpr (std::is_same_v<T, uint8_t>)
        return qelrResize_8u_C1V(src.base(), src.size, src.rowStep, src.sliceStep, srcBox,
                                 dst.base(), dst.rowStep, dst.sliceStep, dstBox, s[0], s[1], s[2],
                                 o[0], o[1], o[2], p.mode, buf);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return qelrResize_16u_C1V(src.base(), src.size, src.rowStep, src.sliceStep, srcBox,
                                  dst.base(), dst.rowStep, dst.sliceStep, dstBox, s[0], s[1], s[2],
                                  o[0], o[1], o[2], p.mode, buf);
    else
        return qelrResize_32f_C1V(src.base(), src.size, src.rowStep, src.sliceStep, srcBox,
                                  dst.base(), dst.rowStep, dst.sliceStep, dstBox, s[0], s[1], s[2],
                                  o[0], o[1], o[2], p.mode, buf);
}

// ---------------------------------------------------------------------------
// Reference, written from the definition: per axis the written range, then per
// destination coordinate the clamped taps and their weights.

struct RefRange {
    int lo, hi;
};

inline RefRange refRange(int s, int n, int t, int m, double F, double S) {
    return {static_cast<int>(std::max(s * F + S, double(t)) + 0.4999999999),
            static_cast<int>(std::min((s + n) * F + S, double(t + m)) + 0.5000000001)};
}

struct Taps {
    int count;
    int index[4];
    double weight[4];
};

inline double refKernel(int mode, int tap, double f) {  // tap -1..2
    if (mode == qelInterpCubic) {                       // Lagrange basis through -1, 0, 1, 2
        const double x = f;
        switch (tap) {
            case -1:
                return -x * (x - 1) * (x - 2) / 6;
            case 0:
                return (x + 1) * (x - 1) * (x - 2) / 2;
            case 1:
                return -(x + 1) * x * (x - 2) / 2;
            default:
                return (x + 1) * x * (x - 1) / 6;
        }
    }
    const double bc[3][2] = {{1, 0}, {0, 0.5}, {0.5, 0.3}};
    const double B = bc[mode - 5][0], C = bc[mode - 5][1];
    const double d = std::fabs(tap - f);
    if (d < 1)
        return ((12 - 9 * B - 6 * C) * d * d * d + (-18 + 12 * B + 6 * C) * d * d + (6 - 2 * B)) /
               6;
    if (d < 2)
        return ((-B - 6 * C) * d * d * d + (6 * B + 30 * C) * d * d + (-12 * B - 48 * C) * d +
                (8 * B + 24 * C)) /
               6;
    return 0;
}

inline Taps refTaps(int mode, int d, double F, double S, int extent) {
    const double r = 1 / F, o = -S / F;
    const auto clampIn = [extent](int i) { return std::clamp(i, 0, extent - 1); };
    Taps t{};
    if (mode == qelInterpNearest) {
        t.count = 1;
        t.index[0] = clampIn(static_cast<int>((d + 0.5) * r + o - 1e-10));
        t.weight[0] = 1;
        return t;
    }
    const double p = (d + 0.5) * r + (o - 0.5);
    const int i = static_cast<int>(std::floor(p));
    const double f = static_cast<float>(p - i);
    if (mode == qelInterpLinear) {
        if (i < 0 || i > extent - 2) return {1, {clampIn(i)}, {1.0}};
        return {2, {i, i + 1}, {1 - f, f}};
    }
    t.count = 4;
    for (int k = -1; k <= 2; ++k) {
        t.index[k + 1] = clampIn(i + k);
        t.weight[k + 1] = refKernel(mode, k, f);
    }
    return t;
}

// The reference value and the sum of |weight * element| (the scale of the
// rounding error of a float evaluation).
template <class T>
std::pair<double, double> refValue(const Volume<T>& src, const Taps& tx, const Taps& ty,
                                   const Taps& tz) {
    double v = 0, mag = 0;
    for (int c = 0; c < tz.count; ++c)
        for (int b = 0; b < ty.count; ++b)
            for (int a = 0; a < tx.count; ++a) {
                const double e = src.at(tx.index[a], ty.index[b], tz.index[c]);
                const double w = tx.weight[a] * ty.weight[b] * tz.weight[c];
                v += w * e;
                mag += std::fabs(w * e);
            }
    return {v, mag};
}

}  // namespace resize_test
