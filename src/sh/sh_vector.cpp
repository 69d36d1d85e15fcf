// Small single-precision array operations used by the transforms.
#include "sh/sh_vector.h"

#include <cstring>

#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

namespace {

constexpr int kPartialSumsFrom = 16;

QelStatus checkArrays(const void* a, const void* b, int len) {
    if (a == nullptr || b == nullptr) return qelErrNullPointer;
    if (len <= 0) return qelErrSize;
    return qelOk;
}

using simd::F32;
using simd::Vf;

// y[k] = x[k] * v, a vector at a time (each the same product as one at a
// time); x and y may be the same array.
void multiply(const float* x, float* y, int len, float v) {
    int k = 0;
    for (; k + Vf::kLanes <= len; k += Vf::kLanes) simd::storeu(y + k, Vf::loadu(x + k) * Vf(v));
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
    for (; k + Vf::kLanes <= len; k += Vf::kLanes)
        simd::storeu(y + k, Vf::loadu(y + k) + Vf::loadu(x + k));
    for (; k < len; ++k) y[k] += x[k];
    return qelOk;
}

QelStatus dotProduct(const float* x, const float* y, int len, float* result) {
    if (QelStatus st = checkArrays(x, y, len); st != qelOk) return st;
    if (result == nullptr) return qelErrNullPointer;
    float sum = 0.0f;
    int k = 0;
    if (len >= kPartialSumsFrom) {
        // Four partial sums on every target: their order is part of the result.
        F32<4> acc = F32<4>::zero();
        for (; k + 4 <= len; k += 4) acc = acc + F32<4>::loadu(x + k) * F32<4>::loadu(y + k);
        sum = simd::sumLanes(acc);
    }
    for (; k < len; ++k) sum += x[k] * y[k];
    *result = sum;
    return qelOk;
}

void canonicalNaNs(float* x, int len) {
    int k = 0;
    for (; k + Vf::kLanes <= len; k += Vf::kLanes)
        simd::storeu(x + k, simd::canonicalNaN(Vf::loadu(x + k)));
    for (; k < len; ++k) x[k] = simd::canonicalNaN(x[k]);
}

}  // namespace qelr::QELR_ISA::sh
