// KD-tree build through the public API: the single-leaf tree, hand-derived splits, validity of cost-driven trees,
// and determinism over thread settings.
#include <gtest/gtest.h>
#include <omp.h>
#include <qelcore.h>
#include <qelr.h>

#include <cstring>

#include "kdtree_check.h"
#include "test_util.h"

namespace {

using qelr_test::bitsOf;
using qelr_test::buildTree;
using qelr_test::costDriven;
using qelr_test::Mesh;

std::vector<uint32_t> wordsOf(const std::vector<uint8_t>& bytes) {
    std::vector<uint32_t> w(bytes.size() / 4);
    std::memcpy(w.data(), bytes.data(), 4 * w.size());
    return w;
}

Mesh twoTriangles(const float a[3][3], const float b[3][3]) {
    Mesh s;
    s.add(a[0], a[1], a[2]);
    s.add(b[0], b[1], b[2]);
    return s;
}

TEST(KDTreeSingleLeaf, LayoutByteForByte) {
    const Mesh s = qelr_test::randomScene(5, 1);
    for (int count : {0, 1, 5}) {
        std::vector<uint32_t> expect = {0xFFFFFFF0u, static_cast<uint32_t>(count), 0, 0};
        for (int i = 0; i < count; ++i) expect.push_back(static_cast<uint32_t>(i));
        Mesh part = s;
        part.idx.resize(4 * count);
        // Any depth and quality are accepted, and the reserved word is not read.
        const auto b = buildTree(part, {qelKdSingleLeaf, 50, 7.0f, 0, 99});
        EXPECT_EQ(b.info.error, "");
        EXPECT_EQ(wordsOf(b.bytes), expect) << count;
    }
}

// Triangle A in [0,1]^3 and B in [9,10]x[0,1]x[0,1]; root cell [0,10]x[0,1]^2. x: g = 0.5; p=1 scores
// 1*1.5 + 1*9.5 = 11 (p=9 ties and loses), s0 = 22; y and z: the best is 2*(1 + 10/11), s1 = s2 = 11*3.818 = 42.
// Axis x. leafCost = (1*11 + 10)*2 = 42; the root splits when 2*(42-22) = 40 > f*42. Child above, cell x [1,10]
// holding B only: the gap 9-1 = 8 exceeds 0.9, so the empty-space cut at 9 scores 2*0.7*1.5 = 2.1 (the sweep
// would give 3); y and z give 19 = leafCost: it splits when 19-2.1 = 16.9 > f*19, for f below 0.889 (sweep: 0.842).
TEST(KDTreeCostDriven, EmptySpaceCutDerivedByHand) {
    const float a[3][3] = {{0, 0, 0}, {1, 0, 1}, {0, 1, 1}};
    const float b[3][3] = {{9, 0, 0}, {10, 0, 1}, {9, 1, 1}};
    const Mesh s = twoTriangles(a, b);
    const auto cut = buildTree(s, costDriven(50, 0.92f));  // f = 0.8699
    EXPECT_EQ(cut.info.error, "");
    EXPECT_EQ(wordsOf(cut.bytes),
              (std::vector<uint32_t>{16u, bitsOf(1.0f), 0, 0,
                                     0x80000000u, 0x80000001u,  // A inline
                                     8u, bitsOf(9.0f),          // the gap cut
                                     0x80000000u, 0u,           // empty space
                                     0x80000001u, 0x80000001u}));  // B inline
    // f = 0.961: the root stays a leaf of two triangles, inline as (1, 0).
    EXPECT_EQ(wordsOf(buildTree(s, costDriven(50, 0.9f)).bytes),
              (std::vector<uint32_t>{0x80000001u, 0x80000002u, 0, 0}));
}

// Axis ties: symmetric in x and y splits on y, symmetric in all three on z (both at 1.0, by the sweep above).
TEST(KDTreeCostDriven, AxisTiesDerivedByHand) {
    const float a[3][3] = {{0, 0, 0}, {1, 0, 1}, {0, 1, 1}};
    const float b[3][3] = {{9, 9, 0}, {10, 9, 1}, {9, 10, 1}};
    const float c[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    const float d[3][3] = {{10, 9, 9}, {9, 10, 9}, {9, 9, 10}};
    for (uint32_t axis : {1u, 2u}) {
        const auto t = buildTree(axis == 1 ? twoTriangles(a, b) : twoTriangles(c, d), costDriven());
        EXPECT_EQ(t.info.error, "");
        ASSERT_GE(t.bytes.size(), 8u);
        EXPECT_EQ(wordsOf(t.bytes)[0], 16u | axis);
        EXPECT_EQ(wordsOf(t.bytes)[1], bitsOf(1.0f));
    }
}

TEST(KDTreeCostDriven, TrianglesWithoutPlaceAreLeftOut) {
    Mesh s = qelr_test::randomScene(30, 9);
    s.idx[4 * 3 + 1] = s.vertexCount();  // index past the vertices
    s.idx[4 * 7] = -1;
    s.v[3 * s.idx[4 * 11 + 2]] = NAN;
    const auto b = buildTree(s, costDriven());
    ASSERT_EQ(b.status, qelOk);
    EXPECT_EQ(b.info.error, "");
    for (const auto& l : b.info.leaves)
        for (int t : l.tris) EXPECT_TRUE(t != 3 && t != 7 && t != 11);
}

TEST(KDTreeCostDriven, SameBytesForAnyThreadSetting) {
    // The upper nodes hold far more than 76 triangles and are scored by one thread per axis.
    const Mesh s = qelr_test::randomScene(2500, 7);
    const auto reference = buildTree(s, costDriven());
    ASSERT_EQ(reference.info.error, "");
    ASSERT_GT(reference.info.innerNodes, 100);
    auto same = [&](const char* what) {
        EXPECT_EQ(buildTree(s, costDriven(), false).bytes, reference.bytes) << what;
    };
    qelr_test::ThreadCountGuard guard;
    for (int threads : {1, 3, 4}) {
        qelSetNumThreads(threads);
        same("team size");
    }
    const int savedOmp = omp_get_max_threads();
    omp_set_num_threads(1);
    same("omp 1");
    omp_set_num_threads(savedOmp);
    omp_set_dynamic(1);
    same("omp dynamic");
    omp_set_dynamic(0);
    // From inside a parallel region the inner team may shrink to one thread.
    std::vector<uint8_t> nested[2];
#pragma omp parallel num_threads(2)
    nested[omp_get_thread_num()] = buildTree(s, costDriven(), false).bytes;
    EXPECT_EQ(nested[0], reference.bytes);
    EXPECT_EQ(nested[1], reference.bytes);
}

}  // namespace
