// The cost-driven builder against a brute-force builder that applies the rules literally at every node (sorting
// and counting from scratch), the inline leaf encoding, and the output-block budget.
#include <gtest/gtest.h>

#include <cfloat>
#include <functional>

#include "accel/kdtree_build.h"
#include "core/impl.h"
#include "kdtree_check.h"

namespace {

using namespace qelr::accel;
using qelr_test::Mesh;

// Score of one axis, straight from the rules: O(n^2) counting per node.
double naiveAxisScore(const std::vector<TriRef>& refs, const Box3& cell, int a, float& pos,
                      bool& planarBelow) {
    const float lo = cell.mn[a], hi = cell.mx[a], L = hi - lo;
    const float dA = cell.mx[(a + 1) % 3] - cell.mn[(a + 1) % 3];
    const float dB = cell.mx[(a + 2) % 3] - cell.mn[(a + 2) % 3];
    if (!(L > 1e-5f) || (!(dA > 1e-5f) && !(dB > 1e-5f))) return DBL_MAX;
    const double prod = static_cast<double>(dA) * dB;
    const double g = prod < 1e-9 ? 0.0 : prod / (static_cast<double>(dA) + dB);
    const double sumAB = static_cast<double>(dA) + dB;
    std::vector<float> mins, maxs, flat, all;  // all: every event position, sorted
    for (const auto& r : refs) {
        const bool isFlat = r.mn[a] == r.mx[a];
        (isFlat ? flat : mins).push_back(r.mn[a]);
        if (!isFlat) maxs.push_back(r.mx[a]);
        all.insert(all.end(), {r.mn[a], r.mx[a]});
        if (isFlat) all.pop_back();
    }
    const int n = static_cast<int>(refs.size());
    // Equal positions keep the references' order, which decides whether a split at zero is +0 or -0.
    std::stable_sort(all.begin(), all.end());
    const float smallest = all.front(), largest = all.back();

    double best = DBL_MAX;
    bool empty = false;
    if (smallest - lo > 0.1f * L) {
        best = n * ((static_cast<double>(hi) - smallest) + g);
        pos = smallest;
        planarBelow = false;
        empty = true;
    }
    if (hi - largest > 0.1f * L) {
        const double c = n * ((static_cast<double>(largest) - lo) + g);
        if (!empty || c < best) {
            best = c;
            pos = largest;
            planarBelow = true;
        }
        empty = true;
    }
    if (empty) return sumAB * 0.699999988079071 * best;
    for (float p : all) {
        int below = 0, above = 0, at = 0;
        for (float m : mins) below += m < p;
        for (float m : maxs) above += m > p;
        for (float q : flat) {
            below += q < p;
            above += q > p;
            at += q == p;
        }
        const double wb = (static_cast<double>(p) - lo) + g, wa = (static_cast<double>(hi) - p) + g;
        const double sb = (below + at) * wb + above * wa;
        if (sb < best) {
            best = sb;
            pos = p;
            planarBelow = true;
        }
        const double sa = below * wb + (above + at) * wa;
        if (sa < best) {
            best = sa;
            pos = p;
            planarBelow = false;
        }
    }
    return sumAB * best;
}

// Depth-first, below first, child pairs given out when a node splits.
std::vector<uint8_t> bruteForceTree(const Mesh& s, uint32_t depthLimit, float quality) {
    TreeStream out(0xFFFFFFFFu, kOutputBlockBytes);
    const float f = static_cast<float>((10.0 - 9.0 * quality) * 0.5057569742202759);
    std::vector<TriRef> rootRefs;
    Box3 cell = {{FLT_MAX, FLT_MAX, FLT_MAX}, {-FLT_MAX, -FLT_MAX, -FLT_MAX}};
    for (int t = 0; t < s.triangleCount(); ++t) {
        TriRef r{t, {FLT_MAX, FLT_MAX, FLT_MAX}, {-FLT_MAX, -FLT_MAX, -FLT_MAX}};
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) {
                const float x = s.corner(t, k)[a];
                r.mn[a] = std::min(r.mn[a], x);
                r.mx[a] = std::max(r.mx[a], x);
                cell.mn[a] = std::min(cell.mn[a], x);
                cell.mx[a] = std::max(cell.mx[a], x);
            }
        rootRefs.push_back(r);
    }
    QelStatus st = qelOk;
    std::function<void(const std::vector<TriRef>&, const Box3&, uint32_t, int32_t)> node =
        [&](const std::vector<TriRef>& refs, const Box3& c, uint32_t depth, int32_t slot) {
            const int n = static_cast<int>(refs.size());
            if (st != qelOk) return;
            if (n > 0 && depth < depthLimit) {
                const double dx = c.mx[0] - c.mn[0], dy = c.mx[1] - c.mn[1], dz = c.mx[2] - c.mn[2];
                const double leafCost = (dz * (dx + dy) + dx * dy) * n;
                const double T = std::max(9.999999747378752e-06, f * leafCost);
                double sc[3];
                float pos[3] = {0, 0, 0};
                bool pb[3] = {true, true, true};
                for (int a = 0; a < 3; ++a) sc[a] = naiveAxisScore(refs, c, a, pos[a], pb[a]);
                const int axis = sc[1] > sc[0] ? (sc[0] < sc[2] ? 0 : 2) : (sc[1] < sc[2] ? 1 : 2);
                if (n * (leafCost - sc[axis]) > T) {
                    const float p = pos[axis];
                    Box3 below = c, above = c;
                    below.mx[axis] = p;
                    above.mn[axis] = p;
                    std::vector<TriRef> rb, ra;
                    for (const auto& r : refs) {
                        double v[3][3];
                        for (int k = 0; k < 9; ++k) v[k / 3][k % 3] = s.corner(r.tri, k / 3)[k % 3];
                        const bool flatHere = r.mn[axis] == r.mx[axis] && r.mn[axis] == p;
                        const bool toBelow = flatHere ? pb[axis] : r.mn[axis] < p;
                        const bool toAbove = flatHere ? !pb[axis] : r.mx[axis] > p;
                        TriRef x = r;
                        if (toBelow && toAbove) {
                            TriRef y = r;
                            clipToChildren(v, c, axis, p, x, y);
                            ra.push_back(y);
                        } else if (toAbove) {
                            ra.push_back(x);
                        }
                        if (toBelow) rb.push_back(x);
                    }
                    const int32_t pair = out.newPair();
                    st = out.inner(slot, axis, p, pair);
                    node(rb, below, depth + 1, pair);
                    node(ra, above, depth + 1, pair + 1);
                    return;
                }
            }
            st = out.leafFromRefs(slot, refs.data(), n);
        };
    node(rootRefs, cell, 0, 0);
    KDTreeNode* tree = nullptr;
    int size = 0;
    EXPECT_EQ(st, qelOk);
    EXPECT_EQ(out.finish(&tree, &size), qelOk);
    std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(tree),
                               reinterpret_cast<uint8_t*>(tree) + size);
    qelr::impl::qelrKDTreeFree(tree);
    return bytes;
}

