// Volume resize: hand-derived destination boxes, the buffer size, and every
// type, layout and mode against the closed forms evaluated in double at the
// positions the mapping rules give, with exactly the queried scratch.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <sanitizer/asan_interface.h>

#include "test_util.h"
#include "volume/volume_common.h"
#include "volume_reference.h"

using namespace volume_test;

namespace {

TEST(ResizeCuboid, HandDerivedBoxes) {
    struct Case {
        QelBox3D src;
        double f[3], s[3];
        int mode;
        QelBox3D want;  // width 0: qelWarnNothingToDo
    } const cases[] = {
        {{0, 0, 0, 10, 10, 10}, {2, 2, 2}, {0, 0, 0}, 2, {0, 0, 0, 20, 20, 20}},
        // lo = trunc(0.5 + 0.4999999999) = 0, hi = trunc(2 + 0.5000000001) = 2.
        {{1, 0, 0, 3, 1, 1}, {.5, 1, 1}, {0, 0, 0}, 2, {0, 0, 0, 2, 1, 1}},
        {{2, 3, 4, 5, 6, 7}, {1, 2, 3}, {10, -1, .25}, 1, {12, 5, 12, 5, 12, 21}},
        // Half-element edges belong to both ends: [1.5, 3) starts at 1; [0, 2.5) ends at 3.
        {{1, 0, 0, 1, 1, 1}, {1.5, 1, 1}, {0, 0, 0}, 4, {1, 0, 0, 2, 1, 1}},
        {{0, 0, 0, 5, 1, 1}, {.5, 1, 1}, {0, 0, 0}, 7, {0, 0, 0, 3, 1, 1}},
        // Partly below zero: the start clamps at 0, the end does not.
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-2, 0, 0}, 5, {0, 0, 0, 2, 4, 4}},
        // Empty: hi = trunc(0.25 + 0.5000000001) = 0; wholly below zero; NaN.
        {{0, 0, 0, 1, 1, 1}, {.25, .25, .25}, {0, 0, 0}, 6, {}},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-100, 0, 0}, 2, {}},
        {{0, 0, 0, 4, 4, 4}, {NAN, 1, 1}, {0, 0, 0}, 2, {}},
    };
    for (const Case& c : cases) {
        const QelBox3D untouched = {-9, -9, -9, -9, -9, -9};
        QelBox3D out = untouched;
        EXPECT_EQ(qelrGetResizeCuboid(c.src, &out, c.f[0], c.f[1], c.f[2], c.s[0], c.s[1], c.s[2],
                                      c.mode),
                  c.want.width ? qelOk : qelWarnNothingToDo)
            << &c - cases;
        EXPECT_EQ(std::memcmp(&out, c.want.width ? &c.want : &untouched, sizeof out), 0)
            << &c - cases;
    }
}

// A work buffer of exactly the queried size, `misalign` bytes past a 64-byte
// boundary, followed by a guard (poisoned under ASan, checked otherwise).
struct WorkBuffer {
    static constexpr int kGuard = 256;
    int size = 0;
    std::vector<uint8_t> storage;
    uint8_t* data;
    WorkBuffer(QelBox3D srcBox, QelBox3D dstBox, int mode, int misalign) {
        EXPECT_EQ(qelrResizeGetBufSize(srcBox, dstBox, 1, mode, &size), qelOk);
        storage.assign(64 + misalign + size + kGuard, 0x5C);
        data = storage.data() + (64 - reinterpret_cast<uintptr_t>(storage.data()) % 64) + misalign;
        ASAN_POISON_MEMORY_REGION(data + size, kGuard);
    }
    ~WorkBuffer() {
        ASAN_UNPOISON_MEMORY_REGION(data + size, kGuard);
        for (int i = 0; i < kGuard; ++i) EXPECT_EQ(data[size + i], 0x5C) << "scratch overrun";
    }
};

// Resizes with every variant and team size (which must agree).
template <class T>
int resize(bool planar, const Volume<T>& src, QelBox3D sb, Volume<T>& dst, QelBox3D db,
           const double f[3], const double s[3], int mode, int misalign) {
    return sameEverywhere(dst, [&](Isa i) {
        WorkBuffer buf(sb, db, mode, misalign);
        return planar ? Fns<T>::resizePV(i)(src.in(), src.size, src.rowStep, sb, dst.planes.data(),
                                            dst.rowStep, db, f[0], f[1], f[2], s[0], s[1], s[2],
                                            mode, buf.data)
                      : Fns<T>::resizeV(i)(src.base(), src.size, src.rowStep, src.sliceStep, sb,
                                           dst.base(), dst.rowStep, dst.sliceStep, db, f[0], f[1],
                                           f[2], s[0], s[1], s[2], mode, buf.data);
    });
}

