// Triangle normals, flat and smooth normals at hits.
#include <gtest/gtest.h>
#include <pmmintrin.h>
#include <qelr.h>

#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include "pack_util.h"
#include "test_util.h"

using namespace qelr_test;

namespace {

// Double-precision oracle of one triangle normal.
std::array<float, 3> normalOracle(const float* v0, const float* v1, const float* v2) {
    double a[3], b[3];
    for (int c = 0; c < 3; ++c) {
        a[c] = double(v0[c]) - v2[c];
        b[c] = double(v1[c]) - v2[c];
    }
    const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - b[2] * a[0],
                         b[1] * a[0] - a[1] * b[0]};
    const double s = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
    if (s < DBL_EPSILON) return {0, 0, 0};
    const double r = std::sqrt(s);
    return {float(n[0] / r), float(n[1] / r), float(n[2] / r)};
}

struct Mesh {
    std::vector<float> vertices;
    std::vector<int> tris;  // groups of four, the fourth never read
};

Mesh randomMesh(int vertexCount, int triangleCount, unsigned seed) {
    std::mt19937 rng(seed);
    Mesh m;
    m.vertices = randomValues(rng, 3 * vertexCount, -10.0f, 10.0f);
    for (int t = 0; t < triangleCount; ++t) {
        for (int k = 0; k < 3; ++k) m.tris.push_back(int(rng() % vertexCount));
        m.tris.push_back(0x7fffffff);
    }
    if (triangleCount > 1) m.tris[4] = m.tris[5];  // one degenerate triangle
    return m;
}

}  // namespace