std::vector<uint8_t> libraryTree(const Mesh& s, uint32_t depthLimit, float quality,
                                 uint32_t budget = 0xFFFFFFFFu, uint32_t block = kOutputBlockBytes,
                                 QelStatus* status = nullptr) {
    const CostDrivenInput in = {s.v.data(), s.idx.data(), s.vertexCount(), s.triangleCount(),
                                depthLimit, quality,      budget,          block};
    KDTreeNode* tree = nullptr;
    int size = 0;
    const QelStatus st = buildCostDriven(in, &tree, &size);
    if (status != nullptr) *status = st;
    if (st != qelOk) return {};
    std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(tree),
                               reinterpret_cast<uint8_t*>(tree) + size);
    qelr::impl::qelrKDTreeFree(tree);
    return bytes;
}

TEST(KDTreeRules, SameTreeAsBruteForce) {
    struct Case {
        int n;  // 0: the coplanar scene, -k: k coplanar triangles on a grid with signed zeros
        uint32_t seed;
        float quality;
        uint32_t depth;
        float shift = 0.0f;
    };
    // 75 and 76 triangles: the root is scored on the calling thread, then one thread per axis. 2600: 4096+ events
    // take the radix sort. Overlapping coplanar triangles (a past fault): the shortcuts for flat cells must agree.
    for (const Case c :
         {Case{75, 11, 1.0f, 50}, Case{76, 11, 1.0f, 50}, Case{12, 1, 1.0f, 50},
          Case{200, 2, 1.0f, 50}, Case{200, 3, 0.3f, 50}, Case{400, 4, 0.8f, 6},
          Case{600, 5, 1.0f, 50}, Case{300, 6, 0.0f, 50}, Case{2600, 12, 1.0f, 50, -5.0f},
          Case{300, 1, 0.5f, 0}, Case{1500, 3, 0.5f, 3}, Case{0, 5, 1.0f, 16}, Case{-150, 4, 1.0f, 24}}) {
        const Mesh s = c.n > 0 ? qelr_test::randomScene(c.n, c.seed, c.shift)
                               : qelr_test::coplanarScene(c.n ? -c.n : 40, c.seed, c.n < 0);
        const std::vector<uint8_t> expect = bruteForceTree(s, c.depth, c.quality);
        // Through the public call, with the smallest budget it accepts (32 MB), and the full validator.
        const auto got = qelr_test::buildTree(s, qelr_test::costDriven(c.depth, c.quality, 32));
        EXPECT_EQ(got.info.error, "") << c.n << " " << c.seed;
        EXPECT_EQ(got.bytes, expect) << c.n << " " << c.seed;
    }
}

