// Test support for the volume functions: volumes in both layouts, every call
// made with both instruction-set variants and several team sizes (which must
// agree bit for bit), and the cubic kernels from their closed forms.
#pragma once

#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "core/dispatch.h"
#include "volume/volume_variants.h"
#include "test_util.h"

namespace volume_test {

constexpr int kModes[] = {1, 2, 4, 5, 6, 7};

// Planes stored in reverse order with padded rows and planes: `planes` serves
// the PV calls, `base` with a negative `sliceStep` the V calls.
template <class T>
struct Volume {
    QelVolumeSize size;
    int rowStep, sliceStep;
    std::vector<uint8_t> bytes;
    std::vector<T*> planes;

    explicit Volume(QelVolumeSize s, int rowPad = 3, int planePad = 1)
        : size(s), rowStep(int((s.width + rowPad) * sizeof(T))) {
        sliceStep = -(rowStep * s.height + planePad * int(sizeof(T)));
        bytes.assign(size_t(-sliceStep) * s.depth, 0xA5);
        for (int z = 0; z < s.depth; ++z)
            planes.push_back(reinterpret_cast<T*>(&bytes[size_t(s.depth - 1 - z) * -sliceStep]));
    }
    T* base() const { return planes[0]; }
    const T* const* in() const { return planes.data(); }
    T& at(int x, int y, int z) const {
        return *reinterpret_cast<T*>(reinterpret_cast<uint8_t*>(planes[z]) +
                                     ptrdiff_t(y) * rowStep + x * sizeof(T));
    }
    template <class F>
    void fill(F&& f) {
        for (int z = 0; z < size.depth; ++z)
            for (int y = 0; y < size.height; ++y)
                for (int x = 0; x < size.width; ++x) at(x, y, z) = static_cast<T>(f(x, y, z));
    }
    // With `special`, float volumes also hold NaN and both infinities.
    void fillRandom(uint32_t seed, bool special = false) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> u(-100.0f, 100.0f);
        fill([&](int, int, int) { return std::is_same_v<T, float> ? u(rng) : float(T(rng())); });
        if (std::is_same_v<T, float> && special) {
            at(1, 0, 0) = T(NAN);
            at(size.width - 1, size.height / 2, size.depth - 1) = T(INFINITY);
            at(0, size.height - 1, size.depth / 2) = T(-INFINITY);
        }
    }
};

using qelr::frame::Isa;

template <class T>
using Fns = qelr::frame::VolumeVariants<T>;

// Byte for byte, except that any two float NaNs count as equal: where two
// different NaNs meet in a sum, which one propagates depends on the operand
// order the compiler emits, which it may commute.
template <class T>
bool sameBits(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (!std::is_same_v<T, float> || a.size() != b.size()) return a == b;
    for (size_t i = 0; i + sizeof(float) <= a.size(); i += sizeof(float)) {
        float x, y;
        std::memcpy(&x, &a[i], sizeof x);
        std::memcpy(&y, &b[i], sizeof y);
        if (std::memcmp(&x, &y, sizeof x) != 0 && !(std::isnan(x) && std::isnan(y))) return false;
    }
    return true;
}

// Runs call(isa), which writes `out`, from the same initial `out` with both
// variants and 1, 3 and 4 threads; statuses and bytes must agree. Leaves the
// first outcome in `out` and returns its status.
template <class T, class Call>
int sameEverywhere(Volume<T>& out, Call&& call) {
    qelr_test::ThreadCountGuard guard;
    const std::vector<uint8_t> initial = out.bytes;
    std::vector<uint8_t> first;
    int status = 0;
    for (Isa isa : qelr::frame::kIsas)
        for (int threads : {1, 3, 4}) {
            if (!qelr::frame::isaRuns(isa)) continue;
            qelSetNumThreads(threads);
            out.bytes = initial;
            const int st = call(isa);
            if (first.empty()) {
                first = out.bytes;
                status = st;
            }
            EXPECT_EQ(st, status) << isaName(isa) << " x" << threads;
            EXPECT_TRUE(sameBits<T>(out.bytes, first)) << isaName(isa) << " x" << threads;
        }
    out.bytes = first;
    return status;
}

// Tap at offset -1..2 from the floor of a position with fraction f: mode 4 is
// the Lagrange basis through the four taps, 5, 6, 7 the (B, C) family.
inline double refKernel(int mode, int tap, double x) {
    if (mode == qelInterpCubic) {
        const double l[4] = {-x * (x - 1) * (x - 2) / 6, (x + 1) * (x - 1) * (x - 2) / 2,
                             -(x + 1) * x * (x - 2) / 2, (x + 1) * x * (x - 1) / 6};
        return l[tap + 1];
    }
    const double bc[3][2] = {{1, 0}, {0, 0.5}, {0.5, 0.3}};
    const double B = bc[mode - 5][0], C = bc[mode - 5][1], d = std::fabs(tap - x);
    if (d < 1)
        return ((12 - 9 * B - 6 * C) * d * d * d + (-18 + 12 * B + 6 * C) * d * d + 6 - 2 * B) / 6;
    if (d >= 2) return 0;
    return ((-B - 6 * C) * d * d * d + (6 * B + 30 * C) * d * d - (12 * B + 48 * C) * d + 8 * B +
            24 * C) /
           6;
}

// The taps of one axis and their weights.
struct Taps {
    int count;
    int index[4];
    double weight[4];
};

// Four cubic taps around `base`, clamped into [lo, hi].
inline Taps cubicTaps(int mode, int base, double f, int lo, int hi) {
    Taps t{4, {}, {}};
    for (int k = -1; k <= 2; ++k) {
        t.index[k + 1] = std::clamp(base + k, lo, hi);
        t.weight[k + 1] = refKernel(mode, k, f);
    }
    return t;
}

// Every element of dst: where tapsAt(x, y, z, taps) answers false, as it was
// (in `before`); elsewhere the sum over the taps in double, floats within
// `rel` of the sum of |weight * element| (the scale of the float evaluation
// error), integers within half a step more and saturated.
template <class T, class TapsAt>
void expectReference(const Volume<T>& src, const Volume<T>& before, const Volume<T>& dst,
                     double rel, TapsAt&& tapsAt) {
    for (int z = 0; z < dst.size.depth; ++z)
        for (int y = 0; y < dst.size.height; ++y)
            for (int x = 0; x < dst.size.width; ++x) {
                const T got = dst.at(x, y, z);
                Taps t[3];
                if (!tapsAt(x, y, z, t)) {
                    ASSERT_EQ(std::memcmp(&got, &before.at(x, y, z), sizeof(T)), 0)
                        << x << "," << y << "," << z;
                    continue;
                }
                double v = 0, mag = 0;
                for (int c = 0; c < t[2].count; ++c)
                    for (int b = 0; b < t[1].count; ++b)
                        for (int a = 0; a < t[0].count; ++a) {
                            const double w = t[0].weight[a] * t[1].weight[b] * t[2].weight[c] *
                                             src.at(t[0].index[a], t[1].index[b], t[2].index[c]);
                            v += w;
                            mag += std::fabs(w);
                        }
                if (!std::isfinite(v)) continue;  // NaN or infinity among the taps
                double tol = rel * mag + 1e-5;
                if constexpr (!std::is_same_v<T, float>) {
                    v = std::clamp(v, 0.0, double(std::numeric_limits<T>::max()));
                    tol += 0.5;
                }
                ASSERT_NEAR(double(got), v, tol) << x << "," << y << "," << z;
            }
}

}  // namespace volume_test
