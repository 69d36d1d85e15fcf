// Intersection against a double brute-force oracle on the packet and one-ray paths, over validated trees of every
// node form; both variants (team sizes 1 and 3) give the same bytes, and so does each ray traced alone.
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
#include "kdtree_check.h"
#include "test_util.h"

using namespace qelr_test;
using qelr::frame::Isa;

namespace {

// Runs trace(isa) on SSE3 with one thread and AVX2 (where it runs) with three, expects equal results, returns one.
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

// Tolerances against the double oracle: relative distance (the packet's refined reciprocal is within a few ulps),
// weights, and how far inside a triangle (in weights) a hit must lie before every path must find it.
constexpr double kDistTol = 1e-5, kWeightTol = 2e-4, kEdgeMargin = 1e-4;
constexpr int kPacket = 0, kOneRay = 1;  // plane shifts that select the two paths

// n random triangles of about `size` inside [-1, 1]^3; every 17th collinear (its record is zero, never hit).
Mesh randomMesh(int n, float size, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> pos(-1.0f, 1.0f), off(-size, size);
    Mesh m;
    for (int t = 0; t < n; ++t) {
        float c[3], v[3][3];
        for (float& x : c) x = pos(rng);
        for (auto& p : v)
            for (int a = 0; a < 3; ++a) p[a] = c[a] + off(rng);
        for (int a = 0; a < 3 && t % 17 == 5; ++a) v[2][a] = 0.5f * (v[0][a] + v[1][a]);
        m.add(v[0], v[1], v[2]);
    }
    return m;
}

// Every triangle intersected in double, with its smallest weight (hits within rounding of an edge are optional).
struct ExactHit {
    int index;
    double t, u, v;  // u, v: the weights of the first and second vertex
    double margin;
};

std::vector<ExactHit> exactHits(const Mesh& m, const float o[3], const float d[3]) {
    auto cross = [](const double* x, const double* y, double* z) {
        for (int a = 0; a < 3; ++a)
            z[a] = x[(a + 1) % 3] * y[(a + 2) % 3] - x[(a + 2) % 3] * y[(a + 1) % 3];
    };
    auto dot = [](const double* x, const double* y) {
        return x[0] * y[0] + x[1] * y[1] + x[2] * y[2];
    };
    std::vector<ExactHit> hits;
    for (int tri = 0; tri < m.triangleCount(); ++tri) {
        double e1[3], e2[3], s[3], n[3], dd[3] = {d[0], d[1], d[2]}, pv[3], qv[3];
        for (int a = 0; a < 3; ++a) {
            const double p0 = m.corner(tri, 0)[a];
            e1[a] = m.corner(tri, 1)[a] - p0;
            e2[a] = m.corner(tri, 2)[a] - p0;
            s[a] = o[a] - p0;
        }
        cross(e1, e2, n);
        if (dot(n, n) < 1e-14) continue;  // collinear: the library never hits it
        cross(dd, e2, pv);
        const double det = dot(e1, pv);
        if (det == 0.0) continue;
        cross(s, e1, qv);
        const double b1 = dot(s, pv) / det, b2 = dot(dd, qv) / det, t = dot(e2, qv) / det;
        hits.push_back({tri, t, 1.0 - b1 - b2, b1, std::min({1.0 - b1 - b2, b1, b2})});
    }
    return hits;
}

// A mesh, its records, box and tree: the context points into them, so scenes live in a deque (never moved).
struct Scene {
    Mesh mesh;
    std::vector<TriangleAccel> rec;
    std::vector<float> box = std::vector<float>(6);
    std::vector<int32_t> words;
    QelTraceScene ctx{};
    // leafForms counts the leaves: empty, listed, inline of 1, 2 and 3 triangles.
    Scene(Mesh m, const KDTreeBuildParams& p, int* leafForms = nullptr)
        : mesh(std::move(m)), rec(mesh.triangleCount()) {
        const BuiltTree tree = buildTree(mesh, p);
        EXPECT_EQ(tree.info.error, "");
        for (const auto& l : tree.info.leaves)
            if (leafForms) ++leafForms[l.tris.empty() ? 0 : l.isInline ? l.tris.size() + 1 : 1];
        words.resize(tree.bytes.size() / 4);
        std::memcpy(words.data(), tree.bytes.data(), tree.bytes.size());
        qelrTriangleAccelInit(rec.data(), mesh.v.data(), mesh.idx.data(), mesh.triangleCount());
        qelrSetBoundBox_32f(mesh.v.data(), mesh.vertexCount(), box.data());
        ctx = {box.data(), rec.data(), reinterpret_cast<const KDTreeNode*>(words.data())};
    }
    Scene(const Scene&) = delete;
};

struct Ray {
    float o[3], d[3], dist;
    int mask;
};

struct Rays {
    int w, h;
    std::vector<Ray> r;
    size_t n() const { return r.size(); }
    Rays one(size_t i) const { return {1, 1, {r[i]}}; }  // ray i alone, in a pack of one
};

// Camera-like rays from one origin outside the scene (or each from its own), random and special directions.
Rays cameraRays(int w, int h, uint32_t seed, bool ownOrigins, bool coherent = false) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Rays r{w, h, {}};
    for (int i = 0; i < w * h; ++i) {
        Ray x{{0.1f, -0.2f, -3.0f}, {}, i % 9 == 4 ? 0.0f : i % 9 == 6 ? 2.5f : 1e30f, 0};
        if (ownOrigins)
            for (float& c : x.o) c = 1.3f * u(rng);
        for (float& c : x.d) c = u(rng);
        if (!ownOrigins) x.d[2] = 1.0f + 0.2f * u(rng);
        if (coherent)  // a smooth fan of one octant per tile, as from a camera
            x.d[0] = -0.45f + 0.9f * (i % w) / w, x.d[1] = -0.45f + 0.9f * (i / w) / h,
            x.d[2] = 1.0f;
        if (i % 23 == 3) x.d[0] = 0.0f;
        if (i % 23 == 7) x.d[1] = -0.0f;
        if (i % 23 == 11) x.d[0] = -1e-8f, x.d[1] = 1e-9f;
        if (i % 23 == 13) x.d[0] = x.d[1] = 0.0f;
        r.r.push_back(x);
    }
    return r;
}

