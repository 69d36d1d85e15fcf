// The cost-driven KD-tree build.
//
// Every pending node owns a segment of the reference array (triangle index and
// the box of the triangle's part inside the node's cell) and, per axis, a
// segment of events sorted by (position, key). The events are sorted once at
// the root. When a node splits, the references that go to one side only keep
// their boxes and their events, which are filtered into the children in order;
// only the triangles cut by the plane are clipped to the child cells and get
// new events, which are sorted (few of them) and merged in. Every split is
// therefore linear in the node's references apart from the cut triangles, and
// the build grows as n log n.
//
// Pending nodes live on an explicit stack. Their segments are stacked the same
// way in the working arrays: a node's children replace it at the same place,
// the child above the split first, so the child below (processed first) is
// always on top and working memory stays proportional to the references.
//
// Flat triangles that cover a whole cell which is too thin to split across
// their plane (overlapping coplanar triangles, decals, doubled faces) cover
// every cell below it as well, and each split copies them into both children.
// Such references leave the reference array for the node's spanning set: a
// plain ascending list of triangle indices with one box for all of them (the
// cell's face, with the bits their own boxes would have). The sweep counts
// them as one start at the cell's low end and one end at its high end, a
// split passes the set to the children unchanged (shared between siblings,
// narrowed by the box alone), and a leaf merges it back into its list in
// triangle order. The tree is the one that the references would give.
#include "accel/kdtree_build.h"

#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstring>
#include <utility>

#include "accel/kdtree_sweep.h"
#include "core/memory.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

namespace {

constexpr double kMinThreshold = 9.999999747378752e-06;
constexpr uint32_t kRouteIndexMask = 0x3FFFFFFFu;
constexpr int64_t kCutStride = 4;

// Which events of a cut reference on each axis stay valid in child c (0
// below, 1 above): bit 6c + 2b for the start (or flat) event on axis b, the
// next bit for the end event. An event stays when the child's box keeps that
// end (bit for bit: a -0 event is not a +0 one) and the box is flat in both
// or in neither.
bool sameBits(float x, float y) {
    uint32_t a, b;
    std::memcpy(&a, &x, 4);
    std::memcpy(&b, &y, 4);
    return a == b;
}

uint32_t keepBits(const TriRef& before, const TriRef& after, int c) {
    uint32_t bits = 0;
    for (int b = 0; b < 3; ++b) {
        const bool flatBefore = before.mn[b] == before.mx[b];
        const bool flatAfter = after.mn[b] == after.mx[b];
        if (flatBefore != flatAfter) continue;
        if (sameBits(after.mn[b], before.mn[b])) bits |= 1u << (6 * c + 2 * b);
        if (!flatAfter && sameBits(after.mx[b], before.mx[b])) bits |= 2u << (6 * c + 2 * b);
    }
    return bits;
}

// A growable working array from the library's memory services.
template <class T>
class Pool {
 public:
    Pool() = default;
    ~Pool() { core::freeMemory(data_); }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    T* data() { return data_; }

    // Room for n elements, keeping the first `keep`.
    bool reserve(int64_t n, int64_t keep) {
        if (n <= cap_) return true;
        const int64_t maxElems = INT32_MAX / static_cast<int64_t>(sizeof(T));
        if (n > maxElems) return false;
        const int64_t want = std::min(std::max(n, cap_ + cap_ / 2), maxElems);
        T* d = static_cast<T*>(core::allocBytes(static_cast<int32_t>(want * sizeof(T))));
        if (d == nullptr) return false;
        if (keep > 0) std::memcpy(d, data_, static_cast<size_t>(keep) * sizeof(T));
        core::freeMemory(data_);
        data_ = d;
        cap_ = want;
        return true;
    }

