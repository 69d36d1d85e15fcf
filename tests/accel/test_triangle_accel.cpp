// Triangle accelerator records and the scene box: hand-derived records, the identities a record satisfies at any
// point of its plane, and the box against a plain minimum and maximum.
#include <gtest/gtest.h>
#include <qelr.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

using qelr_test::bitsOf;

namespace {

// The record of triangle v, and the record of words (axes, f...), as words.
std::array<uint32_t, 10> wordsOf(std::array<float, 9> v) {
    const int idx[4] = {0, 1, 2, 12345};  // the fourth index is never read
    TriangleAccel rec;
    EXPECT_EQ(qelrTriangleAccelInit(&rec, v.data(), idx, 1), qelOk);
    std::array<uint32_t, 10> w;
    std::memcpy(w.data(), &rec, 40);
    return w;
}
std::array<uint32_t, 10> words(uint32_t axes, std::array<float, 9> f) {
    std::array<uint32_t, 10> w{axes};
    std::memcpy(&w[1], f.data(), 36);
    return w;
}

}  // namespace

TEST(TriangleAccel, HandDerivedRecords) {
    int size = 0;
    EXPECT_EQ(qelrTriangleAccelGetSize(&size), qelOk);
    EXPECT_EQ(size, 40);
    // N = (0, 0, 1): k = z, u = x, v = y, flag; e1 = (1, 0, 0), e2 = (0, 1, 0).
    EXPECT_EQ(wordsOf({1, 0, 0, 0, 1, 0, 0, 0, 0}),
              words(0x80000021u, {0, 0, 0, 0, 0, 0, 1, 1, 0}));
    // N = (0, -1, 0): k = y, s = -1, flag.
    EXPECT_EQ(wordsOf({1, 0, 0, 0, 0, 1, 0, 0, 0}),
              words(0x80000012u, {0, 0, 0, 0, 0, 0, 1, 1, 0}));
    // N = (1, 1, -0): |Nx| = |Ny| goes to x; N[v] / N[k] keeps the sign of -0.
    EXPECT_EQ(wordsOf({0, 0, 1, 1, -1, 0, 0, 0, 0}), words(6u, {1, 0, -0.0f, 0, 0, -1, 0, 0, 1}));
    EXPECT_EQ(wordsOf({1, 0, 0, 0, 1, 0, 0, 0, 1})[0], 6u);          // (1, 1, 1): not z on a tie
    EXPECT_EQ(wordsOf({0, 0, 0, 1, 1, 1, 2, 2, 2}), words(0u, {}));  // collinear
}

TEST(TriangleAccel, RecordsLocatePointsOfTheirTriangles) {
    // P = V2 + b (V0 - V2) + c (V1 - V2) projects on (u, v) as (du, dv) = P - V2; the record's words solve the
    // 2 x 2 system as b = w7 du - w6 dv, c = w8 dv - w9 du, and the plane gives P[k] = w2 - w1 du - w3 dv.
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coord(-10.0f, 10.0f);
    std::uniform_real_distribution<double> weight(-1.0, 2.0);
    std::vector<float> v(9 * 500);
    for (auto& x : v) x = coord(rng);
    std::vector<int> idx(4 * 500);
    for (int i = 0; i < 2000; ++i) idx[i] = i - i / 4;
    std::vector<TriangleAccel> rec(500);
    ASSERT_EQ(qelrTriangleAccelInit(rec.data(), v.data(), idx.data(), 500), qelOk);
    for (int t = 0; t < 500; ++t) {
        const TriangleAccel& r = rec[t];
        const int vAxis = r.axes & 3, u = r.axes >> 2 & 3, k = r.axes >> 4 & 3;
        ASSERT_EQ(u + vAxis + k, 3);
        const float* p = &v[9 * t];
        const double b = weight(rng), c = weight(rng);
        double pt[3];
        for (int a = 0; a < 3; ++a)
            pt[a] = p[6 + a] + b * (p[a] - p[6 + a]) + c * (p[3 + a] - p[6 + a]);
        const double du = pt[u] - r.pu, dv = pt[vAxis] - r.pv,
                     tol = 1e-5 * (1 + std::fabs(du) + std::fabs(dv));
        EXPECT_NEAR(r.e1 * du - r.e0 * dv, b, tol * (std::fabs(r.e0) + std::fabs(r.e1))) << t;
        EXPECT_NEAR(r.e2 * dv - r.e3 * du, c, tol * (std::fabs(r.e2) + std::fabs(r.e3))) << t;
        EXPECT_NEAR(r.pk - r.nu * du - r.nv * dv, pt[k],
                    tol * (1 + std::fabs(r.nu) + std::fabs(r.nv)))
            << t;
    }
}

TEST(SceneBox, PlainMinimumAndMaximumWidenedByTheLargestMagnitude) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> coord(-1000.0f, 500.0f);
    // No vertices: an inverted box; one at the origin: the smallest half-width.
    for (int count : {0, 1, 7, 8, 9, 67}) {
        std::vector<float> v(3 * count + 3, 0.0f);
        for (int i = 0; i < 3 * count && count > 1; ++i) v[i] = coord(rng);
        if (count % 2 == 1 && count > 1) v[4] = NAN;  // a NaN coordinate is passed over
        float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX},
              m = FLT_MIN, box[6];
        for (int i = 0; i < 3 * count; ++i)
            lo[i % 3] = std::fmin(lo[i % 3], v[i]), hi[i % 3] = std::fmax(hi[i % 3], v[i]);
        for (int a = 0; a < 3; ++a) m = std::fmax(m, std::fmax(std::fabs(lo[a]), std::fabs(hi[a])));
        ASSERT_EQ(qelrSetBoundBox_32f(v.data(), count, box), qelOk);
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ(box[a], lo[a] - m * 9.9999997e-05f) << count;
            EXPECT_EQ(box[a + 3], hi[a] + m * 9.9999997e-05f) << count;
        }
    }
}
