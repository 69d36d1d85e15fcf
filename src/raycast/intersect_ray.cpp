// Ray-scene intersection: the exported functions and their one-ray paths.
#include <cfloat>
#include <cstddef>
#include <cstdint>

#include "core/impl.h"
#include "raycast/intersect_paths.h"
#include "raycast/kd_walk.h"
#include "raycast/ray_lanes.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::raycast {

namespace {

// The nearest triangle below `best` that the walk from tnear to tfar meets,
// skipping the triangles `excluded` names; best, u and v follow each accepted
// hit. Returns the triangle, or -1.
template <class Excluded>
int32_t nearestInTree(const QelTraceScene& scene, const Ray& ray, float tnear, float tfar,
                      float tolerance, float& best, float& u, float& v, Excluded&& excluded) {
    const TriangleAccel* accel = scene.accel;
    TriangleHit hit{};
    int32_t found = -1;
    walkRay(scene.root, ray, tnear, tfar, tolerance, best, [&](const KDTreeNode* leaf) {
        forEachTriangle(leaf, [&](int32_t tri) {
            if (!excluded(tri) && hitTriangle(accel[tri], ray, best, hit)) {
                best = hit.t;
                u = hit.b;
                v = hit.c;
                found = tri;
            }
            return false;
        });
        return false;
    });
    return found;
}

// Nearest hit of one ray (origin and direction set in ray) below dist.
void nearestRay(const QelTraceScene& scene, Ray& ray, float& dist, float& u, float& v,
                int32_t& index) {
    index = -1;
    setInverses(ray, kNearestTinyInverse);
    float tnear = 0.0f, tfar = dist;
    if (!clipByBox(ray, scene.bounds, tnear, tfar)) return;
    tfar += kFarSlack;
    float best = dist;
    const int32_t found = nearestInTree(scene, ray, tnear, tfar, kSplitTolerance, best, u, v,
                                        [](int32_t) { return false; });
    if (found >= 0) {
        dist = best;
        index = found;
    }
}

// The ray of pack element i: shared or own origin, and the direction.
Ray rayAt(const float* origin, const float* const* origins, const float* const dirs[3],
          ptrdiff_t i) {
    Ray r{};
    for (int c = 0; c < 3; ++c) {
        r.o[c] = origins ? origins[c][i] : origin[c];
        r.d[c] = dirs[c][i];
    }
    return r;
}

// The rays of pack elements [i, i + kRayLanes): shared or own origins.
LaneRays lanesAt(const float* origin, const float* const* origins, const float* const dirs[3],
                 ptrdiff_t i) {
    LaneRays r;
    for (int c = 0; c < 3; ++c) {
        r.o[c] = origins ? Vf::loadu(origins[c] + i) : Vf(origin[c]);
        r.d[c] = Vf::loadu(dirs[c] + i);
    }
    return r;
}

// Writes the lanes of a group that found a triangle (index for all lanes).
void storeNearest(const LaneHits& h, float* dist, float* const uv[2], int* index, ptrdiff_t i) {
    const SpilledHits s = spill(h);
    for (int l = 0; l < kRayLanes; ++l) {
        index[i + l] = s.index[l];
        if (s.index[l] < 0) continue;
        dist[i + l] = s.best[l];
        uv[0][i + l] = s.u[l];
        uv[1][i + l] = s.v[l];
    }
}

// nearestRay on kRayLanes rays at once.
void nearestLanes(const float* origin, const float* const* origins, const float* const dirs[3],
                  float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                  ptrdiff_t i) {
    LaneRays r = lanesAt(origin, origins, dirs, i);
    setLaneInverses(r, kNearestTinyInverse);
    LaneHits h{Vf::loadu(dist + i), Vf::zero(), Vf::zero(), Vi(-1)};
    Vf tnear = Vf::zero(), tfar = h.best;
    const Vf live = clipLanes(r, scene.bounds, tnear, tfar);
    tfar = tfar + Vf(kFarSlack);
    byOctant(r, live, [&](int octant, Vf lanes) {
        walkLanes<false>(scene, r, octant, lanes, tnear, tfar, kSplitTolerance, h,
                         [](int32_t) { return Vf::zero(); });
    });
    storeNearest(h, dist, uv, index, i);
}

// Groups of kRayLanes rays on the lanes, the rest one by one: the same bits.
void nearestRays(const float* origin, const float* const* origins, const float* const dirs[3],
                 float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                 int64_t count) {
    int64_t i = 0;
    for (; i + kRayLanes <= count; i += kRayLanes)
        nearestLanes(origin, origins, dirs, dist, uv, index, scene, i);
    for (; i < count; ++i) {
        Ray ray = rayAt(origin, origins, dirs, i);
        float u, v;
        int32_t hit;
        float t = dist[i];
        nearestRay(scene, ray, t, u, v, hit);
        index[i] = hit;
        if (hit >= 0) {
            dist[i] = t;
            uv[0][i] = u;
            uv[1][i] = v;
        }
    }
}

bool nearestPacketsApply(const float* const* origins, const float* const dirs[3], const float* dist,
                         float* const uv[2], const int* index, QelSize2D size) {
    if (size.width % 4 != 0 || size.height % 4 != 0) return false;
    bool ok = aligned16(dist) && aligned16(uv[0]) && aligned16(uv[1]) && aligned16(index);
    for (int c = 0; c < 3; ++c)
        ok = ok && aligned16(dirs[c]) && (!origins || aligned16(origins[c]));
    return ok;
}

// Successive hits along one ray; layer h of each output at offset h * stride.
void multipleRay(const QelTraceScene& scene, Ray& ray, float* dist, float* const uv[2], int* index,
                 ptrdiff_t i, ptrdiff_t stride, int layers) {
    setInverses(ray, kNearestTinyInverse);
    float tnear = 0.0f, tfar = dist[i];
    if (!clipByBox(ray, scene.bounds, tnear, tfar)) return;
    tfar += kFarSlack;
    int32_t recent[8];
    int32_t previous = -1;
    for (int h = 0;; ++h) {
        const ptrdiff_t at = i + h * stride;
        const int checked = h % 8;
        float best = dist[at];
        float u = 0.0f, v = 0.0f;
        const int32_t found = nearestInTree(scene, ray, tnear, tfar, kLayerSplitTolerance, best, u,
                                            v, [&](int32_t tri) {
                                                if (tri == previous) return true;
                                                for (int s = 0; s < checked; ++s)
                                                    if (recent[s] == tri) return true;
                                                return false;
                                            });
        if (found < 0) return;
        dist[at] = best;
        uv[0][at] = u;
        uv[1][at] = v;
        index[at] = found;
        for (int c = 0; c < 3; ++c) ray.o[c] = ray.o[c] + best * ray.d[c];
        if (h >= 1) dist[at] = dist[at] + dist[at - stride];
        recent[checked] = found;
        previous = found;
        if (h + 1 == layers) return;
        index[at + stride] = -1;
        dist[at + stride] = FLT_MAX;
        // The next layer runs from the new origin to where the ray leaves the box.
        tnear = 0.0f;
        float leave = FLT_MAX;
        for (int a = 0; a < 3; ++a) {
            const float t1 = (scene.bounds[a] - ray.o[a]) * ray.inv[a];
            const float t2 = (scene.bounds[a + 3] - ray.o[a]) * ray.inv[a];
            const float out = t1 > t2 ? t1 : t2;
            leave = out < leave ? out : leave;
        }
        tfar = leave + kFarSlack;
    }
}

// multipleRay on kRayLanes rays at once (all lanes go through the same
// layers until they miss; the recent-hits lists fill alike).
void multipleLanes(const QelTraceScene& scene, const float origin[3], const float* const dirs[3],
                   float* dist, float* const uv[2], int* index, ptrdiff_t i, ptrdiff_t stride,
                   int layers) {
    LaneRays r = lanesAt(origin, nullptr, dirs, i);
    setLaneInverses(r, kNearestTinyInverse);
    Vf tnear = Vf::zero(), tfar = Vf::loadu(dist + i);
    Vf live = clipLanes(r, scene.bounds, tnear, tfar);
    tfar = tfar + Vf(kFarSlack);
    Vi recent[8];
    Vi previous(-1);
    const float* bounds = scene.bounds;
    for (int h = 0;; ++h) {
        const ptrdiff_t at = i + h * stride;
        const int checked = h % 8;
        LaneHits hit{Vf::loadu(dist + at), Vf::zero(), Vf::zero(), Vi(-1)};
        byOctant(r, live, [&](int octant, Vf lanes) {
            walkLanes<false>(scene, r, octant, lanes, tnear, tfar, kLayerSplitTolerance, hit,
                             [&](int32_t tri) {
                                 const Vi t(tri);
                                 Vi out = previous == t;
                                 for (int s = 0; s < checked; ++s) out = out | (recent[s] == t);
                                 return simd::asFloat(out);
                             });
        });
        live = live & simd::asFloat(hit.index > Vi(-1));
        if (!anyLane(live)) return;
        const int lanes = laneBits(live);
        const SpilledHits s = spill(hit);
        for (int l = 0; l < kRayLanes; ++l) {
            if (!((lanes >> l) & 1)) continue;
            dist[at + l] = s.best[l];
            uv[0][at + l] = s.u[l];
            uv[1][at + l] = s.v[l];
            index[at + l] = s.index[l];
            if (h >= 1) dist[at + l] = dist[at + l] + dist[at + l - stride];
        }
        for (int c = 0; c < 3; ++c) r.o[c] = select(live, r.o[c] + hit.best * r.d[c], r.o[c]);
        recent[checked] = hit.index;
        previous = hit.index;
        if (h + 1 == layers) return;
        for (int l = 0; l < kRayLanes; ++l) {
            if (!((lanes >> l) & 1)) continue;
            index[at + stride + l] = -1;
            dist[at + stride + l] = FLT_MAX;
        }
        // The next layer runs from the new origin to where the ray leaves the box.
        tnear = Vf::zero();
        Vf leave(FLT_MAX);
        for (int a = 0; a < 3; ++a) {
            const Vf t1 = (Vf(bounds[a]) - r.o[a]) * r.inv[a];
            const Vf t2 = (Vf(bounds[a + 3]) - r.o[a]) * r.inv[a];
            const Vf out = select(t1 > t2, t1, t2);
            leave = select(out < leave, out, leave);
        }
        tfar = leave + Vf(kFarSlack);
    }
}

// anyHitRay on kRayLanes rays at once (mask and index of the lanes whose
// mask is not negative).
void anyHitLanes(const QelTraceScene& scene, const float origin[3], const float* const dirs[3],
                 int* index, int* mask, ptrdiff_t i) {
    storeu(index + i, Vi(-1));
    const Vi m = Vi::loadu(mask + i);
    const Vf live = simd::asFloat(m > Vi(-1));
    if (!anyLane(live)) return;
    LaneRays r = lanesAt(origin, nullptr, dirs, i);
    setLaneInverses(r, kAnyTinyInverse);
    LaneHits h{Vf(1.0f), Vf::zero(), Vf::zero(), Vi(-1)};
    byOctant(r, live, [&](int octant, Vf lanes) {
        walkLanes<true>(scene, r, octant, lanes, Vf::zero(), Vf(kShadowFarEnd), kSplitTolerance,
                        h, [](int32_t) { return Vf::zero(); });
    });
    storeu(mask + i, select(h.index > Vi(-1), Vi(-1), m));
    storeu(index + i, h.index);
}

}  // namespace

