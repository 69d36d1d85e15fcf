// Volume resize: buffer sizes, checks and warnings, every type, layout and mode
// against a literal reference, edge behaviour and thread-count determinism.
#include <gtest/gtest.h>
#include <qelcore.h>

#include "resize_reference.h"
#include "test_util.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define GUARD_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define GUARD_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define GUARD_POISON(p, n) ((void)(p), (void)(n))
#define GUARD_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

using namespace resize_test;

namespace {

constexpr int kModes[] = {1, 2, 4, 5, 6, 7};

// A work buffer of exactly the queried size, placed `misalign` bytes past a
// 64-byte boundary and followed by a guard that is poisoned under ASan and
// checked for writes otherwise.
class WorkBuffer {
 public:
    WorkBuffer(QelBox3D srcBox, QelBox3D dstBox, int mode, int misalign) : misalign_(misalign) {
        EXPECT_EQ(qelrResizeGetBufSize(srcBox, dstBox, 1, mode, &size_), qelOk);
        storage_.assign(64 + misalign_ + size_ + kGuard, 0x5C);
        GUARD_POISON(guard(), kGuard);
    }
    ~WorkBuffer() {
        GUARD_UNPOISON(guard(), kGuard);
        for (int i = 0; i < kGuard; ++i) EXPECT_EQ(guard()[i], 0x5C) << "scratch overrun";
    }
    uint8_t* data() { return aligned() + misalign_; }

 private:
    static constexpr int kGuard = 256;
    uint8_t* aligned() {
        return storage_.data() + (64 - reinterpret_cast<uintptr_t>(storage_.data()) % 64) % 64;
    }
    uint8_t* guard() { return data() + size_; }
    int misalign_;
    int size_ = 0;
    std::vector<uint8_t> storage_;
};

struct Case {
    QelVolumeSize srcSize;
    QelBox3D srcBox, dstBox;
    double scale[3], offset[3];
};

const Case kCases[] = {
    // Non-integer upscale with shifts, source box inside the volume.
    {{9, 8, 7}, {1, 0, 1, 7, 8, 5}, {0, 0, 0, 40, 40, 40}, {1.7, 1.3, 2.1}, {0.4, -0.3, 1.2}},
    // Downscale of the whole volume.
    {{20, 17, 13}, {0, 0, 0, 20, 17, 13}, {0, 0, 0, 30, 30, 30}, {0.45, 0.6, 0.5}, {0, 0, 0}},
    // Destination box clipping the mapped range on every side.
    {{10, 10, 10}, {0, 0, 0, 10, 10, 10}, {3, 4, 2, 6, 5, 7}, {1.5, 1.5, 1.5}, {0, 0, 0}},
    // Extents 1 to 3: every cubic tap list is clamped.
    {{2, 1, 3}, {0, 0, 0, 2, 1, 3}, {0, 0, 0, 9, 9, 9}, {3, 2, 1.5}, {0, 0.5, 0}},
    // A source box reaching past the volume (trimmed); taps outside the box.
    {{6, 7, 6}, {2, 3, 2, 10, 10, 10}, {1, 1, 1, 20, 20, 20}, {2, 1.25, 0.8}, {0.5, 0, -0.5}},
};

// Resizes case `c` and compares every element of the destination volume with
// the reference inside the written range and with its old value outside.
template <class T>
void checkCase(const Case& c, bool planar, int mode, int misalign) {
    SCOPED_TRACE(testing::Message() << "type size " << sizeof(T) << (planar ? " PV" : " V")
                                    << " mode " << mode << " case " << misalign);
    Volume<T> src(c.srcSize, 3, 5);
    src.fillRandom(17 + misalign);
    const QelBox3D& db = c.dstBox;
    Volume<T> dst({db.x + db.width + 1, db.y + db.height + 2, db.z + db.depth + 1}, 2, 1);
    dst.fillRandom(5);
    const Volume<T> before = dst;
    const Params p{
        {c.scale[0], c.scale[1], c.scale[2]}, {c.offset[0], c.offset[1], c.offset[2]}, mode};
    {
        WorkBuffer buf(c.srcBox, db, mode, misalign);
        ASSERT_EQ(resize(planar, src, c.srcBox, dst, db, p, buf.data()), qelOk);
    }

    const int srcStart[3] = {c.srcBox.x, c.srcBox.y, c.srcBox.z};
    const int srcLen[3] = {std::min(c.srcBox.width, c.srcSize.width - c.srcBox.x),
                           std::min(c.srcBox.height, c.srcSize.height - c.srcBox.y),
                           std::min(c.srcBox.depth, c.srcSize.depth - c.srcBox.z)};
    const int dstStart[3] = {db.x, db.y, db.z}, dstLen[3] = {db.width, db.height, db.depth};
    const int extent[3] = {c.srcSize.width, c.srcSize.height, c.srcSize.depth};
    RefRange r[3];
    for (int a = 0; a < 3; ++a)
        r[a] = refRange(srcStart[a], srcLen[a], dstStart[a], dstLen[a], c.scale[a], c.offset[a]);

    for (int z = 0; z < dst.size.depth; ++z)
        for (int y = 0; y < dst.size.height; ++y)
            for (int x = 0; x < dst.size.width; ++x) {
                const T got = dst.at(x, y, z);
                const bool inside = x >= r[0].lo && x < r[0].hi && y >= r[1].lo && y < r[1].hi &&
                                    z >= r[2].lo && z < r[2].hi;
                if (!inside) {
                    ASSERT_EQ(std::memcmp(&got, &before.at(x, y, z), sizeof(T)), 0)
                        << "written outside at " << x << "," << y << "," << z;
                    continue;
                }
                const Taps tx = refTaps(mode, x, c.scale[0], c.offset[0], extent[0]);
                const Taps ty = refTaps(mode, y, c.scale[1], c.offset[1], extent[1]);
                const Taps tz = refTaps(mode, z, c.scale[2], c.offset[2], extent[2]);
                const auto [v, mag] = refValue(src, tx, ty, tz);
                if (mode == qelInterpNearest) {
                    ASSERT_EQ(std::memcmp(&got, &src.at(tx.index[0], ty.index[0], tz.index[0]),
                                          sizeof(T)),
                              0)
                        << x << "," << y << "," << z;
                } else if constexpr (std::is_same_v<T, float>) {
                    ASSERT_NEAR(got, v, 2e-6 * mag + 1e-6) << x << "," << y << "," << z;
                } else {
                    // Exact away from rounding ties: within half a step plus the
                    // float evaluation error of the sum.
                    const double hi = std::is_same_v<T, uint8_t> ? 255.0 : 65535.0;
                    ASSERT_NEAR(got, std::clamp(v, 0.0, hi), 0.5 + 1e-4 + 2e-6 * mag)
                        << x << "," << y << "," << z;
                }
            }
}

template <class T>
void checkAllCases() {
    for (bool planar : {false, true})
        for (int mode : kModes)
            for (int i = 0; i < static_cast<int>(std::size(kCases)); ++i)
                checkCase<T>(kCases[i], planar, mode, 1 + 13 * i);
}

}  // namespace

