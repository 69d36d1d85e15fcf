// The shading operations on both paths: small integers make every sum and product exact, so double arithmetic
// gives the expected values; the division, grazing and masking rules by hand.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <cmath>
#include <random>

#include "ray_planes.h"
#include "test_util.h"

using qelr_test::bitsOf;
using qelr_test::Planes;

TEST(ShadingOps, ExactResultsOfSmallIntegers) {
    const float light[3] = {1, -2, 3}, colour[3] = {0.5f, 0.25f, 2.0f};
    std::mt19937 rng(7);
    for (int shift : {0, 1}) {
        Planes r(shift);  // integers in [-8, 8]; one ray in four left out (-1 to -8)
        for (int i = 0; i < 64; ++i) {
            for (int k = 0; k < 12; ++k) r.p(k)[i] = float(int(rng() % 17) - 8);
            r.mask()[i] = rng() % 4 == 0 ? -1 - int(rng() % 8) : i;
        }
        Planes in(r), m(r), s(r), b(r);
        ASSERT_EQ(qelrDot_32f_P3C1M(r.pack(0), r.pack(1), r.mask(), r.p(9), 64), qelOk);
        ASSERT_EQ(qelrDotChangeNorm_32f_IM(r.pack(0), r.mask(), r.pack(1), r.p(10), 64), qelOk);
        ASSERT_EQ(qelrDistAttenuationSO_32f_M(light, r.pack(2), r.mask(), r.p(11), 64), qelOk);
        ASSERT_EQ(qelrMul_32f_C1P3IM(m.p(0), m.mask(), m.pack(1), 64), qelOk);
        ASSERT_EQ(qelrAddMulMul_32f_AC1P3IM(colour, m.p(0), m.pack(2), m.mask(), m.pack(3), 64), 0);
        ASSERT_EQ(qelrCastShadowSO_32f(light, s.p(9), s.pack(0), s.pack(2), s.mask(), s.p(10),
                                       s.pack(1), 64),
                  qelOk);
        ASSERT_EQ(qelrCastReflectionRay_32f(b.pack(0), b.mask(), b.pack(1), b.pack(2), 64), qelOk);
        for (int i = 0; i < 64; ++i) {
            const int mask = in.mask()[i];
            const bool on = mask >= 0;
            double p = 0, q = 0, v[3], pv = 0;  // A.N, |P - L|^2, V = P - L, V.N
            for (int c = 0; c < 3; ++c) {
                p += double(in.p(c)[i]) * in.p(3 + c)[i];
                v[c] = in.p(6 + c)[i] - double(light[c]);
                q += v[c] * v[c];
                pv += v[c] * in.p(c)[i];
            }
            EXPECT_EQ(r.p(9)[i], on ? p : 0.0);
            EXPECT_EQ(r.p(10)[i], on ? -std::fabs(p) : 0.0);  // the normal turned to face A
            EXPECT_EQ(r.p(11)[i], on && q >= 1 ? float(std::sqrt(q)) : 1.0f);
            const bool lit = on && in.p(9)[i] * pv > 0;  // sign and V.N strictly alike
            EXPECT_EQ(s.p(10)[i], lit ? std::fabs(pv) : 0.0);
            // The vector path sends every ray left out with -1; the one-ray path keeps a negative mask.
            EXPECT_EQ(s.mask()[i], lit ? mask : shift == 1 && !on ? mask : -1);
            for (int c = 0; c < 3; ++c) {
                const float x = in.p(3 + c)[i], f = in.p(0)[i], acc = in.p(9 + c)[i];
                EXPECT_EQ(r.p(3 + c)[i], on && p > 0 ? -x : x);
                EXPECT_EQ(b.p(6 + c)[i], on ? in.p(c)[i] - 2 * p * x : 0.0);  // reflected
                EXPECT_EQ(s.p(3 + c)[i], lit ? v[c] : 0.0);
                // Left out: cleared by a factor 0, a zero with the product's sign.
                EXPECT_EQ(bitsOf(m.p(3 + c)[i]),
                          bitsOf(on ? x * f : std::copysign(0.0f, x) * std::copysign(1.0f, f)));
                const double sum = acc + double(colour[c]) * in.p(6 + c)[i] * f;
                EXPECT_EQ(bitsOf(m.p(9 + c)[i]), bitsOf(on ? float(sum) : acc));
            }
        }
    }
}