TEST(KDTreeRules, InlineLeafEncoding) {
    struct Case {
        std::vector<int32_t> tris;
        uint32_t w0, w1;  // both 0: the triangles do not fit inline
    };
    for (Case c : std::vector<Case>{
             {{5}, 0x80000005u, 0x80000001u},
             {{13, 10, 12}, 0x80020001u, 0x80000033u},
             {{3, 9}, 0x80000009u, 0x8000000Eu},           // list order a, b: b in word 0
             {{0x20000000, 5}, 0xA0000000u, 0x80000016u},  // a too wide for word 1: swapped
             {{0x1FFFFFFF, 0x1FFFFFFF - 32767, 0x1FFFFFFF + 65535}, 0xFFFFFFFFu, 0xFFFFFFFFu},
             {{0, 40000, 40001}, 0, 0},
             {{0x20000000, 0x20000001}, 0, 0},
             {{100000, 100000 - 32768, 100000}, 0, 0},
             {{100000, 100000, 100000 + 65536}, 0, 0},
             {{0x20000000, 0x20000000, 0x20000000}, 0, 0},
             {{}, 0, 0},
             {{1, 2, 3, 4}, 0, 0},
             {{-1}, 0, 0}}) {
        qelr::kdnode::Words w{0, 0};
        const bool fits = qelr::kdnode::inlineLeaf(c.tris.data(), int32_t(c.tris.size()), w);
        ASSERT_EQ(fits, c.w0 != 0) << c.tris.size();
        if (!fits) continue;
        EXPECT_EQ(static_cast<uint32_t>(w.w0), c.w0);
        EXPECT_EQ(static_cast<uint32_t>(w.w1), c.w1);
        std::vector<int32_t> back = qelr_test::decodeInlineLeaf(w.w0, w.w1);
        std::sort(back.begin(), back.end());
        std::sort(c.tris.begin(), c.tris.end());
        EXPECT_EQ(back, c.tris);
    }
}

// Blocks of 256 words: the fewest blocks that hold the tree give the same tree; one byte less stops the build. A
// budget of half the coplanar tree (which grows with depth) stops it too.
TEST(KDTreeRules, OutputBlocksChargedToTheBudget) {
    const Mesh s = qelr_test::randomScene(300, 8);
    const std::vector<uint8_t> expect = libraryTree(s, 50, 1.0f);
    const uint32_t block = kOutputBlockHeaderBytes + 1024;
    uint32_t blocks = 1;
    QelStatus st = qelErrMemoryBudget;
    std::vector<uint8_t> got;
    for (; blocks < 1000 && st == qelErrMemoryBudget; ++blocks)
        got = libraryTree(s, 50, 1.0f, blocks * block, block, &st);
    --blocks;
    ASSERT_EQ(st, qelOk);
    EXPECT_GT(blocks, 2u);
    EXPECT_EQ(got, expect);
    libraryTree(s, 50, 1.0f, blocks * block - 1, block, &st);
    EXPECT_EQ(st, qelErrMemoryBudget);
    libraryTree(s, 50, 1.0f, blocks * block + block - 1, block, &st);
    EXPECT_EQ(st, qelOk);
    const Mesh flat = qelr_test::coplanarScene(40, 5);
    libraryTree(flat, 16, 1.0f, uint32_t(libraryTree(flat, 16, 1.0f).size()) / 2, block, &st);
    EXPECT_EQ(st, qelErrMemoryBudget);
}

// Inside the cell: x in [1,3], y in [1, 3] (x + y <= 4), z = y / 2.
TEST(KDTreeRules, ClippedBoxesStayInsideAndContainTheTriangle) {
    const double tri[3][3] = {{0, 0, 0}, {4, 0, 0}, {0, 4, 2}};
    TriRef r{0, {0, 0, 0}, {4, 4, 2}};
    clipToCell(tri, {{1, 1, -1}, {3, 5, 5}}, r);
    EXPECT_FLOAT_EQ(r.mn[0], 1.0f);
    EXPECT_FLOAT_EQ(r.mx[0], 3.0f);
    for (int a : {1, 2}) {
        const float lo = a == 1 ? 1.0f : 0.5f, hi = a == 1 ? 3.0f : 1.5f;
        EXPECT_LE(r.mn[a], lo);
        EXPECT_GE(r.mx[a], hi);
        EXPECT_LT(r.mx[a], hi + 1e-4f);
    }
}

}  // namespace
