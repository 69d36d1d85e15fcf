// Packet paths of the intersection functions: the pack is walked in tiles of
// 4 x 4 rays; rays of one direction octant are traced together through one
// shared traversal with an interval per lane: a whole tile (sixteen rays) when
// all its rays to trace share one octant, else by octant and row, four at a
// time. Triangle tests use the directions as given; the traversal uses the
// inverses of directions whose tiny components are made a small positive
// value, and the octant is taken from those same components.
#include <pmmintrin.h>

#include <cstddef>
#include <cstdint>

#include "raycast/intersect_paths.h"
#include "raycast/kd_walk.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::raycast {

namespace {

// A direction component of magnitude up to kTinyComponent is replaced by this
// value before its inverse is taken (0x37480000); the octant follows it.
constexpr float kPacketTinyComponent = 1.1920929e-5f;

// Approximate reciprocal refined by one Newton-Raphson step: 2r - r^2 x.
inline __m128 refinedReciprocal(__m128 x) {
    const __m128 r = _mm_rcp_ps(x);
    return _mm_sub_ps(_mm_add_ps(r, r), _mm_mul_ps(_mm_mul_ps(r, r), x));
}

inline __m128 select(__m128 mask, __m128 a, __m128 b) {
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

inline __m128i selecti(__m128 mask, __m128i a, __m128i b) {
    const __m128i m = _mm_castps_si128(mask);
    return _mm_or_si128(_mm_and_si128(m, a), _mm_andnot_si128(m, b));
}

// The direction as the traversal sees it: tiny components made +kPacketTinyComponent.
inline __m128 traversalDirection(__m128 d) {
    const __m128 magnitude = _mm_and_ps(d, _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff)));
    const __m128 tiny = _mm_cmple_ps(magnitude, _mm_set1_ps(kTinyComponent));
    return select(tiny, _mm_set1_ps(kPacketTinyComponent), d);
}

// Vector mask of the lanes whose bits are set in a four-bit lane set.
inline __m128 laneMask(int bits) {
    return _mm_castsi128_ps(
        _mm_setr_epi32(-(bits & 1), -((bits >> 1) & 1), -((bits >> 2) & 1), -((bits >> 3) & 1)));
}

// Sign bits per axis of one row of a tile, as four-bit lane sets.
struct RowSigns {
    int x, y, z;
};

inline RowSigns rowSigns(const float* const dirs[3], ptrdiff_t at) {
    return {_mm_movemask_ps(traversalDirection(_mm_load_ps(dirs[0] + at))),
            _mm_movemask_ps(traversalDirection(_mm_load_ps(dirs[1] + at))),
            _mm_movemask_ps(traversalDirection(_mm_load_ps(dirs[2] + at)))};
}

// The lanes of a row whose octant code (1 X negative, 2 Y, 4 Z) is `code`.
inline int lanesOfOctant(int code, const RowSigns& s) {
    const int x = code & 1 ? s.x : ~s.x;
    const int y = code & 2 ? s.y : ~s.y;
    const int z = code & 4 ? s.z : ~s.z;
    return x & y & z & 15;
}

// N groups of four rays (one group per tile row). Triangle tests use the
// directions as given; traversal uses the inverses of the adjusted directions.
template <int N, bool kOwnOrigins>
struct Packet {
    __m128 o[4][N];
    __m128 d[4][N];
    __m128 inv[4][N];
    float sharedOrigin[4];
    int octant;
    int nearSide[4];  // per axis, the child that the octant enters first
};

template <int N, bool kOwnOrigins>
void loadPacket(Packet<N, kOwnOrigins>& p, const float* origin, const float* const* origins,
                const float* const dirs[3], const ptrdiff_t* at, int octant) {
    for (int g = 0; g < N; ++g) {
        for (int c = 0; c < 3; ++c) {
            const __m128 d = _mm_load_ps(dirs[c] + at[g]);
            p.d[c][g] = d;
            p.inv[c][g] = refinedReciprocal(traversalDirection(d));
            if constexpr (kOwnOrigins) {
                p.o[c][g] = _mm_load_ps(origins[c] + at[g]);
            } else {
                p.o[c][g] = _mm_set1_ps(origin[c]);
            }
        }
        p.o[3][g] = p.d[3][g] = p.inv[3][g] = _mm_setzero_ps();
    }
    if constexpr (!kOwnOrigins) {
        for (int c = 0; c < 3; ++c) p.sharedOrigin[c] = origin[c];
        p.sharedOrigin[3] = 0.0f;
    }
    p.octant = octant;
    for (int a = 0; a < 4; ++a) p.nearSide[a] = (octant >> a) & 1;
}

