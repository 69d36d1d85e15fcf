// Small single-precision array operations used by the transforms. Each checks
// its arguments (null pointer -8, length not above 0 -6), which the
// transforms never trip.
#pragma once

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

// x[k] *= v; v exactly 1 leaves x as it is, v exactly 0 (either sign) zeroes it.
QelStatus scaleInPlace(float* x, int len, float v);

// y[k] = x[k] * v; v exactly 1 copies, v exactly 0 (either sign) writes zeros.
QelStatus scaleCopy(const float* x, float* y, int len, float v);

// y[k] += x[k].
QelStatus addInPlace(const float* x, float* y, int len);

// *result = sum of x[k] * y[k] in single precision. From 16 elements on, the
// products of the largest multiple of four elements go to four partial sums
// (element k to sum k mod 4, in order), which are combined as
// (s0 + s1) + (s2 + s3); the remaining elements are then added in order.
// Shorter arrays are summed in order.
QelStatus dotProduct(const float* x, const float* y, int len, float* result);

// x[k] = 0.
QelStatus zeroFill(float* x, int len);

// Every NaN among x[0 .. len-1] replaced by the processor's default NaN (see
// simd::canonicalNaN). Which NaN payload a sum or product of two NaNs carries
// depends on operand order; the transforms canonicalise what they write.
void canonicalNaNs(float* x, int len);

}  // namespace qelr::QELR_ISA::sh