// Shadow rays from a light to points in the scene box; masks i.
Rays shadowRays(int w, int h, uint32_t seed, bool oneOctant) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Rays r{w, h, {}};
    for (int i = 0; i < w * h; ++i) {
        Ray x{{0.2f, 1.6f, -0.3f}, {u(rng), u(rng), u(rng)}, 0.0f, i};
        if (!oneOctant && i % 2) x.d[1] = 2.5f;  // some rays go up
        if (oneOctant) x.d[0] = 0.3f + 0.5f * std::fabs(x.d[0]), x.d[2] = std::fabs(x.d[2]);
        for (int c = 0; c < 3; ++c) x.d[c] -= x.o[c];
        r.r.push_back(x);
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

// A plane of n elements starting `shift` elements past a 16-byte boundary.
template <class T>
struct Plane {
    std::vector<T> buf;
    T* p;
    Plane(size_t n, int shift, T fill = T()) : buf(n + 8, fill) {
        p = buf.data() + (16 - reinterpret_cast<uintptr_t>(buf.data()) % 16) % 16 / sizeof(T) +
            shift;
    }
};

// One call on planes shifted by `shift`; the outputs of max(layers, 1) layers (so layer counts below 1 show too).
Result trace(const Scene& s, const Rays& r, Fn fn, int shift, Isa isa, int layers = 1) {
    const size_t n = r.n(), all = n * std::max(layers, 1);
    Plane<float> o[3] = {{n, shift}, {n, shift}, {n, shift}},
                 d[3] = {{n, shift}, {n, shift}, {n, shift}};
    Plane<float> dist(all, shift, 123.0f), u(all, shift, -5.0f), v(all, shift, -5.0f);
    Plane<int> index(all, shift, 77), mask(n, shift);
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) o[c].p[i] = r.r[i].o[c], d[c].p[i] = r.r[i].d[c];
        dist.p[i] = r.r[i].dist;
        mask.p[i] = r.r[i].mask;
    }
    const float* const op[3] = {o[0].p, o[1].p, o[2].p};
    const float* const dp[3] = {d[0].p, d[1].p, d[2].p};
    float* const uv[2] = {u.p, v.p};
    const QelLayeredSize size{r.w, r.h, layers};
    QelTraceScene ctx = s.ctx;
    if (fn == kAny) ctx.bounds = nullptr;  // the any-hit form does not read the box
    const QelStatus st = fn == kSO ? QELR_VARIANT(isa, qelrIntersectEyeSO_32f)(
                                         r.r[0].o, dp, dist.p, uv, index.p, &ctx, {r.w, r.h})
                         : fn == kMO ? QELR_VARIANT(isa, qelrIntersectMO_32f)(
                                           op, dp, dist.p, uv, index.p, &ctx, {r.w, r.h})
                         : fn == kLayers ? QELR_VARIANT(isa, qelrIntersectMultipleSO_32f)(
                                               r.r[0].o, dp, dist.p, uv, index.p, &size, &ctx)
                                         : QELR_VARIANT(isa, qelrIntersectAnySO_32f)(
                                               r.r[0].o, dp, index.p, mask.p, {r.w, r.h}, &ctx);
    EXPECT_EQ(st, qelOk);
    return {{dist.p, dist.p + all},
            {u.p, u.p + all},
            {v.p, v.p + all},
            {index.p, index.p + all},
            {mask.p, mask.p + n}};
}

