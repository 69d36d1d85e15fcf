// Ray-scene intersection against a double-precision brute-force oracle
// (every triangle intersected from its vertices, no tree, no records), on both
// paths (the packet path is taken for aligned planes whose width and height
// are multiples of 4, the one-ray path for planes shifted by one element),
// over trees of every node form. Every call runs on both instruction-set
// variants (and team sizes 1 and 3), which must give the same bytes.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
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

constexpr int kPacket = 0;  // plane shift that selects the packet path
constexpr int kOneRay = 1;  // plane shift that selects the one-ray path

struct Scene {
    Mesh mesh;
    std::vector<TriangleAccel> rec;
    std::vector<float> box;
    std::vector<int32_t> words;
    QelTraceScene ctx{};
    Scene(Mesh m, std::vector<int32_t> tree) : mesh(std::move(m)), words(std::move(tree)) {
        init();
    }
    Scene(const Scene& o) : mesh(o.mesh), words(o.words) { init(); }
    void init() {
        rec = recordsOf(mesh);
        box = boxOf(mesh);
        ctx = {box.data(), rec.data(), reinterpret_cast<const KDTreeNode*>(words.data())};
    }
};

// Rays: width x height, origins and directions per element.
struct Rays {
    Rays(int width, int height) : w(width), h(height) {}
    int w, h;
    std::vector<float> o[3], d[3], dist;
    size_t n() const { return size_t(w) * h; }
};

// Camera-like rays from one origin outside the scene, with random spread and
// a few special directions (axis-parallel, -0.0, tiny negative components).
Rays cameraRays(int w, int h, uint32_t seed, bool ownOrigins, bool coherent = false) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Rays r{w, h};
    for (int i = 0; i < w * h; ++i) {
        float o[3] = {0.1f, -0.2f, -3.0f}, d[3];
        if (ownOrigins)
            for (float& x : o) x = 1.3f * u(rng);
        for (float& x : d) x = u(rng);
        if (!ownOrigins) d[2] = 1.0f + 0.2f * u(rng);
        if (coherent) {  // a smooth fan of one octant per tile, as from a camera
            const int x = i % w, y = i / w;
            d[0] = -0.45f + 0.9f * x / w;
            d[1] = -0.45f + 0.9f * y / h;
            d[2] = 1.0f;
        }
        switch (i % 23) {
            case 3:
                d[0] = 0.0f;
                break;
            case 7:
                d[1] = -0.0f;
                break;
            case 11:
                d[0] = -1e-8f;
                d[1] = 1e-9f;
                break;
            case 13:
                d[0] = d[1] = 0.0f;
                break;
            default:
                break;
        }
        for (int c = 0; c < 3; ++c) {
            r.o[c].push_back(o[c]);
            r.d[c].push_back(d[c]);
        }
        r.dist.push_back(i % 9 == 4 ? 0.0f : i % 9 == 6 ? 2.5f : 1e30f);
    }
    return r;
}

struct Result {
    std::vector<float> dist, u, v;
    std::vector<int> index;
    bool operator==(const Result& o) const {  // bytes, NaN included
        auto same = [](const auto& a, const auto& b) {
            return a.size() == b.size() && std::memcmp(a.data(), b.data(), 4 * a.size()) == 0;
        };
        return same(dist, o.dist) && same(u, o.u) && same(v, o.v) && same(index, o.index);
    }
};

Result traceNearest(const Scene& s, const Rays& r, int shift, bool ownOrigins, Isa isa) {
    const size_t n = r.n();
    Plane<float> o[3] = {{n, shift}, {n, shift}, {n, shift}},
                 d[3] = {{n, shift}, {n, shift}, {n, shift}};
    Plane<float> dist(n, shift), u(n, shift, -5.0f), v(n, shift, -5.0f);
    Plane<int> index(n, shift, 77);
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            o[c][i] = r.o[c][i];
            d[c][i] = r.d[c][i];
        }
        dist[i] = r.dist[i];
    }
    const float* const op[3] = {o[0].data(), o[1].data(), o[2].data()};
    const float* const dp[3] = {d[0].data(), d[1].data(), d[2].data()};
    float* const uv[2] = {u.data(), v.data()};
    const float origin[3] = {r.o[0][0], r.o[1][0], r.o[2][0]};
    const QelStatus st =
        ownOrigins
            ? QELR_VARIANT(isa, qelrIntersectMO_32f)(op, dp, dist.data(), uv, index.data(), &s.ctx,
                                                     {r.w, r.h})
            : QELR_VARIANT(isa, qelrIntersectEyeSO_32f)(origin, dp, dist.data(), uv, index.data(),
                                                        &s.ctx, {r.w, r.h});
    EXPECT_EQ(st, qelOk);
    Result out;
    for (size_t i = 0; i < n; ++i) {
        out.dist.push_back(dist[i]);
        out.u.push_back(u[i]);
        out.v.push_back(v[i]);
        out.index.push_back(index[i]);
    }
    return out;
}

