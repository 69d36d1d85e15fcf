// Scoring of split candidates from sorted event lists.
#pragma once

#include <cstdint>

#include "accel/kdtree_build.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

// One event of a reference on one axis: the start or end of its extent, or
// its position when the extent is flat. key = local reference << 2 | type.
struct Event {
    float pos;
    uint32_t key;
};

enum EventType : uint32_t { kEventEnd = 0, kEventPlanar = 1, kEventStart = 2 };

inline bool eventLess(const Event& a, const Event& b) {
    return a.pos < b.pos || (a.pos == b.pos && a.key < b.key);
}

struct EventLess {
    bool operator()(const Event& a, const Event& b) const { return eventLess(a, b); }
};

// The cell's measures seen from one axis.
struct AxisFrame {
    bool usable;   // the cell is thicker than 1e-5 on the axis and on one other
    float lo, hi;  // cell bounds on the axis
    float extent;  // hi - lo
    double sumAB;  // sum of the other two extents
    double g;      // dA * dB / (dA + dB), or 0 when the product is below 1e-9
};

AxisFrame axisFrame(const Box3& cell, int axis);

// Extents up to this are too thin to split.
inline constexpr float kMinExtent = 1e-5f;

// axisFrame(cell, axis).usable without the rest of the frame.
inline bool axisUsable(const Box3& cell, int axis) {
    const int a = (axis + 1) % 3, b = (axis + 2) % 3;
    return cell.mx[axis] - cell.mn[axis] > kMinExtent &&
           (cell.mx[a] - cell.mn[a] > kMinExtent || cell.mx[b] - cell.mn[b] > kMinExtent);
}

struct AxisScore {
    double score;  // 1.7976931348623157e308 when the axis offers nothing
    float position;
    bool planarBelow;
};

// References of a node that span the whole cell on the axis and have no
// events of their own: each counts as a start at `lo` and an end at `hi`
// (the cell's bounds as floats, with these bits). Among events of equal
// position the one of the lowest triangle index comes first, so firstTri
// and the triangles of the node's other references (refs, indexed by event
// key) tell which bits stand for a position shared with such events.
struct SpanningRefs {
    int32_t count = 0;
    float lo = 0.0f, hi = 0.0f;
    int32_t firstTri = 0;
    const TriRef* refs = nullptr;
};

// Scores one axis of a node of n references (spanning ones included) whose
// other references' events on the axis are sorted by eventLess. planarCount:
// references flat on the axis.
AxisScore scoreAxis(const AxisFrame& frame, const Event* events, int32_t eventCount, int32_t n,
                    int32_t planarCount, const SpanningRefs& spanning);

// Half surface area of the cell times n, in double.
double leafCost(const Box3& cell, int32_t n);

}  // namespace qelr::QELR_ISA::accel
