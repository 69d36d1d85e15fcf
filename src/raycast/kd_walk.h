// What the intersection functions share: reading KD-tree nodes, the one-ray
// triangle test and the one-ray traversal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "accel/kd_node.h"
#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::raycast {

// Largest magnitude of a direction component that counts as zero: the float
// epsilon, 2^-23.
constexpr float kTinyComponent = 1.1920929e-7f;
// Inverse taken for such a component by the nearest-hit forms: 100 / epsilon
// (0x4E480000), large enough that the axis never decides a split.
constexpr float kNearestTinyInverse = 838860800.0f;
// Inverse taken for such a component by the any-hit form: 1 / (100 epsilon)
// rounded to float (0x47A3D70A), the magnitude the packets use; it differs on
// purpose from the nearest-hit value and is kept as the results have it.
constexpr float kAnyTinyInverse = 83886.078125f;
// Slack added to the far end of a ray's interval before the traversal, so that
// a hit at the very end of the interval is still reached.
constexpr float kFarSlack = 0.0001f;
// Far end of a shadow ray's interval: the accepted range 0 < t < 1 with the
// slack above on its far end.
constexpr float kShadowFarEnd = 1.0001f;
static_assert(kShadowFarEnd == 1.0f + kFarSlack);
// Traversal tolerance of the one-ray nearest and any-hit forms: a split this
// close to the interval's ends still sends the ray to both children.
constexpr float kSplitTolerance = 1e-5f;
// The wider tolerance of the multiple-hit form, whose later layers start on a
// surface and would otherwise miss neighbours across a split.
constexpr float kLayerSplitTolerance = 0.00019f;
// The capacity of a traversal stack: the builder limits the depth to 50.
constexpr int kStackDepth = 50;

inline bool isLeaf(const KDTreeNode* n) { return kdnode::isLeaf(kdnode::load(n)); }

// Split axis and position of an inner node.
inline int splitAxisOf(const KDTreeNode* n) { return kdnode::splitAxis(kdnode::load(n)); }
inline float splitPositionOf(const KDTreeNode* n) { return kdnode::splitPosition(kdnode::load(n)); }

// The pair of children of an inner node (below the split, then above).
inline const KDTreeNode* childrenOf(const KDTreeNode* n) {
    return reinterpret_cast<const KDTreeNode*>(reinterpret_cast<const char*>(n) +
                                               kdnode::childOffset(kdnode::load(n)));
}

// Calls f(triangle) for the triangles of a leaf in list order; stops and
// returns true as soon as f returns true. Handles empty, listed and inline leaves.
template <class F>
inline bool forEachTriangle(const KDTreeNode* n, F&& f) {
    const kdnode::Words w = kdnode::load(n);
    if (w.w1 > 0) {
        const int32_t* list = reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(n) +
                                                               kdnode::listOffset(w));
        for (int32_t i = 0; i < w.w1; ++i)
            if (f(list[i])) return true;
        return false;
    }
    if (w.w1 == 0) return false;
    int32_t tris[3];
    const int count = kdnode::inlineTriangles(w, tris);
    for (int i = 0; i < count; ++i)
        if (f(tris[i])) return true;
    return false;
}

// One ray: origin, direction, inverse direction and the child taken first
// (1 when the component is negative) per axis. Four entries so that any
// two-bit axis field indexes inside.
struct Ray {
    float o[4];
    float d[4];
    float inv[4];
    int sign[4];
};

// Inverses and sign flags; a component of magnitude up to kTinyComponent
// takes tinyInverse and the flag 0.
inline void setInverses(Ray& r, float tinyInverse) {
    for (int a = 0; a < 3; ++a) {
        const float d = r.d[a];
        if (d <= kTinyComponent && d >= -kTinyComponent) {
            r.inv[a] = tinyInverse;
            r.sign[a] = 0;
        } else {
            r.inv[a] = 1.0f / d;
            r.sign[a] = d < 0.0f ? 1 : 0;
        }
    }
    r.inv[3] = 0.0f;
    r.sign[3] = 0;
}