// Per-lane results: best distance (-1 for lanes that take no part or, in the
// any-hit form, are finished), barycentrics and triangle index (-1 for none).
template <int N>
struct Hits {
    __m128 best[N];
    __m128 u[N], v[N];
    __m128i index[N];
};

// A lane takes part in the traversal while its interval is not empty:
// tnear <= tfar. Lanes left out get tfar = -infinity.
inline __m128 noInterval() { return _mm_set1_ps(-__builtin_inff()); }

// A triangle record with every field broadcast to four lanes.
struct Record4 {
    __m128 nu, nv, pk, pu, pv, e0, e1, e2, e3;
    explicit Record4(const TriangleAccel& r)
        : nu(_mm_set1_ps(r.nu)),
          nv(_mm_set1_ps(r.nv)),
          pk(_mm_set1_ps(r.pk)),
          pu(_mm_set1_ps(r.pu)),
          pv(_mm_set1_ps(r.pv)),
          e0(_mm_set1_ps(r.e0)),
          e1(_mm_set1_ps(r.e1)),
          e2(_mm_set1_ps(r.e2)),
          e3(_mm_set1_ps(r.e3)) {}
};

// The ray-triangle test on the lanes of group g; returns the lanes with
// 0 < t < best. The inside tests are those of the one-ray test, in its
// order of operations; t, B and C use the refined reciprocal of den. With a
// shared origin, a, b and num are the same for all lanes and come precomputed.
template <int N, bool kOwnOrigins, bool kNeedBarycentrics>
inline __m128 testGroup(const Record4& r, uint32_t kv, uint32_t ku, uint32_t k,
                        const Packet<N, kOwnOrigins>& p, int g, __m128 sharedA, __m128 sharedB,
                        __m128 sharedNum, __m128 best, __m128& t, __m128& bOut, __m128& cOut) {
    const __m128 du = p.d[ku][g], dv = p.d[kv][g];
    const __m128 den =
        _mm_add_ps(_mm_add_ps(_mm_mul_ps(r.nu, du), _mm_mul_ps(r.nv, dv)), p.d[k][g]);
    __m128 a = sharedA, b = sharedB, num = sharedNum;
    if constexpr (kOwnOrigins) {
        a = _mm_sub_ps(r.pu, p.o[ku][g]);
        b = _mm_sub_ps(r.pv, p.o[kv][g]);
        num = _mm_sub_ps(_mm_add_ps(_mm_add_ps(r.pk, _mm_mul_ps(r.nu, a)), _mm_mul_ps(r.nv, b)),
                         p.o[k][g]);
    }
    const __m128 q1 = _mm_sub_ps(_mm_mul_ps(du, num), _mm_mul_ps(a, den));
    const __m128 q2 = _mm_sub_ps(_mm_mul_ps(dv, num), _mm_mul_ps(b, den));
    const __m128 bb = _mm_sub_ps(_mm_mul_ps(r.e1, q1), _mm_mul_ps(r.e0, q2));
    const __m128 cc = _mm_sub_ps(_mm_mul_ps(r.e2, q2), _mm_mul_ps(r.e3, q1));
    const __m128 rest = _mm_sub_ps(_mm_sub_ps(den, bb), cc);
    const __m128 zero = _mm_setzero_ps();
    __m128 inside = _mm_cmpge_ps(_mm_mul_ps(rest, bb), zero);
    inside = _mm_and_ps(inside, _mm_cmpge_ps(_mm_mul_ps(bb, cc), zero));
    inside = _mm_and_ps(inside, _mm_cmpge_ps(_mm_mul_ps(rest, cc), zero));
    if (_mm_movemask_ps(inside) == 0) return zero;
    const __m128 rden = refinedReciprocal(den);
    t = _mm_mul_ps(num, rden);
    if constexpr (kNeedBarycentrics) {
        bOut = _mm_mul_ps(bb, rden);
        cOut = _mm_mul_ps(cc, rden);
    }
    return _mm_and_ps(inside, _mm_and_ps(_mm_cmpgt_ps(t, zero), _mm_cmplt_ps(t, best)));
}

