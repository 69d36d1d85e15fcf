// Eye rays and hit points against exact values: dyadic inputs make every product and sum exact, so every path and
// alignment gives the formula in double. A scale below 1 pulls points toward the origin; misses get zero.
#include <gtest/gtest.h>
#include <qelr.h>

#include <random>

#include "ray_planes.h"
#include "test_util.h"

using qelr_test::Planes;

TEST(CastEye, DyadicCameraGivesTheFormulaOnEveryPath) {
    const float corner[3] = {-0.5f, 0.25f, 1}, sx[3] = {0x1p-6f, 0, 0x1p-8f},
                sy[3] = {0, -0x1p-6f, 0x1p-7f};
    for (int width : {8, 12, 6}) {  // vector path with and without a group of four; one ray
        for (int shift : {0, 4, 1}) {
            Planes r(shift);
            // Block (2, 1) of 16 x 8 pixels starts at column 32, row 8.
            ASSERT_EQ(qelrCastEye_32f(corner, sx, sy, 16, 8, {2, 1}, r.pack(0), {width, 5}), qelOk);
            for (int i = 0; i < 5 * width; ++i)
                for (int c = 0; c < 3; ++c)
                    EXPECT_EQ(r.p(c)[i],
                              corner[c] + sx[c] * (32.0 + i % width) + sy[c] * (8.0 + i / width));
            EXPECT_EQ(r.p(0)[5 * width], 0.0f);
        }
    }
}

TEST(HitPoint, DyadicRaysGiveExactPointsAndMissesZero) {
    std::mt19937 rng(8);
    const float origin[3] = {1.5f, -2, 0.25f};
    for (int shift : {0, 1}) {
        for (float eps : {1.0f, 0.5f, 0.999f}) {
            Planes r(shift);  // directions in pack 0, origins in pack 1, distances in plane 3
            for (int i = 0; i < 64; ++i) {
                for (int k = 0; k < 12; ++k) r.p(k)[i] = float(int(rng() % 33) - 16) / 8;
                r.mask()[i] = i % 3 == 0 || i / 4 == 5 ? -1 : i;
            }
            ASSERT_EQ(
                qelrHitPoint3DEpsS0_32f_M(origin, r.pack(0), r.p(3), r.mask(), r.pack(2), 64, eps),
                0);
            ASSERT_EQ(qelrHitPoint3DEpsM0_32f_M(r.pack(1), r.pack(0), r.p(3), r.mask(), r.pack(3),
                                                64, eps),
                      0);
            for (int i = 0; i < 64; ++i) {
                double gap[2] = {}, full = 0;
                for (int c = 0; c < 3; ++c) {
                    const double d = double(r.p(c)[i]) * r.p(3)[i],
                                 o[2] = {origin[c], r.p(3 + c)[i]};
                    full += d * d;
                    for (int m = 0; m < 2; ++m) {
                        const float got = r.p(6 + 3 * m + c)[i];
                        gap[m] += (got - o[m]) * (got - o[m]);
                        const float want = eps == 0.999f ? got : float(o[m] + d * eps);
                        EXPECT_EQ(qelr_test::bitsOf(got),
                                  r.mask()[i] < 0 ? 0u : qelr_test::bitsOf(want));
                    }
                }
                const bool pulled = gap[0] < full && gap[1] < full;  // toward the origin
                EXPECT_TRUE(eps != 0.999f || r.mask()[i] < 0 || full == 0 || pulled) << i;
            }
        }
    }
}