Result traceNearest(const Scene& s, const Rays& r, int shift, bool ownOrigins) {
    return onEveryVariant([&](Isa isa) { return traceNearest(s, r, shift, ownOrigins, isa); });
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

Expected expected(const Mesh& m, const float o[3], const float d[3], double limit) {
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
// that triangle. With tri < 0, that no hit was sure.
void expectHit(const Expected& e, int tri, double t, double u, double v, const char* what,
               size_t ray) {
    SCOPED_TRACE(testing::Message() << what << " ray " << ray);
    if (tri < 0) {
        EXPECT_EQ(e.nearestSure, INFINITY);
        return;
    }
    const ExactHit* h = e.find(tri);
    ASSERT_NE(h, nullptr) << "triangle " << tri << " is not on the ray";
    if (std::isnan(t)) return;  // the any-hit form: any triangle, no distance
    EXPECT_LE(h->t, e.nearestSure * (1 + kDistTol)) << "a nearer triangle was missed";
    EXPECT_NEAR(t, h->t, kDistTol * (1 + h->t));  // the scene and the directions are of size 1
    EXPECT_NEAR(u, h->u, kWeightTol);
    EXPECT_NEAR(v, h->v, kWeightTol);
}

// Nearest hits against the oracle; rays without a hit keep dist and uv.
void expectOracle(const Scene& s, const Rays& r, const Result& got, const char* what) {
    int hits = 0;
    for (size_t i = 0; i < r.n(); ++i) {
        const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]};
        const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
        expectHit(expected(s.mesh, o, d, r.dist[i]), got.index[i], got.dist[i], got.u[i], got.v[i],
                  what, i);
        hits += got.index[i] >= 0;
        if (got.index[i] < 0) {
            EXPECT_EQ(got.dist[i], r.dist[i]) << what << " ray " << i;
            EXPECT_EQ(got.u[i], -5.0f) << what << " ray " << i;  // uv only for hits
        }
    }
    EXPECT_GT(hits, int(r.n() / 10)) << what;  // the scene is actually hit
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

const std::vector<Scene>& scenes() {
    static const std::vector<Scene> all = [] {
        std::vector<Scene> out;
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
        Mesh closed = boxMesh(-0.5f, 0.5f);  // shared edges and corners
        Mesh both = randomMesh(40, 0.3f, 9);
        for (int t = 0; t < closed.triangles(); ++t) {
            const int* idx = &closed.indices[4 * t];
            both.add(&closed.vertices[3 * idx[0]], &closed.vertices[3 * idx[1]],
                     &closed.vertices[3 * idx[2]]);
        }
        out.emplace_back(both, TestTree(both, 2, 30, 5).words());
        return out;
    }();
    return all;
}

}  // namespace

TEST(IntersectNearest, MatchesOracleOnBothPathsAndBothOriginForms) {
    uint32_t seed = 100;
    for (const Scene& s : scenes()) {
        for (bool mo : {false, true}) {
            for (bool coherent : {false, true}) {
                const Rays r = cameraRays(16, 12, ++seed, mo, coherent);
                expectOracle(s, r, traceNearest(s, r, kOneRay, mo), mo ? "MO one-ray" : "SO one-ray");
                expectOracle(s, r, traceNearest(s, r, kPacket, mo), mo ? "MO packet" : "SO packet");
            }
        }
    }
}

