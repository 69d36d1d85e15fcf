// Test scenes for the ray casting tests: meshes, accelerator records, a small
// KD-tree writer that uses every node form (inner nodes, empty, listed and all
// inline leaves), ray planes with a chosen alignment, and a double-precision
// brute-force oracle over every triangle (no tree, no records).
#pragma once

#include <qelr.h>

#include "accel/kd_node.h"

#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace qelr_test {

namespace kdnode = qelr::kdnode;

struct Mesh {
    std::vector<float> vertices;  // three per vertex
    std::vector<int> indices;     // four per triangle, the fourth unused
    int triangles() const { return static_cast<int>(indices.size() / 4); }
    void add(const float a[3], const float b[3], const float c[3]) {
        const int base = static_cast<int>(vertices.size() / 3);
        for (const float* v : {a, b, c}) vertices.insert(vertices.end(), v, v + 3);
        indices.insert(indices.end(), {base, base + 1, base + 2, 0});
    }
};

// n random triangles of about `size` inside [-1, 1]^3, plus a few collinear
// (degenerate) ones.
inline Mesh randomMesh(int n, float size, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> pos(-1.0f, 1.0f), off(-size, size);
    Mesh m;
    for (int t = 0; t < n; ++t) {
        float c[3], v[3][3];
        for (float& x : c) x = pos(rng);
        for (auto& p : v)
            for (int a = 0; a < 3; ++a) p[a] = c[a] + off(rng);
        if (t % 17 == 5)  // collinear: the record is all zero and never hit
            for (int a = 0; a < 3; ++a) v[2][a] = 0.5f * (v[0][a] + v[1][a]);
        m.add(v[0], v[1], v[2]);
    }
    return m;
}

// A closed box [lo, hi]^3 of 12 triangles sharing edges, added to m.
inline void addBox(Mesh& m, float lo, float hi) {
    float p[8][3];
    for (int i = 0; i < 8; ++i)
        for (int a = 0; a < 3; ++a) p[i][a] = (i >> a) & 1 ? hi : lo;
    const int faces[6][4] = {{0, 1, 3, 2}, {4, 6, 7, 5}, {0, 4, 5, 1},
                             {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 5, 7, 3}};
    for (const auto& f : faces) {
        m.add(p[f[0]], p[f[1]], p[f[2]]);
        m.add(p[f[0]], p[f[2]], p[f[3]]);
    }
}

// A KD-tree in the node format, split at the middle of the longest axis; child
// pairs and leaf lists appended as they come. Leaves are written inline or
// listed at random (inline only where the indices fit), so every leaf form is
// traversed.
class TestTree {
 public:
    TestTree(const Mesh& m, int maxLeaf, int maxDepth, uint32_t seed)
        : rng_(seed), words_(4, 0), maxLeaf_(maxLeaf) {
        std::vector<int> all(m.triangles());
        for (int t = 0; t < m.triangles(); ++t) all[t] = t;
        float box[6] = {FLT_MAX, FLT_MAX, FLT_MAX, -FLT_MAX, -FLT_MAX, -FLT_MAX};
        for (size_t i = 0; i < m.vertices.size(); ++i) {
            box[i % 3] = std::min(box[i % 3], m.vertices[i]);
            box[3 + i % 3] = std::max(box[3 + i % 3], m.vertices[i]);
        }
        grow(m, 0, all, box, maxDepth);
    }
    // The single-leaf tree: one listed leaf of every triangle, list 16 bytes on.
    static std::vector<int32_t> singleLeaf(int triangles) {
        std::vector<int32_t> w{static_cast<int32_t>(0xFFFFFFF0u), triangles, 0, 0};
        for (int t = 0; t < triangles; ++t) w.push_back(t);
        return w;
    }
    const std::vector<int32_t>& words() const { return words_; }
    int leafForms[5] = {};  // empty, listed, inline 1, inline 2, inline 3

