// The one-ray rules on a vector of rays: each lane runs exactly the one-ray
// traversal and triangle test of kd_walk.h (divisions included), so every ray
// gets the bits it gets alone, whatever its neighbours.
//
// The lanes share one walk over the tree, which visits the union of the nodes
// their own walks visit, in the order of one octant (all lanes of a walk have
// the same sign flags; lanes of other octants take their own walk). Each lane
// keeps the state of its own walk: it is active only at the nodes its own walk
// reaches, with its own interval; the shared stack marks per entry the lanes
// whose own walk pushed it (they resume with tnear = their tfar, as the one-ray
// walk pops) and the lanes that went to the far child only (their walk goes on
// there with the interval unchanged, after the near side of the others). A
// lane counts its own entries on the stack and ends, as the one-ray walk does,
// after a leaf when it has none left or when its tfar reaches its limit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qelr.h"
#include "raycast/kd_walk.h"
#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::raycast {

using simd::Vf;
using simd::Vi;
constexpr int kRayLanes = simd::kLanes;

// Every lane set.
QELR_INLINE Vf allLanesSet() { return Vf::zero() == Vf::zero(); }

// Rays of a group with the one-ray inverses and sign flags. Four entries per
// axis array so that any two-bit axis field indexes inside.
struct LaneRays {
    Vf o[4], d[4], inv[4];
    Vf negative[3];  // sign flag 1 per lane and axis
};

// Inverses and sign flags with tinyInverse for tiny components (setInverses).
inline void setLaneInverses(LaneRays& r, float tinyInverse) {
    for (int a = 0; a < 3; ++a) {
        const Vf tiny = abs(r.d[a]) <= Vf(kTinyComponent);
        r.inv[a] = select(tiny, Vf(tinyInverse), Vf(1.0f) / r.d[a]);
        r.negative[a] = andNot(tiny, r.d[a] < Vf::zero());
    }
    r.o[3] = r.d[3] = r.inv[3] = Vf::zero();
}

// clipByBox per lane; returns the lanes that do not miss.
inline Vf clipLanes(const LaneRays& r, const float* bounds, Vf& tnear, Vf& tfar) {
    for (int a = 0; a < 3; ++a) {
        const Vf tiny = abs(r.d[a]) <= Vf(kTinyComponent);
        const Vf t1 = (Vf(bounds[a + 3]) - r.o[a]) / r.d[a];
        const Vf t2 = (Vf(bounds[a]) - r.o[a]) / r.d[a];
        const Vf lo = select(t2 < t1, t2, t1);
        const Vf hi = select(t1 < t2, t2, t1);
        tnear = select(tiny, tnear, select(lo > tnear, lo, tnear));
        tfar = select(tiny, tfar, select(hi < tfar, hi, tfar));
    }
    return andNot(tnear > tfar, allLanesSet());
}

// Lane results of a walk: the limit (best distance), weights and triangle.
struct LaneHits {
    Vf best, u, v;
    Vi index;
};

// The lanes of a LaneHits spilled to memory, for writing them ray by ray.
struct SpilledHits {
    alignas(32) float best[kRayLanes], u[kRayLanes], v[kRayLanes];
    alignas(32) int32_t index[kRayLanes];
};
inline SpilledHits spill(const LaneHits& h) {
    SpilledHits s;
    store(s.best, h.best);
    store(s.u, h.u);
    store(s.v, h.v);
    store(s.index, h.index);
    return s;
}

