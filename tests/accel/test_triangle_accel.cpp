// Triangle accelerator records and the scene box.
#include <gtest/gtest.h>
#include <qelr.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include "test_util.h"

using qelr_test::bitsOf;

namespace {

TriangleAccel recordOf(const std::array<float, 9>& v) {
    const int idx[4] = {0, 1, 2, 12345};  // the fourth index is never read
    TriangleAccel rec;
    std::memset(&rec, 0xCD, sizeof rec);
    EXPECT_EQ(qelrTriangleAccelInit(&rec, v.data(), idx, 1), qelOk);
    return rec;
}

std::array<uint32_t, 10> wordsOf(const TriangleAccel& rec) {
    std::array<uint32_t, 10> w;
    std::memcpy(w.data(), &rec, 40);
    return w;
}

std::array<uint32_t, 10> expectWords(uint32_t axes, std::array<float, 9> f) {
    std::array<uint32_t, 10> w{axes};
    for (int i = 0; i < 9; ++i) w[i + 1] = bitsOf(f[i]);
    return w;
}

// The ray-triangle test that the intersection functions apply to a record:
// returns t and the barycentric weights of the first and second vertex.
struct Hit {
    bool inside;
    float t, b, c;
};
Hit traceRecord(const TriangleAccel& r, const float o[3], const float d[3]) {
    const int kv = r.axes & 3, ku = (r.axes >> 2) & 3, k = (r.axes >> 4) & 3;
    const float du = d[ku], dv = d[kv];
    const float den = r.nu * du + r.nv * dv + d[k];
    const float a = r.pu - o[ku], b = r.pv - o[kv];
    const float num = (r.pk + r.nu * a + r.nv * b) - o[k];
    const float q1 = du * num - a * den, q2 = dv * num - b * den;
    const float B = r.e1 * q1 - r.e0 * q2, C = r.e2 * q2 - r.e3 * q1;
    const bool inside = (den - B - C) * B >= 0 && B * C >= 0 && (den - B - C) * C >= 0;
    return {inside, num / den, B / den, C / den};
}

}  // namespace

