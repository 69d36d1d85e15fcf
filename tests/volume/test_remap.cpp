// Volume remap through the public entry points: every type and mode against
// the literal reference, the statuses and their order, voxels mapped outside,
// the mode degrading, the single-plane hand-over and the thread split.
#include <gtest/gtest.h>
#include <qelcore.h>

#include "remap_test_support.h"
#include "test_util.h"

using namespace remap_test;

namespace {

template <class T>
struct RemapOf;
template <>
struct RemapOf<uint8_t> {
    static constexpr auto fn = qelrRemap_8u_C1PV;
};
template <>
struct RemapOf<uint16_t> {
    static constexpr auto fn = qelrRemap_16u_C1PV;
};
template <>
struct RemapOf<float> {
    static constexpr auto fn = qelrRemap_32f_C1PV;
};

constexpr int kModes[] = {1, 2, 4, 5, 6, 7};

template <class T>
QelStatus remap(const PlanarVolume<T>& src, QelBox3D box, const Maps& maps, PlanarVolume<T>& dst,
                int mode) {
    const float* const* px = maps.x.in();
    const float* const* py = maps.y.in();
    const float* const* pz = maps.z.in();
    return RemapOf<T>::fn(src.in(), src.size(), src.rowStep, box, px, py, pz, maps.x.rowStep,
                          dst.out(), dst.rowStep, dst.size(), mode);
}

QelBox3D trimmed(QelBox3D b, const QelVolumeSize& s) {
    b.width = std::min(b.width, s.width - b.x);
    b.height = std::min(b.height, s.height - b.y);
    b.depth = std::min(b.depth, s.depth - b.z);
    return b;
}

// A destination filled with a recognisable value, to see what was written.
template <class T>
void fillSentinel(PlanarVolume<T>& v) {
    for (int z = 0; z < v.d; ++z)
        for (int y = 0; y < v.h; ++y)
            for (int x = 0; x < v.w; ++x) v.at(x, y, z) = static_cast<T>(77);
}

// Compares every destination voxel with the reference: untouched where the
// position is outside, exact for nearest, exact away from ties for 8u and
// 16u, within 2e-3 for 32f (values within +-100). With `planeOnly` the z map
// is not used (the single-plane path). Returns the number of voxels written.
template <class T>
int expectMatchesReference(const PlanarVolume<T>& src, const Bounds& b, int mode, const Maps& maps,
                           const PlanarVolume<T>& dst, bool planeOnly = false) {
    int written = 0;
    for (int z = 0; z < (planeOnly ? 1 : dst.d); ++z)
        for (int y = 0; y < dst.h; ++y)
            for (int x = 0; x < dst.w; ++x) {
                const float p[3] = {maps.x.at(x, y, z), maps.y.at(x, y, z),
                                    planeOnly ? 0.0f : maps.z.at(x, y, z)};
                double ref = 0;
                const T got = dst.at(x, y, z);
                bool ok;
                if (!referenceSample(src, b, mode, p, ref)) {
                    ok = got == static_cast<T>(77);
                } else {
                    ++written;
                    if (mode == qelInterpNearest)
                        ok = got == static_cast<T>(ref);
                    else if constexpr (std::is_same_v<T, float>)
                        ok = std::fabs(got - ref) <= 2e-3;
                    else
                        ok = integerResultMatches(got, ref, sizeof(T) == 1 ? 2e-3 : 3e-2);
                }
                if (!ok) {
                    ADD_FAILURE() << "mode " << mode << " at " << x << " " << y << " " << z << ": "
                                  << +got << " vs reference " << ref;
                    return written;
                }
            }
    return written;
}

template <class T>
class RemapTyped : public ::testing::Test {};
using ElementTypes = ::testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(RemapTyped, ElementTypes);

// Random maps (on the bounds, just past them, NaN, inside) for boxes cut back
// by the source edge and boxes one voxel thick on an axis (the last column,
// row or plane among them); a destination width with a partial vector step;
// flipped (negative) row steps.
TYPED_TEST(RemapTyped, MatchesLiteralReferenceForEveryMode) {
    using T = TypeParam;
    std::mt19937 rng(7);
    const QelBox3D boxes[] = {{3, 1, 2, 20, 6, 4},
                              {8, 0, 0, 1, 8, 7},
                              {2, 1, 1, 1, 3, 4},
                              {0, 7, 2, 9, 1, 3},
                              {1, 1, 6, 4, 3, 1}};
    for (const bool flip : {false, true}) {
        PlanarVolume<T> src(9, 8, 7, flip);
        fillRandom(src, rng);
        for (const QelBox3D& box : boxes) {
            const Bounds b = boundsOf(trimmed(box, src.size()));
            const Maps maps = randomMaps(11, 5, 3, b, rng, flip);
            for (const int mode : kModes) {
                SCOPED_TRACE(::testing::Message() << "box x " << box.x << " flip " << flip);
                PlanarVolume<T> dst(11, 5, 3, flip);
                fillSentinel(dst);
                ASSERT_EQ(remap(src, box, maps, dst, mode), qelOk);
                EXPECT_GT(expectMatchesReference(src, b, mode, maps, dst), 30);
            }
        }
    }
}

// The cubic taps are read with one vector load inside the box and one by one
// (clamped) at its edge. With column 0 equal to column 1, a box from x = 1
// clamps tap 0 onto an equal value, so both paths must give the same bits.
TEST(Remap, CubicEdgeGatherAgreesWithTheVectorLoad) {
    std::mt19937 rng(31);
    PlanarVolume<float> src(8, 6, 6);
    fillRandom(src, rng);
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 6; ++y) src.at(0, y, z) = src.at(1, y, z);
    std::uniform_real_distribution<float> inside(0.0f, 5.0f), nearEdge(1.0f, 1.999f);
    Maps maps(13, 4, 3);
    for (int z = 0; z < 3; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 13; ++x) {
                maps.x.at(x, y, z) = nearEdge(rng);
                maps.y.at(x, y, z) = inside(rng);
                maps.z.at(x, y, z) = inside(rng);
            }
    for (const int mode : {4, 5, 6, 7}) {
        PlanarVolume<float> vector(13, 4, 3), edge(13, 4, 3);
        ASSERT_EQ(remap(src, {0, 0, 0, 8, 6, 6}, maps, vector, mode), qelOk);
        ASSERT_EQ(remap(src, {1, 0, 0, 7, 6, 6}, maps, edge, mode), qelOk);
        EXPECT_EQ(vector.bytes, edge.bytes) << "mode " << mode;
    }
}

