// Per-ray shading operations on ray packs: dot products, facing normals,
// light attenuation, shadow and reflection rays, masked multiply and divide,
// and colour accumulation. Each has a one-ray path and a vector path for
// whole groups of four rays on 16-byte aligned planes; the vector path runs
// at the native width with a group of four to finish, and every lane does
// the one-ray arithmetic, in the same order.
#include <cmath>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "simd/simd.h"

namespace qelr::QELR_ISA::impl {

namespace {

using core::allAligned16;
using core::planesAligned16;
using simd::F32;
using simd::I32;
using simd::load16;
using simd::store16;

// Below this |cos| (one tenth of a degree in radians) a light grazes the
// surface and is treated as lying in its plane.
constexpr float kGrazingLimit = 0.0017453292f;

// Results of a division by zero.
constexpr uint32_t kPlusInf = 0x7F800000u;
constexpr uint32_t kMinusInf = 0xFF800000u;
constexpr uint32_t kNegativeNaN = 0xFFC00000u;

// Runs longer than this stream their planes from memory rather than from
// the caches.
constexpr int kStreamingRays = 1 << 19;

// The vector path runs on whole groups of four rays.
bool wholeGroups(int len) { return len % 4 == 0; }

template <class F>
using IntLanes = I32<F::kLanes>;

// All-ones lanes where mask[i] >= 0 (the ray is processed).
template <class F>
F processed(const int* mask) {
    return asFloat(load16<IntLanes<F>>(mask) > IntLanes<F>(-1));
}

template <class F>
void loadPack(const float* const planes[3], int i, F out[3]) {
    for (int c = 0; c < 3; ++c) out[c] = load16<F>(planes[c] + i);
}

// (a.x * b.x + a.y * b.y) + a.z * b.z, as the one-ray path sums.
template <class F>
F dot3(const F a[3], const F b[3]) {
    return (a[0] * b[0] + a[1] * b[1]) + a[2] * b[2];
}

// Result of the division of x by a zero divisor.
float divideByZero(float x) {
    if (x > 0.0f) return simd::floatFromBits(kPlusInf);
    if (x < 0.0f) return simd::floatFromBits(kMinusInf);
    return simd::floatFromBits(kNegativeNaN);  // x is zero or NaN
}

}  // namespace

QelStatus qelrDot_32f_P3C1M(const float* const a[3], const float* const b[3], const int* mask,
                            float* dst, int len) {
    if (a == nullptr || b == nullptr || mask == nullptr || dst == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(a) && planesAligned16(b) && allAligned16(mask, dst)) {
        const auto step = [&](auto lanes, int i) {
            using F = decltype(lanes);
            F va[3], vb[3];
            loadPack(a, i, va);
            loadPack(b, i, vb);
            store16(dst + i, processed<F>(mask + i) & dot3(va, vb));
        };
        // Eight planes read for almost no arithmetic: when they stream from
        // memory, four-lane loads keep up better than eight-lane ones.
        if (len > kStreamingRays) {
            for (int i = 0; i < len; i += 4) step(F32<4>::zero(), i);
        } else {
            simd::forGroupsOfFour(len, step);
        }
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        dst[i] = mask[i] < 0 ? 0.0f : a[0][i] * b[0][i] + a[1][i] * b[1][i] + a[2][i] * b[2][i];
    }
    return qelOk;
}

QelStatus qelrDotChangeNorm_32f_IM(const float* const a[3], const int* mask,
                                   float* const normals[3], float* dst, int len) {
    if (a == nullptr || mask == nullptr || normals == nullptr || dst == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(a) && planesAligned16(normals) &&
        allAligned16(mask, dst)) {
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            F va[3], vn[3];
            loadPack(a, i, va);
            loadPack(normals, i, vn);
            const F active = processed<F>(mask + i);
            const F p = dot3(va, vn);
            const F s = select(p > F(0.0f), F(-1.0f), F(1.0f));
            for (int c = 0; c < 3; ++c) store16(normals[c] + i, select(active, vn[c] * s, vn[c]));
            store16(dst + i, active & (p * s));
        });
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) {
            dst[i] = 0.0f;
            continue;
        }
        const float p = a[0][i] * normals[0][i] + a[1][i] * normals[1][i] + a[2][i] * normals[2][i];
        const float s = p > 0.0f ? -1.0f : 1.0f;
        for (int c = 0; c < 3; ++c) normals[c][i] = normals[c][i] * s;
        dst[i] = p * s;
    }
    return qelOk;
}

