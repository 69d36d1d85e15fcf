// Remap and affine warp: every type and mode against the kernels' closed forms
// evaluated in double at the positions the maps or the inverted transform
// give, the exact kernel weights at hand-derived points, and the screening of
// singular transforms.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cstring>

#include "volume_reference.h"

using namespace volume_test;

namespace {

using Coeffs = double[3][4];

// Remap and warp with every variant and team size (which must agree).
template <class T>
QelStatus remap(const Volume<T>& s, QelBox3D box, const Volume<float>* const m[3], Volume<T>& d,
                int mode) {
    return sameEverywhere(d, [&](Isa i) {
        return Fns<T>::remap(i)(s.in(), s.size, s.rowStep, box, m[0]->in(), m[1]->in(), m[2]->in(),
                                m[0]->rowStep, d.planes.data(), d.rowStep, d.size, mode);
    });
}

template <class T>
QelStatus warp(const Volume<T>& s, QelBox3D box, Volume<T>& d, QelBox3D dbox, const Coeffs c,
               int mode) {
    return sameEverywhere(d, [&](Isa i) {
        return Fns<T>::warp(i)(s.in(), s.size, s.rowStep, box, d.planes.data(), d.rowStep, dbox, c,
                               mode);
    });
}

// The mode a source supports given its smallest interpolated extent.
int degraded(int mode, int smallest) {
    if (mode >= 4 && smallest < 4) mode = 2;
    return smallest < 2 ? 1 : mode;
}

// The taps of one axis at a position p inside [lo, hi]. Remap positions are
// floats and its fraction a float difference; the warp's are doubles, its
// fraction p - i rounded to float, and its linear pair may reach past a box
// one element thick (still inside the volume).
Taps axisTaps(bool isWarp, int mode, double p, int lo, int hi) {
    if (mode == 1) return {1, {static_cast<int>(std::nearbyint(p))}, {1.0}};
    int b = static_cast<int>(p);
    if (mode == 2 && isWarp && b == hi && b > 0) --b;
    if (mode == 2 && !isWarp) b = std::min(b, hi > lo ? hi - 1 : lo);
    const double f =
        isWarp ? static_cast<float>(p - b) : static_cast<float>(p) - static_cast<float>(b);
    if (mode != 2) return cubicTaps(mode, b, f, lo, hi);
    return {2, {b, isWarp || hi > lo ? b + 1 : b}, {1 - f, f}};
}

struct Geometry {
    QelVolumeSize src;
    QelBox3D box;  // the source box; the accepted box is its part inside the volume
    QelVolumeSize dst;
};
const Geometry kGeometries[] = {
    {{14, 13, 12}, {1, 2, 0, 12, 20, 11}, {19, 17, 17}},  // split over threads
    {{3, 5, 6}, {0, 0, 0, 3, 5, 6}, {7, 5, 3}},           // cubic degrades to linear
    {{6, 1, 5}, {0, 0, 0, 6, 1, 5}, {5, 4, 2}},           // to nearest
    {{9, 8, 1}, {1, 0, 0, 8, 8, 1}, {11, 5, 3}},          // one plane: the plane paths
};

// Remap (through maps of random positions around the box, its faces, just
// beyond them, NaN) or warp (by a rotation with scaling and translation,
// inverted here by Cramer's rule) of every geometry in every mode.
template <class T>
void againstReference(bool isWarp) {
    const Coeffs c = {{0.9, -0.3, 0.1, 2.5}, {0.35, 1.1, -0.2, -1.25}, {0.05, 0.25, 1.2, 0.5}};
    const auto cof = [&](int i, int j) {
        const auto m = [&](int r, int k) { return c[(i + r) % 3][(j + k) % 3]; };
        return m(1, 1) * m(2, 2) - m(1, 2) * m(2, 1);
    };
    const double det = c[0][0] * cof(0, 0) + c[0][1] * cof(0, 1) + c[0][2] * cof(0, 2);
    double inv[3][4];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) inv[i][j] = cof(j, i) / det;
        inv[i][3] = -(inv[i][0] * c[0][3] + inv[i][1] * c[1][3] + inv[i][2] * c[2][3]);
    }
    for (const Geometry& g : kGeometries) {
        Volume<T> src(g.src);
        src.fillRandom(3, true);
        const QelBox3D b = g.box, dbox{1, 0, 1, g.dst.width - 1, g.dst.height, g.dst.depth - 1};
        Volume<float> mx(g.dst), my(g.dst), mz(g.dst);
        Volume<float>* maps[3] = {&mx, &my, &mz};
        const int lo[3] = {b.x, b.y, b.z};
        const int hi[3] = {std::min(b.x + b.width, g.src.width) - 1,
                           std::min(b.y + b.height, g.src.height) - 1,
                           std::min(b.z + b.depth, g.src.depth) - 1};
        std::mt19937 rng(5);
        for (int a = 0; a < 3; ++a) {
            std::uniform_real_distribution<float> u(lo[a] - 1.5f, hi[a] + 1.5f);
            const float special[] = {float(lo[a]), float(hi[a]), hi[a] + 0.001f, NAN, 2.5f};
            maps[a]->fill([&](int, int, int) { return rng() % 4 ? u(rng) : special[rng() % 5]; });
        }
        const bool plane = g.src.depth == 1;
        const int smallest =
            std::min({g.src.width, g.src.height, plane ? g.src.height : g.src.depth});
        for (int mode : kModes) {
            Volume<T> dst(g.dst), before(g.dst);
            dst.fillRandom(9);
            before.fillRandom(9);
            const QelStatus st =
                isWarp ? warp(src, g.box, dst, dbox, c, mode) : remap(src, g.box, maps, dst, mode);
            if (!isWarp && plane && (mode == 5 || mode == 7)) {  // the plane remap knows 1, 2, 4, 6
                EXPECT_EQ(st, qelErrInterpolation);
                continue;
            }
            ASSERT_EQ(st, qelOk);
            // Untouched where the position leaves the accepted box and, for the
            // warp, outside the destination box; the plane remap writes the first
            // destination plane only and ignores the z map. The cubic tables
            // interpolate the kernels between steps of 0.01.
            const int m = degraded(mode, smallest);
            const double rel = m == 1 ? 0 : m == 2 ? 2e-6 : 1e-3;
            expectReference(src, before, dst, rel, [&](int x, int y, int z, Taps t[3]) {
                if (isWarp ? x < dbox.x || z < dbox.z : plane && z > 0) return false;
                for (int a = 0; a < 3; ++a) {
                    const double p = isWarp
                                         ? inv[a][0] * x + inv[a][1] * y + inv[a][2] * z + inv[a][3]
                                         : maps[a]->at(x, y, z);
                    const bool flat = a == 2 && plane;
                    if ((isWarp || !flat) && !(p >= lo[a] && p <= hi[a])) return false;
                    t[a] = flat ? Taps{1, {0}, {1.0}} : axisTaps(isWarp, m, p, lo[a], hi[a]);
                }
                return true;
            });
        }
    }
}