struct Case {
    QelVolumeSize srcSize;
    QelBox3D srcBox, dstBox;
    double f[3], s[3];
} const kCases[] = {
    // Non-integer upscale with shifts, source box inside the volume.
    {{9, 8, 7}, {1, 0, 1, 7, 8, 5}, {0, 0, 0, 40, 40, 40}, {1.7, 1.3, 2.1}, {.4, -.3, 1.2}},
    // Downscale of the whole volume; a scale of one in z (fractions 0).
    {{20, 17, 13}, {0, 0, 0, 20, 17, 13}, {0, 0, 0, 30, 30, 30}, {.45, .6, 1}, {0, 0, 0}},
    // Destination box clipping the mapped range on every side.
    {{10, 10, 10}, {0, 0, 0, 10, 10, 10}, {3, 4, 2, 6, 5, 7}, {1.5, 1.5, 1.5}, {0, 0, 0}},
    // Extents 1 to 3: every cubic tap list is clamped.
    {{2, 1, 3}, {0, 0, 0, 2, 1, 3}, {0, 0, 0, 9, 9, 9}, {3, 2, 1.5}, {0, .5, 0}},
    // A source box reaching one row (and further columns, planes) past the
    // volume: trimmed; taps outside the box.
    {{6, 7, 6}, {2, 3, 2, 10, 5, 10}, {1, 1, 1, 20, 20, 20}, {2, 1.25, .8}, {.5, 0, -.5}},
    // Large enough for the parallel 32f variant to split the planes.
    {{13, 11, 9}, {0, 0, 0, 13, 11, 9}, {0, 0, 0, 40, 40, 40}, {1.7, 2.3, 1.9}, {.3, -.6, .25}},
};

// The taps of destination coordinate d on one axis, from the mapping rules:
// taps clamped into the whole volume [0, extent - 1].
Taps refTaps(int mode, int d, double F, double S, int extent) {
    const double r = 1 / F, o = -S / F;
    const auto in = [extent](int i) { return std::clamp(i, 0, extent - 1); };
    if (mode == qelInterpNearest) return {1, {in(int((d + 0.5) * r + o - 1e-10))}, {1.0}};
    const double p = (d + 0.5) * r + (o - 0.5);
    const int i = int(std::floor(p));
    const double f = float(p - i);
    if (mode != qelInterpLinear) return cubicTaps(mode, i, f, 0, extent - 1);
    if (i < 0 || i > extent - 2) return {1, {in(i)}, {1.0}};
    return {2, {i, i + 1}, {1 - f, f}};
}

template <class T>
void checkCase(const Case& c, bool planar, int mode, int misalign) {
    SCOPED_TRACE(testing::Message()
                 << sizeof(T) << (planar ? " PV mode " : " V mode ") << mode << " " << misalign);
    Volume<T> src(c.srcSize, 3, 5);
    src.fillRandom(17 + misalign, true);
    const QelBox3D& db = c.dstBox;
    const QelVolumeSize ds{db.x + db.width + 1, db.y + db.height + 2, db.z + db.depth + 1};
    Volume<T> dst(ds, 2, 1), before(ds, 2, 1);
    dst.fillRandom(5);
    before.fillRandom(5);
    ASSERT_EQ(resize(planar, src, c.srcBox, dst, db, c.f, c.s, mode, misalign), qelOk);
    // The written range: the box of the source box trimmed to the volume,
    // inside the destination box.
    QelBox3D sb = c.srcBox, out;
    sb.width = std::min(sb.width, c.srcSize.width - sb.x);
    sb.height = std::min(sb.height, c.srcSize.height - sb.y);
    sb.depth = std::min(sb.depth, c.srcSize.depth - sb.z);
    ASSERT_EQ(qelrGetResizeCuboid(sb, &out, c.f[0], c.f[1], c.f[2], c.s[0], c.s[1], c.s[2], mode),
              qelOk);
    const int lo[3] = {std::max(out.x, db.x), std::max(out.y, db.y), std::max(out.z, db.z)};
    const int hi[3] = {std::min(out.x + out.width, db.x + db.width),
                       std::min(out.y + out.height, db.y + db.height),
                       std::min(out.z + out.depth, db.z + db.depth)};
    const int extent[3] = {c.srcSize.width, c.srcSize.height, c.srcSize.depth};
    expectReference(src, before, dst, 2e-6, [&](int x, int y, int z, Taps t[3]) {
        const int d[3] = {x, y, z};
        for (int a = 0; a < 3; ++a) {
            if (d[a] < lo[a] || d[a] >= hi[a]) return false;
            t[a] = refTaps(mode, d[a], c.f[a], c.s[a], extent[a]);
        }
        return true;
    });
}