TEST(TriangleNormal, ChecksAndEmptyCounts) {
    float v[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    int tri[4] = {0, 1, 2, 0};
    float n[3] = {7, 7, 7};
    EXPECT_EQ(qelrTriangleNormal_32f(nullptr, tri, n, 1), qelErrNullPointer);
    EXPECT_EQ(qelrTriangleNormal_32f(v, nullptr, n, 1), qelErrNullPointer);
    EXPECT_EQ(qelrTriangleNormal_32f(v, tri, nullptr, 1), qelErrNullPointer);
    EXPECT_EQ(qelrTriangleNormal_32f(v, tri, n, 0), qelOk);
    EXPECT_EQ(qelrTriangleNormal_32f(v, tri, n, -3), qelOk);
    EXPECT_EQ(n[0], 7.0f);
    EXPECT_EQ(qelrTriangleNormal_32f(v, tri, n, 1), qelOk);
    EXPECT_EQ(n[0], 0.0f);
    EXPECT_EQ(n[1], 0.0f);
    EXPECT_EQ(n[2], 1.0f);
}

TEST(TriangleNormal, MatchesDoubleOracleForAnyTeamSize) {
    ThreadCountGuard guard;
    for (int count : {1, 2, 7, 1001}) {
        const Mesh m = randomMesh(300, count, 11 + count);
        std::vector<float> expect(3 * count);
        for (int t = 0; t < count; ++t) {
            const int* g = &m.tris[4 * t];
            const auto n =
                normalOracle(&m.vertices[3 * g[0]], &m.vertices[3 * g[1]], &m.vertices[3 * g[2]]);
            std::copy(n.begin(), n.end(), expect.begin() + 3 * t);
        }
        if (count > 1) {
            EXPECT_EQ(expect[3], 0.0f);  // the degenerate triangle
            EXPECT_EQ(expect[5], 0.0f);
        }
        for (int threads : {1, 3, 4}) {
            qelSetNumThreads(threads);
            std::vector<float> got(3 * count + 1, -5.0f);
            ASSERT_EQ(qelrTriangleNormal_32f(m.vertices.data(), m.tris.data(), got.data(), count),
                      qelOk);
            for (int i = 0; i < 3 * count; ++i) {
                ASSERT_EQ(bitsOf(got[i]), bitsOf(expect[i])) << count << " " << threads << " " << i;
            }
            EXPECT_EQ(got[3 * count], -5.0f);  // nothing past the last triangle
        }
    }
}

TEST(SurfFlatNormal, CopiesTriangleNormalsOnBothPaths) {
    const float tn[6] = {1, 2, 3, -4, -5, -6};  // not unit: copied unchanged
    int idx[1] = {0};
    EXPECT_EQ(qelrSurfFlatNormal_32f(nullptr, idx, nullptr, 0), qelErrNullPointer);
    EXPECT_EQ(qelrSurfFlatNormal_32f(tn, nullptr, nullptr, 0), qelErrNullPointer);
    EXPECT_EQ(qelrSurfFlatNormal_32f(tn, idx, nullptr, 0), qelOk);  // output not checked

    std::mt19937 rng(3);
    for (int len : {64, 63}) {
        std::vector<int> index(len);
        for (auto& x : index) x = int(rng() % 3) - 1;
        for (Path path : {Path::kFour, Path::kMisaligned}) {
            Plane<float> triNormals(Values(tn, tn + 6), path);
            Plane<int> hits(index, path);
            Pack out(randomValues3(rng, len), path);
            ASSERT_EQ(qelrSurfFlatNormal_32f(triNormals.data(), hits.data(), out.p3(), len), qelOk);
            for (int i = 0; i < len; ++i) {
                for (int c = 0; c < 3; ++c) {
                    ASSERT_EQ(out.at(c, i), index[i] < 0 ? 0.0f : tn[3 * index[i] + c]);
                }
            }
        }
    }
}

namespace {

// A fan of triangles over random unit-ish vertex normals, and hits on it.
struct SmoothCase {
    std::vector<float> vertexNormals;
    std::vector<int> tris;  // groups of `group` indices
    std::vector<int> index;
    Values u, v;
    int group = 5;
};

SmoothCase smoothCase(int len, unsigned seed) {
    std::mt19937 rng(seed);
    SmoothCase k;
    k.vertexNormals = randomValues(rng, 3 * 40, -1.0f, 1.0f);
    for (int t = 0; t < 20; ++t) {
        for (int j = 0; j < k.group; ++j) k.tris.push_back(int(rng() % 40));
    }
    k.index.resize(len);
    for (int i = 0; i < len; i += 4) {
        const int kind = int(rng() % 3);  // one triangle, four triangles, or misses
        for (int j = 0; j < 4 && i + j < len; ++j) {
            k.index[i + j] = kind == 0 ? 6 : kind == 1 ? int(rng() % 20) : int(rng() % 22) - 2;
        }
    }
    k.u = randomValues(rng, len, 0.0f, 0.6f);
    k.v = randomValues(rng, len, 0.0f, 0.4f);
    return k;
}

// The interpolated normal of ray i and its squared length, as the rule reads.
std::array<float, 4> interpolate(const SmoothCase& k, int i) {
    const int* g = &k.tris[k.index[i] * k.group];
    const float *n0 = &k.vertexNormals[3 * g[0]], *n1 = &k.vertexNormals[3 * g[1]],
                *n2 = &k.vertexNormals[3 * g[2]];
    const float u = k.u[i], v = k.v[i], w = 1.0f - u - v;
    std::array<float, 4> n;
    for (int c = 0; c < 3; ++c) n[c] = w * n2[c] + (n1[c] * v + n0[c] * u);
    n[3] = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
    return n;
}

std::array<float, 3> smoothScalar(const SmoothCase& k, int i) {
    if (k.index[i] < 0) return {0, 0, 0};
    const auto n = interpolate(k, i);
    if (n[3] < FLT_EPSILON) return {0, 0, 0};
    const float r = std::sqrt(n[3]);
    return {n[0] / r, n[1] / r, n[2] / r};
}

// The four-rays rule: reciprocal square root refined once by Newton-Raphson.
std::array<float, 3> smoothFour(const SmoothCase& k, int i) {
    const auto n = interpolate(k, i);
    if (!(n[3] > FLT_EPSILON)) return {0, 0, 0};
    const float r = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(n[3])));
    const float refined = (-0.5f * r) * (n[3] * (r * r) - 3.0f);
    return {n[0] * refined, n[1] * refined, n[2] * refined};
}

std::vector<std::array<float, 3>> runSmooth(const SmoothCase& k, Path path) {
    const int len = int(k.index.size());
    Plane<float> vn(k.vertexNormals, path), u(k.u, path), v(k.v, path);
    Plane<int> tris(k.tris, path), index(k.index, path);
    std::mt19937 rng(1);
    Pack out(randomValues3(rng, len), path);
    const float* uv[2] = {u.data(), v.data()};
    EXPECT_EQ(
        qelrSurfSmoothNormal_32f(vn.data(), tris.data(), index.data(), uv, out.p3(), len, k.group),
        qelOk);
    std::vector<std::array<float, 3>> r(len);
    for (int i = 0; i < len; ++i) r[i] = {out.at(0, i), out.at(1, i), out.at(2, i)};
    return r;
}

}  // namespace

