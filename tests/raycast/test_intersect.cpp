// Ray-scene intersection against a double-precision brute-force oracle
// (every triangle intersected from its vertices, no tree, no records), on both
// paths (the packet path is taken for aligned planes whose width and height
// are multiples of 4, the one-ray path for planes shifted by one element or of
// other widths), over trees of every node form. Every call runs on both
// instruction-set variants (and team sizes 1 and 3), which must give the same bytes.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <deque>
#include <random>
#include <vector>

#include "core/dispatch.h"
#include "scene_util.h"
#include "test_util.h"

using namespace qelr_test;
using qelr::frame::Isa;

namespace {

// Runs trace(isa) on every variant the processor runs (SSE3 on one thread,
// AVX2 on three) and expects equal results; returns the SSE3 one.
template <class F>
auto onEveryVariant(F&& trace) {
    ThreadCountGuard guard;
    qelSetNumThreads(1);
    const auto first = trace(Isa::sse3);
    if (qelr::frame::isaRuns(Isa::avx2)) {
        qelSetNumThreads(3);
        EXPECT_TRUE(trace(Isa::avx2) == first) << "the variants differ";
    }
    return first;
}

// Agreed tolerances of the float paths against the double oracle: relative
// distance (the one-ray quotient is within an ulp or two, the packet's refined
// reciprocal within a few), barycentric weights, and how far inside a
// triangle (in weights) a hit must lie before every path must find it.
constexpr double kDistTol = 1e-5, kWeightTol = 2e-4, kEdgeMargin = 1e-4;
constexpr int kPacket = 0, kOneRay = 1;  // plane shifts that select the two paths

// A mesh, its records and box, and a tree: the context points into them, so
// scenes are kept in a deque (never moved).
struct Scene {
    Mesh mesh;
    std::vector<TriangleAccel> rec;
    std::vector<float> box;
    std::vector<int32_t> words;
    QelTraceScene ctx{};
    Scene(Mesh m, std::vector<int32_t> tree)
        : mesh(std::move(m)), rec(mesh.triangles()), box(6), words(std::move(tree)) {
        qelrTriangleAccelInit(rec.data(), mesh.vertices.data(), mesh.indices.data(), mesh.triangles());
        qelrSetBoundBox_32f(mesh.vertices.data(), int(mesh.vertices.size() / 3), box.data());
        ctx = {box.data(), rec.data(), reinterpret_cast<const KDTreeNode*>(words.data())};
    }
    Scene(const Scene&) = delete;
};

// Rays: width x height; origin, direction, distance and mask per element.
struct Rays {
    int w, h;
    std::vector<float> o[3], d[3], dist;
    std::vector<int> mask;
    size_t n() const { return size_t(w) * h; }
    void add(const float* org, const float* dir, float maxDist, int m = 0) {
        for (int c = 0; c < 3; ++c) o[c].push_back(org[c]), d[c].push_back(dir[c]);
        dist.push_back(maxDist);
        mask.push_back(m);
    }
    void get(size_t i, float org[3], float dir[3]) const {
        for (int c = 0; c < 3; ++c) org[c] = o[c][i], dir[c] = d[c][i];
    }
    Rays one(size_t i) const {  // ray i alone, in a pack of one
        Rays r{1, 1, {}, {}, {}, {}};
        float org[3], dir[3];
        get(i, org, dir);
        r.add(org, dir, dist[i], mask[i]);
        return r;
    }
};

// Camera-like rays from one origin outside the scene, with random spread and
// a few special directions (axis-parallel, -0.0, tiny negative components).
Rays cameraRays(int w, int h, uint32_t seed, bool ownOrigins, bool coherent = false) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Rays r{w, h, {}, {}, {}, {}};
    for (int i = 0; i < w * h; ++i) {
        float o[3] = {0.1f, -0.2f, -3.0f}, d[3];
        if (ownOrigins)
            for (float& x : o) x = 1.3f * u(rng);
        for (float& x : d) x = u(rng);
        if (!ownOrigins) d[2] = 1.0f + 0.2f * u(rng);
        if (coherent)  // a smooth fan of one octant per tile, as from a camera
            d[0] = -0.45f + 0.9f * (i % w) / w, d[1] = -0.45f + 0.9f * (i / w) / h, d[2] = 1.0f;
        if (i % 23 == 3) d[0] = 0.0f;
        if (i % 23 == 7) d[1] = -0.0f;
        if (i % 23 == 11) d[0] = -1e-8f, d[1] = 1e-9f;
        if (i % 23 == 13) d[0] = d[1] = 0.0f;
        r.add(o, d, i % 9 == 4 ? 0.0f : i % 9 == 6 ? 2.5f : 1e30f);
    }
    return r;
}