TEST(RemapAndWarp, EveryTypeAndModeAgainstTheClosedForms) {
    for (bool isWarp : {false, true}) {
        againstReference<uint8_t>(isWarp);
        againstReference<uint16_t>(isWarp);
        againstReference<float>(isWarp);
    }
}

// A unit impulse sampled along x: at distances 0.5 and 1.5 the weights are
// table entries, so the result is the exact rational weight (rounded to
// float) times w(0)^2; at distance 2 (position 2.0, tap 2) the weight is 0.
TEST(Remap, CubicTablesHoldTheExactWeights) {
    struct Weights {
        int mode;
        double w0, w05, w15;
    };
    const Weights modes[] = {{4, 1, 9.0 / 16, -1.0 / 16},
                             {5, 2.0 / 3, 23.0 / 48, 1.0 / 48},
                             {6, 1, 9.0 / 16, -1.0 / 16},
                             {7, 5.0 / 6, 253.0 / 480, -13.0 / 480}};
    Volume<float> src({9, 9, 9});
    src.fill([](int x, int y, int z) { return x == 4 && y == 4 && z == 4 ? 1.0f : 0.0f; });
    Volume<float> mx({5, 1, 1}), myz({5, 1, 1});
    const float xs[5] = {2.0f, 2.5f, 3.5f, 4.5f, 5.5f};  // the impulse at taps 2, 2, 1, 0, -1
    mx.fill([&](int x, int, int) { return xs[x]; });
    myz.fill([](int, int, int) { return 4.0f; });
    const Volume<float>* maps[3] = {&mx, &myz, &myz};
    for (const Weights& w : modes) {
        Volume<float> dst({5, 1, 1});
        dst.fill([](int, int, int) { return 7.0f; });
        ASSERT_EQ(remap(src, {0, 0, 0, 9, 9, 9}, maps, dst, w.mode), qelOk);
        const double want[5] = {0, w.w15, w.w05, w.w05, w.w15};
        for (int i = 0; i < 5; ++i)
            EXPECT_NEAR(dst.at(i, 0, 0), want[i] * w.w0 * w.w0, 1e-7) << w.mode << " " << i;
    }
}