int32_t anyHitRay(const QelTraceScene& scene, const Ray& ray) {
    const TriangleAccel* accel = scene.accel;
    const float limit = 1.0f;
    int32_t found = -1;
    TriangleHit hit{};
    walkRay(scene.root, ray, 0.0f, kShadowFarEnd, kSplitTolerance, limit, [&](const KDTreeNode* leaf) {
        return forEachTriangle(leaf, [&](int32_t tri) {
            if (!hitTriangle(accel[tri], ray, limit, hit)) return false;
            found = tri;
            return true;
        });
    });
    return found;
}

}  // namespace qelr::QELR_ISA::raycast

namespace qelr::QELR_ISA::impl {

using namespace qelr::raycast;

QelStatus qelrIntersectEyeSO_32f(const float origin[3], const float* const dirs[3], float* dist,
                                 float* const uv[2], int* index, const QelTraceScene* scene,
                                 QelSize2D size) {
    if (size.height <= 0 || size.width <= 0) return qelOk;
    if (nearestPacketsApply(nullptr, dirs, dist, uv, index, size)) {
        nearestPackets(origin, nullptr, dirs, dist, uv, index, *scene, size.width, size.height);
    } else {
        nearestRays(origin, nullptr, dirs, dist, uv, index, *scene,
                    int64_t{size.width} * size.height);
    }
    return qelOk;
}

QelStatus qelrIntersectMO_32f(const float* const origins[3], const float* const dirs[3],
                              float* dist, float* const uv[2], int* index,
                              const QelTraceScene* scene, QelSize2D size) {
    if (size.height <= 0 || size.width <= 0) return qelOk;
    if (nearestPacketsApply(origins, dirs, dist, uv, index, size)) {
        nearestPackets(nullptr, origins, dirs, dist, uv, index, *scene, size.width, size.height);
    } else {
        nearestRays(nullptr, origins, dirs, dist, uv, index, *scene,
                    int64_t{size.width} * size.height);
    }
    return qelOk;
}

QelStatus qelrIntersectAnySO_32f(const float origin[3], const float* const dirs[3], int* index,
                                 int* mask, QelSize2D size, const QelTraceScene* scene) {
    if (size.height <= 0 || size.width <= 0) return qelOk;
    bool packets =
        size.width % 4 == 0 && size.height % 4 == 0 && aligned16(index) && aligned16(mask);
    for (int c = 0; c < 3; ++c) packets = packets && aligned16(dirs[c]);
    if (packets) {
        anyHitPackets(origin, dirs, index, mask, *scene, size.width, size.height);
        return qelOk;
    }
    const int64_t count = int64_t{size.width} * size.height;
    int64_t i = 0;
    for (; i + kRayLanes <= count; i += kRayLanes) anyHitLanes(*scene, origin, dirs, index, mask, i);
    for (; i < count; ++i) {
        index[i] = -1;
        if (mask[i] < 0) continue;
        Ray ray = rayAt(origin, nullptr, dirs, i);
        setInverses(ray, kAnyTinyInverse);
        const int32_t hit = anyHitRay(*scene, ray);
        if (hit >= 0) {
            mask[i] = -1;
            index[i] = hit;
        }
    }
    return qelOk;
}

// Both paths trace with the one-ray rules (kRayLanes rays at a time): after
// the first layer every ray has its own origin and its own excluded
// triangles, which a shared packet cannot use.
QelStatus qelrIntersectMultipleSO_32f(const float origin[3], const float* const dirs[3],
                                      float* dist, float* const uv[2], int* index,
                                      const QelLayeredSize* size, const QelTraceScene* scene) {
    const int width = size->width, height = size->height, layers = size->layers;
    if (height <= 0) return qelOk;
    const int64_t stride = int64_t{width} * height;
    const int64_t all = stride * layers;
    for (int64_t i = 0; i < all; ++i) index[i] = -1;
    if (width <= 0 || layers < 1) return qelOk;
    int64_t i = 0;
    for (; i + kRayLanes <= stride; i += kRayLanes)
        multipleLanes(*scene, origin, dirs, dist, uv, index, i, stride, layers);
    for (; i < stride; ++i) {
        Ray ray = rayAt(origin, nullptr, dirs, i);
        multipleRay(*scene, ray, dist, uv, index, i, stride, layers);
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
