// The KD-tree node codec: the one place where the two 32-bit words of a node
// are written and read. The builder, the traversal, the tests and the
// benchmarks all go through it.
//
//   inner node   word 0 >= 0: bits 0-1 the split axis, word 0 & ~7 the byte
//                offset from the node to its pair of children (below, above);
//                word 1 the split position (float bits).
//   empty leaf   word 0 < 0, word 1 = 0.
//   listed leaf  word 0 < 0, word 1 = count > 0; the 32-bit indices start
//                (word 0 & ~3) bytes before the node (word 0 is the negative
//                distance, so the list follows the node).
//   inline leaf  both words negative; count = word 1 & 3, the indices inside:
//                one:   word 0 = i | sign
//                two:   word 0 = b | sign, word 1 = a << 2 | sign | 2
//                three: word 0 = sign | (mid - lo) << 16 | (hi - mid),
//                       word 1 = mid << 2 | sign | 3
#pragma once

#include <cstdint>
#include <cstring>

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::kdnode {

inline constexpr uint32_t kSign = 0x80000000u;
// Indices that fit the 29 bits of an inline leaf's word 1.
inline constexpr uint32_t kInlineIndexLimit = 0x20000000u;
// Three-triangle inline leaves: mid - lo below this (15 bits) ...
inline constexpr uint32_t kInlineSpanBelow = 32768u;
// ... and hi - mid below this (16 bits).
inline constexpr uint32_t kInlineSpanAbove = 65536u;

struct Words {
    int32_t w0;
    int32_t w1;
};

inline Words load(const KDTreeNode* n) { return {n->word0, n->word1}; }
inline void store(KDTreeNode* n, Words w) {
    n->word0 = w.w0;
    n->word1 = w.w1;
}

// ---------------------------------------------------------------------------
// Encoding.

// childOffset: bytes from the node to its child pair, a positive multiple of 8.
inline Words innerNode(int axis, int32_t childOffset, float split) {
    int32_t bits;
    std::memcpy(&bits, &split, 4);
    return {childOffset | axis, bits};
}

inline Words emptyLeaf() { return {INT32_MIN, 0}; }

// listOffset: bytes from the node forward to its list (positive, multiple of 4).
inline Words listedLeaf(int32_t listOffset, int32_t count) { return {-listOffset, count}; }

// The inline form of a leaf of one to three triangles (in list order);
// false when the leaf needs a list.
inline bool inlineLeaf(const int32_t* tris, int32_t count, Words& out) {
    if (count < 1 || count > 3) return false;
    for (int32_t i = 0; i < count; ++i)
        if (tris[i] < 0) return false;
    auto word = [](uint32_t u) { return static_cast<int32_t>(u); };
    if (count == 1) {
        out = {word(static_cast<uint32_t>(tris[0]) | kSign), word(kSign | 1u)};
        return true;
    }
    if (count == 2) {
        uint32_t a = static_cast<uint32_t>(tris[0]);
        uint32_t b = static_cast<uint32_t>(tris[1]);
        if (a >= kInlineIndexLimit && b >= kInlineIndexLimit) return false;
        if (a >= kInlineIndexLimit) {  // the index in word 1 must fit 29 bits
            const uint32_t t = a;
            a = b;
            b = t;
        }
        out = {word(b | kSign), word(a << 2 | kSign | 2u)};
        return true;
    }
    uint32_t v[3] = {static_cast<uint32_t>(tris[0]), static_cast<uint32_t>(tris[1]),
                     static_cast<uint32_t>(tris[2])};
    for (int i = 1; i < 3; ++i)  // sort three values
        for (int j = i; j > 0 && v[j] < v[j - 1]; --j) {
            const uint32_t t = v[j];
            v[j] = v[j - 1];
            v[j - 1] = t;
        }
    const uint32_t lo = v[0], mid = v[1], hi = v[2];
    if (mid >= kInlineIndexLimit || mid - lo >= kInlineSpanBelow || hi - mid >= kInlineSpanAbove)
        return false;
    out = {word(kSign | (mid - lo) << 16 | (hi - mid)), word(mid << 2 | kSign | 3u)};
    return true;
}

// ---------------------------------------------------------------------------
// Decoding.

inline bool isLeaf(Words w) { return w.w0 < 0; }
inline bool isInlineLeaf(Words w) { return w.w0 < 0 && w.w1 < 0; }

inline int splitAxis(Words w) { return w.w0 & 3; }
inline int32_t childOffset(Words w) { return w.w0 & ~7; }
inline float splitPosition(Words w) {
    float f;
    std::memcpy(&f, &w.w1, 4);
    return f;
}

// Bytes from a listed leaf forward to its list.
inline int32_t listOffset(Words w) { return -(w.w0 & ~3); }

// Triangles of a leaf (listed: word 1; inline: word 1 & 3; empty: 0).
inline int32_t leafCount(Words w) { return w.w1 < 0 ? (w.w1 & 3) : w.w1; }

// The triangles of an inline leaf in the order the traversal tests them;
// returns their number (0 to 3).
inline int inlineTriangles(Words w, int32_t out[3]) {
    const int32_t a = w.w0 & 0x7fffffff;
    const int32_t m = (w.w1 & 0x7ffffffc) >> 2;
    switch (w.w1 & 3) {
        case 1:
            out[0] = a;
            return 1;
        case 2:
            out[0] = a;
            out[1] = m;
            return 2;
        case 3:
            out[0] = m - (a >> 16);
            out[1] = m;
            out[2] = m + (a & 0xffff);
            return 3;
        default:
            return 0;
    }
}

}  // namespace qelr::QELR_ISA::kdnode