// Tests one triangle on the packet's lanes and records the accepted ones. In
// the any-hit form an accepted lane is finished (best -1, interval emptied);
// returns true when no lane is left.
template <int N, bool kOwnOrigins, bool kAnyHit>
inline bool testTriangle(const TriangleAccel& r, int32_t tri, const Packet<N, kOwnOrigins>& p,
                         const __m128* tnear, __m128* tfar, Hits<N>& h) {
    const uint32_t axes = r.axes;
    if (axes == 0) return false;  // degenerate triangle
    const uint32_t kv = axes & 3, ku = (axes >> 2) & 3, k = (axes >> 4) & 3;
    __m128 a = _mm_setzero_ps(), b = a, num = a;
    if constexpr (!kOwnOrigins) {
        const float sa = r.pu - p.sharedOrigin[ku], sb = r.pv - p.sharedOrigin[kv];
        const float snum = r.pk + r.nu * sa + r.nv * sb - p.sharedOrigin[k];
        a = _mm_set1_ps(sa);
        b = _mm_set1_ps(sb);
        num = _mm_set1_ps(snum);
    }
    const __m128i triangle = _mm_set1_epi32(tri);
    const Record4 r4(r);
    int left = 0;
    for (int g = 0; g < N; ++g) {
        if (N > 1 && _mm_movemask_ps(_mm_cmple_ps(tnear[g], tfar[g])) == 0) {
            if constexpr (kAnyHit)
                left |= _mm_movemask_ps(_mm_cmpgt_ps(h.best[g], _mm_setzero_ps()));
            continue;
        }
        __m128 t, bb, cc;
        const __m128 accept = testGroup<N, kOwnOrigins, !kAnyHit>(r4, kv, ku, k, p, g, a, b, num,
                                                                  h.best[g], t, bb, cc);
        if (_mm_movemask_ps(accept) != 0) {
            h.index[g] = selecti(accept, triangle, h.index[g]);
            if constexpr (kAnyHit) {
                h.best[g] = select(accept, _mm_set1_ps(-1.0f), h.best[g]);
                tfar[g] = select(accept, noInterval(), tfar[g]);
            } else {
                h.best[g] = select(accept, t, h.best[g]);
                h.u[g] = select(accept, bb, h.u[g]);
                h.v[g] = select(accept, cc, h.v[g]);
            }
        }
        if constexpr (kAnyHit) left |= _mm_movemask_ps(_mm_cmpgt_ps(h.best[g], _mm_setzero_ps()));
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
template <int N, bool kOwnOrigins, bool kAnyHit>
void tracePacket(const QelTraceScene& scene, const Packet<N, kOwnOrigins>& p, __m128* tnear,
                 __m128* tfar, Hits<N>& h) {
    struct Entry {
        __m128 tnear[N], tfar[N];
        const KDTreeNode* node;
    };
    Entry stack[kStackDepth + 1];  // the slot above the top is written before the push counts
    int sp = 0;
    const KDTreeNode* node = scene.root;
    const TriangleAccel* accel = scene.accel;
    for (;;) {
        while (!isLeaf(node)) {
            const int a = node->word0 & 3;
            const float split = floatBits(node->word1);
            const KDTreeNode* kids = childrenOf(node);
            __m128 nearEnd[N], farStart[N];
            __m128 needNear = _mm_setzero_ps(), needFar = _mm_setzero_ps();
            for (int g = 0; g < N; ++g) {
                __m128 ts;
                if constexpr (kOwnOrigins) {
                    ts = _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(split), p.o[a][g]), p.inv[a][g]);
                } else {
                    ts = _mm_mul_ps(_mm_set1_ps(split - p.sharedOrigin[a]), p.inv[a][g]);
                }
                nearEnd[g] = _mm_min_ps(ts, tfar[g]);
                farStart[g] = _mm_max_ps(tnear[g], ts);
                needNear = _mm_or_ps(needNear, _mm_cmple_ps(tnear[g], nearEnd[g]));
                needFar = _mm_or_ps(needFar, _mm_cmple_ps(farStart[g], tfar[g]));
            }
            const int anyNear = _mm_movemask_ps(needNear), anyFar = _mm_movemask_ps(needFar);
            const int nearSide = p.nearSide[a];
            if (anyNear == 0) {
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
            sp += anyFar != 0;
            node = kids + nearSide;
        }
        const bool finished = forEachTriangle(node, [&](int32_t tri) {
            return testTriangle<N, kOwnOrigins, kAnyHit>(accel[tri], tri, p, tnear, tfar, h);
        });
        if (finished) return;
        for (;;) {
            if (sp == 0) return;
            const Entry& e = stack[--sp];
            __m128 open = _mm_setzero_ps();
            for (int g = 0; g < N; ++g) {
                tnear[g] = e.tnear[g];
                tfar[g] = _mm_min_ps(e.tfar[g], h.best[g]);
                open = _mm_or_ps(open, _mm_cmple_ps(tnear[g], tfar[g]));
            }
            if (_mm_movemask_ps(open) != 0) {
                node = e.node;
                break;
            }
        }
    }
}

// Nearest hit of N rows of a tile traced as one packet: the lanes in
// lanes[g] of the row at element at[g], all of octant `code`.
template <int N, bool kOwnOrigins>
void nearestRows(const float* origin, const float* const* origins, const float* const dirs[3],
                 float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                 const ptrdiff_t* at, const int* lanes, int code) {
    Packet<N, kOwnOrigins> p;
    loadPacket(p, origin, origins, dirs, at, code);
    const float* bounds = scene.bounds;
    __m128 tnear[N], tfar[N], maxDist[N];
    Hits<N> h;
    int any = 0;
    for (int g = 0; g < N; ++g) {
        maxDist[g] = _mm_load_ps(dist + at[g]);
        tnear[g] = _mm_setzero_ps();
        tfar[g] = maxDist[g];
        for (int a = 0; a < 3; ++a) {
            const __m128 t1 =
                _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(bounds[a + 3]), p.o[a][g]), p.inv[a][g]);
            const __m128 t2 =
                _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(bounds[a]), p.o[a][g]), p.inv[a][g]);
            tnear[g] = _mm_max_ps(tnear[g], _mm_min_ps(t1, t2));
            tfar[g] = _mm_min_ps(tfar[g], _mm_max_ps(t1, t2));
        }
        const __m128 live = _mm_and_ps(laneMask(lanes[g]), _mm_cmplt_ps(tnear[g], tfar[g]));
        any |= _mm_movemask_ps(live);
        tfar[g] = select(live, _mm_add_ps(tfar[g], _mm_set1_ps(kFarSlack)), noInterval());
        h.best[g] = select(live, maxDist[g], _mm_set1_ps(-1.0f));
        h.u[g] = h.v[g] = _mm_setzero_ps();
        h.index[g] = _mm_set1_epi32(-1);
    }
    if (any == 0) return;
    tracePacket<N, kOwnOrigins, false>(scene, p, tnear, tfar, h);
    for (int g = 0; g < N; ++g) {
        const __m128 hit = _mm_castsi128_ps(_mm_cmpgt_epi32(h.index[g], _mm_set1_epi32(-1)));
        if (_mm_movemask_ps(hit) == 0) continue;
        _mm_store_ps(dist + at[g], select(hit, h.best[g], maxDist[g]));
        _mm_store_ps(uv[0] + at[g], select(hit, h.u[g], _mm_load_ps(uv[0] + at[g])));
        _mm_store_ps(uv[1] + at[g], select(hit, h.v[g], _mm_load_ps(uv[1] + at[g])));
        __m128i* idx = reinterpret_cast<__m128i*>(index + at[g]);
        _mm_store_si128(idx, selecti(hit, h.index[g], _mm_load_si128(idx)));
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
            __m128 positive = _mm_setzero_ps();
            for (int r = 0; r < 4; ++r)
                positive = _mm_or_ps(
                    positive, _mm_cmpgt_ps(_mm_load_ps(dist + base + r * width), _mm_setzero_ps()));
            if (_mm_movemask_ps(positive) == 0) continue;
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
                nearestRows<4, kOwnOrigins>(origin, origins, dirs, dist, uv, index, scene, rows,
                                            kAll, code);
                continue;
            }
            for (code = 0; code < 8; ++code) {
                for (int r = 0; r < 4; ++r) {
                    const int lanes = lanesOfOctant(code, signs[r]);
                    if (lanes != 0)
                        nearestRows<1, kOwnOrigins>(origin, origins, dirs, dist, uv, index, scene,
                                                    &rows[r], &lanes, code);
                }
            }
        }
    }
}