Result trace(const Scene& s, const Rays& r, Fn fn, int shift, int layers = 1) {
    return onEveryVariant([&](Isa isa) { return trace(s, r, fn, shift, isa, layers); });
}

// Each ray traced alone (a pack of one, aligned or not) gets the bytes it got in `group`.
void expectAlone(const Scene& s, const Rays& r, Fn fn, const Result& group, int layers = 1) {
    const size_t n = r.n();
    for (size_t i = 0; i < n; ++i) {
        Result want{{}, {}, {}, {}, {group.mask[i]}};
        for (size_t at = i; at < n * layers; at += n) {
            want.dist.push_back(group.dist[at]);
            want.u.push_back(group.u[at]);
            want.v.push_back(group.v[at]);
            want.index.push_back(group.index[at]);
        }
        EXPECT_TRUE(trace(s, r.one(i), fn, int(i % 2), Isa::sse3, layers) == want)
            << "fn " << fn << " ray " << i;
    }
}

// The hits of one ray a float path may find (within rounding of an edge or end), and the nearest it must find.
struct Expected {
    std::vector<ExactHit> all;
    double nearestSure = INFINITY;
    const ExactHit* find(int tri) const {
        for (const ExactHit& h : all)
            if (h.index == tri) return &h;
        return nullptr;
    }
};

Expected expected(const Mesh& m, const Ray& r, double limit) {
    Expected e;
    for (const ExactHit& h : exactHits(m, r.o, r.d)) {
        if (h.margin < -kEdgeMargin || h.t <= 0 || h.t >= limit * (1 + kDistTol)) continue;
        e.all.push_back(h);
        if (h.margin > kEdgeMargin && h.t > kDistTol && h.t < limit * (1 - kDistTol))
            e.nearestSure = std::min(e.nearestSure, h.t);
    }
    return e;
}

// One hit against the oracle: on the ray, no sure hit nearer, distance and weights. With tri < 0, that no hit
// was sure; with t NaN (any-hit), only that the triangle is on the ray.
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
        expectHit(expected(s.mesh, r.r[i], r.r[i].dist), got.index[i], got.dist[i], got.u[i],
                  got.v[i], what, i);
        hits += got.index[i] >= 0;
        if (got.index[i] < 0) {
            EXPECT_EQ(got.dist[i], r.r[i].dist) << what << " ray " << i;
            EXPECT_EQ(got.u[i], -5.0f) << what << " ray " << i;  // uv only for hits
        }
    }
    EXPECT_GT(hits * 20, int(r.n())) << what;  // the scene is actually hit
}