// Shadow rays from a light to points in the scene box; masks partly negative.
Rays shadowRays(int w, int h, uint32_t seed, bool oneOctant) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Rays r{w, h, {}, {}, {}, {}};
    const float light[3] = {0.2f, 1.6f, -0.3f};
    for (int i = 0; i < w * h; ++i) {
        float d[3] = {u(rng), u(rng), u(rng)};
        if (!oneOctant && i % 2) d[1] = 2.5f;  // some rays go up
        if (oneOctant) d[0] = 0.3f + 0.5f * std::fabs(d[0]), d[2] = std::fabs(d[2]);
        for (int c = 0; c < 3; ++c) d[c] -= light[c];
        r.add(light, d, 0.0f, i);
    }
    return r;
}

enum Fn { kSO, kMO, kAny, kLayers };

struct Result {
    std::vector<float> dist, u, v;
    std::vector<int> index, mask;
    bool operator==(const Result& o) const {  // bytes, NaN included
        auto same = [](const auto& a, const auto& b) {
            return a.size() == b.size() && std::memcmp(a.data(), b.data(), 4 * a.size()) == 0;
        };
        return same(dist, o.dist) && same(u, o.u) && same(v, o.v) && same(index, o.index) &&
               same(mask, o.mask);
    }
};

// One call on planes shifted by `shift`; the outputs of `layers` layers (at
// least one plane's worth, so that layer counts below 1 show what they write).
Result trace(const Scene& s, const Rays& r, Fn fn, int shift, Isa isa, int layers = 1) {
    const size_t n = r.n(), all = n * std::max(layers, 1);
    Plane<float> o[3] = {{n, shift}, {n, shift}, {n, shift}},
                 d[3] = {{n, shift}, {n, shift}, {n, shift}};
    Plane<float> dist(all, shift, 123.0f), u(all, shift, -5.0f), v(all, shift, -5.0f);
    Plane<int> index(all, shift, 77), mask(n, shift);
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) o[c][i] = r.o[c][i], d[c][i] = r.d[c][i];
        dist[i] = r.dist[i];
        mask[i] = r.mask[i];
    }
    const float* const op[3] = {o[0].data(), o[1].data(), o[2].data()};
    const float* const dp[3] = {d[0].data(), d[1].data(), d[2].data()};
    float* const uv[2] = {u.data(), v.data()};
    const float origin[3] = {r.o[0][0], r.o[1][0], r.o[2][0]};
    const QelLayeredSize size{r.w, r.h, layers};
    QelTraceScene ctx = s.ctx;
    QelStatus st;
    if (fn == kSO) {
        st = QELR_VARIANT(isa, qelrIntersectEyeSO_32f)(origin, dp, dist.data(), uv, index.data(),
                                                       &ctx, {r.w, r.h});
    } else if (fn == kMO) {
        st = QELR_VARIANT(isa, qelrIntersectMO_32f)(op, dp, dist.data(), uv, index.data(), &ctx,
                                                    {r.w, r.h});
    } else if (fn == kLayers) {
        st = QELR_VARIANT(isa, qelrIntersectMultipleSO_32f)(origin, dp, dist.data(), uv,
                                                            index.data(), &size, &ctx);
    } else {
        ctx.bounds = nullptr;  // the any-hit form does not read the box
        st = QELR_VARIANT(isa, qelrIntersectAnySO_32f)(origin, dp, index.data(), mask.data(),
                                                       {r.w, r.h}, &ctx);
    }
    EXPECT_EQ(st, qelOk);
    Result out;
    for (size_t i = 0; i < all; ++i) {
        out.dist.push_back(dist[i]);
        out.u.push_back(u[i]);
        out.v.push_back(v[i]);
        out.index.push_back(index[i]);
    }
    for (size_t i = 0; i < n; ++i) out.mask.push_back(mask[i]);
    return out;
}