TEST(ResizeBufSize, FormulaPerModeTimesTeamSize) {
    qelr_test::ThreadCountGuard restore;
    const QelBox3D src{0, 0, 0, 1, 1, 1}, dst{5, 6, 7, 10, 20, 30};
    for (int threads : {1, 3}) {
        qelSetNumThreads(threads);
        int size = -1;
        ASSERT_EQ(qelrResizeGetBufSize(src, dst, 1, qelInterpNearest, &size), qelOk);
        EXPECT_EQ(size, 384 * threads);
        ASSERT_EQ(qelrResizeGetBufSize(src, dst, 1, qelInterpLinear, &size), qelOk);
        EXPECT_EQ(size, 13184 * threads);
        for (int mode = 4; mode <= 7; ++mode) {
            ASSERT_EQ(qelrResizeGetBufSize(src, dst, 1, mode, &size), qelOk);
            EXPECT_EQ(size, 42368 * threads);
        }
    }
}

TEST(ResizeBufSize, ChecksInOrder) {
    const QelBox3D ok{0, 0, 0, 4, 4, 4}, bad{0, 0, 0, 4, 0, 4};
    int size = -1;
    EXPECT_EQ(qelrResizeGetBufSize(bad, ok, 3, 3, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrResizeGetBufSize(bad, ok, 3, 3, &size), qelErrSize);
    EXPECT_EQ(qelrResizeGetBufSize(ok, bad, 3, 3, &size), qelErrSize);
    EXPECT_EQ(qelrResizeGetBufSize(ok, ok, 3, 3, &size), qelErrChannels);
    EXPECT_EQ(qelrResizeGetBufSize(ok, ok, 1, 3, &size), qelErrInterpolation);
    EXPECT_EQ(size, -1);
    // A size no int can hold.
    EXPECT_EQ(qelrResizeGetBufSize(ok, {0, 0, 0, 100000, 100000, 1}, 1, 4, &size), qelErrSize);
    EXPECT_EQ(size, -1);
}

TEST(Resize, ChecksAndWarningsWriteNothing) {
    Volume<uint8_t> src({6, 6, 6}, 0, 0), dst({6, 6, 6}, 0, 0);
    src.fillRandom(1);
    dst.fillRandom(2);
    const auto before = dst.bytes;
    std::vector<uint8_t> buf(1 << 16);
    const QelBox3D box{0, 0, 0, 6, 6, 6};
    const auto call = [&](const uint8_t* s, QelVolumeSize size, QelBox3D sb, QelBox3D db, double f,
                          int mode, uint8_t* b) {
        return qelrResize_8u_C1V(s, size, src.rowStep, src.sliceStep, sb, dst.base(), dst.rowStep,
                                 dst.sliceStep, db, f, 1, 1, 0, 0, 0, mode, b);
    };
    EXPECT_EQ(call(nullptr, {0, 6, 6}, box, box, 0, 3, buf.data()), qelErrNullPointer);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, box, box, 1, 1, nullptr), qelErrNullPointer);
    EXPECT_EQ(call(src.base(), {0, 6, 6}, box, box, 0, 3, buf.data()), qelErrSize);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, {-1, 0, 0, 6, 6, 6}, box, 0, 3, buf.data()), qelErrSize);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, box, {0, 0, 0, 6, 6, 0}, 0, 3, buf.data()), qelErrSize);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, box, box, 0, 3, buf.data()), qelErrFactor);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, box, box, -2, 3, buf.data()), qelErrFactor);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, box, box, 1, 3, buf.data()), qelErrInterpolation);
    // Origin beyond the volume: 40; a destination box off the mapped range: 1;
    // a NaN factor passes the checks and maps to nothing.
    EXPECT_EQ(call(src.base(), {6, 6, 6}, {0, 6, 0, 1, 1, 1}, box, 1, 2, buf.data()),
              qelWarnRegionOutsideVolume);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, {0, 0, 0, 2, 6, 6}, {3, 0, 0, 3, 6, 6}, 1, 2, buf.data()),
              qelWarnNothingToDo);
    EXPECT_EQ(call(src.base(), {6, 6, 6}, box, box, std::nan(""), 4, buf.data()),
              qelWarnNothingToDo);
    EXPECT_EQ(dst.bytes, before);
}

