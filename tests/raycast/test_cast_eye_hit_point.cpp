// Eye-ray directions and hit points: the scalar formulas bit for bit, the
// four-wide paths against literal references of their own order of
// evaluation, and the argument checks.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cmath>
#include <random>
#include <vector>

#include "scene_util.h"
#include "test_util.h"

using qelr_test::bitsOf;
using qelr_test::Plane;

namespace {

const float kCorner[3] = {-0.75f, 0.6f, 1.3f};
const float kStepX[3] = {0.0015f, 0.0001f, -0.0003f};
const float kStepY[3] = {0.0002f, -0.0013f, 0.0004f};

struct Dirs {
    Plane<float> x, y, z;
    Dirs(size_t n, int shift) : x(n, shift, -7.0f), y(n, shift, -7.0f), z(n, shift, -7.0f) {}
    float* p(int c) { return c == 0 ? x.data() : c == 1 ? y.data() : z.data(); }
};

QelStatus castEye(Dirs& d, int bw, int bh, QelPos2D pos, QelSize2D size) {
    float* const planes[3] = {d.p(0), d.p(1), d.p(2)};
    return qelrCastEye_32f(kCorner, kStepX, kStepY, bw, bh, pos, planes, size);
}

}  // namespace

TEST(CastEye, ScalarFormulaBitExactForWidthsNotMultipleOfFour) {
    const int w = 6, h = 5;
    Dirs d(w * h, 0);
    ASSERT_EQ(castEye(d, 16, 8, {2, 1}, {w, h}), qelOk);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i)
            for (int c = 0; c < 3; ++c) {
                const float want =
                    kStepY[c] * (float(j) + 8.0f) + kCorner[c] + kStepX[c] * (float(i) + 32.0f);
                EXPECT_EQ(bitsOf(d.p(c)[j * w + i]), bitsOf(want)) << i << "," << j << "," << c;
            }
}

TEST(CastEye, VectorPathAccumulatesRowStartsAlignedOrNot) {
    const int w = 8, h = 9;
    for (int shift : {0, 1}) {
        Dirs d(w * h, shift);
        ASSERT_EQ(castEye(d, 64, 64, {3, 5}, {w, h}), qelOk);
        for (int c = 0; c < 3; ++c) {
            float start = kStepY[c] * 320.0f + kCorner[c] + kStepX[c] * 192.0f;
            for (int j = 0; j < h; ++j, start += kStepY[c])
                for (int i = 0; i < w; ++i) {
                    const float want = kStepX[c] * float(i) + start;
                    const float v = d.p(c)[j * w + i];
                    EXPECT_EQ(bitsOf(v), bitsOf(want)) << shift << ":" << i << "," << j;
                    // Within rounding of the scalar formula.
                    const float s = kStepY[c] * (float(j) + 320.0f) + kCorner[c] +
                                    kStepX[c] * (float(i) + 192.0f);
                    EXPECT_NEAR(v, s, 1e-5f);
                }
        }
    }
}

TEST(CastEye, ChecksAndEmptySizes) {
    Dirs d(16, 0);
    EXPECT_EQ(qelrCastEye_32f(kCorner, kStepX, kStepY, 4, 4, {0, 0}, nullptr, {4, 4}),
              qelErrNullPointer);
    EXPECT_EQ(qelrCastEye_32f(kCorner, kStepX, kStepY, 4, 4, {0, 0}, nullptr, {0, 0}),
              qelErrNullPointer);
    for (QelSize2D s : {QelSize2D{0, 4}, QelSize2D{4, 0}, QelSize2D{-4, 4}, QelSize2D{4, -1}})
        EXPECT_EQ(castEye(d, 4, 4, {0, 0}, s), qelOk);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(d.x[i], -7.0f);
    ASSERT_EQ(castEye(d, 4, 4, {0, 0}, {4, 1}), qelOk);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(d.p(c)[0], kCorner[c]);
}

namespace {

struct HitPointCase {
    int len;
    std::vector<float> o[3], d[3], dist;
    std::vector<int> mask;
    HitPointCase(int n, uint32_t seed) : len(n) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> u(-3.0f, 3.0f);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < n; ++i) {
                o[c].push_back(u(rng));
                d[c].push_back(u(rng));
            }
        for (int i = 0; i < n; ++i) {
            dist.push_back(std::fabs(u(rng)));
            mask.push_back(i % 4 == 1 || (i >= 8 && i < 12) ? -1 : i);
        }
    }
};