// mx = x1 is read, mx = x1 + 0.001 is not, for every mode; linear at x1
// returns the voxel at x1 exactly (lowered base, fraction 1).
TYPED_TEST(RemapTyped, UpperBoundIsInclusiveAndJustBeyondIsUntouched) {
    using T = TypeParam;
    std::mt19937 rng(3);
    PlanarVolume<T> src(6, 6, 6);
    fillRandom(src, rng);
    const QelBox3D box{1, 1, 1, 4, 4, 4};  // x1 = y1 = z1 = 4
    Maps maps(2, 1, 1);
    maps.x.at(0, 0, 0) = 4.0f;
    maps.x.at(1, 0, 0) = 4.001f;
    for (int x = 0; x < 2; ++x) {
        maps.y.at(x, 0, 0) = 2.0f;
        maps.z.at(x, 0, 0) = 3.0f;
    }
    for (const int mode : kModes) {
        PlanarVolume<T> dst(2, 1, 1);
        fillSentinel(dst);
        ASSERT_EQ(remap(src, box, maps, dst, mode), qelOk);
        EXPECT_EQ(dst.at(1, 0, 0), static_cast<T>(77)) << "mode " << mode;
        if (mode <= qelInterpLinear || mode == qelInterpCubicCatmullRom) {
            EXPECT_EQ(dst.at(0, 0, 0), src.at(4, 2, 3)) << "mode " << mode;
        }
    }
}