TEST(Resize, AbsurdFactorsAndShiftsStayInsideTheVolumes) {
    // Subnormal, huge and infinite factors make positions infinite or NaN;
    // whatever is written, every access stays inside the volumes and buffer.
    Volume<float> src({5, 4, 3}, 0, 0), dst({6, 6, 6}, 0, 0);
    src.fillRandom(6);
    const QelBox3D s{0, 0, 0, 5, 4, 3}, d{0, 0, 0, 6, 6, 6};
    const double factors[] = {1e-320, 1e300, INFINITY, 1e-9};
    for (double f : factors)
        for (double shift : {0.5, -1e10, 1e10})
            for (int mode : kModes) {
                WorkBuffer buf(s, d, mode, 9);
                const Params p{{f, 1, 1}, {shift, 0, 0}, mode};
                const QelStatus st = resize(false, src, s, dst, d, p, buf.data());
                EXPECT_TRUE(st == qelOk || st == qelWarnNothingToDo) << f << " " << mode;
            }
}

TEST(Resize, EveryModeAndLayout8u) { checkAllCases<uint8_t>(); }
TEST(Resize, EveryModeAndLayout16u) { checkAllCases<uint16_t>(); }
TEST(Resize, EveryModeAndLayout32f) {
    qelr_test::ThreadCountGuard restore;
    qelSetNumThreads(1);  // the serial path; the team is covered below
    checkAllCases<float>();
}