// Runs both forms with all planes at the given shift; returns the points.
std::vector<float> hitPoints(HitPointCase& k, bool multiOrigin, int shift, float eps) {
    const int n = k.len;
    Plane<float> o[3] = {{size_t(n), shift}, {size_t(n), shift}, {size_t(n), shift}};
    Plane<float> d[3] = {{size_t(n), shift}, {size_t(n), shift}, {size_t(n), shift}};
    Plane<float> p[3] = {
        {size_t(n), shift, 9.0f}, {size_t(n), shift, 9.0f}, {size_t(n), shift, 9.0f}};
    Plane<float> dist(n, shift);
    Plane<int> mask(n, shift);
    for (int i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            o[c][i] = k.o[c][i];
            d[c][i] = k.d[c][i];
        }
        dist[i] = k.dist[i];
        mask[i] = k.mask[i];
    }
    const float* const op[3] = {o[0].data(), o[1].data(), o[2].data()};
    const float* const dp[3] = {d[0].data(), d[1].data(), d[2].data()};
    float* const pp[3] = {p[0].data(), p[1].data(), p[2].data()};
    const float origin[3] = {k.o[0][0], k.o[1][0], k.o[2][0]};
    const QelStatus s =
        multiOrigin ? qelrHitPoint3DEpsM0_32f_M(op, dp, dist.data(), mask.data(), pp, n, eps)
                    : qelrHitPoint3DEpsS0_32f_M(origin, dp, dist.data(), mask.data(), pp, n, eps);
    EXPECT_EQ(s, qelOk);
    std::vector<float> out;
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < n; ++i) out.push_back(p[c][i]);
    return out;
}

}  // namespace

TEST(HitPoint, ScalarAndVectorPathsFollowTheirOrderOfProducts) {
    for (bool mo : {false, true}) {
        HitPointCase k(16, 3);
        const float eps = 0.999f;
        const std::vector<float> scalar = hitPoints(k, mo, 1, eps);  // unaligned: one ray at a time
        const std::vector<float> vector = hitPoints(k, mo, 0, eps);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < 16; ++i) {
                const float o = mo ? k.o[c][i] : k.o[c][0];
                const float sWant = k.mask[i] < 0 ? 0.0f : k.d[c][i] * eps * k.dist[i] + o;
                const float vWant = k.mask[i] < 0 ? 0.0f : k.d[c][i] * k.dist[i] * eps + o;
                EXPECT_EQ(bitsOf(scalar[c * 16 + i]), bitsOf(sWant)) << mo << c << i;
                EXPECT_EQ(bitsOf(vector[c * 16 + i]), bitsOf(vWant)) << mo << c << i;
            }
    }
    HitPointCase odd(7, 4);  // a length not a multiple of 4 takes the scalar path
    const std::vector<float> p = hitPoints(odd, false, 0, 1.0f);
    EXPECT_EQ(bitsOf(p[0]), bitsOf(odd.d[0][0] * 1.0f * odd.dist[0] + odd.o[0][0]));
}

TEST(HitPoint, ChecksAndEmptyLength) {
    float x[4] = {}, y[4] = {}, z[4] = {}, dist[4] = {1, 1, 1, 1};
    int mask[4] = {0, 0, 0, 0};
    const float* const d[3] = {x, y, z};
    float px[4] = {5}, py[4] = {5}, pz[4] = {5};
    float* const p[3] = {px, py, pz};
    const float o[3] = {1, 2, 3};
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, d, nullptr, mask, p, 4, 1.0f), qelErrNullPointer);
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, d, dist, nullptr, p, 4, 1.0f), qelErrNullPointer);
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, nullptr, dist, mask, p, 4, 1.0f), qelErrNullPointer);
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, d, dist, mask, nullptr, 0, 1.0f), qelErrNullPointer);
    EXPECT_EQ(qelrHitPoint3DEpsM0_32f_M(nullptr, d, dist, mask, p, 4, 1.0f), qelErrNullPointer);
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, d, dist, mask, p, 0, 1.0f), qelOk);
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, d, dist, mask, p, -3, 1.0f), qelOk);
    EXPECT_EQ(px[0], 5.0f);
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(nullptr, d, dist, mask, p, 0, 1.0f), qelOk);
    // A zero direction with eps 1 gives the origin; a mask of -1 gives (0, 0, 0).
    mask[2] = -1;
    EXPECT_EQ(qelrHitPoint3DEpsS0_32f_M(o, d, dist, mask, p, 3, 1.0f), qelOk);
    EXPECT_EQ(px[0], 1.0f);
    EXPECT_EQ(pz[1], 3.0f);
    EXPECT_EQ(bitsOf(px[2]), 0u);
    EXPECT_EQ(bitsOf(pz[2]), 0u);
}