QelStatus qelrDistAttenuationSO_32f_M(const float light[3], const float* const points[3],
                                      const int* mask, float* dst, int len) {
    if (points == nullptr || mask == nullptr || dst == nullptr) return qelErrNullPointer;
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(points) && allAligned16(mask, dst)) {
        const float l[3] = {light[0], light[1], light[2]};
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            F d[3];
            loadPack(points, i, d);
            for (int c = 0; c < 3; ++c) d[c] = d[c] - F(l[c]);
            const F q = dot3(d, d);
            const F one(1.0f);
            const F atten = select(q >= one, sqrt(q), one);
            store16(dst + i, select(processed<F>(mask + i), atten, one));
        });
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) {
            dst[i] = 1.0f;
            continue;
        }
        const float dx = points[0][i] - light[0];
        const float dy = points[1][i] - light[1];
        const float dz = points[2][i] - light[2];
        const float q = dx * dx + dy * dy + dz * dz;
        dst[i] = q >= 1.0f ? std::sqrt(q) : 1.0f;
    }
    return qelOk;
}

QelStatus qelrCastShadowSO_32f(const float light[3], const float* sign,
                               const float* const normals[3], const float* const points[3],
                               int* mask, float* cosine, float* const shadowDirs[3], int len) {
    if (sign == nullptr || normals == nullptr || points == nullptr || mask == nullptr ||
        cosine == nullptr || shadowDirs == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(normals) && planesAligned16(points) &&
        planesAligned16(shadowDirs) && allAligned16(sign, mask, cosine)) {
        const float l[3] = {light[0], light[1], light[2]};
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            using I = IntLanes<F>;
            F v[3], n[3];
            loadPack(points, i, v);
            loadPack(normals, i, n);
            for (int c = 0; c < 3; ++c) v[c] = v[c] - F(l[c]);
            F p = dot3(v, n);
            p = andNot(abs(p) < F(kGrazingLimit), p);
            const I m = load16<I>(mask + i);
            const F lit = asFloat(m > I(-1)) & (load16<F>(sign + i) * p > F(0.0f));
            store16(cosine + i, lit & abs(p));
            for (int c = 0; c < 3; ++c) store16(shadowDirs[c] + i, lit & v[c]);
            // Every lane that is not lit leaves with -1, an input of -1 or any
            // other negative value alike.
            store16(mask + i, select(asInt(lit), m, I(-1)));
        });
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        float v[3] = {};
        float p = 0.0f;
        const bool active = mask[i] >= 0;
        if (active) {
            for (int c = 0; c < 3; ++c) v[c] = points[c][i] - light[c];
            p = v[0] * normals[0][i] + v[1] * normals[1][i] + v[2] * normals[2][i];
            if (std::fabs(p) < kGrazingLimit) p = 0.0f;
        }
        cosine[i] = 0.0f;
        for (int c = 0; c < 3; ++c) shadowDirs[c][i] = 0.0f;
        if (!active) continue;
        if (sign[i] * p > 0.0f) {
            cosine[i] = std::fabs(p);
            for (int c = 0; c < 3; ++c) shadowDirs[c][i] = v[c];
        } else {
            mask[i] = -1;
        }
    }
    return qelOk;
}

QelStatus qelrCastReflectionRay_32f(const float* const incident[3], const int* mask,
                                    const float* const normals[3], float* const reflected[3],
                                    int len) {
    if (incident == nullptr || mask == nullptr || normals == nullptr || reflected == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(incident) && planesAligned16(normals) &&
        planesAligned16(reflected) && allAligned16(mask)) {
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            F d[3], n[3];
            loadPack(incident, i, d);
            loadPack(normals, i, n);
            const F active = processed<F>(mask + i);
            const F p = (n[1] * d[1] + n[2] * d[2]) + n[0] * d[0];
            const F twice = p + p;
            for (int c = 0; c < 3; ++c) store16(reflected[c] + i, active & (d[c] - n[c] * twice));
        });
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) {
            for (int c = 0; c < 3; ++c) reflected[c][i] = 0.0f;
            continue;
        }
        float d[3], n[3];
        for (int c = 0; c < 3; ++c) {
            d[c] = incident[c][i];
            n[c] = normals[c][i];
        }
        const float p = n[1] * d[1] + n[2] * d[2] + n[0] * d[0];
        for (int c = 0; c < 3; ++c) reflected[c][i] = d[c] - n[c] * (p + p);
    }
    return qelOk;
}

