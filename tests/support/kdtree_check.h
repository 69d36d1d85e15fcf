// Triangle meshes, test scenes and the validation of KD-trees in the library's node format.
#pragma once

#include <qelr.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "accel/kd_node.h"

namespace qelr_test {

namespace kdnode = qelr::kdnode;

struct Mesh {
    std::vector<float> v;  // three per vertex
    std::vector<int> idx;  // four per triangle, the fourth unused
    int vertexCount() const { return static_cast<int>(v.size() / 3); }
    int triangleCount() const { return static_cast<int>(idx.size() / 4); }
    const float* corner(int t, int k) const { return &v[3 * static_cast<size_t>(idx[4 * t + k])]; }
    void add(const float a[3], const float b[3], const float c[3]) {
        const int base = vertexCount();
        for (const float* p : {a, b, c}) v.insert(v.end(), p, p + 3);
        idx.insert(idx.end(), {base, base + 1, base + 2, -7});
    }
    // Whether triangle t has a place in space: indices in range, finite coordinates.
    bool valid(int t) const {
        for (int k = 0; k < 3; ++k) {
            if (idx[4 * t + k] < 0 || idx[4 * t + k] >= vertexCount()) return false;
            for (int a = 0; a < 3; ++a)
                if (!std::isfinite(corner(t, k)[a])) return false;
        }
        return true;
    }
};

struct KdCell {
    float mn[3];
    float mx[3];
};

struct KdLeafInfo {
    int32_t offset;  // byte offset of the leaf node
    KdCell cell;
    bool isInline;
    std::vector<int32_t> tris;  // in the order the traversal tests them
};

struct KdTreeInfo {
    std::string error;  // empty when the tree is valid
    std::vector<KdLeafInfo> leaves;
    int innerNodes = 0;
    int64_t nodeAreaEnd = 0;     // one past the last node byte
    int64_t firstListByte = -1;  // first byte of any leaf list, -1 when none
};

// The triangles of an inline leaf (both words negative).
inline std::vector<int32_t> decodeInlineLeaf(int32_t word0, int32_t word1) {
    int32_t t[3];
    const int count = kdnode::inlineTriangles({word0, word1}, t);
    return std::vector<int32_t>(t, t + count);
}

// Walks the tree from the root: nodes, child pairs and leaf lists inside the block and disjoint, inline leaves
// decoding to triangles of the mesh, splits inside their cells, no leaf deeper than the limit.
inline KdTreeInfo checkKdTree(const KDTreeNode* tree, int sizeBytes, int triangleCount,
                              int depthLimit, const KdCell& rootCell) {
    KdTreeInfo info;
    const auto* base = reinterpret_cast<const char*>(tree);
    std::vector<uint8_t> used(static_cast<size_t>(std::max(sizeBytes, 0)), 0);
    auto claim = [&](int64_t begin, int64_t bytes, const char* what) {
        for (int64_t i = begin; i < begin + bytes && info.error.empty(); ++i) {
            if (i < 0 || i >= sizeBytes || used[i])
                info.error =
                    std::string(what) + " outside the block or overlapping at " + std::to_string(i);
            else
                used[i] = 1;
        }
        return info.error.empty();
    };
    struct Pending {
        int64_t offset;
        int depth;
        KdCell cell;
    };
    std::vector<Pending> stack = {{0, 0, rootCell}};
    if (tree == nullptr || !claim(0, 8, "root")) return info;
    while (!stack.empty() && info.error.empty()) {
        const Pending p = stack.back();
        stack.pop_back();
        kdnode::Words w;
        std::memcpy(&w, base + p.offset, 8);
        info.nodeAreaEnd = std::max(info.nodeAreaEnd, p.offset + 8);
        if (p.depth > depthLimit || p.depth > 50) {
            info.error = "node deeper than the limit at " + std::to_string(p.offset);
        } else if (!kdnode::isLeaf(w)) {
            const int axis = kdnode::splitAxis(w);
            const int64_t child = p.offset + kdnode::childOffset(w);
            const float split = kdnode::splitPosition(w);
            if (axis == 3 || (w.w0 & 4) != 0 || kdnode::childOffset(w) == 0)
                info.error = "bad inner node word at " + std::to_string(p.offset);
            else if (!(split >= p.cell.mn[axis] && split <= p.cell.mx[axis]))
                info.error = "split outside its cell at " + std::to_string(p.offset);
            if (!info.error.empty() || !claim(child, 16, "child pair")) break;
            ++info.innerNodes;
            KdCell below = p.cell, above = p.cell;
            below.mx[axis] = split;
            above.mn[axis] = split;
            stack.push_back({child + 8, p.depth + 1, above});
            stack.push_back({child, p.depth + 1, below});
        } else {
            KdLeafInfo leaf{static_cast<int32_t>(p.offset), p.cell, kdnode::isInlineLeaf(w), {}};
            const int32_t count = kdnode::leafCount(w);
            if (leaf.isInline) {
                leaf.tris = decodeInlineLeaf(w.w0, w.w1);
                if (leaf.tris.empty()) info.error = "inline leaf of no triangle";
            } else if (count > 0) {
                const int64_t list = p.offset + kdnode::listOffset(w);
                if (!claim(list, 4 * static_cast<int64_t>(count), "leaf list")) break;
                if (info.firstListByte < 0 || list < info.firstListByte) info.firstListByte = list;
                leaf.tris.resize(static_cast<size_t>(count));
                std::memcpy(leaf.tris.data(), base + list, 4 * static_cast<size_t>(count));
            }
            for (int32_t t : leaf.tris)
                if (t < 0 || t >= triangleCount)
                    info.error = "leaf lists triangle " + std::to_string(t);
            info.leaves.push_back(std::move(leaf));
        }
    }
    return info;
}

// The cost-driven layout: root at 0, 8 zero bytes, child pairs packed from 16, lists right after, nothing else.
inline std::string checkPackedLayout(const KDTreeNode* tree, int sizeBytes,
                                     const KdTreeInfo& info) {
    int32_t pad[2];
    std::memcpy(pad, reinterpret_cast<const char*>(tree) + 8, 8);
    if (pad[0] != 0 || pad[1] != 0) return "bytes 8 to 15 are not zero";
    const int64_t nodeBytes = 16 + 16 * static_cast<int64_t>(info.innerNodes);
    if (info.innerNodes > 0 && info.nodeAreaEnd != nodeBytes) return "node area is not packed";
    if (info.firstListByte >= 0 && info.firstListByte != nodeBytes)
        return "lists do not follow the nodes";
    int64_t listBytes = 0;
    for (const auto& l : info.leaves)
        if (!l.isInline) listBytes += 4 * static_cast<int64_t>(l.tris.size());
    if (nodeBytes + listBytes != sizeBytes) return "size differs from the nodes and lists";
    return "";
}

// Every point of every valid triangle (a barycentric grid of `steps` divisions, corners exact) lies in a leaf
// that lists it; the walk takes both sides of a split through the point.
inline std::string checkCompleteness(const KDTreeNode* tree, const KdTreeInfo& info, const Mesh& m,
                                     int steps) {
    std::map<int64_t, const std::vector<int32_t>*> leafAt;  // leaf offset to its triangles
    for (const auto& l : info.leaves) leafAt[l.offset] = &l.tris;
    for (int t = 0; t < m.triangleCount(); ++t) {
        for (int i = 0; i <= steps && m.valid(t); ++i)
            for (int j = 0; i + j <= steps; ++j) {
                const double b[3] = {1.0 - double(i + j) / steps, double(i) / steps,
                                     double(j) / steps};
                const int corner = i + j == 0 ? 0 : i == steps ? 1 : j == steps ? 2 : -1;
                double p[3];
                for (int a = 0; a < 3; ++a)
                    p[a] = corner >= 0 ? m.corner(t, corner)[a]
                                       : b[0] * m.corner(t, 0)[a] + b[1] * m.corner(t, 1)[a] +
                                             b[2] * m.corner(t, 2)[a];
                bool listed = false;
                std::vector<int64_t> stack = {0};
                while (!stack.empty() && !listed) {
                    const int64_t offset = stack.back();
                    stack.pop_back();
                    kdnode::Words w;
                    std::memcpy(&w, reinterpret_cast<const char*>(tree) + offset, 8);
                    if (kdnode::isLeaf(w)) {
                        const auto& tris = *leafAt.at(offset);
                        listed = std::find(tris.begin(), tris.end(), t) != tris.end();
                        continue;
                    }
                    const double split = kdnode::splitPosition(w), x = p[kdnode::splitAxis(w)];
                    if (x >= split) stack.push_back(offset + kdnode::childOffset(w) + 8);
                    if (x <= split) stack.push_back(offset + kdnode::childOffset(w));
                }
                if (!listed)
                    return "triangle " + std::to_string(t) + " is missing at a point of it";
            }
    }
    return "";
}

// Whether triangle t reaches into the cell shrunk by `margin` on every side
// (polygon clipping in double).
inline bool triangleOverlapsCell(const Mesh& m, int t, const KdCell& cell, double margin) {
    for (int a = 0; a < 3; ++a) {  // boxes apart: the common case, without clipping
        const auto [lo, hi] =
            std::minmax({m.corner(t, 0)[a], m.corner(t, 1)[a], m.corner(t, 2)[a]});
        if (hi < cell.mn[a] + margin || lo > cell.mx[a] - margin) return false;
    }
    std::vector<std::array<double, 3>> poly;
    for (int k = 0; k < 3; ++k)
        poly.push_back({m.corner(t, k)[0], m.corner(t, k)[1], m.corner(t, k)[2]});
    for (int axis = 0; axis < 3; ++axis)
        for (int upper = 0; upper < 2; ++upper) {
            const double limit = upper ? cell.mx[axis] - margin : cell.mn[axis] + margin;
            auto inside = [&](const std::array<double, 3>& p) {
                return upper ? p[axis] <= limit : p[axis] >= limit;
            };
            std::vector<std::array<double, 3>> out;
            for (size_t i = 0; i < poly.size(); ++i) {
                const auto& p = poly[i];
                const auto& q = poly[(i + 1) % poly.size()];
                if (inside(p)) out.push_back(p);
                if (inside(p) != inside(q)) {
                    const double s = (limit - p[axis]) / (q[axis] - p[axis]);
                    out.push_back({p[0] + s * (q[0] - p[0]), p[1] + s * (q[1] - p[1]),
                                   p[2] + s * (q[2] - p[2])});
                }
            }
            poly = std::move(out);
            if (poly.empty()) return false;
        }
    return true;
}

// Every valid triangle that reaches into a leaf's cell by more than `margin` is listed in that leaf.
inline std::string checkLeafOverlaps(const KdTreeInfo& info, const Mesh& m, double margin) {
    for (const auto& leaf : info.leaves)
        for (int t = 0; t < m.triangleCount(); ++t) {
            if (!m.valid(t) || !triangleOverlapsCell(m, t, leaf.cell, margin)) continue;
            if (std::find(leaf.tris.begin(), leaf.tris.end(), t) == leaf.tris.end())
                return "triangle " + std::to_string(t) + " reaches into the leaf at " +
                       std::to_string(leaf.offset) + " but is not listed";
        }
    return "";
}

struct BuiltTree {
    QelStatus status = -100;
    std::vector<uint8_t> bytes;
    KdTreeInfo info;
};

// Builds through the public call, copies the bytes out, validates (unless told not to: structure, packed layout,
// completeness and, on the smaller meshes, every leaf against every triangle) and frees.
inline BuiltTree buildTree(const Mesh& m, const KDTreeBuildParams& p, bool validate = true) {
    BuiltTree b;
    KDTreeNode* tree = nullptr;
    int size = -1;
    b.status = qelrKDTreeBuildAlloc(&tree, m.v.data(), m.idx.data(), m.vertexCount(),
                                    m.triangleCount(), &size, &p);
    if (b.status != qelOk) return b;
    b.bytes.assign(reinterpret_cast<uint8_t*>(tree), reinterpret_cast<uint8_t*>(tree) + size);
    KdCell root = {{FLT_MAX, FLT_MAX, FLT_MAX},
                   {-FLT_MAX, -FLT_MAX, -FLT_MAX}};  // box of the valid triangles
    for (int t = 0; t < m.triangleCount(); ++t)
        for (int k = 0; k < 3 && m.valid(t); ++k)
            for (int a = 0; a < 3; ++a) {
                root.mn[a] = std::min(root.mn[a], m.corner(t, k)[a]);
                root.mx[a] = std::max(root.mx[a], m.corner(t, k)[a]);
            }
    std::string& e = b.info.error;
    if (validate) {
        b.info = checkKdTree(tree, size, m.triangleCount(), int(p.depthLimit), root);
        if (e.empty()) e = checkPackedLayout(tree, size, b.info);
        if (e.empty()) e = checkCompleteness(tree, b.info, m, 4);
        if (e.empty() && m.triangleCount() <= 1000) e = checkLeafOverlaps(b.info, m, 1e-4);
    }
    qelrKDTreeFree(tree);
    return b;
}

// Random triangles of mixed sizes in [0, 10]^3 on a grid of 1/8 (events share positions), a share flat on an
// axis, a few collinear and a few duplicated; then moved by `shift` on every axis.
inline Mesh randomScene(int n, uint32_t seed, float shift = 0.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    Mesh s;
    for (int t = 0; t < n; ++t) {
        const float size = u(rng) < 0.8f ? 0.3f + 2.0f * u(rng) : 6.0f * u(rng);
        float c[3] = {10 * u(rng), 10 * u(rng), 10 * u(rng)}, p[3][3];
        for (auto& q : p)
            for (int a = 0; a < 3; ++a)
                q[a] = std::clamp(std::round((c[a] + size * (u(rng) - 0.5f)) * 8) / 8, 0.0f, 10.0f);
        const float r = u(rng);
        if (r < 0.2f) {  // flat on one axis
            const int a = static_cast<int>(3 * u(rng)) % 3;
            p[1][a] = p[2][a] = p[0][a];
        } else if (r < 0.23f) {  // collinear
            std::copy(p[0], p[0] + 3, p[2]);
        }
        for (auto& q : p)
            for (float& x : q) x += shift;
        s.add(p[0], p[1], p[2]);
        if (u(rng) < 0.02f) s.add(p[0], p[1], p[2]);
    }
    return s;
}

// n overlapping triangles in the plane y = 2.5 (flat cells; the tree grows with depth); on a grid: x and y are
// multiples of 0.5 in [-3, 3] in the plane z = 0, every zero of either sign.
inline Mesh coplanarScene(int n, uint32_t seed, bool grid = false) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 10.0f);
    std::uniform_int_distribution<int> k(-6, 6), sign(0, 1);
    auto zero = [&] { return sign(rng) ? -0.0f : 0.0f; };
    auto g = [&] {
        const int i = k(rng);
        return i ? 0.5f * i : zero();
    };
    Mesh s;
    for (int t = 0; t < n; ++t) {
        float p[3][3];
        for (auto& q : p) {
            if (grid) {
                q[0] = g(), q[1] = g(), q[2] = zero();
            } else {
                q[0] = u(rng), q[1] = 2.5f, q[2] = u(rng);
            }
        }
        s.add(p[0], p[1], p[2]);
    }
    return s;
}

inline KDTreeBuildParams costDriven(uint32_t depthLimit = 50, float quality = 1.0f,
                                    uint32_t budgetMb = 256) {
    return KDTreeBuildParams{qelKdCostDriven, depthLimit, quality, budgetMb, 0};
}

}  // namespace qelr_test