TYPED_TEST(RemapTyped, SmallSourcesDegradeTheMode) {
    using T = TypeParam;
    std::mt19937 rng(5);
    // {source, requested modes, mode they become}: 3 x 3 x 3 makes the cubics
    // linear; 1 x 5 x 5 (depth above 1) makes linear and cubic nearest.
    struct Case {
        QelVolumeSize size;
        std::vector<int> modes;
        int becomes;
    };
    for (const Case& c : {Case{{3, 3, 3}, {4, 5, 6, 7}, qelInterpLinear},
                          Case{{1, 5, 5}, {2, 4, 6}, qelInterpNearest},
                          Case{{4, 4, 4}, {6}, qelInterpCubicCatmullRom}}) {
        PlanarVolume<T> src(c.size.width, c.size.height, c.size.depth);
        fillRandom(src, rng);
        const QelBox3D box{0, 0, 0, c.size.width, c.size.height, c.size.depth};
        const Maps maps = randomMaps(7, 3, 2, boundsOf(box), rng);
        PlanarVolume<T> want(7, 3, 2);
        ASSERT_EQ(remap(src, box, maps, want, c.becomes), qelOk);
        for (const int mode : c.modes) {
            PlanarVolume<T> got(7, 3, 2);
            ASSERT_EQ(remap(src, box, maps, got, mode), qelOk);
            EXPECT_EQ(got.bytes, want.bytes) << "mode " << mode;
        }
    }
}

// Destination 20 x 17 x 19 (all extents at least 16) under 1 to 4 threads.
TYPED_TEST(RemapTyped, SameBitsForEveryTeamSize) {
    using T = TypeParam;
    qelr_test::ThreadCountGuard guard;
    std::mt19937 rng(9);
    PlanarVolume<T> src(12, 11, 10);
    fillRandom(src, rng);
    const Maps maps = randomMaps(20, 17, 19, {{0, 0, 0}, {11, 10, 9}}, rng);
    for (const int mode : kModes) {
        std::vector<std::vector<uint8_t>> first;
        for (const int threads : {1, 2, 3, 4}) {
            qelSetNumThreads(threads);
            PlanarVolume<T> dst(20, 17, 19);
            fillSentinel(dst);
            ASSERT_EQ(remap(src, {0, 0, 0, 12, 11, 10}, maps, dst, mode), qelOk);
            if (threads == 1)
                first = dst.bytes;
            else
                EXPECT_EQ(dst.bytes, first) << "mode " << mode << ", " << threads << " threads";
        }
    }
}

TEST(Remap, NearestRoundsInTheCurrentModeTiesToEven) {
    PlanarVolume<float> src(6, 6, 6);
    Maps maps(3, 1, 1);
    const float xs[3] = {2.5f, 3.5f, 2.49f};
    for (int i = 0; i < 3; ++i) {
        maps.x.at(i, 0, 0) = xs[i];
        maps.y.at(i, 0, 0) = 0.5f;  // ties to even: row 0
        maps.z.at(i, 0, 0) = 1.0f;
    }
    src.at(2, 0, 1) = 20.0f;
    src.at(4, 0, 1) = 40.0f;
    PlanarVolume<float> dst(3, 1, 1);
    ASSERT_EQ(remap(src, {0, 0, 0, 6, 6, 6}, maps, dst, qelInterpNearest), qelOk);
    EXPECT_EQ(dst.at(0, 0, 0), 20.0f);
    EXPECT_EQ(dst.at(1, 0, 0), 40.0f);
    EXPECT_EQ(dst.at(2, 0, 0), 20.0f);
}