Result trace(const Scene& s, const Rays& r, Fn fn, int shift, int layers = 1) {
    return onEveryVariant([&](Isa isa) { return trace(s, r, fn, shift, isa, layers); });
}

// The hits of one ray that a float path must find (well inside a triangle,
// well inside 0 < t < limit), and those it may find (within rounding of an
// edge or of either end).
struct Expected {
    std::vector<ExactHit> all;
    double nearestSure = INFINITY;  // the nearest hit every path must see
    const ExactHit* find(int tri) const {
        for (const ExactHit& h : all)
            if (h.index == tri) return &h;
        return nullptr;
    }
};

Expected expected(const Mesh& m, const Rays& r, size_t i, double limit) {
    float o[3], d[3];
    r.get(i, o, d);
    Expected e;
    for (const ExactHit& h : exactHits(m, o, d)) {
        if (h.margin < -kEdgeMargin || h.t <= 0 || h.t >= limit * (1 + kDistTol)) continue;
        e.all.push_back(h);
        if (h.margin > kEdgeMargin && h.t > kDistTol && h.t < limit * (1 - kDistTol))
            e.nearestSure = std::min(e.nearestSure, h.t);
    }
    return e;
}

// Checks one hit (index, t, weights) of a ray against the oracle: a
// triangle the ray meets, no sure hit nearer, the distance and weights of
// that triangle. With tri < 0, that no hit was sure; with t NaN (any-hit),
// only that the triangle is on the ray.
void expectHit(const Expected& e, int tri, double t, double u, double v, const char* what,
               size_t ray) {
    SCOPED_TRACE(testing::Message() << what << " ray " << ray);
    if (tri < 0) {
        EXPECT_EQ(e.nearestSure, INFINITY);
        return;
    }
    const ExactHit* h = e.find(tri);
    ASSERT_NE(h, nullptr) << "triangle " << tri << " is not on the ray";
    if (std::isnan(t)) return;
    EXPECT_LE(h->t, e.nearestSure * (1 + kDistTol)) << "a nearer triangle was missed";
    EXPECT_NEAR(t, h->t, kDistTol * (1 + h->t));  // the scene and the directions are of size 1
    EXPECT_NEAR(u, h->u, kWeightTol);
    EXPECT_NEAR(v, h->v, kWeightTol);
}

// Nearest hits against the oracle; rays without a hit keep dist and uv.
void expectOracle(const Scene& s, const Rays& r, const Result& got, const char* what) {
    int hits = 0;
    for (size_t i = 0; i < r.n(); ++i) {
        expectHit(expected(s.mesh, r, i, r.dist[i]), got.index[i], got.dist[i], got.u[i], got.v[i],
                  what, i);
        hits += got.index[i] >= 0;
        if (got.index[i] < 0) {
            EXPECT_EQ(got.dist[i], r.dist[i]) << what << " ray " << i;
            EXPECT_EQ(got.u[i], -5.0f) << what << " ray " << i;  // uv only for hits
        }
    }
    EXPECT_GT(hits * 20, int(r.n())) << what;  // the scene is actually hit
}

// A tree from the library's builder, copied out of its block (the node
// format holds only relative offsets).
std::vector<int32_t> builtTree(const Mesh& m, uint32_t algorithm) {
    KDTreeNode* tree = nullptr;
    int bytes = 0;
    const KDTreeBuildParams params{algorithm, 50, 1.0f, 64, 0};
    EXPECT_EQ(qelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.indices.data(),
                                   static_cast<int>(m.vertices.size() / 3), m.triangles(), &bytes,
                                   &params),
              qelOk);
    std::vector<int32_t> words(bytes / 4);
    std::memcpy(words.data(), tree, bytes);
    qelrKDTreeFree(tree);
    return words;
}

