// Hit points from distances: origin + (direction * eps) * dist, zero for rays
// that hit nothing.
#include <pmmintrin.h>

#include <cstddef>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

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
    __m128 at4(int c, int i) const {
        if constexpr (kMultiOrigin) {
            return _mm_load_ps(pack[c] + i);
        } else {
            return _mm_set1_ps(shared[c]);
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

// Four rays at a time: (direction * dist) * eps + origin, lanes with a negative
// mask cleared; a group without any ray to process does not read dist.
template <bool kMultiOrigin>
void hitPointsVector(const Origins<kMultiOrigin>& o, const float* const dirs[3], const float* dist,
                     const int* mask, float* const points[3], int len, float eps) {
    const __m128 e = _mm_set1_ps(eps);
    for (int i = 0; i < len; i += 4) {
        const __m128 missed = _mm_castsi128_ps(
            _mm_srai_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(mask + i)), 31));
        if (_mm_movemask_ps(missed) == 15) {
            for (int c = 0; c < 3; ++c) _mm_store_ps(points[c] + i, _mm_setzero_ps());
            continue;
        }
        const __m128 t = _mm_load_ps(dist + i);
        __m128 p[3];
        for (int c = 0; c < 3; ++c) {
            const __m128 scaled = _mm_mul_ps(_mm_mul_ps(_mm_load_ps(dirs[c] + i), t), e);
            p[c] = _mm_andnot_ps(missed, _mm_add_ps(scaled, o.at4(c, i)));
        }
        for (int c = 0; c < 3; ++c) _mm_store_ps(points[c] + i, p[c]);
    }
}

template <bool kMultiOrigin>
QelStatus hitPoints(const Origins<kMultiOrigin>& o, const float* const dirs[3], const float* dist,
                    const int* mask, float* const points[3], int len, float eps) {
    if (len < 1) return qelOk;
    bool vector = len % 4 == 0 && core::aligned16(dist) && core::aligned16(mask);
    for (int c = 0; c < 3; ++c) {
        vector = vector && core::aligned16(dirs[c]) && core::aligned16(points[c]);
        if constexpr (kMultiOrigin) vector = vector && core::aligned16(o.pack[c]);
    }
    if (vector) {
        hitPointsVector(o, dirs, dist, mask, points, len, eps);
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
