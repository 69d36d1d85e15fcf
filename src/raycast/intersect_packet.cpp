// Packet paths of the intersection functions: the pack is walked in tiles of
// 4 x 4 rays; rays of one direction octant are traced together through one
// shared traversal with an interval per lane: a whole tile (sixteen rays) when
// all its rays to trace share one octant, else by octant and row, four at a
// time. Triangle tests use the directions as given; the traversal uses the
// inverses of directions whose tiny components are made a small positive
// value, and the octant is taken from those same components.
//
// A packet is a set of rows of four rays held in lane vectors of type V: one
// row per vector on four lanes, two rows per vector on eight (the AVX2
// target). Which rays make up a packet does not depend on the width, and the
// traversal decides by what any lane of the packet needs, so every ray is
// tested against the same triangles in the same order with the same lane
// arithmetic whatever the width.
#include <cstddef>
#include <cstdint>

#include "raycast/intersect_paths.h"
#include "raycast/kd_walk.h"
#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::raycast {

namespace {

using simd::F32;
using simd::I32;
using Row = F32<4>;
using RowI = I32<4>;

// A direction component of magnitude up to kTinyComponent is replaced by this
// value before its inverse is taken: 100 float epsilons (0x37480000), whose
// inverse is the one-ray any-hit form's kAnyTinyInverse. The octant follows it.
constexpr float kPacketTinyComponent = 1.1920929e-5f;

// The lane vector that holds a full tile as two groups: eight lanes (two rows)
// where the target has them.
using Wide = F32<simd::kLanes>;

// The direction as the traversal sees it: tiny components made +kPacketTinyComponent.
template <class V>
QELR_INLINE V traversalDirection(V d) {
    return select(abs(d) <= V(kTinyComponent), V(kPacketTinyComponent), d);
}

// Rows per vector of V, and the integer vector of as many lanes.
template <class V>
constexpr int kRowsPer = V::kLanes / 4;
template <class V>
using IntOf = I32<V::kLanes>;

// The rows at[0..kRowsPer) of a 16-byte aligned plane as one vector.
template <class V>
QELR_INLINE V loadRows(const float* plane, const ptrdiff_t* at) {
#if QELR_SIMD_LANES == 8
    if constexpr (V::kLanes == 8)
        return simd::combine(Row::load(plane + at[0]), Row::load(plane + at[1]));
    else
#endif
        return V::load(plane + at[0]);
}

// Row h (0 or 1) of a vector.
template <class V>
QELR_INLINE auto rowOf(V v, int h) {
#if QELR_SIMD_LANES == 8
    if constexpr (V::kLanes == 8)
        return h == 0 ? simd::lowHalf(v) : simd::highHalf(v);
    else
#endif
        return (void)h, v;
}

// Vector mask of the lanes whose bits are set in the four-bit lane sets of
// rows lanes[0..kRowsPer).
template <class V>
QELR_INLINE V laneMask(const int* lanes) {
    auto row = [](int bits) {
        return simd::asFloat(
            RowI::of(-(bits & 1), -((bits >> 1) & 1), -((bits >> 2) & 1), -((bits >> 3) & 1)));
    };
#if QELR_SIMD_LANES == 8
    if constexpr (V::kLanes == 8)
        return simd::combine(row(lanes[0]), row(lanes[1]));
    else
#endif
        return row(lanes[0]);
}

// Sign bits per axis of one row of a tile, as four-bit lane sets.
struct RowSigns {
    int x, y, z;
};

inline RowSigns rowSigns(const float* const dirs[3], ptrdiff_t at) {
    return {laneBits(traversalDirection(Row::load(dirs[0] + at))),
            laneBits(traversalDirection(Row::load(dirs[1] + at))),
            laneBits(traversalDirection(Row::load(dirs[2] + at)))};
}

// The lanes of a row whose octant code (1 X negative, 2 Y, 4 Z) is `code`.
inline int lanesOfOctant(int code, const RowSigns& s) {
    const int x = code & 1 ? s.x : ~s.x;
    const int y = code & 2 ? s.y : ~s.y;
    const int z = code & 4 ? s.z : ~s.z;
    return x & y & z & 15;
}

// N groups of rays (kRowsPer<V> tile rows each). Triangle tests use the
// directions as given; traversal uses the inverses of the adjusted directions.
template <class V, int N, bool kOwnOrigins>
struct Packet {
    V o[4][N];
    V d[4][N];
    V inv[4][N];
    float sharedOrigin[4];
    int nearSide[4];  // per axis, the child that the octant enters first
};

// Loads group g from the rows at[g * kRowsPer ...].
template <class V, int N, bool kOwnOrigins>
void loadPacket(Packet<V, N, kOwnOrigins>& p, const float* origin, const float* const* origins,
                const float* const dirs[3], const ptrdiff_t* at, int octant) {
    for (int g = 0; g < N; ++g) {
        const ptrdiff_t* rows = at + g * kRowsPer<V>;
        for (int c = 0; c < 3; ++c) {
            const V d = loadRows<V>(dirs[c], rows);
            p.d[c][g] = d;
            p.inv[c][g] = simd::reciprocalRefined(traversalDirection(d));
            if constexpr (kOwnOrigins) {
                p.o[c][g] = loadRows<V>(origins[c], rows);
            } else {
                p.o[c][g] = V(origin[c]);
            }
        }
        p.o[3][g] = p.d[3][g] = p.inv[3][g] = V::zero();
    }
    if constexpr (!kOwnOrigins) {
        for (int c = 0; c < 3; ++c) p.sharedOrigin[c] = origin[c];
        p.sharedOrigin[3] = 0.0f;
    }
    for (int a = 0; a < 4; ++a) p.nearSide[a] = (octant >> a) & 1;
}

// Per-lane results: best distance (-1 for lanes that take no part or, in the
// any-hit form, are finished), barycentrics and triangle index (-1 for none).
template <class V, int N>
struct Hits {
    V best[N];
    V u[N], v[N];
    IntOf<V> index[N];
};

// A lane takes part in the traversal while its interval is not empty:
// tnear <= tfar. Lanes left out get tfar = -infinity.
constexpr float kNoInterval = -__builtin_inff();

// The ray-triangle test on the lanes of group g; returns the lanes with
// 0 < t < best. The inside tests are those of the one-ray test, in its
// order of operations; t, B and C use the refined reciprocal of den. With a
// shared origin, a, b and num are the same for all lanes and come precomputed.
template <class V, int N, bool kOwnOrigins, bool kNeedBarycentrics>
QELR_INLINE V testGroup(const TriangleAccel& r, uint32_t kv, uint32_t ku, uint32_t k,
                        const Packet<V, N, kOwnOrigins>& p, int g, V a, V b, V num, V best, V& t,
                        V& bOut, V& cOut) {
    const V nu(r.nu), nv(r.nv);
    const V du = p.d[ku][g], dv = p.d[kv][g];
    const V den = (nu * du + nv * dv) + p.d[k][g];
    if constexpr (kOwnOrigins) {
        a = V(r.pu) - p.o[ku][g];
        b = V(r.pv) - p.o[kv][g];
        num = ((V(r.pk) + nu * a) + nv * b) - p.o[k][g];
    }
    const V q1 = du * num - a * den;
    const V q2 = dv * num - b * den;
    const V bb = V(r.e1) * q1 - V(r.e0) * q2;
    const V cc = V(r.e2) * q2 - V(r.e3) * q1;
    const V rest = (den - bb) - cc;
    const V zero = V::zero();
    const V inside = ((rest * bb) >= zero) & ((bb * cc) >= zero) & ((rest * cc) >= zero);
    if (!anyLane(inside)) return zero;
    const V rden = simd::reciprocalRefined(den);
    t = num * rden;
    if constexpr (kNeedBarycentrics) {
        bOut = bb * rden;
        cOut = cc * rden;
    }
    return inside & (t > zero) & (t < best);
}

// Tests one triangle on the packet's lanes and records the accepted ones. In
// the any-hit form an accepted lane is finished (best -1, interval emptied);
// returns true when no lane is left.
// open[g] holds the lane bits of group g with a non-empty interval (kept up
// to date here when an any-hit lane ends).
template <class V, int N, bool kOwnOrigins, bool kAnyHit>
inline bool testTriangle(const TriangleAccel& r, int32_t tri, const Packet<V, N, kOwnOrigins>& p,
                         const V* tnear, V* tfar, Hits<V, N>& h, int* openLanes) {
    const uint32_t axes = r.axes;
    if (axes == 0) return false;  // degenerate triangle
    const uint32_t kv = axes & 3, ku = (axes >> 2) & 3, k = (axes >> 4) & 3;
    V a = V::zero(), b = a, num = a;
    if constexpr (!kOwnOrigins) {
        const float sa = r.pu - p.sharedOrigin[ku], sb = r.pv - p.sharedOrigin[kv];
        const float snum = r.pk + r.nu * sa + r.nv * sb - p.sharedOrigin[k];
        a = V(sa);
        b = V(sb);
        num = V(snum);
    }
    constexpr int R = kRowsPer<V>;
    int left = 0;
    for (int g = 0; g < N; ++g) {
        // A row of a packet of several rows takes the triangle only while one
        // of its lanes has a non-empty interval (on eight lanes, per half).
        const int open = openLanes[g];
        if (N * R > 1 && open == 0) {
            if constexpr (kAnyHit) left |= laneBits(h.best[g] > V::zero());
            continue;
        }
        V t = V::zero(), bb = t, cc = t;
        V accept = testGroup<V, N, kOwnOrigins, !kAnyHit>(r, kv, ku, k, p, g, a, b, num,
                                                          h.best[g], t, bb, cc);
        if constexpr (R == 2) {
            if ((open & 15) == 0 || (open >> 4) == 0) {
                const int rows[2] = {open & 15 ? 15 : 0, open >> 4 ? 15 : 0};
                accept = accept & laneMask<V>(rows);
            }
        }
        if (anyLane(accept)) {
            h.index[g] = select(simd::asInt(accept), IntOf<V>(tri), h.index[g]);
            if constexpr (kAnyHit) {
                h.best[g] = select(accept, V(-1.0f), h.best[g]);
                tfar[g] = select(accept, V(kNoInterval), tfar[g]);
                openLanes[g] = laneBits(tnear[g] <= tfar[g]);
            } else {
                h.best[g] = select(accept, t, h.best[g]);
                h.u[g] = select(accept, bb, h.u[g]);
                h.v[g] = select(accept, cc, h.v[g]);
            }
        }
        if constexpr (kAnyHit) left |= laneBits(h.best[g] > V::zero());
    }
    if constexpr (kAnyHit) return left == 0;
    return false;
}

// Shared front-to-back traversal of a packet over the lanes' intervals
// [tnear, tfar]; the near child is the one that the packet's octant enters
// first. At an inner node with split distance ts, a lane needs the near child
// when tnear <= min(ts, tfar) and the far child when max(tnear, ts) <= tfar.
// When no lane needs the near child only the far child is visited; otherwise
// the near child is, with tfar = min(ts, tfar), and the far child is pushed
// with [max(tnear, ts), tfar] when some lane needs it. After a leaf, entries
// are popped with their far ends limited to the lanes' best distances until
// one has a lane with a non-empty interval.
template <class V, int N, bool kOwnOrigins, bool kAnyHit>
void tracePacket(const QelTraceScene& scene, const Packet<V, N, kOwnOrigins>& p, V* tnear, V* tfar,
                 Hits<V, N>& h) {
    struct Entry {
        V tnear[N], tfar[N];
        const KDTreeNode* node;
    };
    Entry stack[kStackDepth + 1];  // the slot above the top is written before the push counts
    int sp = 0;
    const KDTreeNode* node = scene.root;
    const TriangleAccel* accel = scene.accel;
    for (;;) {
        while (!isLeaf(node)) {
            const int a = splitAxisOf(node);
            const float split = splitPositionOf(node);
            const KDTreeNode* kids = childrenOf(node);
            V nearEnd[N], farStart[N];
            V needNear = V::zero(), needFar = V::zero();
            for (int g = 0; g < N; ++g) {
                V ts;
                if constexpr (kOwnOrigins) {
                    ts = (V(split) - p.o[a][g]) * p.inv[a][g];
                } else {
                    ts = V(split - p.sharedOrigin[a]) * p.inv[a][g];
                }
                nearEnd[g] = min(ts, tfar[g]);
                farStart[g] = max(tnear[g], ts);
                needNear = needNear | (tnear[g] <= nearEnd[g]);
                needFar = needFar | (farStart[g] <= tfar[g]);
            }
            const int nearSide = p.nearSide[a];
            if (!anyLane(needNear)) {
                node = kids + (nearSide ^ 1);
                continue;
            }
            // The far child is pushed only when some lane needs it; the entry is
            // written either way, which saves a branch.
            Entry& e = stack[sp];
            e.node = kids + (nearSide ^ 1);
            for (int g = 0; g < N; ++g) {
                e.tnear[g] = farStart[g];
                e.tfar[g] = tfar[g];
                tfar[g] = nearEnd[g];
            }
            sp += anyLane(needFar);
            node = kids + nearSide;
        }
        int open[N];
        for (int g = 0; g < N; ++g) open[g] = laneBits(tnear[g] <= tfar[g]);
        const bool finished = forEachTriangle(node, [&](int32_t tri) {
            return testTriangle<V, N, kOwnOrigins, kAnyHit>(accel[tri], tri, p, tnear, tfar, h,
                                                            open);
        });
        if (finished) return;
        for (;;) {
            if (sp == 0) return;
            const Entry& e = stack[--sp];
            V open = V::zero();
            for (int g = 0; g < N; ++g) {
                tnear[g] = e.tnear[g];
                tfar[g] = min(e.tfar[g], h.best[g]);
                open = open | (tnear[g] <= tfar[g]);
            }
            if (anyLane(open)) {
                node = e.node;
                break;
            }
        }
    }
}

// Nearest hit of the rows at[0 .. N * kRowsPer) of a tile traced as one
// packet: the lanes in lanes[r] of the row at element at[r], all of octant
// `code`.
template <class V, int N, bool kOwnOrigins>
void nearestRows(const float* origin, const float* const* origins, const float* const dirs[3],
                 float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                 const ptrdiff_t* at, const int* lanes, int code) {
    constexpr int R = kRowsPer<V>;
    Packet<V, N, kOwnOrigins> p;
    loadPacket(p, origin, origins, dirs, at, code);
    const float* bounds = scene.bounds;
    V tnear[N], tfar[N], maxDist[N];
    Hits<V, N> h;
    int any = 0;
    for (int g = 0; g < N; ++g) {
        maxDist[g] = loadRows<V>(dist, at + g * R);
        tnear[g] = V::zero();
        tfar[g] = maxDist[g];
        for (int a = 0; a < 3; ++a) {
            const V t1 = (V(bounds[a + 3]) - p.o[a][g]) * p.inv[a][g];
            const V t2 = (V(bounds[a]) - p.o[a][g]) * p.inv[a][g];
            tnear[g] = max(tnear[g], min(t1, t2));
            tfar[g] = min(tfar[g], max(t1, t2));
        }
        const V live = laneMask<V>(lanes + g * R) & (tnear[g] < tfar[g]);
        any |= laneBits(live);
        tfar[g] = select(live, tfar[g] + V(kFarSlack), V(kNoInterval));
        h.best[g] = select(live, maxDist[g], V(-1.0f));
        h.u[g] = h.v[g] = V::zero();
        h.index[g] = IntOf<V>(-1);
    }
    if (any == 0) return;
    tracePacket<V, N, kOwnOrigins, false>(scene, p, tnear, tfar, h);
    for (int r = 0; r < N * R; ++r) {
        const int g = r / R, half = r % R;
        const RowI idx = rowOf(h.index[g], half);
        const RowI hitI = idx > RowI(-1);
        if (!anyLane(hitI)) continue;
        const Row hit = simd::asFloat(hitI);
        const ptrdiff_t e = at[r];
        store(dist + e, select(hit, rowOf(h.best[g], half), rowOf(maxDist[g], half)));
        store(uv[0] + e, select(hit, rowOf(h.u[g], half), Row::load(uv[0] + e)));
        store(uv[1] + e, select(hit, rowOf(h.v[g], half), Row::load(uv[1] + e)));
        store(index + e, select(hitI, idx, RowI::load(index + e)));
    }
}

// The octant code of the first lane of a row set, and whether every lane in
// `lanes` shares it.
inline bool oneOctant(const RowSigns* signs, const int* lanes, int& code) {
    int first = 0;
    while (lanes[first] == 0) ++first;
    const int lane = __builtin_ctz(lanes[first]);
    const RowSigns& s = signs[first];
    code = ((s.x >> lane) & 1) | ((s.y >> lane) & 1) << 1 | ((s.z >> lane) & 1) << 2;
    for (int r = 0; r < 4; ++r)
        if ((lanesOfOctant(code, signs[r]) & lanes[r]) != lanes[r]) return false;
    return true;
}

template <bool kOwnOrigins>
void nearestTiles(const float* origin, const float* const* origins, const float* const dirs[3],
                  float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                  int width, int height) {
    const ptrdiff_t count = static_cast<ptrdiff_t>(width) * height;
    for (ptrdiff_t i = 0; i < count; ++i) index[i] = -1;
    for (int ty = 0; ty < height; ty += 4) {
        for (int tx = 0; tx < width; tx += 4) {
            const ptrdiff_t base = static_cast<ptrdiff_t>(ty) * width + tx;
            Row positive = Row::zero();
            for (int r = 0; r < 4; ++r)
                positive = positive | (Row::load(dist + base + r * width) > Row::zero());
            if (!anyLane(positive)) continue;
            ptrdiff_t rows[4];
            RowSigns signs[4];
            for (int r = 0; r < 4; ++r) {
                rows[r] = base + r * width;
                signs[r] = rowSigns(dirs, rows[r]);
            }
            // A tile of one octant is traced as one sixteen-ray packet: the rows
            // share most of their way through the tree. Otherwise, by octant
            // and row in packets of up to four.
            static constexpr int kAll[4] = {15, 15, 15, 15};
            int code;
            if (oneOctant(signs, kAll, code)) {
                nearestRows<Wide, 4 / kRowsPer<Wide>, kOwnOrigins>(
                    origin, origins, dirs, dist, uv, index, scene, rows, kAll, code);
                continue;
            }
            for (code = 0; code < 8; ++code) {
                for (int r = 0; r < 4; ++r) {
                    const int lanes = lanesOfOctant(code, signs[r]);
                    if (lanes != 0)
                        nearestRows<Row, 1, kOwnOrigins>(origin, origins, dirs, dist, uv, index,
                                                         scene, &rows[r], &lanes, code);
                }
            }
        }
    }
}

// Any-hit of the rows at[0 .. N * kRowsPer) of a tile (lanes[r] of row r, all
// of octant `code`); rows from `rows` on are padding that takes no part.
template <class V, int N>
void anyHitRows(const float* origin, const float* const dirs[3], int* index, int* mask,
                const QelTraceScene& scene, const ptrdiff_t* at, const int* lanes, int code,
                int rows) {
    constexpr int R = kRowsPer<V>;
    Packet<V, N, false> p;
    loadPacket(p, origin, nullptr, dirs, at, code);
    V tnear[N], tfar[N];
    Hits<V, N> h;
    for (int g = 0; g < N; ++g) {
        const V live = laneMask<V>(lanes + g * R);
        tnear[g] = V::zero();
        tfar[g] = select(live, V(kShadowFarEnd), V(kNoInterval));
        h.best[g] = select(live, V(1.0f), V(-1.0f));
        h.index[g] = IntOf<V>(-1);
    }
    tracePacket<V, N, false, true>(scene, p, tnear, tfar, h);
    for (int r = 0; r < rows; ++r) {
        const RowI idx = rowOf(h.index[r / R], r % R);
        const RowI hit = idx > RowI(-1);
        if (!anyLane(hit)) continue;
        int* m = mask + at[r];
        store(m, hit | RowI::load(m));
        store(index + at[r], select(hit, idx, RowI::load(index + at[r])));
    }
}

// The cached occluder on the lanes of one row: returns the lanes it hits with
// 0 < t < 1, after marking them (mask -1, index the occluder).
int occluderRow(const float* origin, const float* const dirs[3], int* index, int* mask,
                const QelTraceScene& scene, ptrdiff_t at, int lanes, int32_t occluder) {
    Packet<Row, 1, false> p;
    loadPacket(p, origin, nullptr, dirs, &at, 0);
    const Row live = laneMask<Row>(&lanes);
    const Row tnear = Row::zero();
    Row tfar = select(live, Row(kShadowFarEnd), Row(kNoInterval));
    Hits<Row, 1> h;
    h.best[0] = select(live, Row(1.0f), Row(-1.0f));
    h.index[0] = RowI(-1);
    int open = laneBits(tnear <= tfar);
    testTriangle<Row, 1, false, true>(scene.accel[occluder], occluder, p, &tnear, &tfar, h, &open);
    const RowI hit = h.index[0] > RowI(-1);
    const int hitLanes = laneBits(hit);
    if (hitLanes == 0) return 0;
    store(mask + at, hit | RowI::load(mask + at));
    store(index + at, select(hit, h.index[0], RowI::load(index + at)));
    return hitLanes;
}

// Any-hit of n rows of a tile in one packet. On eight lanes, three rows take
// two groups, the fourth row a copy of the third with no lane taking part.
void anyHitTile(const float* origin, const float* const dirs[3], int* index, int* mask,
                const QelTraceScene& scene, ptrdiff_t* at, int* lanes, int n, int code) {
    if constexpr (kRowsPer<Wide> == 2) {
        if (n == 1) {
            anyHitRows<Row, 1>(origin, dirs, index, mask, scene, at, lanes, code, 1);
        } else if (n == 2) {
            anyHitRows<Wide, 1>(origin, dirs, index, mask, scene, at, lanes, code, 2);
        } else {
            if (n == 3) {
                at[3] = at[2];
                lanes[3] = 0;
            }
            anyHitRows<Wide, 2>(origin, dirs, index, mask, scene, at, lanes, code, n);
        }
        return;
    }
    switch (n) {
        case 1:
            anyHitRows<Row, 1>(origin, dirs, index, mask, scene, at, lanes, code, 1);
            break;
        case 2:
            anyHitRows<Row, 2>(origin, dirs, index, mask, scene, at, lanes, code, 2);
            break;
        case 3:
            anyHitRows<Row, 3>(origin, dirs, index, mask, scene, at, lanes, code, 3);
            break;
        default:
            anyHitRows<Row, 4>(origin, dirs, index, mask, scene, at, lanes, code, 4);
            break;
    }
}

}  // namespace

