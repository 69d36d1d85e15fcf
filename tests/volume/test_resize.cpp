// Volume resize: buffer sizes, checks and warnings, and every type, layout and
// mode against the closed forms evaluated in double at the positions the
// mapping rules give, with exactly the queried scratch.
#include <gtest/gtest.h>
#include <qelcore.h>

#include "test_util.h"
#include "volume_reference.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define GUARD_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define GUARD_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define GUARD_POISON(p, n) ((void)(p), (void)(n))
#define GUARD_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

using namespace volume_test;

namespace {

struct Params {
    double f[3], s[3];  // factors and shifts
    int mode;
};

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
        GUARD_POISON(data + size, kGuard);
    }
    ~WorkBuffer() {
        GUARD_UNPOISON(data + size, kGuard);
        for (int i = 0; i < kGuard; ++i) EXPECT_EQ(data[size + i], 0x5C) << "scratch overrun";
    }
};

// Resizes with every variant and team size (which must agree).
template <class T>
int resize(const std::string& name, bool planar, const Volume<T>& src, QelBox3D sb, Volume<T>& dst,
           QelBox3D db, const double f[3], const double s[3], int mode, int misalign) {
    return sameEverywhere(name, dst, [&](Isa i) {
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
    // A source box reaching past the volume (trimmed); taps outside the box.
    {{6, 7, 6}, {2, 3, 2, 10, 10, 10}, {1, 1, 1, 20, 20, 20}, {2, 1.25, .8}, {.5, 0, -.5}},
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
    const std::string name = "resize_" + std::to_string(sizeof(T)) + (planar ? "PV_" : "V_") +
                             std::to_string(mode) + "_" + std::to_string(misalign);
    ASSERT_EQ(resize(name, planar, src, c.srcBox, dst, db, c.f, c.s, mode, misalign), qelOk);
    // The written range per axis, then the taps of every element inside it.
    const int start[3] = {c.srcBox.x, c.srcBox.y, c.srcBox.z},
              extent[3] = {c.srcSize.width, c.srcSize.height, c.srcSize.depth};
    const int len[3] = {std::min(c.srcBox.width, extent[0] - start[0]),
                        std::min(c.srcBox.height, extent[1] - start[1]),
                        std::min(c.srcBox.depth, extent[2] - start[2])};
    const int dstStart[3] = {db.x, db.y, db.z}, dstLen[3] = {db.width, db.height, db.depth};
    int lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = int(std::max(start[a] * c.f[a] + c.s[a], double(dstStart[a])) + 0.4999999999);
        hi[a] =
            int(std::min((start[a] + len[a]) * c.f[a] + c.s[a], double(dstStart[a] + dstLen[a])) +
                0.5000000001);
    }
    expectReference(src, before, dst, 2e-6, [&](int x, int y, int z, Taps t[3]) {
        const int d[3] = {x, y, z};
        for (int a = 0; a < 3; ++a) {
            if (d[a] < lo[a] || d[a] >= hi[a]) return false;
            t[a] = refTaps(mode, d[a], c.f[a], c.s[a], extent[a]);
        }
        return true;
    });
}

template <class T>
void checkAllCases() {
    for (bool planar : {false, true})
        for (int mode : kModes)
            for (const Case& c : kCases) checkCase<T>(c, planar, mode, 1 + 13 * int(&c - kCases));
}

TEST(Resize, AbsurdFactorsAndShiftsStayInsideTheVolumes) {
    // Positions infinite or NaN: whatever is written, every access stays
    // inside the volumes and the buffer (checked by the sanitizer build).
    Volume<float> src({5, 4, 3}, 0, 0), dst({6, 6, 6}, 0, 0);
    const double f[][3] = {{1e-320, 1e300, 1}, {INFINITY, 1e-9, 1}},
                 s[][3] = {{.5, -1e10, 0}, {1e10, 0, .5}};
    for (int k = 0; k < 2; ++k)
        for (int mode : kModes) {
            const int st = resize("absurd_" + std::to_string(mode), k == 1, src, {0, 0, 0, 5, 4, 3},
                                  dst, {0, 0, 0, 6, 6, 6}, f[k], s[k], mode, 9);
            EXPECT_TRUE(st == qelOk || st == qelWarnNothingToDo) << k << " " << mode;
        }
}

// An element's bits do not depend on which path computes it: a destination
// box of width w (vector body and scalar tail split differently for every w)
// gives the elements that the widest box gives at the same places.
template <class T>
void checkWidthIndependence() {
    Volume<T> src({11, 6, 5}, 2, 1);
    src.fillRandom(23);
    const double f[3] = {1.37, 1.2, 1.1}, s[3] = {-.4, .3, 0};
    for (int mode : kModes) {
        Volume<T> wide({20, 7, 6}, 0, 0);
        ASSERT_EQ(resize("wide", true, src, {0, 0, 0, 11, 6, 5}, wide, {0, 0, 0, 20, 7, 6}, f, s,
                         mode, 0), qelOk);
        for (int w = 1; w < 20; ++w) {
            Volume<T> narrow({20, 7, 6}, 0, 0);
            ASSERT_EQ(resize("narrow", true, src, {0, 0, 0, 11, 6, 5}, narrow, {0, 0, 0, w, 7, 6},
                             f, s, mode, 0), qelOk);
            int differ = 0;
            for (int z = 0; z < 6; ++z)
                for (int y = 0; y < 7; ++y)
                    for (int x = 0; x < w; ++x)
                        differ += std::memcmp(&narrow.at(x, y, z), &wide.at(x, y, z), sizeof(T)) != 0;
            EXPECT_EQ(differ, 0) << "mode " << mode << " width " << w;
        }
    }
}

TEST(Resize, ElementsDoNotDependOnTheBoxWidth) {
    checkWidthIndependence<uint8_t>();
    checkWidthIndependence<uint16_t>();
    checkWidthIndependence<float>();
}

TEST(Resize, EveryModeAndLayout8u) { checkAllCases<uint8_t>(); }
TEST(Resize, EveryModeAndLayout16u) { checkAllCases<uint16_t>(); }
TEST(Resize, EveryModeAndLayout32f) { checkAllCases<float>(); }

TEST(Resize, BufferSizeFormulaPerModeTimesTeamSizeAndChecks) {
    qelr_test::ThreadCountGuard restore;
    const QelBox3D src{0, 0, 0, 1, 1, 1}, dst{5, 6, 7, 10, 20, 30}, bad{0, 0, 0, 4, 0, 4};
    int size = -1;
    for (int threads : {1, 3}) {
        qelSetNumThreads(threads);
        for (int mode : kModes) {
            ASSERT_EQ(qelrResizeGetBufSize(src, dst, 1, mode, &size), qelOk);
            EXPECT_EQ(size, (mode == 1 ? 384 : mode == 2 ? 13184 : 42368) * threads);
        }
    }
    size = -1;
    EXPECT_EQ(qelrResizeGetBufSize(bad, dst, 3, 3, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrResizeGetBufSize(bad, dst, 3, 3, &size), qelErrSize);
    EXPECT_EQ(qelrResizeGetBufSize(dst, bad, 3, 3, &size), qelErrSize);
    EXPECT_EQ(qelrResizeGetBufSize(dst, dst, 3, 3, &size), qelErrChannels);
    EXPECT_EQ(qelrResizeGetBufSize(dst, dst, 1, 3, &size), qelErrInterpolation);
    EXPECT_EQ(qelrResizeGetBufSize(dst, {0, 0, 0, 100000, 100000, 1}, 1, 4, &size), qelErrSize);
    EXPECT_EQ(size, -1);  // no int can hold that size
}

TEST(Resize, ChecksAndWarningsWriteNothing) {
    Volume<uint8_t> src({6, 6, 6}, 0, 0), dst({6, 6, 6}, 0, 0);
    dst.fillRandom(2);
    const auto before = dst.bytes;
    std::vector<uint8_t> buf(1 << 16);
    const QelBox3D box{0, 0, 0, 6, 6, 6};
    const auto call = [&](const uint8_t* s, QelVolumeSize size, QelBox3D sb, QelBox3D db, double f,
                          int mode, uint8_t* b) {
        return qelrResize_8u_C1V(s, size, src.rowStep, src.sliceStep, sb, dst.base(), dst.rowStep,
                                 dst.sliceStep, db, f, 1, 1, 0, 0, 0, mode, b);
    };
    const uint8_t* s = src.base();
    EXPECT_EQ(call(nullptr, {0, 6, 6}, box, box, 0, 3, buf.data()), qelErrNullPointer);
    EXPECT_EQ(call(s, {6, 6, 6}, box, box, 1, 1, nullptr), qelErrNullPointer);
    EXPECT_EQ(call(s, {0, 6, 6}, box, box, 0, 3, buf.data()), qelErrSize);
    EXPECT_EQ(call(s, {6, 6, 6}, {-1, 0, 0, 6, 6, 6}, box, 0, 3, buf.data()), qelErrSize);
    EXPECT_EQ(call(s, {6, 6, 6}, box, {0, 0, 0, 6, 6, 0}, 0, 3, buf.data()), qelErrSize);
    EXPECT_EQ(call(s, {6, 6, 6}, box, box, -2, 3, buf.data()), qelErrFactor);
    EXPECT_EQ(call(s, {6, 6, 6}, box, box, 1, 3, buf.data()), qelErrInterpolation);
    // Origin beyond the volume: 40; a destination box off the mapped range: 1;
    // a NaN factor passes the checks and maps to nothing.
    EXPECT_EQ(call(s, {6, 6, 6}, {0, 6, 0, 1, 1, 1}, box, 1, 2, buf.data()),
              qelWarnRegionOutsideVolume);
    EXPECT_EQ(call(s, {6, 6, 6}, {0, 0, 0, 2, 6, 6}, {3, 0, 0, 3, 6, 6}, 1, 2, buf.data()),
              qelWarnNothingToDo);
    EXPECT_EQ(call(s, {6, 6, 6}, box, box, std::nan(""), 4, buf.data()), qelWarnNothingToDo);
    EXPECT_EQ(dst.bytes, before);
}

}  // namespace
