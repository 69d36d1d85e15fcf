// The destination box of a resize: hand-derived boxes and statuses, and
// nothing written on failure or warning; the buffer-size queries of both
// variants answer alike.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cmath>
#include <cstring>

#include "core/dispatch.h"

namespace {

using qelr::frame::Isa;

TEST(ResizeCuboid, HandDerivedBoxesAndStatuses) {
    constexpr QelBox3D kUntouched = {-9, -9, -9, -9, -9, -9};
    struct Case {
        QelBox3D src;
        double f[3], s[3];
        int mode;
        QelStatus status;
        QelBox3D want;
    } const cases[] = {
        {{0, 0, 0, 10, 10, 10}, {2, 2, 2}, {0, 0, 0}, 2, qelOk, {0, 0, 0, 20, 20, 20}},
        // lo = trunc(0.5 + 0.4999999999) = 0, hi = trunc(2 + 0.5000000001) = 2.
        {{1, 0, 0, 3, 1, 1}, {.5, 1, 1}, {0, 0, 0}, 2, qelOk, {0, 0, 0, 2, 1, 1}},
        {{2, 3, 4, 5, 6, 7}, {1, 2, 3}, {10, -1, .25}, 1, qelOk, {12, 5, 12, 5, 12, 21}},
        // Half-element edges belong to both ends: [1.5, 3) starts at 1; [0, 2.5) ends at 3.
        {{1, 0, 0, 1, 1, 1}, {1.5, 1, 1}, {0, 0, 0}, 4, qelOk, {1, 0, 0, 2, 1, 1}},
        {{0, 0, 0, 5, 1, 1}, {.5, 1, 1}, {0, 0, 0}, 7, qelOk, {0, 0, 0, 3, 1, 1}},
        // Partly below zero: the start clamps at 0, the end does not.
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-2, 0, 0}, 5, qelOk, {0, 0, 0, 2, 4, 4}},
        // Empty ranges: hi = trunc(0.25 + 0.5000000001) = 0; wholly below zero; NaN.
        {{0, 0, 0, 1, 1, 1}, {.25, .25, .25}, {0, 0, 0}, 6, qelWarnNothingToDo, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-100, 0, 0}, 2, qelWarnNothingToDo, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {NAN, 1, 1}, {0, 0, 0}, 2, qelWarnNothingToDo, kUntouched},
        // Checks in order: box (x, width, y, height, z, depth), factors, mode.
        {{-1, 0, 0, 4, 4, 4}, {0, 0, 0}, {0, 0, 0}, 3, qelErrSize, kUntouched},
        {{0, 0, 0, 0, 4, 4}, {0, 0, 0}, {0, 0, 0}, 3, qelErrSize, kUntouched},
        {{0, -1, 0, 4, 4, 4}, {0, 0, 0}, {0, 0, 0}, 3, qelErrSize, kUntouched},
        {{0, 0, 0, 4, 0, 4}, {0, 0, 0}, {0, 0, 0}, 3, qelErrSize, kUntouched},
        {{0, 0, -1, 4, 4, 4}, {0, 0, 0}, {0, 0, 0}, 3, qelErrSize, kUntouched},
        {{0, 0, 0, 4, 4, -2}, {0, 0, 0}, {0, 0, 0}, 3, qelErrSize, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {0, 1, 1}, {0, 0, 0}, 3, qelErrFactor, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, -1, 1}, {0, 0, 0}, 2, qelErrFactor, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 0}, {0, 0, 0}, 2, qelErrFactor, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, 0}, 3, qelErrInterpolation, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, 0}, 8, qelErrInterpolation, kUntouched},
        {{0, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, 0}, 0, qelErrInterpolation, kUntouched},
    };
    for (const Case& c : cases) {
        QelBox3D out = kUntouched;
        EXPECT_EQ(qelrGetResizeCuboid(c.src, &out, c.f[0], c.f[1], c.f[2], c.s[0], c.s[1], c.s[2],
                                      c.mode),
                  c.status)
            << &c - cases;
        EXPECT_EQ(std::memcmp(&out, &c.want, sizeof out), 0) << &c - cases;
    }
    EXPECT_EQ(qelrGetResizeCuboid({-1, 0, 0, 0, 0, 0}, nullptr, 0, 0, 0, 0, 0, 0, 3),
              qelErrNullPointer);
}

TEST(VolumeQueries, BothVariantsAnswerAlike) {
    if (!qelr::frame::isaRuns(Isa::avx2)) GTEST_SKIP();
    const QelBox3D boxes[] = {{0, 0, 0, 10, 10, 10},
                              {1, 0, 0, 3, 1, 1},
                              {-1, 0, 0, 4, 4, 4},
                              {5, 6, 7, 300, 2, 9},
                              {0, 0, 0, 100000, 100000, 1}};
    for (int mode : {1, 2, 3, 4, 7, 8})
        for (const QelBox3D& b : boxes) {
            int size[2][3] = {{-1, -1, -1}, {-1, -1, -1}}, st[2][3];
            for (Isa isa : qelr::frame::kIsas) {
                const int k = isa == Isa::avx2;
                st[k][0] = QELR_VARIANT(isa, qelrResizeGetBufSize)(b, b, 1, mode, &size[k][0]);
                st[k][1] = QELR_VARIANT(isa, qelrWarpAffineGetBufSize)(b, b, 1, mode, &size[k][1]);
                st[k][2] = QELR_VARIANT(isa, qelrFilterGetBufSize)({b.width, b.height, b.depth},
                                                                   {3, 3, mode}, 1, &size[k][2]);
            }
            EXPECT_EQ(std::memcmp(st[0], st[1], sizeof st[0]), 0) << mode;
            EXPECT_EQ(std::memcmp(size[0], size[1], sizeof size[0]), 0) << mode;
        }
}

}  // namespace
