// Hit points from distances: origin + (direction * eps) * dist, zero for rays
// that hit nothing.
#include <cstddef>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "simd/simd.h"

namespace qelr::QELR_ISA::impl {

namespace {

using simd::F32;
using simd::I32;
using simd::load16;
using simd::store16;

// The origin of ray i: one shared point (kMultiOrigin false) or element i of a pack.
template <bool kMultiOrigin>
struct Origins {
    const float* shared;
    const float* const* pack;
    float at(int c, int i) const {
        if constexpr (kMultiOrigin) {
            return pack[c][i];
        } else {
            return shared[c];
        }
    }
    template <class F>
    F lanes(int c, int i) const {
        if constexpr (kMultiOrigin) {
            return load16<F>(pack[c] + i);
        } else {
            return F(shared[c]);
        }
    }
};

template <bool kMultiOrigin>
void hitPointsScalar(const Origins<kMultiOrigin>& o, const float* const dirs[3], const float* dist,
                     const int* mask, float* const points[3], int len, float eps) {
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) {
            for (int c = 0; c < 3; ++c) points[c][i] = 0.0f;
            continue;
        }
        const float t = dist[i];
        float p[3];
        for (int c = 0; c < 3; ++c) p[c] = dirs[c][i] * eps * t + o.at(c, i);
        for (int c = 0; c < 3; ++c) points[c][i] = p[c];
    }
}

// Rays i to i + lanes - 1 of the vector path: (direction * dist) * eps +
// origin, lanes with a negative mask cleared; a group of four rays without
// any ray to process writes zeros and does not read dist.
template <class F, bool kMultiOrigin>
void hitPointsLanes(const Origins<kMultiOrigin>& o, const float* const dirs[3], const float* dist,
                    const int* mask, float* const points[3], int i, float eps) {
    using I = I32<F::kLanes>;
    const F missed = asFloat(simd::shiftRightArith<31>(load16<I>(mask + i)));
    if (allLanes(missed)) {
        for (int c = 0; c < 3; ++c) store16(points[c] + i, F::zero());
        return;
    }
    if constexpr (F::kLanes > 4) {
        const int bits = laneBits(missed);
        if ((bits & 15) == 15 || (bits >> 4 & 15) == 15) {
            for (int g = 0; g < F::kLanes; g += 4) {
                hitPointsLanes<F32<4>>(o, dirs, dist, mask, points, i + g, eps);
            }
            return;
        }
    }
    const F t = load16<F>(dist + i);
    F p[3];
    for (int c = 0; c < 3; ++c) {
        const F scaled = (load16<F>(dirs[c] + i) * t) * F(eps);
        p[c] = andNot(missed, scaled + o.template lanes<F>(c, i));
    }
    for (int c = 0; c < 3; ++c) store16(points[c] + i, p[c]);
}

template <bool kMultiOrigin>
QelStatus hitPoints(const Origins<kMultiOrigin>& o, const float* const dirs[3], const float* dist,
                    const int* mask, float* const points[3], int len, float eps) {
    if (len < 1) return qelOk;
    bool vector = len % 4 == 0 && core::allAligned16(dist, mask) && core::planesAligned16(dirs) &&
                  core::planesAligned16(points);
    if constexpr (kMultiOrigin) vector = vector && core::planesAligned16(o.pack);
    if (vector) {
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            hitPointsLanes<decltype(lanes)>(o, dirs, dist, mask, points, i, eps);
        });
    } else {
        hitPointsScalar(o, dirs, dist, mask, points, len, eps);
    }
    return qelOk;
}

}  // namespace

QelStatus qelrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const dirs[3],
                                    const float* dist, const int* mask, float* const points[3],
                                    int len, float eps) {
    if (dist == nullptr || mask == nullptr || dirs == nullptr || points == nullptr)
        return qelErrNullPointer;
    return hitPoints(Origins<false>{origin, nullptr}, dirs, dist, mask, points, len, eps);
}

QelStatus qelrHitPoint3DEpsM0_32f_M(const float* const origins[3], const float* const dirs[3],
                                    const float* dist, const int* mask, float* const points[3],
                                    int len, float eps) {
    if (dist == nullptr || mask == nullptr || dirs == nullptr || points == nullptr ||
        origins == nullptr)
        return qelErrNullPointer;
    return hitPoints(Origins<true>{nullptr, origins}, dirs, dist, mask, points, len, eps);
}

}  // namespace qelr::QELR_ISA::impl