TEST(SurfSmoothNormal, ChecksEveryPointer) {
    float vn[3] = {0, 0, 1}, u[1] = {0}, v[1] = {0}, o[3] = {9, 9, 9};
    int tris[3] = {0, 0, 0}, idx[1] = {0};
    const float* uv[2] = {u, v};
    float* out[3] = {o, o + 1, o + 2};
    EXPECT_EQ(qelrSurfSmoothNormal_32f(nullptr, tris, idx, uv, out, 1, 3), qelErrNullPointer);
    EXPECT_EQ(qelrSurfSmoothNormal_32f(vn, nullptr, idx, uv, out, 1, 3), qelErrNullPointer);
    EXPECT_EQ(qelrSurfSmoothNormal_32f(vn, tris, nullptr, uv, out, 1, 3), qelErrNullPointer);
    EXPECT_EQ(qelrSurfSmoothNormal_32f(vn, tris, idx, nullptr, out, 1, 3), qelErrNullPointer);
    EXPECT_EQ(qelrSurfSmoothNormal_32f(vn, tris, idx, uv, nullptr, 1, 3), qelErrNullPointer);
    EXPECT_EQ(o[0], 9.0f);
    EXPECT_EQ(qelrSurfSmoothNormal_32f(vn, tris, idx, uv, out, 0, 3), qelOk);
    EXPECT_EQ(o[0], 9.0f);
}

TEST(SurfSmoothNormal, ScalarAndFourRaysPathsFollowTheirRules) {
    for (int len : {64, 62}) {
        const SmoothCase k = smoothCase(len, 21 + len);
        const auto scalar = runSmooth(k, Path::kMisaligned);
        const auto four = runSmooth(k, Path::kFour);
        for (int i = 0; i < len; ++i) {
            const auto s = smoothScalar(k, i);
            // Groups with a miss, and ragged lengths, go ray by ray.
            const int g = i & ~3;
            const bool rayByRay = len % 4 != 0 || k.index[g] < 0 || k.index[g + 1] < 0 ||
                                  k.index[g + 2] < 0 || k.index[g + 3] < 0;
            const auto f = rayByRay ? s : smoothFour(k, i);
            for (int c = 0; c < 3; ++c) {
                ASSERT_EQ(bitsOf(scalar[i][c]), bitsOf(s[c])) << i;
                ASSERT_EQ(bitsOf(four[i][c]), bitsOf(f[c])) << i;
                ASSERT_NEAR(four[i][c], s[c], 1e-6f) << i;  // the paths agree to rounding
            }
        }
    }
}

TEST(SurfSmoothNormal, CancellingNormalsAndTheEpsilonBoundary) {
    // Corner 0 has the normal (2^-12, 2^-12, 0): s = 2^-23, exactly the float
    // epsilon, which the one-ray path normalises and the four-rays path clears.
    const float tiny = std::ldexp(1.0f, -12);
    SmoothCase k;
    k.group = 3;
    k.vertexNormals = {tiny, tiny, 0, 0, 0, 1, 0, 0, -1};
    k.tris = {0, 1, 2, 1, 2, 0};
    k.index = {0, 0, 1, -1};
    k.u = {1.0f, 0.0f, 0.5f, 0.2f};  // rays 1 and 2: opposite corner normals cancel
    k.v = {0.0f, 0.5f, 0.5f, 0.2f};
    for (int c = 0; c < 3; ++c) EXPECT_EQ(smoothScalar(k, 1)[c], 0.0f);
    const auto scalar = runSmooth(k, Path::kMisaligned);
    EXPECT_FLOAT_EQ(scalar[0][0], std::sqrt(0.5f));
    EXPECT_EQ(scalar[2][2], 0.0f);
    k.index[3] = 1;  // a whole group of hits takes the four-rays path
    const auto four = runSmooth(k, Path::kFour);
    EXPECT_EQ(four[0][0], 0.0f);
    EXPECT_EQ(four[2][2], 0.0f);
    EXPECT_EQ(scalar[3][0], 0.0f);  // a miss gives zero
}