// A width that is no multiple of 4 takes the one-ray path on aligned planes
// too: the same bytes as on shifted planes.
TEST(IntersectNearest, OneRayPathSameBitsAlignedOrNot) {
    const Scene& s = scenes()[1];
    for (bool mo : {false, true}) {
        const Rays r = cameraRays(6, 8, 7, mo);
        const Result aligned = traceNearest(s, r, kPacket, mo);
        expectOracle(s, r, aligned, "width 6");
        EXPECT_TRUE(aligned == traceNearest(s, r, kOneRay, mo));
    }
}

namespace {

// One triangle in the plane z = 1 covering x, y in about [-1, 1].
Scene planeScene() {
    Mesh m;
    const float a[3] = {-1, -1, 1}, b[3] = {3, -1, 1}, c[3] = {-1, 3, 1};
    m.add(a, b, c);
    const float p[3] = {5, 5, 5}, q[3] = {6, 6, 6}, r[3] = {7, 7, 7};  // degenerate
    m.add(p, q, r);
    return Scene(m, TestTree::singleLeaf(2));
}

// A 4 x 4 pack of copies of one ray.
Rays sameRay(const float o[3], const float d[3], float dist) {
    Rays r{4, 4};
    for (int i = 0; i < 16; ++i) {
        for (int c = 0; c < 3; ++c) {
            r.o[c].push_back(o[c]);
            r.d[c].push_back(d[c]);
        }
        r.dist.push_back(dist);
    }
    return r;
}

}  // namespace

TEST(IntersectNearest, EdgeCases) {
    const Scene s = planeScene();
    const float o[3] = {0.25f, 0.0f, -1.0f}, axial[3] = {0.0f, -0.0f, 2.0f};
    for (int shift : {kPacket, kOneRay}) {
        // Parallel to two axes: those axes take no part in the box test.
        Result res = traceNearest(s, sameRay(o, axial, 1e30f), shift, false);
        EXPECT_EQ(res.index[5], 0);
        EXPECT_FLOAT_EQ(res.dist[5], 1.0f);
        EXPECT_NEAR(res.u[5], 0.4375f, 1e-6f);  // weight of the first vertex
        EXPECT_NEAR(res.v[5], 0.3125f, 1e-6f);  // weight of the second vertex
        // dist 0 on entry: nothing can be hit.
        res = traceNearest(s, sameRay(o, axial, 0.0f), shift, false);
        EXPECT_EQ(res.index[5], -1);
        EXPECT_EQ(res.dist[5], 0.0f);
        // A maximum just at the hit: strict acceptance (the packet path's t
        // may come out one ulp below the quotient).
        if (shift == kOneRay) {
            res = traceNearest(s, sameRay(o, axial, 1.0f), shift, false);
            EXPECT_EQ(res.index[5], -1);
        }
        // Starting inside the box, looking back: t would be negative.
        const float inside[3] = {0.25f, 0.5f, 1.0000001f}, up[3] = {0.0f, 0.0f, 1.0f};
        res = traceNearest(s, sameRay(inside, up, 1e30f), shift, true);
        EXPECT_EQ(res.index[0], -1);
        // The degenerate record is never hit, even along its line.
        const float on[3] = {4, 4, 4}, along[3] = {1, 1, 1};
        res = traceNearest(s, sameRay(on, along, 1e30f), shift, true);
        EXPECT_EQ(res.index[0], -1);
    }
    // Zero or negative height returns at once.
    float x = 0, y = 0, z = 1, dist = 5, u = 0, v = 0;
    int index = 3;
    const float* const d[3] = {&x, &y, &z};
    float* const uv[2] = {&u, &v};
    EXPECT_EQ(qelrIntersectEyeSO_32f(o, d, &dist, uv, &index, &s.ctx, {1, 0}), qelOk);
    EXPECT_EQ(qelrIntersectEyeSO_32f(o, d, &dist, uv, &index, &s.ctx, {1, -2}), qelOk);
    EXPECT_EQ(index, 3);
}

namespace {

// Shadow rays from a light to points in the scene box; masks partly negative.
Rays shadowRays(int w, int h, uint32_t seed, bool oneOctant) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Rays r{w, h};
    const float light[3] = {0.2f, 1.6f, -0.3f};
    for (int i = 0; i < w * h; ++i) {
        float target[3] = {u(rng), u(rng), u(rng)};
        if (!oneOctant && i % 2) target[1] = 2.5f;  // some rays go up
        if (oneOctant)
            target[0] = 0.3f + 0.5f * std::fabs(target[0]), target[2] = 0.0f + std::fabs(target[2]);
        for (int c = 0; c < 3; ++c) {
            r.o[c].push_back(light[c]);
            r.d[c].push_back(target[c] - light[c]);
        }
        r.dist.push_back(0.0f);
    }
    return r;
}