 private:
    T* data_ = nullptr;
    int64_t cap_ = 0;
};

// The spanning set of a node: `count` triangle indices, ascending, from
// `begin` in the builder's list pool; all flat on `axis`, which the cell is
// too thin to split on, and all with the box `box` (tri unused), whose two
// other axes equal the cell's bounds as floats.
struct Spanning {
    int32_t begin = 0;
    int32_t count = 0;
    int32_t axis = -1;
    TriRef box{};
};

struct Task {
    Box3 cell;
    int32_t depth;
    int32_t slot;
    int32_t refBegin;
    int32_t refCount;
    int32_t evBegin[3];
    int32_t evCount[3];
    Spanning span;
    int32_t spanMark;  // the list pool's size while this node is pending
};

// The one axis on which the box is flat, or -1.
int flatAxis(const TriRef& r) {
    int axis = -1;
    for (int a = 0; a < 3; ++a) {
        if (r.mn[a] != r.mx[a]) continue;
        if (axis >= 0) return -1;
        axis = a;
    }
    return axis;
}

// Whether reference r, in a node of cell `cell`, can join the node's
// spanning set `set` (which it then defines when still empty).
bool joinsSpanning(const TriRef& r, const Box3& cell, Spanning& set) {
    if (r.coversCell == 0) return false;
    const int c = flatAxis(r);
    if (c < 0 || axisUsable(cell, c)) return false;
    for (int a = 0; a < 3; ++a)
        if (a != c && !(r.mn[a] == cell.mn[a] && r.mx[a] == cell.mx[a])) return false;
    if (set.count == 0) {
        set.axis = c;
        set.box = r;
    } else {
        if (set.axis != c) return false;
        for (int a = 0; a < 3; ++a)
            if (a != c && !(sameBits(r.mn[a], set.box.mn[a]) && sameBits(r.mx[a], set.box.mx[a])))
                return false;
    }
    ++set.count;
    return true;
}

// Sorts events in eventLess order. Large lists go through a radix sort on
// (position as an ordered integer, key), which gives the same order: -0 is
// folded into +0 as the float comparison does, and keys are unique.
bool sortEvents(Event* ev, int32_t n, Pool<Event>& scratch) {
    constexpr int32_t kRadixMin = 4096;
    constexpr int kDigitBits = 8, kPasses = 8, kBuckets = 1 << kDigitBits;
    if (n < kRadixMin) {
        std::sort(ev, ev + n, EventLess());
        return true;
    }
    if (!scratch.reserve(n, 0)) return false;
    auto composite = [](const Event& e) {
        const float p = e.pos + 0.0f;  // -0 becomes +0
        uint32_t bits;
        std::memcpy(&bits, &p, 4);
        bits ^= (bits >> 31) != 0 ? 0xFFFFFFFFu : 0x80000000u;
        return static_cast<uint64_t>(bits) << 32 | e.key;
    };
    static_assert(kDigitBits * kPasses >= 64);
    int32_t counts[kPasses][kBuckets] = {};
    for (int32_t i = 0; i < n; ++i) {
        const uint64_t c = composite(ev[i]);
        for (int d = 0; d < kPasses; ++d) ++counts[d][(c >> (d * kDigitBits)) & (kBuckets - 1)];
    }
    Event* from = ev;
    Event* to = scratch.data();
    for (int d = 0; d < kPasses; ++d) {
        int32_t offset = 0;
        bool single = false;
        for (int b = 0; b < kBuckets; ++b) {
            const int32_t c = counts[d][b];
            single = single || c == n;  // every element has this digit: nothing to do
            counts[d][b] = offset;
            offset += c;
        }
        if (single) continue;
        for (int32_t i = 0; i < n; ++i) {
            const uint64_t c = composite(from[i]);
            to[counts[d][(c >> (d * kDigitBits)) & (kBuckets - 1)]++] = from[i];
        }
        std::swap(from, to);
    }
    if (from != ev) std::memcpy(ev, from, static_cast<size_t>(n) * sizeof(Event));
    return true;
}

// Appends the events of reference `local` on axis a.
inline int32_t addEvents(const TriRef& r, int a, uint32_t local, Event* out) {
    if (r.mn[a] == r.mx[a]) {
        out[0] = {r.mn[a], local << 2 | kEventPlanar};
        return 1;
    }
    out[0] = {r.mn[a], local << 2 | kEventStart};
    out[1] = {r.mx[a], local << 2 | kEventEnd};
    return 2;
}

class Builder {
 public:
    explicit Builder(const CostDrivenInput& in)
        : in_(in), f_(qualityFactor(in.quality)), stream_(in.budgetBytes, in.blockBytes) {}