TEST(Resize, ScaleOneLinearIsIdentity) {
    Volume<uint8_t> src({7, 6, 5}, 1, 0), dst({7, 6, 5}, 0, 3);
    src.fillRandom(3);
    const QelBox3D box{0, 0, 0, 7, 6, 5};
    WorkBuffer buf(box, box, qelInterpLinear, 0);
    ASSERT_EQ(resize(false, src, box, dst, box, {{1, 1, 1}, {0, 0, 0}, 2}, buf.data()), qelOk);
    for (int z = 0; z < 5; ++z)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 7; ++x) ASSERT_EQ(dst.at(x, y, z), src.at(x, y, z));
}

TEST(Resize, FactorTwoLeftBorderTakesTheFirstElementUnweighted) {
    Volume<float> src({5, 5, 5}, 0, 0), dst({10, 10, 10}, 0, 0);
    src.fillRandom(4);
    const QelBox3D s{0, 0, 0, 5, 5, 5}, d{0, 0, 0, 10, 10, 10};
    WorkBuffer buf(s, d, qelInterpLinear, 7);
    ASSERT_EQ(resize(true, src, s, dst, d, {{2, 2, 2}, {0, 0, 0}, 2}, buf.data()), qelOk);
    EXPECT_EQ(qelr_test::bitsOf(dst.at(0, 0, 0)), qelr_test::bitsOf(src.at(0, 0, 0)));
    EXPECT_EQ(qelr_test::bitsOf(dst.at(9, 9, 9)), qelr_test::bitsOf(src.at(4, 4, 4)));
}

TEST(Resize, CatmullRomUndershootSaturatesForIntegers) {
    const QelBox3D s{0, 0, 0, 8, 1, 1}, d{0, 0, 0, 12, 1, 1};
    Volume<uint8_t> s8({8, 1, 1}, 0, 0), d8({12, 1, 1}, 0, 0);
    Volume<float> s32({8, 1, 1}, 0, 0), d32({12, 1, 1}, 0, 0);
    for (int x = 0; x < 8; ++x) s8.at(x, 0, 0) = s32.at(x, 0, 0) = x < 4 ? 0 : 200;
    const Params p{{1.5, 1, 1}, {0, 0, 0}, qelInterpCubicCatmullRom};
    WorkBuffer buf(s, d, p.mode, 3);
    ASSERT_EQ(resize(false, s8, s, d8, d, p, buf.data()), qelOk);
    ASSERT_EQ(resize(false, s32, s, d32, d, p, buf.data()), qelOk);
    int undershoots = 0;
    for (int x = 0; x < 12; ++x) {
        if (d32.at(x, 0, 0) < 0) {
            ++undershoots;
            EXPECT_EQ(d8.at(x, 0, 0), 0);
        }
        // The same float sums, converted by +0.5000001, truncation and saturation.
        const float v = std::clamp(d32.at(x, 0, 0) + 0.5000001f, 0.0f, 255.0f);
        EXPECT_EQ(d8.at(x, 0, 0), static_cast<int>(v)) << x;
    }
    EXPECT_GT(undershoots, 0);
}

TEST(Resize, ParallelVariantIsIdenticalForAnyTeamSize) {
    qelr_test::ThreadCountGuard restore;
    Volume<float> src({14, 13, 12}, 2, 1);
    src.fillRandom(9);
    const QelBox3D s{0, 0, 0, 14, 13, 12}, d{0, 0, 0, 24, 22, 20};
    const Params base{{1.7, 1.65, 1.6}, {0.2, 0, -0.1}, 0};
    for (int mode : kModes) {
        Params p = base;
        p.mode = mode;
        std::vector<uint8_t> first;
        for (int threads : {1, 2, 3, 4}) {
            qelSetNumThreads(threads);
            Volume<float> dst({24, 22, 20}, 1, 0);
            WorkBuffer buf(s, d, mode, 5 * threads);
            ASSERT_EQ(resize(false, src, s, dst, d, p, buf.data()), qelOk);
            if (first.empty()) {
                first = dst.bytes;
                // The serial planar variant gives the same bits.
                Volume<float> planar({24, 22, 20}, 1, 0);
                ASSERT_EQ(resize(true, src, s, planar, d, p, buf.data()), qelOk);
                EXPECT_EQ(planar.bytes, first) << mode;
            } else {
                EXPECT_EQ(dst.bytes, first) << "mode " << mode << " threads " << threads;
            }
        }
    }
}