const std::deque<Scene>& scenes() {
    static const std::deque<Scene> all = [] {
        std::deque<Scene> out;
        for (uint32_t seed : {1u, 2u}) {
            Mesh m = randomMesh(400, 0.3f, seed);
            const float far[3][3] = {{4, 4, 4}, {4.1f, 4, 4}, {4, 4.1f, 4}};  // leaves empty space
            m.add(far[0], far[1], far[2]);
            for (int maxLeaf : {1, 3, 6}) {
                TestTree t(m, maxLeaf, 30, seed * 10 + maxLeaf);
                for (int f = 0; f < 5; ++f) EXPECT_GT(t.leafForms[f], 0) << "leaf form " << f;
                out.emplace_back(m, t.words());
            }
            out.emplace_back(m, TestTree::singleLeaf(m.triangles()));
            out.emplace_back(m, builtTree(m, qelKdCostDriven));
            out.emplace_back(m, builtTree(m, qelKdSingleLeaf));
        }
        Mesh both = randomMesh(40, 0.3f, 9);
        addBox(both, -0.5f, 0.5f);  // shared edges and corners
        out.emplace_back(both, TestTree(both, 2, 30, 5).words());
        return out;
    }();
    return all;
}

}  // namespace

TEST(IntersectNearest, MatchesOracleOnBothPathsAndBothOriginForms) {
    uint32_t seed = 100;
    for (const Scene& s : scenes())
        for (Fn fn : {kSO, kMO})
            for (bool coherent : {false, true}) {
                const Rays r = cameraRays(16, 12, ++seed, fn == kMO, coherent);
                expectOracle(s, r, trace(s, r, fn, kOneRay), fn == kMO ? "MO one-ray" : "SO one-ray");
                expectOracle(s, r, trace(s, r, fn, kPacket), fn == kMO ? "MO packet" : "SO packet");
            }
}

TEST(IntersectAny, MatchesOracleWithCachedOccluderAndBothPacketSizes) {
    uint32_t seed = 500;
    for (const Scene& s : scenes()) {
        for (bool oneOctant : {false, true}) {
            Rays r = shadowRays(16, 8, ++seed, oneOctant);
            // Some rows of the tiles left out entirely: packets of fewer rows.
            for (size_t i = 0; i < r.n(); ++i)
                if (i % 5 == 2 || (oneOctant && (i / r.w) % 4 == 1 && i % 8 < 4)) r.mask[i] = -3;
            r.mask[48] = -1;  // the probe is the second ray of the fourth row
            for (int shift : {kOneRay, kPacket}) {
                const Result got = trace(s, r, kAny, shift);
                int blocked = 0;
                for (size_t i = 0; i < r.n(); ++i) {
                    if (r.mask[i] < 0) {
                        EXPECT_EQ(got.index[i], -1);
                        EXPECT_EQ(got.mask[i], r.mask[i]);
                        continue;
                    }
                    expectHit(expected(s.mesh, r, i, 1.0), got.index[i], NAN, 0, 0,
                              shift ? "one-ray" : "packet", i);
                    EXPECT_EQ(got.mask[i], got.index[i] >= 0 ? -1 : r.mask[i]) << i;
                    blocked += got.index[i] >= 0;
                }
                EXPECT_GT(blocked, 5);
            }
        }
    }
}

