// The single-plane remap routine: statuses and their order, mode degrading,
// the six-tap Lanczos kernel and the replicated-edge table.
#include <gtest/gtest.h>

#include <cmath>

#include "remap_test_support.h"
#include "volume/remap_plane.h"

using namespace remap_test;
using qelr::volume::kInterpLanczos3;
using qelr::volume::kRemapReplicateEdge;
using qelr::volume::PlaneRect;
using qelr::volume::remapPlane;

namespace {

// A plane is a volume of depth 1; a map pair is two such planes.
template <class T>
QelStatus remap2D(const PlanarVolume<T>& src, PlaneRect roi, const Maps& maps, PlanarVolume<T>& dst,
                  int mode) {
    return remapPlane<T>(src.planes[0], {src.w, src.h}, src.rowStep, roi, maps.x.planes[0],
                         maps.x.rowStep, maps.y.planes[0], maps.y.rowStep, dst.planes[0],
                         dst.rowStep, {dst.w, dst.h}, mode);
}

TEST(RemapPlane, StatusesInOrder) {
    PlanarVolume<float> src(6, 6, 1), dst(4, 4, 1);
    Maps maps(4, 4, 1);
    const float* xm = maps.x.planes[0];
    const float* ym = maps.y.planes[0];
    const int s = src.rowStep, ms = maps.x.rowStep, ds = dst.rowStep;
    const PlaneRect roi{0, 0, 6, 6};
    const auto call = [&](const float* src0, float* dst0, QelSize2D srcSize, PlaneRect r,
                          QelSize2D dstSize, int mode, int srcStep, int mapStep) {
        return remapPlane<float>(src0, srcSize, srcStep, r, xm, mapStep, ym, mapStep, dst0, ds,
                                 dstSize, mode);
    };
    float* const d0 = dst.planes[0];
    const float* const s0 = src.planes[0];
    EXPECT_EQ(call(nullptr, d0, {0, 0}, roi, {4, 4}, 5, 0, 0), qelErrNullPointer);
    EXPECT_EQ(call(s0, nullptr, {6, 6}, roi, {4, 4}, 1, s, ms), qelErrNullPointer);
    EXPECT_EQ(remapPlane<float>(s0, {6, 6}, s, roi, nullptr, ms, ym, ms, d0, ds, {4, 4}, 1),
              qelErrNullPointer);
    for (const PlaneRect bad : {PlaneRect{-1, 0, 6, 6}, PlaneRect{0, -1, 6, 6},
                                PlaneRect{0, 0, 0, 6}, PlaneRect{0, 0, 6, 0}})
        EXPECT_EQ(call(s0, d0, {6, 6}, bad, {4, 4}, 5, 0, 0), qelErrSize);
    EXPECT_EQ(call(s0, d0, {6, 0}, roi, {4, 4}, 5, 0, 0), qelErrSize);
    EXPECT_EQ(call(s0, d0, {6, 6}, roi, {0, 4}, 5, 0, 0), qelErrSize);
    for (const int mode : {0, 3, 5, 7, 8, 15, 17, 5 | kRemapReplicateEdge})
        EXPECT_EQ(call(s0, d0, {6, 6}, roi, {4, 4}, mode, 0, 0), qelErrInterpolation) << mode;
    EXPECT_EQ(call(s0, d0, {6, 6}, roi, {4, 4}, 16, 0, ms), qelErrStep);
    EXPECT_EQ(call(s0, d0, {6, 6}, roi, {4, 4}, 16, s, -ms), qelErrStep);
    EXPECT_EQ(remapPlane<float>(s0, {6, 6}, s, roi, xm, ms, ym, ms, d0, 0, {4, 4}, 1), qelErrStep);
    EXPECT_EQ(call(s0, d0, {6, 6}, {6, 0, 1, 1}, {4, 4}, 1, s, ms), qelWarnRegionOutsidePlane);
    EXPECT_EQ(call(s0, d0, {6, 6}, {0, 6, 1, 1}, {4, 4}, 1, s, ms), qelWarnRegionOutsidePlane);
    for (const int mode : {1, 2, 4, 6, 16, 16 | kRemapReplicateEdge})
        EXPECT_EQ(call(s0, d0, {6, 6}, {2, 2, 9, 9}, {4, 4}, mode, s, ms), qelOk) << mode;
}

TEST(RemapPlane, SmallPlanesDegradeTheMode) {
    std::mt19937 rng(4);
    struct Case {
        int w, h;
        std::vector<int> modes;
        int becomes;
    };
    for (const Case& c :
         {Case{5, 7, {16}, qelInterpCubic}, Case{6, 6, {16}, kInterpLanczos3},
          Case{3, 8, {4, 6, 16}, qelInterpLinear}, Case{8, 1, {2, 4, 16}, qelInterpNearest}}) {
        PlanarVolume<uint16_t> src(c.w, c.h, 1);
        fillRandom(src, rng);
        const Maps maps = randomMaps(9, 3, 1, {{0, 0, 0}, {c.w - 1, c.h - 1, 0}}, rng);
        PlanarVolume<uint16_t> want(9, 3, 1);
        ASSERT_EQ(remap2D(src, {0, 0, c.w, c.h}, maps, want, c.becomes), qelOk);
        for (const int mode : c.modes) {
            PlanarVolume<uint16_t> got(9, 3, 1);
            ASSERT_EQ(remap2D(src, {0, 0, c.w, c.h}, maps, got, mode), qelOk);
            EXPECT_EQ(got.bytes, want.bytes) << c.w << "x" << c.h << " mode " << mode;
        }
    }
}

double lanczos3(double d) {
    if (d == 0) return 1;
    if (d >= 3) return 0;
    const double pi = 3.14159265358979323846;
    return 3 * std::sin(pi * d) * std::sin(pi * d / 3) / (pi * pi * d * d);
}

// Against exact windowed-sinc weights normalised to 1 (the table rule may
// differ by the interpolation error of the 0.01 steps); integer positions
// copy the source exactly.
TEST(RemapPlane, LanczosMatchesTheWindowedSincAndInterpolates) {
    std::mt19937 rng(8);
    PlanarVolume<float> src(11, 9, 1);
    fillRandom(src, rng);
    const Bounds b{{1, 1, 0}, {10, 7, 0}};
    Maps maps = randomMaps(13, 6, 1, b, rng);
    maps.x.at(0, 0, 0) = 4.0f;
    maps.y.at(0, 0, 0) = 3.0f;
    PlanarVolume<float> dst(13, 6, 1);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 13; ++x) dst.at(x, y, 0) = 77.0f;
    ASSERT_EQ(remap2D(src, {1, 1, 20, 7}, maps, dst, kInterpLanczos3), qelOk);
    EXPECT_EQ(dst.at(0, 0, 0), src.at(4, 3, 0));
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 13; ++x) {
            const float px = maps.x.at(x, y, 0), py = maps.y.at(x, y, 0);
            if (!(px >= 1 && px <= 10 && py >= 1 && py <= 7)) {
                EXPECT_EQ(dst.at(x, y, 0), 77.0f);
                continue;
            }
            const int bx = static_cast<int>(px), by = static_cast<int>(py);
            double wx[6], wy[6], sx = 0, sy = 0;
            for (int t = 0; t < 6; ++t) {
                sx += wx[t] = lanczos3(std::fabs(t - 2 - (px - bx)));
                sy += wy[t] = lanczos3(std::fabs(t - 2 - (py - by)));
            }
            double ref = 0;
            for (int r = 0; r < 6; ++r)
                for (int t = 0; t < 6; ++t)
                    ref += wy[r] / sy * wx[t] / sx *
                           src.at(clampTo(bx - 2 + t, 1, 10), clampTo(by - 2 + r, 1, 7), 0);
            EXPECT_NEAR(dst.at(x, y, 0), ref, 0.05) << x << " " << y;
        }
}