// Clips [tnear, tfar] by the scene box, X then Y then Z; an axis whose
// component counts as zero takes no part. Returns false when the ray misses.
inline bool clipByBox(const Ray& r, const float* bounds, float& tnear, float& tfar) {
    for (int a = 0; a < 3; ++a) {
        const float d = r.d[a];
        if (d <= kTinyComponent && d >= -kTinyComponent) continue;
        const float t1 = (bounds[a + 3] - r.o[a]) / d;
        const float t2 = (bounds[a] - r.o[a]) / d;
        const float lo = t2 < t1 ? t2 : t1;
        const float hi = t1 < t2 ? t2 : t1;
        tnear = lo > tnear ? lo : tnear;
        tfar = hi < tfar ? hi : tfar;
    }
    return !(tnear > tfar);
}

struct TriangleHit {
    float t, b, c;
};

// The ray-triangle test: the three inside tests come before the division, so
// either sign of den works. Accepts 0 < t < limit.
inline bool hitTriangle(const TriangleAccel& r, const Ray& ray, float limit, TriangleHit& hit) {
    const uint32_t axes = r.axes;
    if (axes == 0) return false;  // degenerate triangle
    const uint32_t kv = axes & 3, ku = (axes >> 2) & 3, k = (axes >> 4) & 3;
    const float du = ray.d[ku], dv = ray.d[kv];
    const float den = r.nu * du + r.nv * dv + ray.d[k];
    const float a = r.pu - ray.o[ku], b = r.pv - ray.o[kv];
    const float num = r.pk + r.nu * a + r.nv * b - ray.o[k];
    const float q1 = du * num - a * den, q2 = dv * num - b * den;
    const float bb = r.e1 * q1 - r.e0 * q2, cc = r.e2 * q2 - r.e3 * q1;
    const float rest = den - bb - cc;
    if (!(rest * bb >= 0.0f) || !(bb * cc >= 0.0f) || !(rest * cc >= 0.0f)) return false;
    const float t = num / den;
    if (!(limit > t && t > 0.0f)) return false;
    hit.t = t;
    hit.b = bb / den;
    hit.c = cc / den;
    return true;
}

// Front-to-back traversal of one ray from root over [tnear, tfar]. leaf(node)
// tests a leaf's triangles and returns true to end the ray. After a leaf the ray
// ends when the stack is empty or when the next interval starts at or beyond
// limit (which the leaf function may lower).
template <class LeafFn>
inline void walkRay(const KDTreeNode* root, const Ray& ray, float tnear, float tfar, float tol,
                    const float& limit, LeafFn&& leaf) {
    struct Entry {
        const KDTreeNode* node;
        float tfar;
    };
    Entry stack[kStackDepth];
    int sp = 0;
    const KDTreeNode* node = root;
    for (;;) {
        while (!isLeaf(node)) {
            const int a = splitAxisOf(node);
            const float ts = (splitPositionOf(node) - ray.o[a]) * ray.inv[a];
            const KDTreeNode* kids = childrenOf(node);
            const KDTreeNode* nearChild = kids + ray.sign[a];
            const KDTreeNode* farChild = kids + (ray.sign[a] ^ 1);
            if (tnear - ts > tol) {
                node = farChild;
                continue;
            }
            node = nearChild;
            if (!(ts - tfar > tol)) {
                stack[sp].node = farChild;
                stack[sp].tfar = tfar;
                ++sp;
                const float m = ts < tfar ? ts : tfar;
                tfar = tnear > m ? tnear : m;
            }
        }
        if (leaf(node)) return;
        if (sp == 0 || tfar >= limit) return;
        tnear = tfar;
        --sp;
        node = stack[sp].node;
        tfar = stack[sp].tfar;
    }
}

}  // namespace qelr::QELR_ISA::raycast