// The one-ray walk of the lanes in `lanes` (all of one octant, given by
// `octant`: bit a set when axis a is negative). kAny: a lane ends at its first
// accepted triangle (the index only). excluded(tri) gives the lanes for
// which a triangle is not tested.
template <bool kAny, class Excluded>
void walkLanes(const QelTraceScene& scene, const LaneRays& r, int octant, Vf lanes, Vf tnear,
               Vf tfar, float tolerance, LaneHits& h, Excluded&& excluded) {
    struct Entry {
        Vf tfar, resume, direct;
        const KDTreeNode* node;
    };
    Entry stack[kStackDepth];
    int sp = 0;
    const Vf tol(tolerance), zero = Vf::zero();
    Vi pending = Vi::zero();   // per lane: its own entries on the stack
    Vf active = lanes, done = andNot(lanes, allLanesSet());
    const TriangleAccel* accel = scene.accel;
    const KDTreeNode* node = scene.root;
    for (;;) {
        while (!isLeaf(node)) {
            const int a = splitAxisOf(node);
            const Vf ts = (Vf(splitPositionOf(node)) - r.o[a]) * r.inv[a];
            const KDTreeNode* kids = childrenOf(node);
            const int nearSide = (octant >> a) & 1;
            const Vf farOnly = active & ((tnear - ts) > tol);
            const Vf goNear = andNot(farOnly, active);
            if (!anyLane(goNear)) {
                node = kids + (nearSide ^ 1);
                continue;
            }
            const Vf push = andNot((ts - tfar) > tol, goNear);
            if (anyLane(push | farOnly)) {
                Entry& e = stack[sp++];
                e.node = kids + (nearSide ^ 1);
                e.tfar = tfar;
                e.resume = push;
                e.direct = farOnly;
                pending = pending - simd::asInt(push);
                const Vf m = select(ts < tfar, ts, tfar);
                tfar = select(push, select(tnear > m, tnear, m), tfar);
            }
            active = goNear;
            node = kids + nearSide;
        }
        // The leaf: every triangle on the lanes that reach it.
        Vf atLeaf = active;
        forEachTriangle(node, [&](int32_t tri) {
            const TriangleAccel& t = accel[tri];
            const uint32_t axes = t.axes;
            if (axes == 0) return false;  // degenerate triangle
            const Vf on = andNot(excluded(tri), active);
            if (!anyLane(on)) return false;
            const uint32_t kv = axes & 3, ku = (axes >> 2) & 3, k = (axes >> 4) & 3;
            const Vf nu(t.nu), nv(t.nv);
            const Vf du = r.d[ku], dv = r.d[kv];
            const Vf den = (nu * du + nv * dv) + r.d[k];
            const Vf a = Vf(t.pu) - r.o[ku], b = Vf(t.pv) - r.o[kv];
            const Vf num = ((Vf(t.pk) + nu * a) + nv * b) - r.o[k];
            const Vf q1 = du * num - a * den, q2 = dv * num - b * den;
            const Vf bb = Vf(t.e1) * q1 - Vf(t.e0) * q2, cc = Vf(t.e2) * q2 - Vf(t.e3) * q1;
            const Vf rest = (den - bb) - cc;
            const Vf inside =
                on & ((rest * bb) >= zero) & ((bb * cc) >= zero) & ((rest * cc) >= zero);
            if (!anyLane(inside)) return false;
            const Vf dist = num / den;
            const Vf accept = inside & (h.best > dist) & (dist > zero);
            if (!anyLane(accept)) return false;
            h.index = select(simd::asInt(accept), Vi(tri), h.index);
            if constexpr (kAny) {
                active = andNot(accept, active);
                done = done | accept;
                return !anyLane(active);
            } else {
                h.best = select(accept, dist, h.best);
                h.u = select(accept, bb / den, h.u);
                h.v = select(accept, cc / den, h.v);
                return false;
            }
        });
        // After the leaf a lane ends when none of its entries is left or when
        // its interval reaches its limit.
        atLeaf = atLeaf & active;
        done = done | (atLeaf & (simd::asFloat(pending == Vi::zero()) | (tfar >= h.best)));
        if (allLanes(done)) return;
        for (;;) {
            if (sp == 0) return;
            const Entry& e = stack[--sp];
            pending = pending + simd::asInt(e.resume);
            const Vf resume = andNot(done, e.resume);
            active = resume | andNot(done, e.direct);
            if (!anyLane(active)) continue;
            tnear = select(resume, tfar, tnear);
            tfar = select(resume, e.tfar, tfar);
            node = e.node;
            break;
        }
    }
}

// Runs walk(octant, lanes) once per octant present among the lanes in `live`.
template <class Walk>
QELR_INLINE void byOctant(const LaneRays& r, Vf live, Walk&& walk) {
    const int bits = laneBits(live);
    if (bits == 0) return;
    const int x = laneBits(r.negative[0]), y = laneBits(r.negative[1]),
              z = laneBits(r.negative[2]);
    const int all = (1 << kRayLanes) - 1;
    int left = bits;
    while (left != 0) {
        const int lane = __builtin_ctz(left);
        const int code = ((x >> lane) & 1) | ((y >> lane) & 1) << 1 | ((z >> lane) & 1) << 2;
        const int same = (code & 1 ? x : ~x) & (code & 2 ? y : ~y) & (code & 4 ? z : ~z) & left & all;
        left &= ~same;
        if (same == bits) {
            walk(code, live);
        } else {
            alignas(32) int32_t m[kRayLanes];
            for (int i = 0; i < kRayLanes; ++i) m[i] = (same >> i) & 1 ? -1 : 0;
            walk(code, simd::asFloat(Vi::load(m)));
        }
    }
}

}  // namespace qelr::QELR_ISA::raycast