struct AnyResult {
    std::vector<int> index, mask;
    bool operator==(const AnyResult& o) const { return index == o.index && mask == o.mask; }
};

AnyResult traceAny(const Scene& s, const Rays& r, int shift, const std::vector<int>& maskIn,
                   Isa isa) {
    const size_t n = r.n();
    Plane<float> d[3] = {{n, shift}, {n, shift}, {n, shift}};
    Plane<int> index(n, shift, 77), mask(n, shift);
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) d[c][i] = r.d[c][i];
        mask[i] = maskIn[i];
    }
    const float* const dp[3] = {d[0].data(), d[1].data(), d[2].data()};
    const float origin[3] = {r.o[0][0], r.o[1][0], r.o[2][0]};
    QelTraceScene ctx = s.ctx;
    ctx.bounds = nullptr;  // the any-hit form does not read the box
    EXPECT_EQ(QELR_VARIANT(isa, qelrIntersectAnySO_32f)(origin, dp, index.data(), mask.data(),
                                                        {r.w, r.h}, &ctx),
              qelOk);
    AnyResult out;
    for (size_t i = 0; i < n; ++i) {
        out.index.push_back(index[i]);
        out.mask.push_back(mask[i]);
    }
    return out;
}

AnyResult traceAny(const Scene& s, const Rays& r, int shift, const std::vector<int>& maskIn) {
    return onEveryVariant([&](Isa isa) { return traceAny(s, r, shift, maskIn, isa); });
}

}  // namespace

TEST(IntersectAny, MatchesOracleWithCachedOccluderAndBothPacketSizes) {
    uint32_t seed = 500;
    for (const Scene& s : scenes()) {
        for (bool oneOctant : {false, true}) {
            const Rays r = shadowRays(16, 8, ++seed, oneOctant);
            std::vector<int> maskIn(r.n());
            // Some rows of the tiles left out entirely: packets of fewer rows.
            for (size_t i = 0; i < r.n(); ++i)
                maskIn[i] =
                    i % 5 == 2 || (oneOctant && (i / r.w) % 4 == 1 && i % 8 < 4) ? -3 : int(i);
            maskIn[48] = -1;  // the probe is the second ray of the fourth row
            for (int shift : {kOneRay, kPacket}) {
                const AnyResult got = traceAny(s, r, shift, maskIn);
                int blocked = 0;
                for (size_t i = 0; i < r.n(); ++i) {
                    const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]};
                    const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
                    if (maskIn[i] < 0) {
                        EXPECT_EQ(got.index[i], -1);
                        EXPECT_EQ(got.mask[i], maskIn[i]);
                        continue;
                    }
                    expectHit(expected(s.mesh, o, d, 1.0), got.index[i], NAN, 0, 0,
                              shift ? "one-ray" : "packet", i);
                    EXPECT_EQ(got.mask[i], got.index[i] >= 0 ? -1 : maskIn[i]) << i;
                    blocked += got.index[i] >= 0;
                }
                EXPECT_GT(blocked, 5);
            }
        }
    }
}

TEST(IntersectAny, HitAtExactlyOneIsNotAccepted) {
    const Scene s = planeScene();
    const float light[3] = {0.25f, 0.5f, 0.0f};
    for (int shift : {kOneRay, kPacket}) {
        // The packet path's t may come out one ulp below the quotient 1.0.
        for (float dz : {1.0f, 1.5f, 0.9f}) {
            if (dz == 1.0f && shift == kPacket) continue;
            const bool hit = dz > 1.0f;
            const float d[3] = {0.0f, 0.0f, dz};
            const AnyResult got = traceAny(s, sameRay(light, d, 0), shift, std::vector<int>(16, 0));
            EXPECT_EQ(got.index[3], hit ? 0 : -1) << shift;
            EXPECT_EQ(got.mask[3], hit ? -1 : 0) << shift;
        }
    }
}