TEST(Remap, StatusesInOrderAndNothingWritten) {
    PlanarVolume<uint8_t> src(5, 5, 5), flat(5, 5, 1);
    Maps maps(4, 4, 2);
    PlanarVolume<uint8_t> dst(4, 4, 2);
    fillSentinel(dst);
    const float* const* px = maps.x.in();
    const float* const* py = maps.y.in();
    const float* const* pz = maps.z.in();
    const int ms = maps.x.rowStep;
    const QelBox3D box{0, 0, 0, 5, 5, 5};
    const QelVolumeSize dv = dst.size();
    const auto call = [&](const PlanarVolume<uint8_t>& s, QelBox3D b, const float* const* x,
                          const float* const* z, QelVolumeSize d, int mode, int srcStep = 0) {
        return qelrRemap_8u_C1PV(s.in(), s.size(), srcStep ? srcStep : s.rowStep, b, x, py, z, ms,
                                 dst.out(), dst.rowStep, d, mode);
    };
    // Null pointers come first, even with bad sizes and mode.
    EXPECT_EQ(qelrRemap_8u_C1PV(nullptr, src.size(), src.rowStep, box, px, py, pz, ms, dst.out(),
                                dst.rowStep, {0, 0, 0}, 3),
              qelErrNullPointer);
    EXPECT_EQ(qelrRemap_8u_C1PV(src.in(), src.size(), src.rowStep, box, px, py, pz, ms, nullptr,
                                dst.rowStep, dv, 1),
              qelErrNullPointer);
    EXPECT_EQ(call(src, box, px, nullptr, {0, 0, 0}, 3), qelErrNullPointer);
    // Sizes, then the mode.
    EXPECT_EQ(qelrRemap_8u_C1PV(src.in(), {5, 0, 5}, src.rowStep, box, px, py, pz, ms, dst.out(),
                                dst.rowStep, dv, 3),
              qelErrSize);
    for (const QelBox3D bad :
         {QelBox3D{-1, 0, 0, 5, 5, 5}, QelBox3D{0, 0, 0, 0, 5, 5}, QelBox3D{0, -1, 0, 5, 5, 5},
          QelBox3D{0, 0, 0, 5, 0, 5}, QelBox3D{0, 0, -1, 5, 5, 5}, QelBox3D{0, 0, 0, 5, 5, 0}})
        EXPECT_EQ(call(src, bad, px, pz, dv, 3), qelErrSize);
    EXPECT_EQ(call(src, box, px, pz, {4, 4, 0}, 3), qelErrSize);
    for (const int mode : {0, 3, 8, 16, -1})
        EXPECT_EQ(call(src, box, px, pz, dv, mode), qelErrInterpolation);
    // Origin outside the volume: warning, nothing written.
    EXPECT_EQ(call(src, {5, 0, 0, 1, 1, 1}, px, pz, dv, 1), qelWarnRegionOutsideVolume);
    EXPECT_EQ(call(src, {0, 0, 5, 1, 1, 1}, px, pz, dv, 1), qelWarnRegionOutsideVolume);
    // Depth 1 goes to the single-plane routine: modes 5 and 7 fail there, a
    // step below 1 is refused there, and an origin outside the plane warns.
    EXPECT_EQ(call(flat, {0, 0, 0, 5, 5, 1}, px, pz, dv, qelInterpCubicBSpline),
              qelErrInterpolation);
    EXPECT_EQ(call(flat, {0, 0, 0, 5, 5, 1}, px, pz, dv, qelInterpCubicB05C03),
              qelErrInterpolation);
    EXPECT_EQ(call(flat, {0, 0, 0, 5, 5, 1}, px, pz, dv, 1, -flat.rowStep), qelErrStep);
    EXPECT_EQ(call(flat, {0, 5, 0, 5, 5, 1}, px, pz, dv, 1), qelWarnRegionOutsidePlane);
    int sentinels = 0;
    for (int z = 0; z < 2; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x) sentinels += dst.at(x, y, z) == 77;
    EXPECT_EQ(sentinels, 32);
}

// Depth 1: the first planes of source, maps and destination are remapped as
// a plane; the z map is not read and later destination planes stay as they are.
TYPED_TEST(RemapTyped, DepthOneRemapsTheFirstPlane) {
    using T = TypeParam;
    std::mt19937 rng(21);
    PlanarVolume<T> src(8, 7, 1);
    fillRandom(src, rng);
    const Bounds b{{1, 0, 0}, {6, 6, 0}};
    Maps maps = randomMaps(9, 4, 2, b, rng);
    for (const int mode : {1, 2, 4, 6}) {
        PlanarVolume<T> dst(9, 4, 2);
        fillSentinel(dst);
        ASSERT_EQ(remap(src, {1, 0, 0, 6, 9, 1}, maps, dst, mode), qelOk);
        expectMatchesReference(src, b, mode, maps, dst, true);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 9; ++x) EXPECT_EQ(dst.at(x, y, 1), static_cast<T>(77));
    }
}

}  // namespace
