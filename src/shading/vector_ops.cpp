// Per-ray shading operations on ray packs: dot products, facing normals,
// light attenuation, shadow and reflection rays, masked multiply and divide,
// and colour accumulation. Each has a one-ray path and a four-rays path for
// whole groups of four on 16-byte aligned planes.
#include <pmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "core/impl.h"
#include "shading/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

using shading::absLanes;
using shading::activeLanes;
using shading::allAligned16;
using shading::planesAligned16;
using shading::select;
using shading::wholeGroups;

// Below this |cos| (one tenth of a degree in radians) a light grazes the
// surface and is treated as lying in its plane.
constexpr float kGrazingLimit = 0.0017453292f;

float floatFromBits(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

const float kPlusInf = floatFromBits(0x7F800000u);
const float kMinusInf = floatFromBits(0xFF800000u);
const float kNegativeNaN = floatFromBits(0xFFC00000u);

__m128 load(const float* p) { return _mm_load_ps(p); }
void store(float* p, __m128 v) { _mm_store_ps(p, v); }

__m128 dot3(const __m128 a[3], const __m128 b[3]) {
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(a[0], b[0]), _mm_mul_ps(a[1], b[1])),
                      _mm_mul_ps(a[2], b[2]));
}

void loadPack(const float* const planes[3], int i, __m128 out[3]) {
    for (int c = 0; c < 3; ++c) out[c] = load(planes[c] + i);
}

// Result of the division of x by a zero divisor.
float divideByZero(float x) {
    if (x > 0.0f) return kPlusInf;
    if (x < 0.0f) return kMinusInf;
    return kNegativeNaN;  // x is zero or NaN
}

}  // namespace