TEST(TriangleAccel, SizeQuery) {
    int size = 0;
    EXPECT_EQ(qelrTriangleAccelGetSize(nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrTriangleAccelGetSize(&size), qelOk);
    EXPECT_EQ(size, 40);
}

TEST(TriangleAccel, ExactWordsForEachDominantAxisAndTie) {
    // Normal (0, 0, 1): k = z, flag set.
    EXPECT_EQ(wordsOf(recordOf({1, 0, 0, 0, 1, 0, 0, 0, 0})),
              expectWords(0x80000021u, {0, 0, 0, 0, 0, 0, 1, 1, 0}));
    // Normal (0, -1, 0): k = y, s = -1, flag set.
    EXPECT_EQ(wordsOf(recordOf({1, 0, 0, 0, 0, 1, 0, 0, 0})),
              expectWords(0x80000012u, {0, 0, 0, 0, 0, 0, 1, 1, 0}));
    // Normal (1, 1, -0): |Nx| = |Ny| goes to x; no flag; the signed zero of
    // N[v] survives the division.
    EXPECT_EQ(wordsOf(recordOf({0, 0, 1, 1, -1, 0, 0, 0, 0})),
              expectWords(0x00000006u, {1, 0, -0.0f, 0, 0, -1, 0, 0, 1}));
    // Normal (1, 1, 1): a tie with z does not go to z.
    EXPECT_EQ(wordsOf(recordOf({1, 0, 0, 0, 1, 0, 0, 0, 1}))[0], 0x00000006u);
}

TEST(TriangleAccel, ReferenceVertexIsTheThirdAndTranslationOnlyMovesIt) {
    const TriangleAccel a = recordOf({1, 0, 0, 0, 1, 0, 0, 0, 0});
    const TriangleAccel b = recordOf({3, 5, 7, 2, 6, 7, 2, 5, 7});
    EXPECT_EQ(b.axes, a.axes);
    EXPECT_EQ(b.pk, 7.0f);
    EXPECT_EQ(b.pu, 2.0f);
    EXPECT_EQ(b.pv, 5.0f);
    EXPECT_EQ(bitsOf(b.e0), bitsOf(a.e0));
    EXPECT_EQ(bitsOf(b.e3), bitsOf(a.e3));
}

TEST(TriangleAccel, DegenerateTrianglesGiveZeroRecords) {
    const std::array<uint32_t, 10> zero{};
    EXPECT_EQ(wordsOf(recordOf({0, 0, 0, 1, 1, 1, 2, 2, 2})), zero);  // collinear
    EXPECT_EQ(wordsOf(recordOf({1, 2, 3, 1, 2, 3, 4, 5, 6})), zero);  // coincident
    EXPECT_EQ(wordsOf(recordOf({1, 2, 3, 1, 2, 3, 1, 2, 3})), zero);  // a point
}

TEST(TriangleAccel, NonPositiveCountWritesNothing) {
    TriangleAccel rec;
    std::memset(&rec, 0x5A, sizeof rec);
    const TriangleAccel before = rec;
    const float v[9] = {};
    const int idx[4] = {};
    EXPECT_EQ(qelrTriangleAccelInit(&rec, v, idx, 0), qelOk);
    EXPECT_EQ(qelrTriangleAccelInit(&rec, v, idx, -4), qelOk);
    EXPECT_EQ(std::memcmp(&rec, &before, sizeof rec), 0);
}

TEST(TriangleAccel, RecordsReproduceBarycentricsOfRandomTriangles) {
    // Property: a ray aimed along the normal at a point of known barycentric
    // weights recovers those weights and the distance through the record.
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coord(-10.0f, 10.0f);
    const int n = 2000;
    std::vector<float> v(9 * n);
    std::vector<int> idx(4 * n);
    for (auto& x : v) x = coord(rng);
    for (int t = 0; t < n; ++t) {
        idx[4 * t] = 3 * t;
        idx[4 * t + 1] = 3 * t + 1;
        idx[4 * t + 2] = 3 * t + 2;
        idx[4 * t + 3] = -1;
    }
    std::vector<TriangleAccel> rec(n);
    ASSERT_EQ(qelrTriangleAccelInit(rec.data(), v.data(), idx.data(), n), qelOk);

    int checked = 0;
    for (int t = 0; t < n; ++t) {
        const float* p0 = &v[9 * t];
        const float* p1 = p0 + 3;
        const float* p2 = p0 + 6;
        double e1[3], e2[3];
        for (int a = 0; a < 3; ++a) e1[a] = p0[a] - p2[a], e2[a] = p1[a] - p2[a];
        const double nrm[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                               e1[0] * e2[1] - e1[1] * e2[0]};
        const double len = std::sqrt(nrm[0] * nrm[0] + nrm[1] * nrm[1] + nrm[2] * nrm[2]);
        const double area = 0.5 * len;
        if (area < 1.0) continue;         // keep the check away from slivers
        const double wb = 0.2, wc = 0.3;  // weights of the first and second vertex
        float o[3], d[3];
        for (int a = 0; a < 3; ++a) {
            const double p = wb * p0[a] + wc * p1[a] + (1 - wb - wc) * p2[a];
            o[a] = static_cast<float>(p + 2.0 * nrm[a] / len);
            d[a] = static_cast<float>(-nrm[a] / len);
        }
        const Hit h = traceRecord(rec[t], o, d);
        EXPECT_TRUE(h.inside) << t;
        EXPECT_NEAR(h.t, 2.0f, 2e-3f) << t;
        EXPECT_NEAR(h.b, wb, 2e-3) << t;
        EXPECT_NEAR(h.c, wc, 2e-3) << t;
        ++checked;
    }
    EXPECT_GT(checked, n / 2);
}

namespace {
std::array<float, 6> boxOf(const std::vector<float>& v, int count) {
    std::array<float, 6> box;
    EXPECT_EQ(qelrSetBoundBox_32f(v.data(), count, box.data()), qelOk);
    return box;
}
}  // namespace

TEST(SceneBox, RandomCloudsOfEveryTailLength) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> coord(-1000.0f, 500.0f);
    for (int count = 1; count <= 67; ++count) {
        std::vector<float> v(3 * count);
        for (auto& x : v) x = coord(rng);
        float mn[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, mx[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
        for (int i = 0; i < count; ++i)
            for (int a = 0; a < 3; ++a) {
                mn[a] = std::min(mn[a], v[3 * i + a]);
                mx[a] = std::max(mx[a], v[3 * i + a]);
            }
        float m = FLT_MIN;
        for (int a = 0; a < 3; ++a) m = std::max({m, std::fabs(mn[a]), std::fabs(mx[a])});
        const float e = m * 9.9999997e-05f;
        const std::array<float, 6> box = boxOf(v, count);
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ(box[a], mn[a] - e) << count;
            EXPECT_EQ(box[a + 3], mx[a] + e) << count;
        }
    }
}

TEST(SceneBox, EmptyCloudGivesAnInvertedBox) {
    const std::vector<float> v(3);
    const float e = FLT_MAX * 9.9999997e-05f;
    for (int count : {0, -7}) {
        const std::array<float, 6> box = boxOf(v, count);
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ(box[a], FLT_MAX - e);
            EXPECT_EQ(box[a + 3], -FLT_MAX + e);
            EXPECT_GT(box[a], box[a + 3]);
        }
    }
}

TEST(SceneBox, SingleVertexAtOriginGetsTheSmallestHalfWidth) {
    const std::array<float, 6> box = boxOf(std::vector<float>(3, 0.0f), 1);
    const float e = FLT_MIN * 9.9999997e-05f;
    EXPECT_GT(e, 0.0f);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(box[a], -e);
        EXPECT_EQ(box[a + 3], e);
    }
}

TEST(SceneBox, NullVerticesIsRefusedAndBoxUntouched) {
    float box[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(qelrSetBoundBox_32f(nullptr, 3, box), qelErrNullPointer);
    EXPECT_EQ(box[0], 1.0f);
}