void nearestPackets(const float* origin, const float* const* origins, const float* const dirs[3],
                    float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                    int width, int height) {
    if (origins != nullptr) {
        nearestTiles<true>(nullptr, origins, dirs, dist, uv, index, scene, width, height);
    } else {
        nearestTiles<false>(origin, nullptr, dirs, dist, uv, index, scene, width, height);
    }
}

void anyHitPackets(const float origin[3], const float* const dirs[3], int* index, int* mask,
                   const QelTraceScene& scene, int width, int height) {
    // The probe: the first ray still to trace among the first four of the fourth
    // row; what it hits is tried first on every tile.
    int32_t occluder = -1;
    for (int i = 0; i < 4; ++i) {
        const ptrdiff_t at = 3 * static_cast<ptrdiff_t>(width) + i;
        if (mask[at] < 0) continue;
        Ray ray{};
        for (int c = 0; c < 3; ++c) {
            ray.o[c] = origin[c];
            ray.d[c] = dirs[c][at];
        }
        setInverses(ray, kAnyTinyInverse);
        occluder = anyHitRay(scene, ray);
        break;
    }
    for (int ty = 0; ty < height; ty += 4) {
        for (int tx = 0; tx < width; tx += 4) {
            const ptrdiff_t base = static_cast<ptrdiff_t>(ty) * width + tx;
            ptrdiff_t rows[4];
            int lanes[4];
            int any = 0;
            for (int r = 0; r < 4; ++r) {
                rows[r] = base + r * width;
                store(index + rows[r], RowI(-1));
                lanes[r] = ~laneBits(RowI::load(mask + rows[r])) & 15;
                any |= lanes[r];
            }
            if (any == 0) continue;
            if (occluder >= 0) {
                any = 0;
                for (int r = 0; r < 4; ++r) {
                    if (lanes[r] == 0) continue;
                    lanes[r] &=
                        ~occluderRow(origin, dirs, index, mask, scene, rows[r], lanes[r], occluder);
                    any |= lanes[r];
                }
                if (any == 0) continue;
            }
            RowSigns signs[4];
            for (int r = 0; r < 4; ++r) signs[r] = rowSigns(dirs, rows[r]);
            int code;
            if (oneOctant(signs, lanes, code)) {
                // One packet of the rows that still have rays to trace.
                ptrdiff_t liveRows[4] = {};
                int liveLanes[4] = {}, n = 0;
                for (int r = 0; r < 4; ++r) {
                    if (lanes[r] == 0) continue;
                    liveRows[n] = rows[r];
                    liveLanes[n++] = lanes[r];
                }
                anyHitTile(origin, dirs, index, mask, scene, liveRows, liveLanes, n, code);
                continue;
            }
            for (int c = 0; c < 8; ++c) {
                for (int r = 0; r < 4; ++r) {
                    const int sel = lanesOfOctant(c, signs[r]) & lanes[r];
                    if (sel != 0)
                        anyHitRows<Row, 1>(origin, dirs, index, mask, scene, &rows[r], &sel, c, 1);
                }
            }
        }
    }
}

}  // namespace qelr::QELR_ISA::raycast