namespace {

// The layers of successive hits of a pack (planes shifted by `shift`).
Result traceLayers(const Scene& s, const Rays& r, int layers, int shift, Isa isa) {
    const size_t n = r.n(), all = n * layers;
    Plane<float> dist(all, shift, 123.0f), u(all, shift, -5.0f), v(all, shift, -5.0f);
    Plane<int> index(all, shift, 77);
    Plane<float> d[3] = {{n, shift}, {n, shift}, {n, shift}};
    for (size_t i = 0; i < n; ++i) {
        dist[i] = r.dist[i];
        for (int c = 0; c < 3; ++c) d[c][i] = r.d[c][i];
    }
    const float* const dp[3] = {d[0].data(), d[1].data(), d[2].data()};
    float* const uv[2] = {u.data(), v.data()};
    const float origin[3] = {r.o[0][0], r.o[1][0], r.o[2][0]};
    const QelLayeredSize size{r.w, r.h, layers};
    EXPECT_EQ(QELR_VARIANT(isa, qelrIntersectMultipleSO_32f)(origin, dp, dist.data(), uv,
                                                             index.data(), &size, &s.ctx),
              qelOk);
    Result out;
    for (size_t i = 0; i < all; ++i) {
        out.dist.push_back(dist[i]);
        out.u.push_back(u[i]);
        out.v.push_back(v[i]);
        out.index.push_back(index[i]);
    }
    return out;
}

// Layers against the oracle, from the rules: layer 0 is the nearest hit;
// each later layer is a triangle further along the same ray, none twice, at
// its cumulative distance from the first origin; the layers stop early only
// when every triangle the ray surely meets was reported; after a miss the
// caller's distances stay. Both variants and both alignments: the same bytes.
void expectLayers(const Scene& s, const Rays& r, int layers) {
    const size_t n = r.n();
    const Result got = onEveryVariant([&](Isa isa) { return traceLayers(s, r, layers, 0, isa); });
    EXPECT_TRUE(got == traceLayers(s, r, layers, 1, Isa::sse3)) << "alignments differ";
    for (size_t i = 0; i < n; ++i) {
        const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]};
        const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
        const Expected first = expected(s.mesh, o, d, r.dist[i]);
        const Expected beyond = expected(s.mesh, o, d, INFINITY);
        std::vector<int> seen;
        int h = 0;
        for (; h < layers; ++h) {
            const size_t at = i + h * n;
            if (got.index[at] < 0) break;
            const Expected& e = h == 0 ? first : beyond;
            const ExactHit* hit = e.find(got.index[at]);
            ASSERT_NE(hit, nullptr) << "ray " << i << " layer " << h;
            EXPECT_NEAR(got.dist[at], hit->t, 4 * kDistTol * (1 + hit->t)) << "ray " << i << " layer " << h;
            EXPECT_NEAR(got.u[at], hit->u, kWeightTol);
            EXPECT_NEAR(got.v[at], hit->v, kWeightTol);
            if (h == 0) expectHit(e, got.index[at], got.dist[at], got.u[at], got.v[at], "layer 0", i);
            EXPECT_EQ(std::count(seen.begin(), seen.end(), got.index[at]), 0) << "ray " << i;
            seen.push_back(got.index[at]);
        }
        if (h < layers) {  // a miss: nothing sure was left out, the rest untouched
            const size_t at = i + h * n;
            EXPECT_EQ(got.dist[at], h == 0 ? r.dist[i] : FLT_MAX);
            for (const ExactHit& x : beyond.all) {
                if (x.margin > kEdgeMargin && x.t > kDistTol && (h > 0 || x.t < r.dist[i])) {
                    EXPECT_NE(std::count(seen.begin(), seen.end(), x.index), 0)
                        << "ray " << i << " missed triangle " << x.index;
                }
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
    for (const Scene& s : scenes()) {
        expectLayers(s, cameraRays(8, 4, ++seed, false), 3);
    }
    // A long run of hits through stacked planes wraps the recent-hits list.
    Mesh stack;
    for (int k = 0; k < 12; ++k) {
        const float z = 0.1f * k;
        const float a[3] = {-1, -1, z}, b[3] = {3, -1, z}, c[3] = {-1, 3, z};
        stack.add(a, b, c);
    }
    const Scene planes(stack, TestTree(stack, 2, 30, 3).words());
    const float o[3] = {0.1f, 0.2f, -1.0f}, d[3] = {0.01f, 0.02f, 1.0f};
    expectLayers(planes, sameRay(o, d, 1e30f), 14);
}

TEST(IntersectMultiple, LayerCountSemantics) {
    const Scene& s = scenes()[0];
    const Rays r = cameraRays(8, 4, 3, false);
    // One layer equals the nearest hit.
    std::vector<float> dist = r.dist, u(r.n()), v(r.n());
    std::vector<int> index(r.n());
    const float* const dp[3] = {r.d[0].data(), r.d[1].data(), r.d[2].data()};
    float* const uv[2] = {u.data(), v.data()};
    const float origin[3] = {r.o[0][0], r.o[1][0], r.o[2][0]};
    QelLayeredSize size{r.w, r.h, 1};
    ASSERT_EQ(qelrIntersectMultipleSO_32f(origin, dp, dist.data(), uv, index.data(), &size, &s.ctx),
              qelOk);
    const Result nearest = traceNearest(s, r, kOneRay, false);
    EXPECT_EQ(index, nearest.index);  // the tolerances differ, but not on these rays
    // Layers below 1 trace and write nothing.
    for (int layers : {0, -2}) {
        std::vector<int> untouched(r.n(), 55);
        size.layers = layers;
        ASSERT_EQ(qelrIntersectMultipleSO_32f(origin, dp, dist.data(), uv, untouched.data(), &size,
                                              &s.ctx),
                  qelOk);
        EXPECT_EQ(untouched, std::vector<int>(r.n(), 55));
    }
}

namespace {

// Ray i of a pack alone, in a pack of one.
Rays single(const Rays& r, size_t i) {
    Rays one{1, 1};
    for (int c = 0; c < 3; ++c) {
        one.o[c].push_back(r.o[c][i]);
        one.d[c].push_back(r.d[c][i]);
    }
    one.dist.push_back(r.dist[i]);
    return one;
}

}  // namespace

// The one-ray path runs several rays at a time on the vector lanes: each ray
// gets the bytes it gets alone (a pack of one, traced on its own), for every
// function, with neighbours of other octants, misses and masked rays.
TEST(IntersectOneRay, RaysInGroupsGiveTheirOwnBits) {
    uint32_t seed = 700;
    for (const Scene& s : scenes()) {
        const Rays cam = cameraRays(9, 5, ++seed, false), own = cameraRays(9, 5, seed, true);
        const Rays shadow = shadowRays(9, 5, seed, false);
        const Result so = traceNearest(s, cam, kOneRay, false),
                     mo = traceNearest(s, own, kOneRay, true);
        const Result layers = onEveryVariant([&](Isa isa) { return traceLayers(s, cam, 3, 1, isa); });
        std::vector<int> maskIn(shadow.n());
        for (size_t i = 0; i < shadow.n(); ++i) maskIn[i] = i % 7 == 3 ? -2 : int(i);
        const AnyResult any = traceAny(s, shadow, kOneRay, maskIn);
        const size_t n = cam.n();
        for (size_t i = 0; i < n; ++i) {
            SCOPED_TRACE(testing::Message() << "ray " << i);
            const Result a = traceNearest(s, single(cam, i), kOneRay, false, Isa::sse3);
            EXPECT_TRUE((a == Result{{so.dist[i]}, {so.u[i]}, {so.v[i]}, {so.index[i]}}));
            const Result b = traceNearest(s, single(own, i), kOneRay, true, Isa::sse3);
            EXPECT_TRUE((b == Result{{mo.dist[i]}, {mo.u[i]}, {mo.v[i]}, {mo.index[i]}}));
            const Result l = traceLayers(s, single(cam, i), 3, 1, Isa::sse3);
            for (int h = 0; h < 3; ++h) {
                EXPECT_EQ(bitsOf(l.dist[h]), bitsOf(layers.dist[i + h * n])) << "layer " << h;
                EXPECT_EQ(bitsOf(l.u[h]), bitsOf(layers.u[i + h * n])) << "layer " << h;
                EXPECT_EQ(l.index[h], layers.index[i + h * n]) << "layer " << h;
            }
            const AnyResult c = traceAny(s, single(shadow, i), kOneRay, {maskIn[i]}, Isa::sse3);
            EXPECT_EQ(c.index[0], any.index[i]);
            EXPECT_EQ(c.mask[0], any.mask[i]);
        }
    }
}