// Deep, shallow (large listed leaves) and single-leaf trees over two random meshes with a far triangle (empty
// space), and a mesh with a closed box (shared edges and corners).
const std::deque<Scene>& scenes() {
    static const std::deque<Scene> all = [] {
        std::deque<Scene> out;
        int forms[5] = {};
        const KDTreeBuildParams deep{qelKdCostDriven, 50, 1.0f, 64, 0},
            shallow{qelKdCostDriven, 9, 0.0f, 64, 0}, single{qelKdSingleLeaf, 50, 1.0f, 64, 0};
        for (uint32_t seed : {1u, 2u}) {
            Mesh m = randomMesh(400, 0.3f, seed);
            const float far[3][3] = {{4, 4, 4}, {4.1f, 4, 4}, {4, 4.1f, 4}};
            m.add(far[0], far[1], far[2]);
            for (const KDTreeBuildParams& p : {deep, shallow, single})
                out.emplace_back(m, p, forms);
        }
        Mesh both = randomMesh(40, 0.3f, 9);
        float p[8][3];
        for (int i = 0; i < 8; ++i)
            for (int a = 0; a < 3; ++a) p[i][a] = (i >> a) & 1 ? 0.5f : -0.5f;
        const int faces[6][4] = {{0, 1, 3, 2}, {4, 6, 7, 5}, {0, 4, 5, 1},
                                 {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 5, 7, 3}};
        for (const auto& f : faces) {
            both.add(p[f[0]], p[f[1]], p[f[2]]);
            both.add(p[f[0]], p[f[2]], p[f[3]]);
        }
        out.emplace_back(both, deep, forms);
        for (int f = 0; f < 5; ++f) EXPECT_GT(forms[f], 0) << "leaf form " << f;
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
                const Result oneRay = trace(s, r, fn, kOneRay);
                expectOracle(s, r, oneRay, fn == kMO ? "MO one-ray" : "SO one-ray");
                expectOracle(s, r, trace(s, r, fn, kPacket), fn == kMO ? "MO packet" : "SO packet");
                expectAlone(s, r, fn, oneRay);
            }
}

TEST(IntersectAny, MatchesOracleWithCachedOccluderAndBothPacketSizes) {
    uint32_t seed = 500;
    for (const Scene& s : scenes()) {
        for (bool oneOctant : {false, true}) {
            Rays r = shadowRays(16, 8, ++seed, oneOctant);
            // Some rows of the tiles left out entirely: packets of fewer rows.
            for (size_t i = 0; i < r.n(); ++i)
                if (i % 5 == 2 || (oneOctant && (i / r.w) % 4 == 1 && i % 8 < 4)) r.r[i].mask = -3;
            r.r[48].mask = -1;  // the probe is the second ray of the fourth row
            for (int shift : {kOneRay, kPacket}) {
                const Result got = trace(s, r, kAny, shift);
                int blocked = 0;
                for (size_t i = 0; i < r.n(); ++i) {
                    if (r.r[i].mask < 0) {
                        EXPECT_EQ(got.index[i], -1);
                        EXPECT_EQ(got.mask[i], r.r[i].mask);
                        continue;
                    }
                    expectHit(expected(s.mesh, r.r[i], 1.0), got.index[i], NAN, 0, 0,
                              shift ? "one-ray" : "packet", i);
                    EXPECT_EQ(got.mask[i], got.index[i] >= 0 ? -1 : r.r[i].mask) << i;
                    blocked += got.index[i] >= 0;
                }
                EXPECT_GT(blocked, 5);
                if (shift == kOneRay) expectAlone(s, r, kAny, got);
            }
        }
    }
}

