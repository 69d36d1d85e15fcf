// 3-D filter: statuses, the rounding and saturation rules, and random kernels
// (narrow and 32-bit wide, every width, anchors inside and outside) against a
// literal scalar reference, bit for bit, for any team size.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "planar_volume.h"
#include "test_util.h"

using qelr_test::PlanarVolume;

namespace {

// A source addressed relative to an origin `margin` elements, rows and planes
// inside an allocated volume, so that taps may reach below the origin; with
// `flip` the rows run backwards (negative row step).
struct SourceView {
    PlanarVolume<int16_t> vol;
    int margin;
    std::vector<const int16_t*> planes;
    int rowStep;

    SourceView(int w, int h, int d, int margin, bool flip, std::mt19937& rng)
        : vol(w + 2 * margin, h + 2 * margin, d + 2 * margin), margin(margin) {
        vol.randomize(rng, -32768, 32767.999);
        const int H = vol.height;
        for (int z = 0; z < vol.depth; ++z) {
            const int16_t* p = vol.planes[z] + (flip ? (H - 1) * vol.rowElems : 0);
            planes.push_back(p + (flip ? -margin : margin) * vol.rowElems + margin);
        }
        rowStep = flip ? -vol.rowStep() : vol.rowStep();
    }
    const int16_t* const* data() const { return planes.data() + margin; }
    int16_t at(int x, int y, int z) const {
        const auto* row = reinterpret_cast<const uint8_t*>(data()[z]) + ptrdiff_t(y) * rowStep;
        return reinterpret_cast<const int16_t*>(row)[x];
    }
};

int16_t referenceVoxel(const SourceView& s, int i, int j, int k, const std::vector<int32_t>& K,
                       QelVolumeSize ks, QelOffset3D a, int divisor) {
    float acc = 0.0f;
    for (int r = 0; r < ks.depth; ++r) {
        for (int q = 0; q < ks.height; ++q) {
            uint32_t sum = 0;  // wrapping 32-bit row sum
            for (int p = 0; p < ks.width; ++p) {
                const int32_t kv = K[(size_t(r) * ks.height + q) * ks.width + p];
                sum +=
                    uint32_t(kv) * uint32_t(int32_t(s.at(i + a.x - p, j + a.y - q, k + a.z - r)));
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

void runCase(const Case& c, std::mt19937& rng) {
    SCOPED_TRACE(::testing::Message()
                 << "roi " << c.roi.width << "x" << c.roi.height << "x" << c.roi.depth << " kernel "
                 << c.ks.width << "x" << c.ks.height << "x" << c.ks.depth << " divisor "
                 << c.divisor << " wide " << c.wide << " flip " << c.flip);
    const int margin = 8;
    const SourceView src(c.roi.width, c.roi.height, c.roi.depth, margin, c.flip, rng);
    std::vector<int32_t> K(size_t(c.ks.width) * c.ks.height * c.ks.depth);
    std::uniform_int_distribution<int32_t> narrow(-300, 300);
    std::uniform_int_distribution<int32_t> wide(INT32_MIN, INT32_MAX);
    for (auto& v : K) v = c.wide ? wide(rng) : narrow(rng);
    PlanarVolume<int16_t> dst(c.roi.width, c.roi.height, c.roi.depth, 1234);
    int bufSize = 0;
    ASSERT_EQ(qelrFilterGetBufSize(c.roi, c.ks, 1, &bufSize), qelOk);
    std::vector<uint8_t> buffer(bufSize);
    ASSERT_EQ(qelrFilter_16s_C1PV(src.data(), src.rowStep, dst.planes.data(), dst.rowStep(), c.roi,
                                  K.data(), c.ks, c.anchor, c.divisor, buffer.data() + 1),
              qelOk);  // + 1: the buffer need not be aligned
    size_t mismatches = 0;
    for (int k = 0; k < c.roi.depth; ++k)
        for (int j = 0; j < c.roi.height; ++j)
            for (int i = 0; i < c.roi.width; ++i)
                mismatches +=
                    dst.at(i, j, k) != referenceVoxel(src, i, j, k, K, c.ks, c.anchor, c.divisor);
    EXPECT_EQ(mismatches, 0u);
    for (int j = 0; j < c.roi.height; ++j)  // the row padding is not written
        EXPECT_EQ(dst.planes[0][j * dst.rowElems + c.roi.width], 1234);
}

TEST(Filter3D, MatchesReferenceForKernelWidthsDivisorsAndAnchors) {
    std::mt19937 rng(17);
    const Case cases[] = {
        {{19, 5, 4}, {3, 3, 3}, {1, 1, 1}, 27, false, false},
        {{16, 4, 3}, {5, 5, 5}, {2, 2, 2}, 125, false, true},
        {{21, 3, 3}, {3, 2, 1}, {0, 1, 0}, 1, true, false},  // wrapping row sums
        {{13, 4, 2}, {5, 1, 2}, {4, 0, 1}, 4, true, true},
        {{11, 3, 3}, {1, 3, 3}, {0, 0, 0}, -3, false, false},
        {{26, 3, 2}, {2, 2, 2}, {1, 0, 1}, 2, false, false},
        {{9, 2, 2}, {7, 3, 2}, {3, 1, 1}, 1000, false, true},
        {{17, 2, 2}, {6, 2, 1}, {-1, 2, 0}, 7, true, false},  // anchor outside the kernel
        {{4, 2, 2}, {4, 1, 1}, {2, 0, 0}, 1, false, false},   // only the scalar tail
    };
    for (const Case& c : cases) runCase(c, rng);
}

TEST(Filter3D, DeterministicAcrossThreadCounts) {
    qelr_test::ThreadCountGuard guard;
    std::mt19937 rng(23);
    const QelVolumeSize roi{17, 16, 19};
    const SourceView src(roi.width, roi.height, roi.depth, 2, false, rng);
    const QelVolumeSize ks{3, 3, 3};
    std::vector<int32_t> K(27);
    for (size_t i = 0; i < K.size(); ++i) K[i] = int32_t(i) - 13;
    std::vector<int16_t> first;
    for (int threads : {1, 2, 3, 4}) {
        qelSetNumThreads(threads);
        int size = 0;
        ASSERT_EQ(qelrFilterGetBufSize(roi, ks, 1, &size), qelOk);
        std::vector<uint8_t> buffer(size);
        PlanarVolume<int16_t> dst(roi.width, roi.height, roi.depth);
        ASSERT_EQ(qelrFilter_16s_C1PV(src.data(), src.rowStep, dst.planes.data(), dst.rowStep(),
                                      roi, K.data(), ks, {1, 1, 1}, 9, buffer.data()),
                  qelOk);
        if (first.empty())
            first = dst.data;
        else
            EXPECT_EQ(first, dst.data) << threads << " threads";
    }
}

// Filters a 16 x 1 x 1 row of `values` with a 1x1x1 kernel of `k`.
std::vector<int16_t> filterRow(const std::vector<int16_t>& values, int32_t k, int divisor) {
    const QelVolumeSize roi{int(values.size()), 1, 1};
    const int16_t* srcPlanes[] = {values.data()};
    std::vector<int16_t> out(values.size(), 99);
    int16_t* dstPlanes[] = {out.data()};
    std::vector<uint8_t> buffer(4096);
    EXPECT_EQ(qelrFilter_16s_C1PV(srcPlanes, 64, dstPlanes, 64, roi, &k, {1, 1, 1}, {0, 0, 0},
                                  divisor, buffer.data()),
              qelOk);
    return out;
}

TEST(Filter3D, ScalingRoundingAndSaturation) {
    // 19 elements: 16 go through the vector path, the last 3 through the
    // scalar tail.
    const std::vector<int16_t> v = {0, 1, -1, 5,  -5, 7, -7, -32768, 32767, 3,
                                    0, 1, -1, -3, 4,  6, 5,  -5,     7};
    EXPECT_EQ(filterRow(v, 1, 1), v);  // 1x1x1 kernel of 1: a copy
    const std::vector<int16_t> neg = filterRow(v, 1, -1);
    for (size_t i = 0; i < v.size(); ++i)
        EXPECT_EQ(neg[i], v[i] == -32768 ? 32767 : -v[i]);  // -(-32768) saturates
    const std::vector<int16_t> half = filterRow(v, 1, 2);
    EXPECT_EQ(half[3], 2);   // 5 / 2 = 2.5 -> 2
    EXPECT_EQ(half[4], -2);  // -2.5 -> -2
    EXPECT_EQ(half[5], 4);   // 3.5 -> 4
    EXPECT_EQ(half[6], -4);
    EXPECT_EQ(half[9], 2);   // 1.5 -> 2
    EXPECT_EQ(half[1], 0);   // 0.5 -> 0
    EXPECT_EQ(half[16], 2);  // the same rules in the scalar tail
    EXPECT_EQ(half[17], -2);
    EXPECT_EQ(half[18], 4);
    const std::vector<int16_t> big = filterRow(v, 100000, 1);
    EXPECT_EQ(big[1], 32767);
    EXPECT_EQ(big[2], -32768);
    const std::vector<int16_t> third = filterRow(v, 1, 3);
    EXPECT_EQ(third[8], 10922);  // 32767 * float(1/3) = 10922.333
}

TEST(Filter3D, StatusesInOrderAndNothingWritten) {
    int16_t s[64] = {}, d[64];
    std::fill(d, d + 64, 5);
    const int16_t* sp[] = {s};
    int16_t* dp[] = {d};
    const int32_t k[1] = {1};
    uint8_t buffer[256];
    const QelVolumeSize roi{4, 1, 1}, one{1, 1, 1};
    auto call = [&](const int16_t* const* src, int16_t* const* dst, const int32_t* kern,
                    QelVolumeSize r, QelVolumeSize ks, int divisor) {
        return qelrFilter_16s_C1PV(src, 8, dst, 8, r, kern, ks, {0, 0, 0}, divisor, buffer);
    };
    EXPECT_EQ(call(nullptr, dp, k, {0, 0, 0}, one, 0), qelErrNullPointer);
    EXPECT_EQ(call(sp, nullptr, k, roi, one, 1), qelErrNullPointer);
    EXPECT_EQ(call(sp, dp, nullptr, roi, one, 1), qelErrNullPointer);
    EXPECT_EQ(call(sp, dp, k, {4, 1, 0}, one, 1), qelErrSize);
    EXPECT_EQ(call(sp, dp, k, roi, {1, 0, 1}, 1), qelErrSize);
    EXPECT_EQ(call(sp, dp, k, roi, one, 0), qelErrSize);
    for (int16_t v : d) EXPECT_EQ(v, 5);
}

TEST(FilterGetBufSize, StatusesAndSize) {
    qelr_test::ThreadCountGuard guard;
    int size = -1;
    const QelVolumeSize roi{100, 2, 2}, ks{3, 3, 3};
    EXPECT_EQ(qelrFilterGetBufSize(roi, ks, 1, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrFilterGetBufSize({100, 0, 2}, ks, 3, &size), qelErrSize);
    EXPECT_EQ(qelrFilterGetBufSize(roi, {3, 3, 0}, 3, &size), qelErrSize);
    EXPECT_EQ(qelrFilterGetBufSize(roi, ks, 3, &size), qelErrChannels);
    EXPECT_EQ(size, -1);
    qelSetNumThreads(4);
    EXPECT_EQ(qelrFilterGetBufSize(roi, ks, 1, &size), qelOk);
    EXPECT_EQ(size, (400 + 64) * 4);
    qelSetNumThreads(1);
    EXPECT_EQ(qelrFilterGetBufSize(roi, ks, 1, &size), qelOk);
    EXPECT_EQ(size, 464);
}

}  // namespace