// Any-hit of N rows of a tile (lanes[g] of row g, all of octant `code`).
template <int N>
void anyHitRows(const float* origin, const float* const dirs[3], int* index, int* mask,
                const QelTraceScene& scene, const ptrdiff_t* at, const int* lanes, int code) {
    Packet<N, false> p;
    loadPacket(p, origin, nullptr, dirs, at, code);
    __m128 tnear[N], tfar[N];
    Hits<N> h;
    for (int g = 0; g < N; ++g) {
        const __m128 live = laneMask(lanes[g]);
        tnear[g] = _mm_setzero_ps();
        tfar[g] = select(live, _mm_set1_ps(1.0001f), noInterval());
        h.best[g] = select(live, _mm_set1_ps(1.0f), _mm_set1_ps(-1.0f));
        h.index[g] = _mm_set1_epi32(-1);
    }
    tracePacket<N, false, true>(scene, p, tnear, tfar, h);
    for (int g = 0; g < N; ++g) {
        const __m128i hit = _mm_cmpgt_epi32(h.index[g], _mm_set1_epi32(-1));
        if (_mm_movemask_epi8(hit) == 0) continue;
        __m128i* m = reinterpret_cast<__m128i*>(mask + at[g]);
        _mm_store_si128(m, _mm_or_si128(hit, _mm_load_si128(m)));
        __m128i* idx = reinterpret_cast<__m128i*>(index + at[g]);
        _mm_store_si128(idx, selecti(_mm_castsi128_ps(hit), h.index[g], _mm_load_si128(idx)));
    }
}