// Hand-derived cases on one triangle in the plane z = 1 covering x, y in about
// [-1, 1], and a degenerate one, in 4 x 4 packs of copies of one ray.
TEST(Intersect, EdgeCasesOnOneTriangle) {
    Mesh m;
    const float a[3] = {-1, -1, 1}, b[3] = {3, -1, 1}, c[3] = {-1, 3, 1};
    const float p[3] = {5, 5, 5}, q[3] = {6, 6, 6}, r[3] = {7, 7, 7};
    m.add(a, b, c);
    m.add(p, q, r);
    const Scene s(m, TestTree::singleLeaf(2));
    struct Case {
        Fn fn;
        float o[3], d[3], dist;
        int hit;
        bool oneRayOnly;  // the packet path's t may come out one ulp below the quotient
    };
    for (const Case& k : {
             // Parallel to two axes (those take no part in the box test): t = 1 at (0.25, 0).
             Case{kSO, {0.25f, 0, -1}, {0, -0.0f, 2}, 1e30f, 0, false},
             Case{kSO, {0.25f, 0, -1}, {0, -0.0f, 2}, 1.0f, -1, true},  // strict: t < dist
             Case{kMO, {4, 4, 4}, {1, 1, 1}, 1e30f, -1, false},  // along the degenerate record
             Case{kAny, {0.25f, 0.5f, 0}, {0, 0, 1.5f}, 0, 0, false},
             Case{kAny, {0.25f, 0.5f, 0}, {0, 0, 0.9f}, 0, -1, false},
             Case{kAny, {0.25f, 0.5f, 0}, {0, 0, 1.0f}, 0, -1, true},  // strict: t < 1
         }) {
        Rays rays{4, 4, {}, {}, {}, {}};
        for (int i = 0; i < 16; ++i) rays.add(k.o, k.d, k.dist);
        for (int shift : {kOneRay, kPacket}) {
            if (shift == kPacket && k.oneRayOnly) continue;
            const Result got = trace(s, rays, k.fn, shift);
            SCOPED_TRACE(testing::Message() << "fn " << k.fn << " shift " << shift);
            EXPECT_EQ(got.index[5], k.hit);
            if (k.fn == kAny) {
                EXPECT_EQ(got.mask[5], k.hit < 0 ? 0 : -1);
            }
            if (k.fn == kAny || k.hit < 0) continue;
            EXPECT_FLOAT_EQ(got.dist[5], 1.0f);
            EXPECT_NEAR(got.u[5], 0.4375f, 1e-6f);  // 1 - x-weight (1.25 / 4) - y-weight (1 / 4)
            EXPECT_NEAR(got.v[5], 0.3125f, 1e-6f);  // (x + 1) / 4
        }
    }
    // Zero or negative height returns at once.
    float x = 0, y = 0, z = 1, dist = 5, u = 0, v = 0;
    int index = 3;
    const float* const d[3] = {&x, &y, &z};
    float* const uv[2] = {&u, &v};
    for (int h : {0, -2})
        EXPECT_EQ(qelrIntersectEyeSO_32f(a, d, &dist, uv, &index, &s.ctx, {1, h}), qelOk);
    EXPECT_EQ(index, 3);
}

namespace {

// Layers against the oracle, from the rules: layer 0 is the nearest hit;
// each later layer is a triangle further along the same ray, none twice, at
// its cumulative distance from the first origin; the layers stop early only
// when every triangle the ray surely meets was reported; after a miss the
// caller's distances stay. Both variants and both alignments: the same bytes.
void expectLayers(const Scene& s, const Rays& r, int layers) {
    const size_t n = r.n();
    const Result got = trace(s, r, kLayers, kPacket, layers);
    EXPECT_TRUE(got == trace(s, r, kLayers, kOneRay, Isa::sse3, layers)) << "alignments differ";
    for (size_t i = 0; i < n; ++i) {
        const Expected first = expected(s.mesh, r, i, r.dist[i]);
        const Expected beyond = expected(s.mesh, r, i, INFINITY);
        std::vector<int> seen;
        int h = 0;
        for (; h < layers; ++h) {
            const size_t at = i + h * n;
            if (got.index[at] < 0) break;
            const ExactHit* hit = (h == 0 ? first : beyond).find(got.index[at]);
            ASSERT_NE(hit, nullptr) << "ray " << i << " layer " << h;
            EXPECT_NEAR(got.dist[at], hit->t, 4 * kDistTol * (1 + hit->t)) << "ray " << i << " layer " << h;
            EXPECT_NEAR(got.u[at], hit->u, kWeightTol);
            EXPECT_NEAR(got.v[at], hit->v, kWeightTol);
            if (h == 0) expectHit(first, got.index[at], got.dist[at], got.u[at], got.v[at], "layer 0", i);
            EXPECT_EQ(std::count(seen.begin(), seen.end(), got.index[at]), 0) << "ray " << i;
            seen.push_back(got.index[at]);
        }
        if (h < layers) {  // a miss: nothing sure was left out, the rest untouched
            EXPECT_EQ(got.dist[i + h * n], h == 0 ? r.dist[i] : FLT_MAX);
            for (const ExactHit& x : beyond.all)
                if (x.margin > kEdgeMargin && x.t > kDistTol && (h > 0 || x.t < r.dist[i])) {
                    EXPECT_NE(std::count(seen.begin(), seen.end(), x.index), 0)
                        << "ray " << i << " missed triangle " << x.index;
                }
            for (int k = h + 1; k < layers; ++k) {
                EXPECT_EQ(got.index[i + k * n], -1);
                EXPECT_EQ(got.dist[i + k * n], 123.0f);
            }
        }
    }
}

}  // namespace

