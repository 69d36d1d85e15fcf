// Shared volume pieces: kernels, tables and conversions.
#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>

#include "volume/volume_common.h"

using namespace qelr::volume;

TEST(CubicKernels, WeightsAtZeroFraction) {
    float w[4];
    cubicWeights(qelInterpCubicBSpline, 0.0f, w);
    EXPECT_EQ(w[0], static_cast<float>(1.0 / 6.0));
    EXPECT_EQ(w[1], static_cast<float>(2.0 / 3.0));
    EXPECT_EQ(w[2], static_cast<float>(1.0 / 6.0));
    EXPECT_EQ(w[3], 0.0f);
    cubicWeights(qelInterpCubicB05C03, 0.0f, w);
    EXPECT_NEAR(w[0], 1.0 / 12, 1e-7);
    EXPECT_NEAR(w[1], 5.0 / 6, 1e-7);
    EXPECT_NEAR(w[2], 1.0 / 12, 1e-7);
    EXPECT_EQ(w[3], 0.0f);
    // The interpolating kernels: Catmull-Rom is exact at the taps; the
    // Lagrange polynomial as evaluated leaves 2^-53 at distance 1.
    cubicWeights(qelInterpCubicCatmullRom, 0.0f, w);
    EXPECT_EQ(w[0], 0.0f);
    EXPECT_EQ(w[1], 1.0f);
    EXPECT_EQ(w[2], 0.0f);
    EXPECT_EQ(w[3], 0.0f);
    cubicWeights(qelInterpCubic, 0.0f, w);
    EXPECT_EQ(w[0], static_cast<float>(0x1p-53));
    EXPECT_EQ(w[1], 1.0f);
    EXPECT_EQ(w[2], static_cast<float>(0x1p-53));
    EXPECT_EQ(w[3], 0.0f);
}

TEST(CubicKernels, MatchTheTwoParameterFamilyAndPartitionUnity) {
    // Modes 5-7 against the general (B, C) formula; mode 4 against the
    // Lagrange basis. All four sum to one for every fraction.
    const double bc[3][2] = {{1, 0}, {0, 0.5}, {0.5, 0.3}};
    for (int i = 0; i <= 200; ++i) {
        const double d = i / 100.0;
        for (int m = 0; m < 3; ++m) {
            const double B = bc[m][0], C = bc[m][1];
            const double ref = d < 1 ? ((12 - 9 * B - 6 * C) * d * d * d +
                                        (-18 + 12 * B + 6 * C) * d * d + (6 - 2 * B)) /
                                           6
                               : d < 2 ? ((-B - 6 * C) * d * d * d + (6 * B + 30 * C) * d * d +
                                          (-12 * B - 48 * C) * d + (8 * B + 24 * C)) /
                                             6
                                       : 0.0;
            EXPECT_NEAR(cubicKernel(5 + m, d), ref, 1e-12) << m << " " << d;
        }
    }
    for (float f = 0.0f; f < 1.0f; f += 0.0625f) {
        const double lag[4] = {-f * (f - 1) * (f - 2) / 6.0, (f + 1) * (f - 1) * (f - 2) / 2.0,
                               -(f + 1) * f * (f - 2) / 2.0, (f + 1) * f * (f - 1) / 6.0};
        float w[4];
        cubicWeights(qelInterpCubic, f, w);
        for (int i = 0; i < 4; ++i) EXPECT_NEAR(w[i], lag[i], 1e-6) << f;
        for (int mode = 4; mode <= 7; ++mode) {
            cubicWeights(mode, f, w);
            EXPECT_NEAR(w[0] + w[1] + w[2] + w[3], 1.0, 1e-6) << mode << " " << f;
        }
    }
}

TEST(CubicTables, SampledKernelWithSpareZeros) {
    const float* t = cubicTable(qelInterpCubic);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t[0], 1.0f);
    EXPECT_EQ(t[1], 0.9949005f);
    EXPECT_EQ(cubicTable(qelInterpCubicBSpline)[0], 0.6666667f);
    for (int mode = 4; mode <= 7; ++mode) {
        const float* tab = cubicTable(mode);
        for (int k = 0; k <= 200; ++k)
            EXPECT_EQ(tab[k], static_cast<float>(cubicKernel(mode, k / 100.0)));
        for (int k = 200; k < kCubicTableSize; ++k) EXPECT_EQ(tab[k], 0.0f);
        EXPECT_EQ(cubicTableWeight(tab, 2.0f), 0.0f);
        EXPECT_EQ(cubicTableWeight(tab, 7.5f), 0.0f);
        EXPECT_EQ(cubicTableWeight(tab, 0.5f), tab[50]);
    }
    EXPECT_EQ(cubicTable(qelInterpLinear), nullptr);
}

TEST(Conversions, RoundingAndSaturation) {
    EXPECT_EQ(roundToElement<uint8_t>(2.5f), 2);
    EXPECT_EQ(roundToElement<uint8_t>(3.5f), 4);
    EXPECT_EQ(roundToElement<uint8_t>(-0.7f), 0);
    EXPECT_EQ(roundToElement<uint8_t>(300.0f), 255);
    EXPECT_EQ(roundToElement<uint8_t>(NAN), 0);
    EXPECT_EQ(roundToElement<uint16_t>(65535.4f), 65535);
    EXPECT_EQ(roundToElement<int16_t>(-2.5f), -2);
    EXPECT_EQ(roundToElement<int16_t>(40000.0f), 32767);
    EXPECT_EQ(roundToElement<int16_t>(-40000.0f), -32768);
    EXPECT_EQ(roundToElement<float>(-1.25f), -1.25f);

    EXPECT_EQ(truncateToElement<uint8_t>(2.4999999f), 3);
    EXPECT_EQ(truncateToElement<uint8_t>(2.49f), 2);
    EXPECT_EQ(truncateToElement<uint8_t>(-3.0f), 0);
    EXPECT_EQ(truncateToElement<uint16_t>(70000.0f), 65535);
    EXPECT_EQ(truncateToElement<float>(0.25f), 0.25f);
}

TEST(Conversions, RoundingFollowsTheCurrentMode) {
    volatile float v = 2.1f;  // keeps the compiler from folding across the mode change
    std::fesetround(FE_UPWARD);
    EXPECT_EQ(roundToElement<uint8_t>(v), 3);
    std::fesetround(FE_TONEAREST);
    EXPECT_EQ(roundToElement<uint8_t>(v), 2);
}

TEST(Geometry, TrimAndDegrade) {
    const QelVolumeSize s = {10, 5, 3};
    const QelBox3D t = trimToVolume({8, 1, 0, 5, 2, 9}, s);
    EXPECT_EQ(t.width, 2);
    EXPECT_EQ(t.height, 2);
    EXPECT_EQ(t.depth, 3);
    EXPECT_EQ(degradeModeForSource(qelInterpCubicCatmullRom, {3, 3, 3}), qelInterpLinear);
    EXPECT_EQ(degradeModeForSource(qelInterpCubic, {4, 4, 4}), qelInterpCubic);
    EXPECT_EQ(degradeModeForSource(qelInterpLinear, {1, 5, 5}), qelInterpNearest);
    EXPECT_EQ(degradeModeForSource(qelInterpCubic, {5, 5, 1}), qelInterpNearest);
}