    QelStatus run(KDTreeNode** outTree, int* outTreeSize);

 private:
    QelStatus initRoot(Task& root);
    void scoreNode(const Task& t, double scores[3], AxisScore results[3]);
    QelStatus split(const Task& t, const SplitPlane& plane, Task& below, Task& above);
    QelStatus splitEvents(const Task& t, int b, int32_t straddlers, Task& below, Task& above);
    QelStatus growSpanning(Spanning& set, const int32_t* joined, int32_t joinCount);

    const CostDrivenInput& in_;
    const float f_;
    TreeStream stream_;
    Pool<TriRef> refs_;
    Pool<Event> events_[3];
    Pool<Event> fresh_[2];  // new events of cut triangles, per child
    Pool<uint32_t> route_;  // where each reference of the node goes
    Pool<int32_t> cut_;     // references that the plane cuts (kCutStride entries each)
    Pool<TriRef> clipped_;  // their parts in the two children
    Pool<int32_t> joined_;  // triangles that join a child's spanning set, per child
    Pool<int32_t> lists_;   // the spanning sets' lists, stacked like the nodes
    int32_t listsUsed_ = 0;
};

QelStatus Builder::initRoot(Task& root) {
    const int32_t count = in_.triangleCount;
    if (!refs_.reserve(count > 0 ? count : 1, 0)) return qelErrNoMemory;
    Box3 cell = {{FLT_MAX, FLT_MAX, FLT_MAX}, {-FLT_MAX, -FLT_MAX, -FLT_MAX}};
    int32_t n = 0;
    TriRef* refs = refs_.data();
    for (int32_t t = 0; t < count; ++t) {
        double v[3][3];
        if (!fetchTriangle(in_.vertices, in_.triangleIndices, in_.vertexCount, t, v)) continue;
        TriRef& r = refs[n++];
        r.tri = t;
        r.coversCell = 0;
        for (int a = 0; a < 3; ++a) {
            r.mn[a] = static_cast<float>(std::min({v[0][a], v[1][a], v[2][a]}));
            r.mx[a] = static_cast<float>(std::max({v[0][a], v[1][a], v[2][a]}));
            cell.mn[a] = std::min(cell.mn[a], r.mn[a]);
            cell.mx[a] = std::max(cell.mx[a], r.mx[a]);
        }
    }
    if (n == 0) cell = Box3{{0, 0, 0}, {0, 0, 0}};
    root = Task{cell, 0, 0, 0, n, {0, 0, 0}, {0, 0, 0}, Spanning{}, 0};
    for (int a = 0; a < 3; ++a) {
        if (!events_[a].reserve(2 * static_cast<int64_t>(n) + 1, 0)) return qelErrNoMemory;
        Event* ev = events_[a].data();
        int32_t m = 0;
        for (int32_t i = 0; i < n; ++i)
            m += addEvents(refs[i], a, static_cast<uint32_t>(i), ev + m);
        if (!sortEvents(ev, m, fresh_[0])) return qelErrNoMemory;
        root.evCount[a] = m;
    }
    return qelOk;
}

void Builder::scoreNode(const Task& t, double scores[3], AxisScore results[3]) {
    const int32_t n = t.refCount + t.span.count;
    auto scoreOne = [&](int a) {
        SpanningRefs span;
        if (t.span.count > 0 && a != t.span.axis) {
            span.count = t.span.count;
            span.lo = t.span.box.mn[a];
            span.hi = t.span.box.mx[a];
            span.firstTri = lists_.data()[t.span.begin];
            span.refs = refs_.data() + t.refBegin;
        }
        return scoreAxis(axisFrame(t.cell, a), events_[a].data() + t.evBegin[a], t.evCount[a], n,
                         2 * t.refCount - t.evCount[a], span);
    };
    for (int a = 0; a < 3; ++a) results[a] = AxisScore{DBL_MAX, 0.0f, true};

    int eligible[3];
    int k = 0;
    for (int a = 0; a < 3; ++a)
        if (t.cell.mx[a] - t.cell.mn[a] > kMinExtent) eligible[k++] = a;

    if (n >= kParallelScoringMin && k >= 2) {
        // One thread per eligible axis; each result goes to its own slot, so
        // the decision taken after the region does not depend on timing. The
        // loop also covers a runtime that grants a smaller team.
#pragma omp parallel num_threads(k)
        {
            const int nt = omp_get_num_threads();
            for (int i = omp_get_thread_num(); i < k; i += nt) {
                const AxisScore r = scoreOne(eligible[i]);
#pragma omp critical(qelr_kdtree_axis_merge)
                results[eligible[i]] = r;
            }
        }
    } else {
        for (int a = 0; a < 3; ++a) results[a] = scoreOne(a);
    }
    for (int a = 0; a < 3; ++a) scores[a] = results[a].score;
}

QelStatus Builder::split(const Task& t, const SplitPlane& plane, Task& below, Task& above) {
    const int32_t n = t.refCount;
    const int a = plane.axis;
    below = t;
    above = t;
    below.cell.mx[a] = plane.position;
    above.cell.mn[a] = plane.position;
    below.depth = above.depth = t.depth + 1;
    const Box3 cells[2] = {below.cell, above.cell};

    // The spanning set goes where its box goes, narrowed to the child cells
    // when the plane cuts it, as each of its references would.
    Spanning spans[2] = {Spanning{}, Spanning{}};
    if (t.span.count > 0) {
        const int sideBits = sideOf(t.span.box, plane);
        for (int c = 0; c < 2; ++c) {
            if ((sideBits >> c & 1) == 0) continue;
            spans[c] = t.span;
            if (sideBits == 3) narrowToCell(cells[c], spans[c].box);
        }
    }

    // route[i]: side bits << 30 | index in the child for references that go
    // to one side, 3 << 30 | index in the cut list for the ones the plane
    // cuts, 0 for a reference that joins the spanning set of its one child.
    // A cut entry: the reference, its index in each child (-1 when it joins
    // that child's spanning set), its event keep bits; its parts in the
    // children are clipped_[2j] and clipped_[2j + 1].
    if (!route_.reserve(n, 0) || !cut_.reserve(kCutStride * static_cast<int64_t>(n), 0) ||
        !clipped_.reserve(2 * static_cast<int64_t>(n), 0) ||
        !joined_.reserve(2 * static_cast<int64_t>(n), 0))
        return qelErrNoMemory;
    uint32_t* route = route_.data();
    int32_t* cut = cut_.data();
    TriRef* clipped = clipped_.data();
    int32_t* joined[2] = {joined_.data(), joined_.data() + n};
    int32_t joins[2] = {0, 0};
    int32_t counts[2] = {0, 0};
    int32_t straddlers = 0;
    const TriRef* refs = refs_.data() + t.refBegin;
    for (int32_t i = 0; i < n; ++i) {
        const TriRef& r = refs[i];
        const int sideBits = sideOf(r, plane);
        if (sideBits == 1 || sideBits == 2) {
            const int c = sideBits - 1;
            if (joinsSpanning(r, cells[c], spans[c])) {
                joined[c][joins[c]++] = r.tri;
                route[i] = 0;
            } else {
                route[i] =
                    static_cast<uint32_t>(sideBits) << 30 | static_cast<uint32_t>(counts[c]++);
            }
            continue;
        }
        TriRef* part = clipped + 2 * straddlers;
        part[0] = r;
        part[1] = r;
        if (r.coversCell != 0) {  // clipping would give the box narrowed to the child cell
            narrowToCell(cells[0], part[0]);
            narrowToCell(cells[1], part[1]);
        } else {
            double v[3][3];
            fetchTriangle(in_.vertices, in_.triangleIndices, in_.vertexCount, r.tri, v);
            clipToChildren(v, t.cell, a, plane.position, part[0], part[1]);
            part[0].coversCell = coversCell(v, cells[0]) ? 1 : 0;
            part[1].coversCell = coversCell(v, cells[1]) ? 1 : 0;
        }
        int32_t* cj = cut + kCutStride * straddlers;
        cj[0] = i;
        for (int c = 0; c < 2; ++c) {
            if (joinsSpanning(part[c], cells[c], spans[c])) {
                joined[c][joins[c]++] = r.tri;
                cj[1 + c] = -1;
            } else {
                cj[1 + c] = counts[c]++;
            }
        }
        cj[3] = static_cast<int32_t>(keepBits(r, part[0], 0) | keepBits(r, part[1], 1));
        route[i] = 3u << 30 | static_cast<uint32_t>(straddlers++);
    }
    const int32_t nBelow = counts[0], nAbove = counts[1];

    // Children's references after the node's, above first, then moved down.
    const int64_t top = static_cast<int64_t>(t.refBegin) + n;
    if (!refs_.reserve(top + nAbove + nBelow, top)) return qelErrNoMemory;
    refs = refs_.data() + t.refBegin;
    TriRef* outAbove = refs_.data() + top;
    TriRef* outBelow = outAbove + nAbove;
    for (int32_t i = 0; i < n; ++i) {
        const uint32_t r = route[i];
        const uint32_t index = r & kRouteIndexMask;
        if (r >> 30 == 1) {
            outBelow[index] = refs[i];
        } else if (r >> 30 == 2) {
            outAbove[index] = refs[i];
        } else if (r >> 30 == 3) {
            const int32_t* cj = cut + kCutStride * index;
            if (cj[1] >= 0) outBelow[cj[1]] = clipped[2 * index];
            if (cj[2] >= 0) outAbove[cj[2]] = clipped[2 * index + 1];
        }
    }
    std::memmove(refs_.data() + t.refBegin, outAbove,
                 static_cast<size_t>(nAbove + nBelow) * sizeof(TriRef));
    above.refBegin = t.refBegin;
    above.refCount = nAbove;
    below.refBegin = t.refBegin + nAbove;
    below.refCount = nBelow;

    // The children's spanning sets: the node's where no reference joined,
    // else new lists on top of the pool, the one above first (it is pending
    // longer).
    QelStatus st = growSpanning(spans[1], joined[1], joins[1]);
    above.span = spans[1];
    above.spanMark = listsUsed_;
    if (st == qelOk) st = growSpanning(spans[0], joined[0], joins[0]);
    below.span = spans[0];
    below.spanMark = listsUsed_;
    if (st != qelOk) return st;

    for (int b = 0; b < 3; ++b) {
        // An axis that the cell cannot be split on (too thin on it, or on
        // both others) stays so in every cell below: its events are dropped.
        if (!axisUsable(t.cell, b)) {
            below.evBegin[b] = above.evBegin[b] = t.evBegin[b];
            below.evCount[b] = above.evCount[b] = 0;
            continue;
        }
        st = splitEvents(t, b, straddlers, below, above);
        if (st != qelOk) return st;
    }
    return qelOk;
}

// Moves a child's spanning set to a list of its own when references joined
// it: the `joined` triangles (ascending, the last of set.count) merged into
// the set's inherited list.
QelStatus Builder::growSpanning(Spanning& set, const int32_t* joined, int32_t joinCount) {
    if (joinCount == 0) return qelOk;
    const int32_t inherited = set.count - joinCount;
    const int64_t begin = listsUsed_;
    if (!lists_.reserve(begin + set.count, begin)) return qelErrNoMemory;
    const int32_t* x = lists_.data() + set.begin;
    const int32_t* xEnd = x + inherited;
    const int32_t* yEnd = joined + joinCount;
    std::merge(x, xEnd, joined, yEnd, lists_.data() + begin);
    set.begin = static_cast<int32_t>(begin);
    listsUsed_ += set.count;
    return qelOk;
}

QelStatus Builder::splitEvents(const Task& t, int b, int32_t straddlers, Task& below, Task& above) {
    // New events of the cut references, sorted, per child: the ends of their
    // boxes that clipping moved (the others keep their events).
    int32_t freshCount[2] = {0, 0};
    const int64_t freshCap = 2 * static_cast<int64_t>(straddlers) + 1;
    if (!fresh_[0].reserve(freshCap, 0) || !fresh_[1].reserve(freshCap, 0)) return qelErrNoMemory;
    const TriRef* childRefs[2] = {refs_.data() + below.refBegin, refs_.data() + above.refBegin};
    const int32_t* cut = cut_.data();
    for (int c = 0; c < 2; ++c) {
        Event* fresh = fresh_[c].data();
        int32_t m = 0;
        for (int32_t j = 0; j < straddlers; ++j) {
            const int32_t* cj = cut + kCutStride * j;
            if (cj[1 + c] < 0) continue;  // in the child's spanning set
            const uint32_t local = static_cast<uint32_t>(cj[1 + c]);
            const TriRef& r = childRefs[c][local];
            const uint32_t keep = static_cast<uint32_t>(cj[3]) >> (6 * c + 2 * b) & 3u;
            if (r.mn[b] == r.mx[b]) {
                if ((keep & 1u) == 0) fresh[m++] = {r.mn[b], local << 2 | kEventPlanar};
                continue;
            }
            if ((keep & 1u) == 0) fresh[m++] = {r.mn[b], local << 2 | kEventStart};
            if ((keep & 2u) == 0) fresh[m++] = {r.mx[b], local << 2 | kEventEnd};
        }
        if (m > 1 && !std::is_sorted(fresh, fresh + m, EventLess()))
            std::sort(fresh, fresh + m, EventLess());
        freshCount[c] = m;
    }

    // Filter the node's events into the children behind the node's segment
    // (above first, below after room for all of the node's events), merging
    // the new events in, then move them down.
    const int32_t begin = t.evBegin[b];
    const int32_t count = t.evCount[b];
    const int64_t top = static_cast<int64_t>(begin) + count;
    const int64_t belowStart = top + count + freshCount[1];
    if (!events_[b].reserve(belowStart + count + freshCount[0], top)) return qelErrNoMemory;
    const Event* ev = events_[b].data() + begin;
    const uint32_t* route = route_.data();
    Event* outBelow = events_[b].data() + belowStart;
    Event* outAbove = events_[b].data() + top;
    const Event* fb = fresh_[0].data();
    const Event* fa = fresh_[1].data();
    const Event* fbEnd = fb + freshCount[0];
    const Event* faEnd = fa + freshCount[1];
    for (int32_t i = 0; i < count; ++i) {
        const uint32_t r = route[ev[i].key >> 2];
        const uint32_t type = ev[i].key & 3u;
        const uint32_t side = r >> 30;
        if (side == 1) {
            const Event e = {ev[i].pos, (r & kRouteIndexMask) << 2 | type};
            while (fb != fbEnd && eventLess(*fb, e)) *outBelow++ = *fb++;
            *outBelow++ = e;
        } else if (side == 2) {
            const Event e = {ev[i].pos, (r & kRouteIndexMask) << 2 | type};
            while (fa != faEnd && eventLess(*fa, e)) *outAbove++ = *fa++;
            *outAbove++ = e;
        } else if (side == 3) {  // a cut reference: the events that clipping left in place
            const int32_t* cj = cut + kCutStride * (r & kRouteIndexMask);
            const uint32_t keep = static_cast<uint32_t>(cj[3]) >> (2 * b);
            const uint32_t bit = type == kEventEnd ? 2u : 1u;
            if ((keep & bit) != 0 && cj[1] >= 0) {
                const Event e = {ev[i].pos, static_cast<uint32_t>(cj[1]) << 2 | type};
                while (fb != fbEnd && eventLess(*fb, e)) *outBelow++ = *fb++;
                *outBelow++ = e;
            }
            if ((keep >> 6 & bit) != 0 && cj[2] >= 0) {
                const Event e = {ev[i].pos, static_cast<uint32_t>(cj[2]) << 2 | type};
                while (fa != faEnd && eventLess(*fa, e)) *outAbove++ = *fa++;
                *outAbove++ = e;
            }
        }
    }
    while (fb != fbEnd) *outBelow++ = *fb++;
    while (fa != faEnd) *outAbove++ = *fa++;
    const int32_t written[2] = {static_cast<int32_t>(outBelow - (events_[b].data() + belowStart)),
                                static_cast<int32_t>(outAbove - (events_[b].data() + top))};
    Event* dst = events_[b].data() + begin;
    std::memmove(dst, events_[b].data() + top, static_cast<size_t>(written[1]) * sizeof(Event));
    std::memmove(dst + written[1], events_[b].data() + belowStart,
                 static_cast<size_t>(written[0]) * sizeof(Event));
    above.evBegin[b] = begin;
    above.evCount[b] = written[1];
    below.evBegin[b] = begin + written[1];
    below.evCount[b] = written[0];
    return qelOk;
}

QelStatus Builder::run(KDTreeNode** outTree, int* outTreeSize) {
    Task stack[kMaxDepthLimit + 4];
    int top = 0;
    QelStatus st = initRoot(stack[top++]);
    while (st == qelOk && top > 0) {
        const Task t = stack[--top];
        listsUsed_ = t.spanMark;  // the lists of the nodes done since this one was pushed
        const int32_t n = t.refCount + t.span.count;
        bool makeLeaf = n == 0 || t.depth >= static_cast<int32_t>(in_.depthLimit);
        SplitPlane plane{0, 0.0f, true};
        if (!makeLeaf) {
            const double cost = leafCost(t.cell, n);
            const double threshold = std::max(kMinThreshold, f_ * cost);
            double scores[3];
            AxisScore results[3];
            scoreNode(t, scores, results);
            const int axis = chooseAxis(scores);
            plane = SplitPlane{axis, results[axis].position, results[axis].planarBelow};
            makeLeaf = !(n * (cost - scores[axis]) > threshold);
        }
        if (makeLeaf) {
            st = stream_.leafFromRefs(t.slot, refs_.data() + t.refBegin, t.refCount,
                                      lists_.data() + t.span.begin, t.span.count);
            continue;
        }
        Task below, above;
        st = split(t, plane, below, above);
        if (st != qelOk) break;
        const int32_t pair = stream_.newPair();
        below.slot = pair;
        above.slot = pair + 1;
        st = stream_.inner(t.slot, plane.axis, plane.position, pair);
        stack[top++] = above;
        stack[top++] = below;
    }
    if (st != qelOk) return st;
    return stream_.finish(outTree, outTreeSize);
}

}  // namespace

QelStatus buildCostDriven(const CostDrivenInput& in, KDTreeNode** outTree, int* outTreeSize) {
    Builder builder(in);
    return builder.run(outTree, outTreeSize);
}

}  // namespace qelr::QELR_ISA::accel
