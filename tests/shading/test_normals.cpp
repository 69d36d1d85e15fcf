// Triangle and smooth normals against double-precision references, flat normals as exact copies, and by hand:
// degenerate triangles, misses, cancelling normals and the float epsilon boundary.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <cmath>
#include <random>
#include <vector>

#include "ray_planes.h"
#include "test_util.h"

using qelr_test::Planes;

TEST(Normals, TriangleNormalsMatchTheDoubleCrossProduct) {
    qelr_test::ThreadCountGuard guard;
    qelSetNumThreads(3);
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> u(-10.0f, 10.0f);
    std::vector<float> v(300), n(3 * 101 + 1, 7.0f);
    std::vector<int> tri(4 * 101);
    for (float& x : v) x = u(rng);
    for (int& k : tri) k = int(rng() % 100);
    const float hand[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};  // (0, 0, 1)
    std::copy(hand, hand + 9, v.begin());
    tri[0] = 0, tri[1] = 1, tri[2] = 2, tri[4] = tri[5] = 3;  // triangle 1 is degenerate
    ASSERT_EQ(qelrTriangleNormal_32f(v.data(), tri.data(), n.data(), 101), qelOk);
    for (int t = 0; t < 101; ++t) {  // (V1 - V0) x (V2 - V0), normalised
        double e[2][3], m[3], len = 0;
        for (int j = 0; j < 6; ++j)
            e[j / 3][j % 3] =
                double(v[3 * tri[4 * t + 1 + j / 3] + j % 3]) - v[3 * tri[4 * t] + j % 3];
        for (int k = 0; k < 3; ++k) {
            m[k] = e[0][(k + 1) % 3] * e[1][(k + 2) % 3] - e[0][(k + 2) % 3] * e[1][(k + 1) % 3];
            len += m[k] * m[k];
        }
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(n[3 * t + k], len > 1e-14 ? m[k] / std::sqrt(len) : 0.0, 1e-6) << t;
    }
    EXPECT_EQ(n[2], 1.0f);
    EXPECT_EQ(n[3 * 101], 7.0f);
}

TEST(Normals, SurfaceNormalsAgainstDoubleReferences) {
    std::mt19937 rng(6);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f), w(0.0f, 0.5f);
    for (int shift : {0, 1}) {
        Planes r(shift);
        for (int i = 0; i < 72; ++i) {
            r.p(0)[i] = u(rng), r.p(1)[i] = float(i), r.p(3)[i] = w(rng), r.p(4)[i] = w(rng);
            r.mask(1)[i] = int(rng() % 24);                     // vertices of 18 triangles
            r.mask()[i] = i % 8 < 4 ? 5 : int(rng() % 20) - 2;  // one triangle for a group
        }
        // Triangle 5: ray 0 weighs opposite normals (0, 0, +-1) alike: zero; ray 1 takes (2^-12, 2^-12, 0) of
        // squared length 2^-23, the float epsilon, which the one-ray path normalises and the vector path clears;
        // ray 9 too, in a group with a miss, which takes the one-ray path.
        const float hand[9] = {0x1p-12f, 0x1p-12f, 0, 0, 0, 1, 0, 0, -1};
        std::copy(hand, hand + 9, r.p(0));
        for (int k = 0; k < 3; ++k) r.mask(1)[15 + k] = k;
        r.p(3)[0] = 0, r.p(4)[0] = 0.5f, r.p(3)[1] = r.p(3)[9] = 1, r.p(4)[1] = r.p(4)[9] = 0;
        r.mask()[11] = -1;
        ASSERT_EQ(
            qelrSurfSmoothNormal_32f(r.p(0), r.mask(1), r.mask(), r.pack(1), r.pack(2), 64, 3), 0);
        ASSERT_EQ(qelrSurfFlatNormal_32f(r.p(1), r.mask(), r.pack(3), 64), qelOk);
        EXPECT_EQ(r.p(6)[0] + r.p(7)[0] + r.p(8)[0], 0.0f);
        EXPECT_EQ(r.p(6)[1], shift == 1 ? std::sqrt(0.5f) : 0.0f);
        EXPECT_EQ(r.p(6)[9], std::sqrt(0.5f));
        for (int i = 0; i < 64; ++i) {
            const int t = r.mask()[i];
            double n[3] = {}, s = 0;
            const double b[3] = {r.p(3)[i], r.p(4)[i], 1.0 - r.p(3)[i] - r.p(4)[i]};
            for (int c = 0; c < 3; ++c) {
                for (int k = 0; k < 3 && t >= 0; ++k)
                    n[c] += b[k] * r.p(0)[3 * r.mask(1)[3 * t + k] + c];
                s += n[c] * n[c];
                EXPECT_EQ(r.p(9 + c)[i], t < 0 ? 0.0f : float(3 * t + c));  // flat: copied
            }
            for (int c = 0; c < 3 && i > 1 && (t < 0 || s > 1e-2); ++c)  // away from cancellation
                EXPECT_NEAR(r.p(6 + c)[i], t < 0 ? 0.0 : n[c] / std::sqrt(s), 3e-6) << i;
        }
    }
}
