// Validation and decoding of KD-trees in the library's node format, for every
// test that builds or traverses a tree.
//
// checkKdTree walks the tree from the root and checks that every node, child
// pair and leaf list lies inside the block, that no two of them share bytes,
// that inline leaves decode to triangles of the scene, that split positions lie
// inside their cells and that no leaf is deeper than the depth limit. It
// returns the leaves with their cells and triangle lists.
#pragma once

#include <qelr.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "accel/kd_node.h"

namespace qelr_test {

namespace kdnode = qelr::kdnode;

struct KdCell {
    float mn[3];
    float mx[3];
};

struct KdLeafInfo {
    int32_t offset;  // byte offset of the leaf node
    int depth;
    KdCell cell;
    bool isInline;
    std::vector<int32_t> tris;  // in the order the traversal tests them
};

struct KdTreeInfo {
    std::string error;  // empty when the tree is valid
    std::vector<KdLeafInfo> leaves;
    int innerNodes = 0;
    int maxDepth = 0;
    int64_t nodeAreaEnd = 0;     // one past the last node byte
    int64_t firstListByte = -1;  // first byte of any leaf list, -1 when none
};

// The triangles of an inline leaf (both words negative).
inline std::vector<int32_t> decodeInlineLeaf(int32_t word0, int32_t word1) {
    int32_t t[3];
    const int count = kdnode::inlineTriangles({word0, word1}, t);
    return std::vector<int32_t>(t, t + count);
}

inline KdTreeInfo checkKdTree(const KDTreeNode* tree, int sizeBytes, int triangleCount,
                              int depthLimit, const KdCell& rootCell) {
    KdTreeInfo info;
    if (tree == nullptr || sizeBytes < 8) {
        info.error = "no tree";
        return info;
    }
    const auto* base = reinterpret_cast<const char*>(tree);
    std::vector<uint8_t> used(static_cast<size_t>(sizeBytes), 0);
    auto claim = [&](int64_t begin, int64_t bytes, const char* what) {
        if (begin < 0 || bytes < 0 || begin + bytes > sizeBytes) {
            info.error = std::string(what) + " outside the block at " + std::to_string(begin);
            return false;
        }
        for (int64_t i = begin; i < begin + bytes; ++i) {
            if (used[i]) {
                info.error = std::string(what) + " overlaps at " + std::to_string(i);
                return false;
            }
            used[i] = 1;
        }
        return true;
    };
    struct Pending {
        int64_t offset;
        int depth;
        KdCell cell;
    };
    std::vector<Pending> stack = {{0, 0, rootCell}};
    if (!claim(0, 8, "root")) return info;
    while (!stack.empty() && info.error.empty()) {
        const Pending p = stack.back();
        stack.pop_back();
        kdnode::Words w;
        std::memcpy(&w, base + p.offset, 8);
        info.maxDepth = std::max(info.maxDepth, p.depth);
        info.nodeAreaEnd = std::max(info.nodeAreaEnd, p.offset + 8);
        if (p.depth > depthLimit || p.depth > 50) {
            info.error = "node deeper than the limit at " + std::to_string(p.offset);
            break;
        }
        if (!kdnode::isLeaf(w)) {
            const int axis = kdnode::splitAxis(w);
            const int64_t child = p.offset + kdnode::childOffset(w);
            const float split = kdnode::splitPosition(w);
            if (axis == 3 || (w.w0 & 4) != 0 || kdnode::childOffset(w) == 0) {
                info.error = "bad inner node word at " + std::to_string(p.offset);
                break;
            }
            if (!(split >= p.cell.mn[axis] && split <= p.cell.mx[axis])) {
                info.error = "split outside its cell at " + std::to_string(p.offset);
                break;
            }
            if (!claim(child, 16, "child pair")) break;
            ++info.innerNodes;
            KdCell below = p.cell, above = p.cell;
            below.mx[axis] = split;
            above.mn[axis] = split;
            stack.push_back({child + 8, p.depth + 1, above});
            stack.push_back({child, p.depth + 1, below});
            continue;
        }
        KdLeafInfo leaf;
        leaf.offset = static_cast<int32_t>(p.offset);
        leaf.depth = p.depth;
        leaf.cell = p.cell;
        leaf.isInline = kdnode::isInlineLeaf(w);
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
    return info;
}

// The cost-driven layout: root at 0, 8 zero bytes, child pairs packed from 16,
// all lists right after the node area, and nothing else in the block.
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
    if (nodeBytes + listBytes != sizeBytes)
        return "size " + std::to_string(sizeBytes) + " differs from " +
               std::to_string(nodeBytes + listBytes);
    return "";
}

// Byte offsets of the leaves whose cells contain point p: the walk goes to the
// side of each split where p lies, and to both sides when p is on the plane.
inline void leavesAt(const KDTreeNode* tree, const double p[3], std::vector<int32_t>& out) {
    const auto* base = reinterpret_cast<const char*>(tree);
    std::vector<int64_t> stack = {0};
    while (!stack.empty()) {
        const int64_t offset = stack.back();
        stack.pop_back();
        kdnode::Words w;
        std::memcpy(&w, base + offset, 8);
        if (kdnode::isLeaf(w)) {
            out.push_back(static_cast<int32_t>(offset));
            continue;
        }
        const float split = kdnode::splitPosition(w);
        const int64_t child = offset + kdnode::childOffset(w);
        const double x = p[kdnode::splitAxis(w)];
        if (x >= split) stack.push_back(child + 8);
        if (x <= split) stack.push_back(child);
    }
}

// Completeness: every point of every listed-as-valid triangle (sampled on a
// barycentric grid of `steps` divisions) lies in a leaf that lists the
// triangle. Triangles for which `valid` is false are skipped.
template <class ValidFn>
inline std::string checkCompleteness(const KDTreeNode* tree, const KdTreeInfo& info,
                                     const float* vertices, const int* indices, int triangleCount,
                                     int steps, ValidFn valid) {
    std::map<int32_t, const std::vector<int32_t>*> leafAt;  // leaf offset to its triangles
    for (const auto& l : info.leaves) leafAt[l.offset] = &l.tris;
    std::vector<int32_t> found;
    for (int t = 0; t < triangleCount; ++t) {
        if (!valid(t)) continue;
        const float* v[3];
        for (int c = 0; c < 3; ++c) v[c] = vertices + 3 * static_cast<size_t>(indices[4 * t + c]);
        for (int i = 0; i <= steps; ++i)
            for (int j = 0; i + j <= steps; ++j) {
                const double b1 = static_cast<double>(i) / steps,
                             b2 = static_cast<double>(j) / steps;
                const double b0 = 1.0 - b1 - b2;
                double p[3];
                for (int a = 0; a < 3; ++a) {
                    p[a] = b0 * v[0][a] + b1 * v[1][a] + b2 * v[2][a];
                    if (i + j == 0) p[a] = v[0][a];  // exact corners
                    if (i == steps) p[a] = v[1][a];
                    if (j == steps) p[a] = v[2][a];
                }
                found.clear();
                leavesAt(tree, p, found);
                bool listed = false;
                for (int32_t off : found) {
                    const auto& tris = *leafAt.at(off);
                    listed = listed || std::find(tris.begin(), tris.end(), t) != tris.end();
                }
                if (!listed)
                    return "triangle " + std::to_string(t) + " is missing at a point of it";
            }
    }
    return "";
}

// Whether triangle (a, b, c) has a part inside the cell shrunk by `margin` on
// every side (polygon clipping in double).
inline bool triangleOverlapsCell(const float* a, const float* b, const float* c, const KdCell& cell,
                                 double margin) {
    std::vector<std::array<double, 3>> poly = {
        {a[0], a[1], a[2]}, {b[0], b[1], b[2]}, {c[0], c[1], c[2]}};
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
                    const double t = (limit - p[axis]) / (q[axis] - p[axis]);
                    out.push_back({p[0] + t * (q[0] - p[0]), p[1] + t * (q[1] - p[1]),
                                   p[2] + t * (q[2] - p[2])});
                }
            }
            poly = std::move(out);
            if (poly.empty()) return false;
        }
    return true;
}