// Proportional rows, and pairs of products (c11 c22, c12 c21), (c10 c22,
// c12 c20), (c10 c21, c11 c20) within a relative 1e-10, are refused; 1e-9
// apart, or a tiny p against a q of 1, are not. A zero determinant that
// passes this screening is refused after the origin test. Nothing is written
// on refusal or when the transform misses the destination.
TEST(WarpAffine, SingularTransformsAndNothingWritten) {
    Volume<uint8_t> src({4, 4, 4}), flat({5, 5, 1}), dst({4, 4, 4});
    dst.fillRandom(1);
    const std::vector<uint8_t> before = dst.bytes;
    const QelBox3D box{0, 0, 0, 4, 4, 4};
    const Coeffs id = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    const Coeffs far = {{1, 0, 0, 100}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    const Coeffs refused[] = {{{1e6, 3, 1, 0}, {0, 2, 4, 0}, {0, 1, 2, 0}},
                              {{5, 0, 0, 0}, {1, 2, 3, 0}, {2, 4, 6 * (1 + 5e-11), 0}},
                              {{1, 0, 0, 0}, {0, 1e-150, 1e-150, 0}, {0, 1e-51, 1e-60, 0}},
                              {{1, 1, 0, 0}, {1, 1, 0, 0}, {0, 0, 1, 0}}};  // det 0 only
    for (const Coeffs& c : refused)
        EXPECT_EQ(warp(src, box, dst, box, c, 1), qelErrSingularTransform);
    EXPECT_EQ(warp(src, {4, 0, 0, 2, 2, 2}, dst, box, refused[3], 1), qelWarnRegionOutsideVolume);
    // A row of working memory too large for a 32-bit byte count.
    EXPECT_EQ(warp(flat, {0, 0, 0, 5, 5, 1}, dst, {0, 0, 0, 1 << 29, 1, 1}, id, 2), qelErrNoMemory);
    EXPECT_EQ(warp(src, box, dst, box, far, 4), qelOk);
    EXPECT_EQ(dst.bytes, before);
    const Coeffs accepted[] = {{{5, 0, 0, 0}, {1, 2, 3, 0}, {2, 4, 6 * (1 + 1e-9), 0}},
                               {{1, 0, 0, 0}, {0, 0, 1, 0}, {0, 1, 0, 0}}};  // det -1
    for (const Coeffs& c : accepted) EXPECT_EQ(warp(src, box, dst, box, c, 1), qelOk);
    int size = -1;
    EXPECT_EQ(qelrWarpAffineGetBufSize(box, box, 1, 7, &size), qelOk);
    EXPECT_EQ(size, 0);
}

}  // namespace