TEST(ShadingOps, RulesByHand) {
    // x / y; for a zero divisor the sign of x decides: +inf, -inf, -NaN.
    const float x[8] = {6, 1, -7, 2, -2, 0, NAN, 5}, y[8] = {3, 4, 2, 0, -0.0f, 0, 0, 0};
    const uint32_t want[8] = {0x40000000, 0x3E800000, 0xC0600000, 0x7F800000,
                              0xFF800000, 0xFFC00000, 0xFFC00000, 0};  // the last left out
    for (int shift : {0, 1}) {
        Planes r(shift);
        for (int i = 0; i < 8; ++i) r.p(0)[i] = y[i], r.p(1)[i] = x[i], r.mask()[i] = -(i == 7);
        EXPECT_EQ(qelrDiv_32f_C1IM(r.p(0), r.mask(), r.p(1), 8), qelWarnDivisionByZero);
        for (int i = 0; i < 8; ++i) EXPECT_EQ(bitsOf(r.p(1)[i]), want[i]) << i;
        r.p(0)[0] = NAN;  // a NaN divisor and masked zero divisors: no warning
        for (int i = 1; i < 8; ++i) r.mask()[i] = -1;
        EXPECT_EQ(qelrDiv_32f_C1IM(r.p(0), r.mask(), r.p(1), 8), qelOk);
        r.p(0)[1] = INFINITY;  // a masked product with infinity is NaN, not zero
        EXPECT_EQ(qelrMul_32f_C1IM(r.p(0), r.mask(), r.p(1), 4), qelOk);
        EXPECT_TRUE(std::isnan(r.p(1)[0]) && std::isnan(r.p(1)[1]));
        // Lights (2^-10, 0, 0), (2^-9, 0, 0) on the normal (1, 0, 0): below a tenth of a degree the ray is dropped.
        const float light[3] = {1, 2, 3};
        for (int i = 0; i < 4; ++i) {
            r.p(0)[i] = 1 + (i == 0 ? 0x1p-10f : 0x1p-9f), r.p(1)[i] = 2, r.p(2)[i] = 3;
            r.p(3)[i] = r.p(6)[i] = 1, r.p(4)[i] = r.p(5)[i] = 0, r.mask()[i] = 0;
        }
        ASSERT_EQ(qelrCastShadowSO_32f(light, r.p(6), r.pack(1), r.pack(0), r.mask(), r.p(7),
                                       r.pack(3), 4),
                  qelOk);
        EXPECT_EQ(r.mask()[0] + r.mask()[1], -1);
        EXPECT_EQ(r.p(7)[0] + r.p(7)[1], 0x1p-9f);
    }
}

TEST(ShadingOps, DotProductsOfLongRuns) {
    const int n = (1 << 19) + 8;  // long enough to stream: four lanes at a time
    auto* p = static_cast<float*>(qelMalloc(int(sizeof(float)) * 7 * n));
    auto* mask = static_cast<int*>(qelMalloc(int(sizeof(int)) * n));
    for (int i = 0; i < 6 * n; ++i) p[i] = float(i % 13 - 6);
    for (int i = 0; i < n; ++i) mask[i] = i % 5 - 1;
    const float* a[3] = {p, p + n, p + 2 * n};
    const float* b[3] = {p + 3 * n, p + 4 * n, p + 5 * n};
    ASSERT_EQ(qelrDot_32f_P3C1M(a, b, mask, p + 6 * n, n), qelOk);
    int wrong = 0;
    for (int i = 0; i < n; ++i) {
        double d = 0;
        for (int c = 0; c < 3; ++c) d += double(a[c][i]) * b[c][i];
        wrong += p[6 * n + i] != (mask[i] < 0 ? 0.0 : d);
    }
    EXPECT_EQ(wrong, 0);
    qelFree(p);
    qelFree(mask);
}