 private:
    void grow(const Mesh& m, int at, std::vector<int> tris, const float* box, int depthLeft) {
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (box[a + 3] - box[a] > box[axis + 3] - box[axis]) axis = a;
        const float split = 0.5f * (box[axis] + box[axis + 3]);
        std::vector<int> side[2];
        for (int t : tris) {
            float lo = FLT_MAX, hi = -FLT_MAX;
            for (int k = 0; k < 3; ++k) {
                const float x = m.vertices[3 * m.indices[4 * t + k] + axis];
                lo = std::min(lo, x);
                hi = std::max(hi, x);
            }
            if (lo <= split) side[0].push_back(t);
            if (hi >= split) side[1].push_back(t);
        }
        const bool stuck = side[0].size() == tris.size() && side[1].size() == tris.size();
        kdnode::Words w = kdnode::emptyLeaf();
        const int n = static_cast<int>(tris.size());
        if (n > maxLeaf_ && depthLeft > 0 && !stuck) {
            const int child = static_cast<int>((words_.size() + 3) / 4 * 4);  // pairs on 16 bytes
            words_.resize(child + 4);
            w = kdnode::innerNode(axis, 4 * (child - at), split);
            for (int s = 0; s < 2; ++s) {
                float sub[6];
                std::copy(box, box + 6, sub);
                sub[s == 0 ? axis + 3 : axis] = split;
                grow(m, child + 2 * s, side[s], sub, depthLeft - 1);
            }
        } else if (n == 0) {
            ++leafForms[0];
        } else if (rng_() % 3 != 0 && kdnode::inlineLeaf(tris.data(), n, w)) {
            ++leafForms[n + 1];
        } else {
            std::shuffle(tris.begin(), tris.end(), rng_);
            w = kdnode::listedLeaf(4 * (static_cast<int>(words_.size()) - at), n);
            words_.insert(words_.end(), tris.begin(), tris.end());
            ++leafForms[1];
        }
        words_[at] = w.w0;
        words_[at + 1] = w.w1;
    }

    std::mt19937 rng_;
    std::vector<int32_t> words_;
    int maxLeaf_;
};

// A float or int plane of n elements starting on a 16-byte boundary (shift 0)
// or 4 bytes after one (shift 1).
template <class T>
class Plane {
 public:
    Plane(size_t n, int shift, T fill = T()) : buf_(n + 8, fill) {
        const uintptr_t a = reinterpret_cast<uintptr_t>(buf_.data());
        skew_ = ((16 - a % 16) % 16) / sizeof(T) + shift;
    }
    T* data() { return buf_.data() + skew_; }
    T& operator[](size_t i) { return data()[i]; }

 private:
    std::vector<T> buf_;
    size_t skew_;
};

// The exact-arithmetic oracle: every triangle of the mesh intersected in
// double precision from its vertices (not from the accelerator records), with
// how far the hit lies inside the triangle, so that a caller can tell hits
// the float arithmetic must find from those within rounding of an edge.
struct ExactHit {
    int index;
    double t, u, v;  // u, v: the weights of the first and second vertex
    double margin;   // the smallest of the three weights
};

inline std::vector<ExactHit> exactHits(const Mesh& m, const float o[3], const float d[3]) {
    std::vector<ExactHit> hits;
    for (int tri = 0; tri < m.triangles(); ++tri) {
        double p[3][3];
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) p[k][a] = m.vertices[3 * m.indices[4 * tri + k] + a];
        double e1[3], e2[3], s[3];
        for (int a = 0; a < 3; ++a) {
            e1[a] = p[1][a] - p[0][a];
            e2[a] = p[2][a] - p[0][a];
            s[a] = o[a] - p[0][a];
        }
        auto cross = [](const double* x, const double* y, double* z) {
            z[0] = x[1] * y[2] - x[2] * y[1];
            z[1] = x[2] * y[0] - x[0] * y[2];
            z[2] = x[0] * y[1] - x[1] * y[0];
        };
        auto dot = [](const double* x, const double* y) {
            return x[0] * y[0] + x[1] * y[1] + x[2] * y[2];
        };
        double n[3], dd[3] = {d[0], d[1], d[2]}, pv[3], qv[3];
        cross(e1, e2, n);
        if (dot(n, n) < 1e-14) continue;  // collinear: the library never hits it
        cross(dd, e2, pv);
        const double det = dot(e1, pv);
        if (det == 0.0) continue;
        cross(s, e1, qv);
        const double b1 = dot(s, pv) / det, b2 = dot(dd, qv) / det, t = dot(e2, qv) / det;
        const double b0 = 1.0 - b1 - b2;
        hits.push_back({tri, t, b0, b1, std::min({b0, b1, b2})});
    }
    return hits;
}

}  // namespace qelr_test