// The cached occluder on the lanes of one row: returns the lanes it hits with
// 0 < t < 1, after marking them (mask -1, index the occluder).
int occluderRow(const float* origin, const float* const dirs[3], int* index, int* mask,
                const QelTraceScene& scene, ptrdiff_t at, int lanes, int32_t occluder) {
    Packet<1, false> p;
    loadPacket(p, origin, nullptr, dirs, &at, 0);
    const __m128 live = laneMask(lanes);
    const __m128 tnear = _mm_setzero_ps();
    __m128 tfar = select(live, _mm_set1_ps(1.0001f), noInterval());
    Hits<1> h;
    h.best[0] = select(live, _mm_set1_ps(1.0f), _mm_set1_ps(-1.0f));
    h.index[0] = _mm_set1_epi32(-1);
    testTriangle<1, false, true>(scene.accel[occluder], occluder, p, &tnear, &tfar, h);
    const __m128i hit = _mm_cmpgt_epi32(h.index[0], _mm_set1_epi32(-1));
    const int hitLanes = _mm_movemask_ps(_mm_castsi128_ps(hit));
    if (hitLanes == 0) return 0;
    __m128i* m = reinterpret_cast<__m128i*>(mask + at);
    _mm_store_si128(m, _mm_or_si128(hit, _mm_load_si128(m)));
    __m128i* idx = reinterpret_cast<__m128i*>(index + at);
    _mm_store_si128(idx, selecti(_mm_castsi128_ps(hit), h.index[0], _mm_load_si128(idx)));
    return hitLanes;
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
                _mm_store_si128(reinterpret_cast<__m128i*>(index + rows[r]), _mm_set1_epi32(-1));
                const __m128 m = _mm_load_ps(reinterpret_cast<const float*>(mask + rows[r]));
                lanes[r] = ~_mm_movemask_ps(m) & 15;
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
                ptrdiff_t liveRows[4];
                int liveLanes[4], n = 0;
                for (int r = 0; r < 4; ++r) {
                    if (lanes[r] == 0) continue;
                    liveRows[n] = rows[r];
                    liveLanes[n++] = lanes[r];
                }
                switch (n) {
                    case 1:
                        anyHitRows<1>(origin, dirs, index, mask, scene, liveRows, liveLanes, code);
                        break;
                    case 2:
                        anyHitRows<2>(origin, dirs, index, mask, scene, liveRows, liveLanes, code);
                        break;
                    case 3:
                        anyHitRows<3>(origin, dirs, index, mask, scene, liveRows, liveLanes, code);
                        break;
                    default:
                        anyHitRows<4>(origin, dirs, index, mask, scene, liveRows, liveLanes, code);
                        break;
                }
                continue;
            }
            for (int c = 0; c < 8; ++c) {
                for (int r = 0; r < 4; ++r) {
                    const int sel = lanesOfOctant(c, signs[r]) & lanes[r];
                    if (sel != 0)
                        anyHitRows<1>(origin, dirs, index, mask, scene, &rows[r], &sel, c);
                }
            }
        }
    }
}

}  // namespace qelr::QELR_ISA::raycast
