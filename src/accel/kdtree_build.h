// Internal interface of the KD-tree builder: the pieces that the builder, the
// tree writer and the tests share.
#pragma once

#include <cstdint>

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

// Output memory of the cost-driven build is taken in blocks of this size
// (16 MB of payload plus a 40-byte header), each charged to the budget.
inline constexpr uint32_t kOutputBlockBytes = 0x1000028u;
inline constexpr uint32_t kOutputBlockHeaderBytes = 40u;

// Nodes with at least this many triangles are scored by one thread per axis:
// a build rule (smaller nodes sweep in less time than a team takes to start);
// the tree is the same either way.
inline constexpr int32_t kParallelScoringMin = 76;

inline constexpr uint32_t kMaxDepthLimit = 50;

struct Box3 {
    float mn[3];
    float mx[3];
};

// A triangle reference inside a node: the triangle's index and the box of the
// part of the triangle that lies inside the node's cell. coversCell: the
// triangle is flat and covers the whole cell (then it covers every cell below
// too, and its part in a child cell is simply the box narrowed to that cell).
struct TriRef {
    int32_t tri;
    float mn[3];
    float mx[3];
    int32_t coversCell = 0;
};

struct CostDrivenInput {
    const float* vertices;
    const int* triangleIndices;
    int32_t vertexCount;
    int32_t triangleCount;
    uint32_t depthLimit;
    float quality;
    uint32_t budgetBytes;  // already shifted into bytes (32-bit arithmetic)
    uint32_t blockBytes;   // kOutputBlockBytes; smaller only in tests
};

// Builds the cost-driven tree. On success stores the block and its size.
QelStatus buildCostDriven(const CostDrivenInput& in, KDTreeNode** outTree, int* outTreeSize);

// ---------------------------------------------------------------------------
// Geometry shared by the builder and its tests.

// Reads triangle t as doubles. False when an index is outside the vertex
// array or a coordinate is not finite: such a triangle has no place in space
// and is left out of the tree.
bool fetchTriangle(const float* vertices, const int* triangleIndices, int32_t vertexCount,
                   int32_t t, double out[3][3]);

// Narrows ref's box to the part of triangle `tri` that lies inside `cell`
// (polygon clipping in double, bounds rounded outward). The result is never
// larger than the box before the call intersected with the cell.
void clipToCell(const double tri[3][3], const Box3& cell, TriRef& ref);

// The same for the two children of `cell` split at `position` on `axis`,
// clipping the triangle to the cell once. below and above start as copies of
// the reference in the cell.
void clipToChildren(const double tri[3][3], const Box3& cell, int axis, float position,
                    TriRef& below, TriRef& above);

// Whether triangle `tri`, flat on an axis, covers the whole face of `cell`
// across that axis with a margin far above the rounding of the clipping, so
// that clipping it to the cell or to any cell inside gives the cell's face:
// clipToCell and clipToChildren then return the reference's box narrowed to
// the cell. False for triangles that are not flat.
bool coversCell(const double tri[3][3], const Box3& cell);

// The reference's box intersected with the cell.
void narrowToCell(const Box3& cell, TriRef& ref);

// Rules of the cost model that the builder and the brute-force oracle share.
// The per-node quality factor f, computed once per build.
float qualityFactor(float quality);

// Axis choice among three scores: ties between x and y go to y, ties with z
// go to z.
inline int chooseAxis(const double s[3]) {
    if (s[1] > s[0]) return s[0] < s[2] ? 0 : 2;
    return s[1] < s[2] ? 1 : 2;
}

// A chosen split: the plane and the side that takes triangles lying flat in it.
struct SplitPlane {
    int axis;
    float position;
    bool planarBelow;
};

// Side bits of a reference for a split: 1 below, 2 above, 3 both.
inline int sideOf(const TriRef& r, const SplitPlane& s) {
    const float lo = r.mn[s.axis];
    const float hi = r.mx[s.axis];
    if (lo == hi && lo == s.position) return s.planarBelow ? 1 : 2;
    return (lo < s.position ? 1 : 0) | (hi > s.position ? 2 : 0);
}

// ---------------------------------------------------------------------------
// Output of the build: node records and leaf lists are streamed into blocks
// charged to the budget, then written into the final tree in one block.

class TreeStream {
 public:
    TreeStream(uint32_t budgetBytes, uint32_t blockBytes);
    ~TreeStream();
    TreeStream(const TreeStream&) = delete;
    TreeStream& operator=(const TreeStream&) = delete;

    // Slot of the first node of a new child pair (slot s is at byte 8 * s).
    int32_t newPair();
    QelStatus inner(int32_t slot, int axis, float position, int32_t childSlot);
    QelStatus leafFromRefs(int32_t slot, const TriRef* refs, int32_t count);
    // A leaf of the references and the triangles of `extra`, both in
    // ascending triangle order, merged into one list in that order.
    QelStatus leafFromRefs(int32_t slot, const TriRef* refs, int32_t count, const int32_t* extra,
                           int32_t extraCount);
    QelStatus leaf(int32_t slot, const int32_t* tris, int32_t count);

    // Writes the finished tree into one block: root at 0, 8 zero bytes,
    // pairs from 16, lists after the nodes.
    QelStatus finish(KDTreeNode** outTree, int* outTreeSize);

 private:
    struct Block;
    QelStatus put(int32_t word);
    QelStatus newBlock();
    // Room for at least one word at the end of the stream: the free words of
    // the last block, or a new block (charged to the budget).
    QelStatus room(int32_t*& at, int32_t& free);
    QelStatus beginLeaf(int32_t slot, const int32_t* tris, int32_t count, bool& listed);

    uint32_t remainingBudget_;
    uint32_t blockBytes_;
    int32_t blockWords_;
    Block* first_ = nullptr;
    Block* last_ = nullptr;
    int32_t nodeSlots_ = 2;
    int64_t listWords_ = 0;
    QelStatus status_ = qelOk;
};

}  // namespace qelr::QELR_ISA::accel