// Hand-derived cases on one triangle in the plane z = 1 and a degenerate one, in 4 x 4 packs of one ray.
TEST(Intersect, EdgeCasesOnOneTriangle) {
    Mesh m;
    const float a[3] = {-1, -1, 1}, b[3] = {3, -1, 1}, c[3] = {-1, 3, 1};
    const float p[3] = {5, 5, 5}, q[3] = {6, 6, 6}, r[3] = {7, 7, 7};
    m.add(a, b, c);
    m.add(p, q, r);
    const Scene s(m, {qelKdSingleLeaf, 50, 1.0f, 64, 0});
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
        const Ray x{{k.o[0], k.o[1], k.o[2]}, {k.d[0], k.d[1], k.d[2]}, k.dist, 0};
        const Rays rays{4, 4, std::vector<Ray>(16, x)};
        for (int shift : {kOneRay, kPacket}) {
            if (shift == kPacket && k.oneRayOnly) continue;
            const Result got = trace(s, rays, k.fn, shift);
            SCOPED_TRACE(testing::Message() << "fn " << k.fn << " shift " << shift);
            EXPECT_EQ(got.index[5], k.hit);
            EXPECT_EQ(got.mask[5], k.fn == kAny && k.hit >= 0 ? -1 : 0);
            if (k.fn == kAny || k.hit < 0) continue;
            EXPECT_FLOAT_EQ(got.dist[5], 1.0f);
            EXPECT_NEAR(got.u[5], 0.4375f, 1e-6f);  // 1 - x-weight (1.25 / 4) - y-weight (1 / 4)
            EXPECT_NEAR(got.v[5], 0.3125f, 1e-6f);  // (x + 1) / 4
        }
    }
}

namespace {

// Layer 0 is the nearest hit; each later one a triangle further on, none twice, at its distance from the first
// origin; layers stop early only when every sure hit was reported; after a miss the caller's distances stay.
// Both alignments give the same bytes, and so does each ray alone.
void expectLayers(const Scene& s, const Rays& r, int layers) {
    const size_t n = r.n();
    const Result got = trace(s, r, kLayers, kPacket, layers);
    EXPECT_TRUE(got == trace(s, r, kLayers, kOneRay, Isa::sse3, layers)) << "alignments differ";
    expectAlone(s, r, kLayers, got, layers);
    for (size_t i = 0; i < n; ++i) {
        const Expected first = expected(s.mesh, r.r[i], r.r[i].dist),
                       beyond = expected(s.mesh, r.r[i], INFINITY);
        std::vector<int> seen;
        int h = 0;
        for (; h < layers && got.index[i + h * n] >= 0; ++h) {
            const size_t at = i + h * n;
            const ExactHit* hit = (h == 0 ? first : beyond).find(got.index[at]);
            ASSERT_NE(hit, nullptr) << "ray " << i << " layer " << h;
            EXPECT_NEAR(got.dist[at], hit->t, 4 * kDistTol * (1 + hit->t))
                << "ray " << i << " layer " << h;
            EXPECT_NEAR(got.u[at], hit->u, kWeightTol);
            EXPECT_NEAR(got.v[at], hit->v, kWeightTol);
            if (h == 0)
                expectHit(first, got.index[at], got.dist[at], got.u[at], got.v[at], "layer 0", i);
            EXPECT_EQ(std::count(seen.begin(), seen.end(), got.index[at]), 0) << "ray " << i;
            seen.push_back(got.index[at]);
        }
        if (h == layers) continue;
        EXPECT_EQ(got.dist[i + h * n], h == 0 ? r.r[i].dist : FLT_MAX);  // a miss
        for (const ExactHit& x : beyond.all) {  // nothing sure was left out
            const bool sure =
                x.margin > kEdgeMargin && x.t > kDistTol && (h > 0 || x.t < r.r[i].dist);
            EXPECT_TRUE(!sure || std::count(seen.begin(), seen.end(), x.index))
                << "ray " << i << " missed " << x.index;
        }
        for (int k = h + 1; k < layers; ++k) {  // the rest untouched
            EXPECT_EQ(got.index[i + k * n], -1);
            EXPECT_EQ(got.dist[i + k * n], 123.0f);
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
    const Scene planes(stack, {qelKdCostDriven, 50, 1.0f, 64, 0});
    const Ray x{{0.1f, 0.2f, -1.0f}, {0.01f, 0.02f, 1.0f}, 1e30f, 0};
    expectLayers(planes, {4, 4, std::vector<Ray>(16, x)}, 14);
}