TEST(IntersectMultiple, LayersMatchOracle) {
    uint32_t seed = 900;
    for (const Scene& s : scenes()) expectLayers(s, cameraRays(8, 4, ++seed, false), 3);
    // Layers below 1 trace and write nothing.
    const Rays cam = cameraRays(8, 4, 3, false);
    for (int layers : {0, -2})
        EXPECT_EQ(trace(scenes()[0], cam, kLayers, kOneRay, Isa::sse3, layers).index,
                  std::vector<int>(cam.n(), 77));
    // A long run of hits through stacked planes wraps the recent-hits list.
    Mesh stack;
    for (int k = 0; k < 12; ++k) {
        const float z = 0.1f * k, a[3] = {-1, -1, z}, b[3] = {3, -1, z}, c[3] = {-1, 3, z};
        stack.add(a, b, c);
    }
    const Scene planes(stack, TestTree(stack, 2, 30, 3).words());
    Rays r{4, 4, {}, {}, {}, {}};
    const float o[3] = {0.1f, 0.2f, -1.0f}, d[3] = {0.01f, 0.02f, 1.0f};
    for (int i = 0; i < 16; ++i) r.add(o, d, 1e30f);
    expectLayers(planes, r, 14);
}

// The one-ray path runs several rays at a time on the vector lanes, the rest
// one by one: each ray gets the bytes it gets alone (a pack of one, on planes
// shifted by one), for every function, with neighbours of other octants,
// misses and masked rays. The packs of 9 x 5 are aligned: the one-ray path
// must not depend on alignment either.
TEST(IntersectOneRay, RaysInGroupsGiveTheirOwnBits) {
    uint32_t seed = 700;
    for (const Scene& s : scenes()) {
        ++seed;
        Rays shadow = shadowRays(9, 5, seed, false);
        for (size_t i = 0; i < shadow.n(); ++i)
            if (i % 7 == 3) shadow.mask[i] = -2;
        for (Fn fn : {kSO, kMO, kAny, kLayers}) {
            const Rays r = fn == kAny ? shadow : cameraRays(9, 5, seed, fn == kMO);
            const int layers = fn == kLayers ? 3 : 1;
            const size_t n = r.n();
            const Result group = trace(s, r, fn, kPacket, layers);
            if (fn == kSO || fn == kMO) expectOracle(s, r, group, "9 x 5");
            for (size_t i = 0; i < n; ++i) {
                SCOPED_TRACE(testing::Message() << "fn " << fn << " ray " << i);
                const Result alone = trace(s, r.one(i), fn, kOneRay, Isa::sse3, layers);
                Result want{{}, {}, {}, {}, {group.mask[i]}};
                for (size_t at = i; at < n * layers; at += n) {
                    want.dist.push_back(group.dist[at]);
                    want.u.push_back(group.u[at]);
                    want.v.push_back(group.v[at]);
                    want.index.push_back(group.index[at]);
                }
                EXPECT_TRUE(alone == want);
            }
        }
    }
}