// The second table clamps positions onto the region and writes every pixel
// whose coordinates are numbers.
TEST(RemapPlane, ReplicatedEdgeClampsPositionsOntoTheRegion) {
    std::mt19937 rng(12);
    PlanarVolume<uint8_t> src(9, 8, 1);
    fillRandom(src, rng);
    Maps maps(10, 4, 1), clamped(10, 4, 1);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 10; ++x) {
            const float mx = std::uniform_real_distribution<float>(-3, 12)(rng);
            const float my = std::uniform_real_distribution<float>(-3, 12)(rng);
            maps.x.at(x, y, 0) = mx;
            maps.y.at(x, y, 0) = my;
            clamped.x.at(x, y, 0) = std::fmin(std::fmax(mx, 2.0f), 7.0f);
            clamped.y.at(x, y, 0) = std::fmin(std::fmax(my, 1.0f), 6.0f);
        }
    maps.x.at(3, 2, 0) = std::nanf("");
    for (const int mode : {1, 2, 4, 6, 16}) {
        PlanarVolume<uint8_t> got(10, 4, 1), want(10, 4, 1);
        got.at(3, 2, 0) = want.at(3, 2, 0) = 77;
        ASSERT_EQ(remap2D(src, {2, 1, 6, 6}, maps, got, mode | kRemapReplicateEdge), qelOk);
        ASSERT_EQ(remap2D(src, {2, 1, 6, 6}, clamped, want, mode), qelOk);
        want.at(3, 2, 0) = 77;  // NaN: left unchanged
        EXPECT_EQ(got.bytes, want.bytes) << "mode " << mode;
    }
}

}  // namespace
