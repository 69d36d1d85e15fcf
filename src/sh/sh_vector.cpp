// Small single-precision array operations used by the transforms.
#include "sh/sh_vector.h"

#include <pmmintrin.h>

#include <cstring>

#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

namespace {

constexpr int kPartialSumsFrom = 16;

QelStatus checkArrays(const void* a, const void* b, int len) {
    if (a == nullptr || b == nullptr) return qelErrNullPointer;
    if (len <= 0) return qelErrSize;
    return qelOk;
}

// y[k] = x[k] * v, four elements at a time (each the same product as one at a
// time); x and y may be the same array.
void multiply(const float* x, float* y, int len, float v) {
    const __m128 scale = _mm_set1_ps(v);
    int k = 0;
    for (; k + 4 <= len; k += 4) _mm_storeu_ps(y + k, _mm_mul_ps(_mm_loadu_ps(x + k), scale));
    for (; k < len; ++k) y[k] = x[k] * v;
}

}  // namespace

QelStatus zeroFill(float* x, int len) {
    if (QelStatus st = checkArrays(x, x, len); st != qelOk) return st;
    std::memset(x, 0, sizeof(float) * static_cast<size_t>(len));
    return qelOk;
}

QelStatus scaleInPlace(float* x, int len, float v) {
    if (QelStatus st = checkArrays(x, x, len); st != qelOk) return st;
    if (v == 1.0f) return qelOk;
    if (v == 0.0f) return zeroFill(x, len);
    multiply(x, x, len, v);
    return qelOk;
}

QelStatus scaleCopy(const float* x, float* y, int len, float v) {
    if (QelStatus st = checkArrays(x, y, len); st != qelOk) return st;
    if (v == 1.0f) {
        std::memcpy(y, x, sizeof(float) * static_cast<size_t>(len));
        return qelOk;
    }
    if (v == 0.0f) return zeroFill(y, len);
    multiply(x, y, len, v);
    return qelOk;
}

QelStatus addInPlace(const float* x, float* y, int len) {
    if (QelStatus st = checkArrays(x, y, len); st != qelOk) return st;
    int k = 0;
    for (; k + 4 <= len; k += 4)
        _mm_storeu_ps(y + k, _mm_add_ps(_mm_loadu_ps(y + k), _mm_loadu_ps(x + k)));
    for (; k < len; ++k) y[k] += x[k];
    return qelOk;
}

QelStatus dotProduct(const float* x, const float* y, int len, float* result) {
    if (QelStatus st = checkArrays(x, y, len); st != qelOk) return st;
    if (result == nullptr) return qelErrNullPointer;
    float sum = 0.0f;
    int k = 0;
    if (len >= kPartialSumsFrom) {
        __m128 acc = _mm_setzero_ps();
        for (; k + 4 <= len; k += 4)
            acc = _mm_add_ps(acc, _mm_mul_ps(_mm_loadu_ps(x + k), _mm_loadu_ps(y + k)));
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, acc);
        sum = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    }
    for (; k < len; ++k) sum += x[k] * y[k];
    *result = sum;
    return qelOk;
}

}  // namespace qelr::QELR_ISA::sh