// Every valid triangle that reaches into a leaf's cell by more than `margin`
// is listed in that leaf.
template <class ValidFn>
inline std::string checkLeafOverlaps(const KdTreeInfo& info, const float* vertices,
                                     const int* indices, int triangleCount, double margin,
                                     ValidFn valid) {
    for (const auto& leaf : info.leaves) {
        for (int t = 0; t < triangleCount; ++t) {
            if (!valid(t)) continue;
            const float* v[3];
            bool apart = false;
            for (int c = 0; c < 3; ++c)
                v[c] = vertices + 3 * static_cast<size_t>(indices[4 * t + c]);
            for (int a = 0; a < 3 && !apart; ++a) {
                const float lo = std::min({v[0][a], v[1][a], v[2][a]});
                const float hi = std::max({v[0][a], v[1][a], v[2][a]});
                apart = hi < leaf.cell.mn[a] + margin || lo > leaf.cell.mx[a] - margin;
            }
            if (apart || !triangleOverlapsCell(v[0], v[1], v[2], leaf.cell, margin)) continue;
            if (std::find(leaf.tris.begin(), leaf.tris.end(), t) == leaf.tris.end())
                return "triangle " + std::to_string(t) + " reaches into the leaf at " +
                       std::to_string(leaf.offset) + " but is not listed";
        }
    }
    return "";
}

}  // namespace qelr_test
