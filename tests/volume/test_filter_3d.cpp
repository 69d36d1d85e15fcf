// 3-D filter: the rounding and saturation rules, and random kernels (narrow
// and 32-bit wide, every width, anchors inside and outside) against a literal
// scalar reference, bit for bit.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"
#include "volume_reference.h"

using namespace volume_test;

namespace {

template <class At>
int16_t referenceVoxel(const At& at, int i, int j, int k, const std::vector<int32_t>& K,
                       QelVolumeSize ks, QelOffset3D a, int divisor) {
    float acc = 0.0f;
    for (int r = 0; r < ks.depth; ++r) {
        for (int q = 0; q < ks.height; ++q) {
            uint32_t sum = 0;  // wrapping 32-bit row sum
            for (int p = 0; p < ks.width; ++p) {
                sum += uint32_t(K[(size_t(r) * ks.height + q) * ks.width + p]) *
                       uint32_t(int32_t(at(i + a.x - p, j + a.y - q, k + a.z - r)));
            }
            acc += float(int32_t(sum));
        }
    }
    float v = acc * (1.0f / float(divisor));
    v = std::fmin(std::fmax(v, -32768.0f), 32767.0f);
    const float m = std::nearbyint(std::fabs(v));  // ties to even on the magnitude
    return int16_t(v < 0 ? -m : m);
}

struct Case {
    QelVolumeSize roi, ks;
    QelOffset3D anchor;
    int divisor;
    bool wide, flip;
};

void runCase(const Case& c, uint32_t seed) {
    SCOPED_TRACE(::testing::Message() << "kernel " << c.ks.width << "x" << c.ks.height << "x"
                                      << c.ks.depth << " divisor " << c.divisor);
    // The region's origin 8 elements, rows and planes inside the source, so
    // that taps may reach below it; with `flip` the rows run backwards.
    const int m = 8;
    Volume<int16_t> src({c.roi.width + 2 * m, c.roi.height + 2 * m, c.roi.depth + 2 * m});
    src.fillRandom(seed);
    const auto row = [&](int y) { return c.flip ? src.size.height - 1 - m - y : m + y; };
    const auto at = [&](int x, int y, int z) { return src.at(m + x, row(y), m + z); };
    std::vector<const int16_t*> planes;
    for (int z = 0; z < src.size.depth; ++z) planes.push_back(&src.at(m, row(0), z));
    std::mt19937 rng(seed);
    std::vector<int32_t> K(size_t(c.ks.width) * c.ks.height * c.ks.depth);
    std::uniform_int_distribution<int32_t> narrow(-300, 300);
    std::uniform_int_distribution<int32_t> wide(INT32_MIN, INT32_MAX);
    for (auto& v : K) v = c.wide ? wide(rng) : narrow(rng);
    Volume<int16_t> dst(c.roi);
    dst.fill([](int, int, int) { return 1234; });
    const int st = sameEverywhere(dst, [&](Isa i) {
        int size = 0;
        EXPECT_EQ(QELR_VARIANT(i, qelrFilterGetBufSize)(c.roi, c.ks, 1, &size), qelOk);
        std::vector<uint8_t> buffer(size + 1);  // + 1: the buffer need not be aligned
        return QELR_VARIANT(i, qelrFilter_16s_C1PV)(
            planes.data() + m, c.flip ? -src.rowStep : src.rowStep, dst.planes.data(), dst.rowStep,
            c.roi, K.data(), c.ks, c.anchor, c.divisor, buffer.data() + 1);
    });
    ASSERT_EQ(st, qelOk);
    size_t mismatches = 0;
    for (int k = 0; k < c.roi.depth; ++k)
        for (int j = 0; j < c.roi.height; ++j)
            for (int i = 0; i < c.roi.width; ++i)
                mismatches +=
                    dst.at(i, j, k) != referenceVoxel(at, i, j, k, K, c.ks, c.anchor, c.divisor);
    EXPECT_EQ(mismatches, 0u);
    for (int j = 0; j < c.roi.height; ++j)  // the row padding is not written
        EXPECT_EQ(dst.at(c.roi.width, j, 0), int16_t(0xA5A5));
}

TEST(Filter3D, MatchesReferenceForKernelWidthsDivisorsAndAnchors) {
    const Case cases[] = {
        {{19, 5, 4}, {3, 3, 3}, {1, 1, 1}, 27, false, false},
        {{16, 4, 3}, {5, 5, 5}, {2, 2, 2}, 125, false, true},
        {{21, 3, 3}, {3, 2, 1}, {0, 1, 0}, 1, true, false},  // wrapping row sums
        {{13, 4, 2}, {5, 1, 2}, {4, 0, 1}, 4, true, true},
        {{11, 3, 3}, {1, 3, 3}, {0, 0, 0}, -3, false, false},
        {{26, 3, 2}, {2, 2, 2}, {1, 0, 1}, 2, false, false},
        {{9, 2, 2}, {7, 3, 2}, {3, 1, 1}, 1000, false, true},
        {{17, 2, 2}, {6, 2, 1}, {-1, 2, 0}, 7, true, false},   // anchor outside the kernel
        {{4, 2, 2}, {4, 1, 1}, {2, 0, 0}, 1, false, false},    // only the scalar tail
        {{19, 17, 16}, {3, 3, 3}, {1, 1, 1}, 9, true, false},  // split over threads
    };
    for (const Case& c : cases) runCase(c, 17 + (&c - cases));
    qelr_test::ThreadCountGuard guard;  // the buffer: 4 bytes a column and 64, per thread
    for (int threads : {4, 1}) {
        qelSetNumThreads(threads);
        int size = -1;
        EXPECT_EQ(qelrFilterGetBufSize({100, 2, 2}, {3, 3, 3}, 1, &size), qelOk);
        EXPECT_EQ(size, (400 + 64) * threads);
    }
}

// 1 x 1 x 1 kernels on a row of 19 elements (the first 16 in vectors, the
// last 3 in the scalar tail): negation, rounding ties to even on
// the magnitude, saturation, the single-precision reciprocal.
TEST(Filter3D, ScalingRoundingAndSaturation) {
    const std::vector<int16_t> v = {0, 1, -1, 5, -5, 7, -7, -32768, 32767, 3,
                                    0, 1, -1, 3, 4,  6, 5,  -5,     7};
    struct Case {
        int32_t k;
        int divisor;
        std::vector<int16_t> want;
    } const cases[] = {
        {1, -1, {0, -1, 1, -5, 5, -7, 7, 32767, -32767, -3, 0, -1, 1, -3, -4, -6, -5, 5, -7}},
        {1, 2, {0, 0, 0, 2, -2, 4, -4, -16384, 16384, 2, 0, 0, 0, 2, 2, 3, 2, -2, 4}},
        {100000,
         1,
         {0, 32767, -32768, 32767, -32768, 32767, -32768, 32767, -32768, 32767, 0, 32767, -32768,
          32767, 32767, 32767, 32767, -32768, 32767}},
        {1, 3, {0, 0, 0, 2, -2, 2, -2, -10923, 10922, 1, 0, 0, 0, 1, 1, 2, 2, -2, 2}},
    };
    const int16_t* srcPlanes[] = {v.data()};
    std::vector<uint8_t> buffer(4096);
    for (const Case& c : cases) {
        std::vector<int16_t> out(v.size(), 99);
        int16_t* dstPlanes[] = {out.data()};
        ASSERT_EQ(qelrFilter_16s_C1PV(srcPlanes, 64, dstPlanes, 64, {19, 1, 1}, &c.k, {1, 1, 1},
                                      {0, 0, 0}, c.divisor, buffer.data()),
                  qelOk);
        EXPECT_EQ(out, c.want) << c.k << " / " << c.divisor;
    }
}

}  // namespace
