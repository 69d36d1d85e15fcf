// The exact surface-area sweep over one axis of a node.
//
// Counting rules: at a position p, the below side holds the triangles whose
// minimum is strictly below p, the above side those whose maximum is strictly
// above p. A triangle flat on the axis exactly at p goes to one side; both
// choices are scored, below first. Scores depend only on p, so the events of
// one position are taken together and positions are visited in ascending
// order; a candidate replaces the best only when strictly cheaper, so the
// lowest of equally good positions wins.
#include "accel/kdtree_sweep.h"

#include <cfloat>

#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

namespace {
constexpr double kEmptySpaceWeight = 0.699999988079071;  // 0.7f widened
// Scale of the split threshold f = (10 - 9 quality) * kCostFactor: part of
// the build rules (quality 1 weighs a split at about half the leaf cost), so
// changing it changes every tree.
constexpr double kCostFactor = 0.5057569742202759;
}  // namespace

float qualityFactor(float quality) {
    return static_cast<float>((10.0 - 9.0 * static_cast<double>(quality)) * kCostFactor);
}

double leafCost(const Box3& cell, int32_t n) {
    const double dx = cell.mx[0] - cell.mn[0];
    const double dy = cell.mx[1] - cell.mn[1];
    const double dz = cell.mx[2] - cell.mn[2];
    return (dz * (dx + dy) + dx * dy) * n;
}

AxisFrame axisFrame(const Box3& cell, int axis) {
    const int a = (axis + 1) % 3;
    const int b = (axis + 2) % 3;
    AxisFrame f;
    f.lo = cell.mn[axis];
    f.hi = cell.mx[axis];
    f.extent = f.hi - f.lo;
    const float dA = cell.mx[a] - cell.mn[a];
    const float dB = cell.mx[b] - cell.mn[b];
    f.usable = axisUsable(cell, axis);
    f.sumAB = static_cast<double>(dA) + static_cast<double>(dB);
    const double prod = static_cast<double>(dA) * static_cast<double>(dB);
    f.g = prod < 1e-9 ? 0.0 : prod / f.sumAB;
    return f;
}

AxisScore scoreAxis(const AxisFrame& fr, const Event* ev, int32_t count, int32_t n,
                    int32_t planarCount, const SpanningRefs& span) {
    AxisScore out{DBL_MAX, 0.0f, true};
    if (!fr.usable || (count == 0 && span.count == 0)) return out;
    const double lo = fr.lo, hi = fr.hi, g = fr.g;

    // Empty space at either end first. Spanning references start at the
    // cell's low end and stop at its high end: then there is none.
    if (span.count == 0) {
        const float smallestMin = ev[0].pos;
        const float largestMax = ev[count - 1].pos;
        const float gapLimit = 0.1f * fr.extent;
        bool empty = false;
        double best = DBL_MAX;
        if (smallestMin - fr.lo > gapLimit) {
            empty = true;
            best = n * ((hi - smallestMin) + g);
            out.position = smallestMin;
            out.planarBelow = false;  // every triangle goes above
        }
        if (fr.hi - largestMax > gapLimit) {
            const double cost = n * ((largestMax - lo) + g);
            if (!empty || cost < best) {
                best = cost;
                out.position = largestMax;
                out.planarBelow = true;  // every triangle goes below
            }
            empty = true;
        }
        if (empty) {
            out.score = fr.sumAB * kEmptySpaceWeight * best;
            return out;
        }
    }

    double best = DBL_MAX;
    const int32_t nonPlanar = n - planarCount;
    int32_t before[3] = {0, 0, 0};  // events passed, by type
    auto consider = [&](float p, const int32_t at[3]) {
        const int32_t planar = at[kEventPlanar];
        const int32_t below = before[kEventStart] + before[kEventPlanar];
        const int32_t above = (nonPlanar - before[kEventEnd] - at[kEventEnd]) +
                              (planarCount - before[kEventPlanar] - planar);
        const double wBelow = (p - lo) + g;
        const double wAbove = (hi - p) + g;
        const double withBelow = (below + planar) * wBelow + above * wAbove;
        if (withBelow < best) {
            best = withBelow;
            out.position = p;
            out.planarBelow = true;
        }
        if (planar > 0) {  // otherwise the same score as above
            const double withAbove = below * wBelow + (above + planar) * wAbove;
            if (withAbove < best) {
                best = withAbove;
                out.position = p;
                out.planarBelow = false;
            }
        }
        for (int k = 0; k < 3; ++k) before[k] += at[k];
    };
    // The bits of a position shared by events of spanning references and
    // other events are those of the first of them in eventLess order.
    auto spanFirst = [&](const Event& e) { return span.firstTri < span.refs[e.key >> 2].tri; };

    int32_t i = 0;
    if (span.count > 0) {  // the starts of the spanning references at the low end
        int32_t at[3] = {0, 0, 0};
        at[kEventStart] = span.count;
        float p = span.lo;
        if (count > 0 && ev[0].pos == span.lo) {
            if (!spanFirst(ev[0])) p = ev[0].pos;
            for (; i < count && ev[i].pos == span.lo; ++i) ++at[ev[i].key & 3u];
        }
        consider(p, at);
    }
    bool spanEnds = span.count > 0;
    while (i < count) {
        const int32_t first = i;
        float p = ev[i].pos;
        int32_t at[3] = {0, 0, 0};
        for (; i < count && ev[i].pos == p; ++i) ++at[ev[i].key & 3u];
        if (i == count && spanEnds && p == span.hi) {  // their ends at the high end
            at[kEventEnd] += span.count;
            if (spanFirst(ev[first])) p = span.hi;
            spanEnds = false;
        }
        consider(p, at);
    }
    if (spanEnds) {
        int32_t at[3] = {0, 0, 0};
        at[kEventEnd] = span.count;
        consider(span.hi, at);
    }
    out.score = fr.sumAB * best;
    return out;
}

}  // namespace qelr::QELR_ISA::accel
