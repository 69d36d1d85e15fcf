// Small scenes and helpers shared by the KD-tree tests.
#pragma once

#include <qelr.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kdtree_check.h"

namespace kdtest {

struct Scene {
    std::vector<float> v;
    std::vector<int> idx;  // four per triangle, the fourth unused
    int vertexCount() const { return static_cast<int>(v.size() / 3); }
    int triangleCount() const { return static_cast<int>(idx.size() / 4); }
    void add(const float a[3], const float b[3], const float c[3]) {
        const int base = vertexCount();
        v.insert(v.end(), a, a + 3);
        v.insert(v.end(), b, b + 3);
        v.insert(v.end(), c, c + 3);
        idx.insert(idx.end(), {base, base + 1, base + 2, -7});
    }
};

// Random triangles of mixed sizes in [0, 10]^3 with coordinates on a coarse
// grid (so events share positions), a share of triangles flat on an axis,
// a few degenerate ones and a few duplicates; then moved by `shift` on every
// axis.
inline Scene randomScene(int n, uint32_t seed, float shift = 0.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    auto grid = [&](float x) { return std::round(x * 8.0f) / 8.0f; };
    Scene s;
    for (int t = 0; t < n; ++t) {
        const float size = u(rng) < 0.8f ? 0.3f + 2.0f * u(rng) : 6.0f * u(rng);
        float c[3] = {10 * u(rng), 10 * u(rng), 10 * u(rng)};
        float p[3][3];
        for (auto& q : p)
            for (int a = 0; a < 3; ++a)
                q[a] = std::clamp(grid(c[a] + size * (u(rng) - 0.5f)), 0.0f, 10.0f);
        const float r = u(rng);
        if (r < 0.2f) {  // flat on one axis
            const int a = static_cast<int>(3 * u(rng)) % 3;
            p[1][a] = p[2][a] = p[0][a];
        } else if (r < 0.23f) {  // collinear
            for (int a = 0; a < 3; ++a) p[2][a] = p[0][a];
        }
        for (auto& q : p)
            for (float& x : q) x += shift;
        s.add(p[0], p[1], p[2]);
        if (u(rng) < 0.02f) s.add(p[0], p[1], p[2]);
    }
    return s;
}

// Triangles with random corners in [0, 10]^2 on the plane y = 2.5: they all
// overlap, the cells are flat, and the tree grows with every level of depth.
inline Scene coplanarScene(int n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 10.0f);
    Scene s;
    for (int t = 0; t < n; ++t) {
        float p[3][3];
        for (auto& q : p) q[0] = u(rng), q[1] = 2.5f, q[2] = u(rng);
        s.add(p[0], p[1], p[2]);
    }
    return s;
}

inline KDTreeBuildParams costDriven(uint32_t depthLimit = 50, float quality = 1.0f,
                                    uint32_t budgetMb = 256) {
    return KDTreeBuildParams{qelKdCostDriven, depthLimit, quality, budgetMb, 0};
}

// Whether triangle t has a place in space: indices inside the vertex array
// and finite coordinates.
inline bool validTriangle(const Scene& s, int t) {
    for (int k = 0; k < 3; ++k) {
        const int i = s.idx[4 * t + k];
        if (i < 0 || i >= s.vertexCount()) return false;
        for (int a = 0; a < 3; ++a)
            if (!std::isfinite(s.v[3 * i + a])) return false;
    }
    return true;
}

// Box of the vertices that the valid triangles use.
inline qelr_test::KdCell sceneCell(const Scene& s) {
    qelr_test::KdCell c = {{FLT_MAX, FLT_MAX, FLT_MAX}, {-FLT_MAX, -FLT_MAX, -FLT_MAX}};
    for (int t = 0; t < s.triangleCount(); ++t)
        for (int k = 0; k < 3 && validTriangle(s, t); ++k)
            for (int a = 0; a < 3; ++a) {
                const float x = s.v[3 * s.idx[4 * t + k] + a];
                c.mn[a] = std::min(c.mn[a], x);
                c.mx[a] = std::max(c.mx[a], x);
            }
    return c;
}

struct Built {
    QelStatus status = -100;
    std::vector<uint8_t> bytes;
    qelr_test::KdTreeInfo info;
};

// Builds, copies the bytes out, validates (unless told not to) and frees: the
// structure, the packed layout, completeness at sample points and, on the
// smaller scenes, every leaf against every triangle.
inline Built buildTree(const Scene& s, const KDTreeBuildParams& p, bool validate = true) {
    Built b;
    KDTreeNode* tree = nullptr;
    int size = -1;
    b.status = qelrKDTreeBuildAlloc(&tree, s.v.data(), s.idx.data(), s.vertexCount(),
                                    s.triangleCount(), &size, &p);
    if (b.status != qelOk) return b;
    b.bytes.assign(reinterpret_cast<uint8_t*>(tree), reinterpret_cast<uint8_t*>(tree) + size);
    const auto valid = [&](int t) { return validTriangle(s, t); };
    const int n = s.triangleCount();
    std::string& e = b.info.error;
    if (validate) {
        b.info = qelr_test::checkKdTree(tree, size, n, int(p.depthLimit), sceneCell(s));
        if (e.empty()) e = qelr_test::checkPackedLayout(tree, size, b.info);
        if (e.empty())
            e = qelr_test::checkCompleteness(tree, b.info, s.v.data(), s.idx.data(), n, 4, valid);
        if (e.empty() && n <= 1000)
            e = qelr_test::checkLeafOverlaps(b.info, s.v.data(), s.idx.data(), n, 1e-4, valid);
    }
    qelrKDTreeFree(tree);
    return b;
}

}  // namespace kdtest