namespace {

// srcDst = (srcDst * src) * (1 or 0): masked rays are cleared by the product,
// so an infinite or NaN operand there gives NaN.
void mulMasked(const float* src, const int* mask, float* srcDst, int len, bool vector) {
    if (vector) {
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            const F factor = processed<F>(mask + i) & F(1.0f);
            store16(srcDst + i, (load16<F>(srcDst + i) * load16<F>(src + i)) * factor);
        });
        return;
    }
    for (int i = 0; i < len; ++i) {
        const float factor = mask[i] < 0 ? 0.0f : 1.0f;
        srcDst[i] = srcDst[i] * src[i] * factor;
    }
}

}  // namespace

QelStatus qelrMul_32f_C1IM(const float* src, const int* mask, float* srcDst, int len) {
    if (len < 1) return qelOk;
    mulMasked(src, mask, srcDst, len, wholeGroups(len) && allAligned16(src, mask, srcDst));
    return qelOk;
}

QelStatus qelrMul_32f_C1P3IM(const float* src, const int* mask, float* const srcDst[3], int len) {
    if (src == nullptr || mask == nullptr || srcDst == nullptr) return qelErrNullPointer;
    if (len < 1) return qelOk;
    const bool vector = wholeGroups(len) && allAligned16(src, mask) && planesAligned16(srcDst);
    for (int c = 0; c < 3; ++c) mulMasked(src, mask, srcDst[c], len, vector);
    return qelOk;
}

QelStatus qelrDiv_32f_C1IM(const float* src, const int* mask, float* srcDst, int len) {
    if (src == nullptr || srcDst == nullptr) return qelErrNullPointer;
    if (len < 1) return qelOk;
    bool dividedByZero = false;
    if (wholeGroups(len) && allAligned16(src, mask, srcDst)) {
        int zeroLanes = 0;
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            const F zero = F::zero();
            const F active = processed<F>(mask + i);
            const F x = load16<F>(srcDst + i);
            const F divisor = load16<F>(src + i);
            const F byZero = active & (divisor == zero);
            const F special = select(x > zero, F(simd::floatFromBits(kPlusInf)),
                                     select(x < zero, F(simd::floatFromBits(kMinusInf)),
                                            F(simd::floatFromBits(kNegativeNaN))));
            store16(srcDst + i, active & select(byZero, special, x / divisor));
            zeroLanes |= laneBits(byZero);
        });
        dividedByZero = zeroLanes != 0;
    } else {
        for (int i = 0; i < len; ++i) {
            if (mask[i] < 0) {
                srcDst[i] = 0.0f;
            } else if (src[i] == 0.0f) {
                srcDst[i] = divideByZero(srcDst[i]);
                dividedByZero = true;
            } else {
                srcDst[i] = srcDst[i] / src[i];
            }
        }
    }
    return dividedByZero ? qelWarnDivisionByZero : qelOk;
}

QelStatus qelrAddMulMul_32f_AC1P3IM(const float colour[3], const float* scale,
                                    const float* const src[3], const int* mask,
                                    float* const srcDst[3], int len) {
    if (scale == nullptr || src == nullptr || mask == nullptr || srcDst == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(src) && planesAligned16(srcDst) &&
        allAligned16(scale, mask)) {
        const float col[3] = {colour[0], colour[1], colour[2]};
        simd::forGroupsOfFour(len, [&](auto lanes, int i) {
            using F = decltype(lanes);
            const F active = processed<F>(mask + i);
            const F s = load16<F>(scale + i);
            for (int c = 0; c < 3; ++c) {
                const F acc = load16<F>(srcDst[c] + i);
                const F sum = acc + (F(col[c]) * load16<F>(src[c] + i)) * s;
                store16(srcDst[c] + i, select(active, sum, acc));
            }
        });
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) continue;
        for (int c = 0; c < 3; ++c) srcDst[c][i] = srcDst[c][i] + colour[c] * src[c][i] * scale[i];
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