// An element's bits do not depend on which path computes it: a destination
// box of width w (vector body and scalar tail split differently for every w)
// gives the elements that the widest box gives at the same places.
template <class T>
void checkWidthIndependence() {
    Volume<T> src({11, 6, 5}, 2, 1);
    src.fillRandom(23);
    const double f[3] = {1.37, 1.2, 1.1}, s[3] = {-.4, .3, 0};
    const QelBox3D sb{0, 0, 0, 11, 6, 5};
    for (int mode : kModes) {
        Volume<T> wide({20, 7, 6}, 0, 0);
        ASSERT_EQ(resize(true, src, sb, wide, {0, 0, 0, 20, 7, 6}, f, s, mode, 0), qelOk);
        for (int w = 1; w < 20; ++w) {
            Volume<T> narrow({20, 7, 6}, 0, 0);
            ASSERT_EQ(resize(true, src, sb, narrow, {0, 0, 0, w, 7, 6}, f, s, mode, 0), qelOk);
            int differ = 0;
            for (int z = 0; z < 6; ++z)
                for (int y = 0; y < 7; ++y)
                    for (int x = 0; x < w; ++x)
                        differ +=
                            std::memcmp(&narrow.at(x, y, z), &wide.at(x, y, z), sizeof(T)) != 0;
            EXPECT_EQ(differ, 0) << "mode " << mode << " width " << w;
        }
    }
}

template <class T>
void checkType() {
    for (bool planar : {false, true})
        for (int mode : kModes)
            for (const Case& c : kCases) checkCase<T>(c, planar, mode, 1 + 13 * int(&c - kCases));
    checkWidthIndependence<T>();
}

// Resize rounding adds 0.5000001 and truncates, so the float just below a half
// already rounds up (0.49999994 + 0.5000001 = 1.0000000 in float); the
// one-element and lane forms agree on every value around each half.
TEST(Resize, RoundingAroundHalvesOnBothPaths) {
    using qelr::volume::storeTruncated, qelr::volume::truncateToElement;
    EXPECT_EQ(truncateToElement<uint8_t>(0.49999994f), 1);
    EXPECT_EQ(truncateToElement<int16_t>(-0.5f), 0);
    EXPECT_EQ(truncateToElement<int16_t>(-0.50000006f), 0);  // -5.96e-8 + 1.19e-7 truncates to 0
    for (float k : {0.0f, 1.0f, 100.0f, 254.0f, -2.0f, 1000.0f}) {
        alignas(16) const float v[4] = {std::nextafter(k + 0.5f, -1e9f), k + 0.5f, std::nextafter(k + 0.5f, 1e9f),
                                        k + 0.49999f};
        alignas(16) int16_t lanes[4];
        storeTruncated<int16_t, 4>(lanes, qelr::simd::F32<4>::load(v));
        for (int i = 0; i < 4; ++i) EXPECT_EQ(lanes[i], truncateToElement<int16_t>(v[i])) << v[i];
    }
}

TEST(Resize, EveryModeAndLayout8u) { checkType<uint8_t>(); }
TEST(Resize, EveryModeAndLayout16u) { checkType<uint16_t>(); }
TEST(Resize, EveryModeAndLayout32f) { checkType<float>(); }

TEST(Resize, BufferSizePerModeTimesTeamSize) {
    qelr_test::ThreadCountGuard restore;
    for (int threads : {1, 3}) {
        qelSetNumThreads(threads);
        for (int mode : kModes) {
            int size = -1;
            ASSERT_EQ(
                qelrResizeGetBufSize({0, 0, 0, 1, 1, 1}, {5, 6, 7, 10, 20, 30}, 1, mode, &size),
                qelOk);
            EXPECT_EQ(size, (mode == 1 ? 384 : mode == 2 ? 13184 : 42368) * threads);
        }
    }
}

}  // namespace