QelStatus qelrDot_32f_P3C1M(const float* const a[3], const float* const b[3], const int* mask,
                            float* dst, int len) {
    if (a == nullptr || b == nullptr || mask == nullptr || dst == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    if (wholeGroups(len) && planesAligned16(a) && planesAligned16(b) && allAligned16(mask, dst)) {
        for (int i = 0; i < len; i += 4) {
            __m128 va[3], vb[3];
            loadPack(a, i, va);
            loadPack(b, i, vb);
            store(dst + i, _mm_and_ps(activeLanes(mask + i), dot3(va, vb)));
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
        const __m128 plusOne = _mm_set1_ps(1.0f);
        const __m128 minusOne = _mm_set1_ps(-1.0f);
        for (int i = 0; i < len; i += 4) {
            __m128 va[3], vn[3];
            loadPack(a, i, va);
            loadPack(normals, i, vn);
            const __m128 active = activeLanes(mask + i);
            const __m128 p = dot3(va, vn);
            const __m128 s = select(_mm_cmpgt_ps(p, _mm_setzero_ps()), minusOne, plusOne);
            for (int c = 0; c < 3; ++c) {
                store(normals[c] + i, select(active, _mm_mul_ps(vn[c], s), vn[c]));
            }
            store(dst + i, _mm_and_ps(active, _mm_mul_ps(p, s)));
        }
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
        const __m128 one = _mm_set1_ps(1.0f);
        __m128 l[3];
        for (int c = 0; c < 3; ++c) l[c] = _mm_set1_ps(light[c]);
        for (int i = 0; i < len; i += 4) {
            __m128 d[3];
            loadPack(points, i, d);
            for (int c = 0; c < 3; ++c) d[c] = _mm_sub_ps(d[c], l[c]);
            const __m128 q = dot3(d, d);
            const __m128 atten = select(_mm_cmpge_ps(q, one), _mm_sqrt_ps(q), one);
            store(dst + i, select(activeLanes(mask + i), atten, one));
        }
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
        const __m128 limit = _mm_set1_ps(kGrazingLimit);
        __m128 l[3];
        for (int c = 0; c < 3; ++c) l[c] = _mm_set1_ps(light[c]);
        for (int i = 0; i < len; i += 4) {
            __m128 v[3], n[3];
            loadPack(points, i, v);
            loadPack(normals, i, n);
            for (int c = 0; c < 3; ++c) v[c] = _mm_sub_ps(v[c], l[c]);
            __m128 p = dot3(v, n);
            p = _mm_andnot_ps(_mm_cmplt_ps(absLanes(p), limit), p);
            const __m128 lit =
                _mm_and_ps(activeLanes(mask + i),
                           _mm_cmpgt_ps(_mm_mul_ps(load(sign + i), p), _mm_setzero_ps()));
            store(cosine + i, _mm_and_ps(lit, absLanes(p)));
            for (int c = 0; c < 3; ++c) store(shadowDirs[c] + i, _mm_and_ps(lit, v[c]));
            // Every lane that is not lit leaves with -1, an input of -1 or any
            // other negative value alike.
            __m128i* m = reinterpret_cast<__m128i*>(mask + i);
            const __m128i litBits = _mm_castps_si128(lit);
            _mm_store_si128(m, _mm_or_si128(_mm_and_si128(litBits, _mm_load_si128(m)),
                                            _mm_andnot_si128(litBits, _mm_set1_epi32(-1))));
        }
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
        for (int i = 0; i < len; i += 4) {
            __m128 d[3], n[3];
            loadPack(incident, i, d);
            loadPack(normals, i, n);
            const __m128 active = activeLanes(mask + i);
            const __m128 p = _mm_add_ps(_mm_add_ps(_mm_mul_ps(n[1], d[1]), _mm_mul_ps(n[2], d[2])),
                                        _mm_mul_ps(n[0], d[0]));
            const __m128 twice = _mm_add_ps(p, p);
            for (int c = 0; c < 3; ++c) {
                store(reflected[c] + i,
                      _mm_and_ps(active, _mm_sub_ps(d[c], _mm_mul_ps(n[c], twice))));
            }
        }
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
        const __m128 one = _mm_set1_ps(1.0f);
        for (int i = 0; i < len; i += 4) {
            const __m128 factor = _mm_and_ps(activeLanes(mask + i), one);
            store(srcDst + i, _mm_mul_ps(_mm_mul_ps(load(srcDst + i), load(src + i)), factor));
        }
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
        const __m128 zero = _mm_setzero_ps();
        const __m128 plusInf = _mm_set1_ps(kPlusInf);
        const __m128 minusInf = _mm_set1_ps(kMinusInf);
        const __m128 negativeNaN = _mm_set1_ps(kNegativeNaN);
        int zeroLanes = 0;
        for (int i = 0; i < len; i += 4) {
            const __m128 active = activeLanes(mask + i);
            const __m128 x = load(srcDst + i);
            const __m128 divisor = load(src + i);
            const __m128 byZero = _mm_and_ps(active, _mm_cmpeq_ps(divisor, zero));
            const __m128 special = select(_mm_cmpgt_ps(x, zero), plusInf,
                                          select(_mm_cmplt_ps(x, zero), minusInf, negativeNaN));
            const __m128 q = select(byZero, special, _mm_div_ps(x, divisor));
            store(srcDst + i, _mm_and_ps(active, q));
            zeroLanes |= _mm_movemask_ps(byZero);
        }
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
        __m128 col[3];
        for (int c = 0; c < 3; ++c) col[c] = _mm_set1_ps(colour[c]);
        for (int i = 0; i < len; i += 4) {
            const __m128 active = activeLanes(mask + i);
            const __m128 s = load(scale + i);
            for (int c = 0; c < 3; ++c) {
                const __m128 acc = load(srcDst[c] + i);
                const __m128 sum =
                    _mm_add_ps(acc, _mm_mul_ps(_mm_mul_ps(col[c], load(src[c] + i)), s));
                store(srcDst[c] + i, select(active, sum, acc));
            }
        }
        return qelOk;
    }
    for (int i = 0; i < len; ++i) {
        if (mask[i] < 0) continue;
        for (int c = 0; c < 3; ++c) srcDst[c][i] = srcDst[c][i] + colour[c] * src[c][i] * scale[i];
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
