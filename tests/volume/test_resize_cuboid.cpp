// The destination box of a resize.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cmath>
#include <cstring>

namespace {

constexpr QelBox3D kUntouched = {-9, -9, -9, -9, -9, -9};

struct Result {
    QelStatus status;
    QelBox3D box;
};

Result cuboid(QelBox3D src, double sx, double sy, double sz, double ox = 0, double oy = 0,
              double oz = 0, int mode = qelInterpLinear) {
    QelBox3D out = kUntouched;
    const QelStatus st = qelrGetResizeCuboid(src, &out, sx, sy, sz, ox, oy, oz, mode);
    return {st, out};
}

bool same(const QelBox3D& a, const QelBox3D& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

TEST(ResizeCuboid, ScalesAndShifts) {
    Result r = cuboid({0, 0, 0, 10, 10, 10}, 2, 2, 2);
    EXPECT_EQ(r.status, qelOk);
    EXPECT_TRUE(same(r.box, QelBox3D{0, 0, 0, 20, 20, 20}));

    r = cuboid({1, 0, 0, 3, 1, 1}, 0.5, 1,
               1);  // lo = trunc(0.9999999999), hi = trunc(2.5000000001)
    EXPECT_EQ(r.status, qelOk);
    EXPECT_EQ(r.box.x, 0);
    EXPECT_EQ(r.box.width, 2);

    r = cuboid({2, 3, 4, 5, 6, 7}, 1, 2, 3, 10, -1, 0.25);
    EXPECT_EQ(r.status, qelOk);
    EXPECT_TRUE(same(r.box, QelBox3D{12, 5, 12, 5, 12, 21}));
}

TEST(ResizeCuboid, HalfElementEdgesBelongToBothEnds) {
    // Source [1, 2) scaled by 1.5 maps to [1.5, 3): the start rounds the
    // half down to 1, the end rounds 3.0 to 3.
    Result r = cuboid({1, 0, 0, 1, 1, 1}, 1.5, 1, 1);
    EXPECT_EQ(r.status, qelOk);
    EXPECT_EQ(r.box.x, 1);
    EXPECT_EQ(r.box.width, 2);
    // End exactly on a half: [0, 2.5) ends at 3.
    r = cuboid({0, 0, 0, 5, 1, 1}, 0.5, 1, 1);
    EXPECT_EQ(r.box.width, 3);
}

TEST(ResizeCuboid, EmptyRangesWarnWithoutWriting) {
    Result r = cuboid({0, 0, 0, 1, 1, 1}, 0.25, 0.25, 0.25);
    EXPECT_EQ(r.status, qelWarnNothingToDo);
    EXPECT_TRUE(same(r.box, kUntouched));
    // Shifted wholly below zero: both ends clamp to 0.
    r = cuboid({0, 0, 0, 4, 4, 4}, 1, 1, 1, -100, 0, 0);
    EXPECT_EQ(r.status, qelWarnNothingToDo);
    EXPECT_TRUE(same(r.box, kUntouched));
    // Partly below zero: the start clamps, the end does not.
    r = cuboid({0, 0, 0, 4, 4, 4}, 1, 1, 1, -2, 0, 0);
    EXPECT_EQ(r.status, qelOk);
    EXPECT_EQ(r.box.x, 0);
    EXPECT_EQ(r.box.width, 2);
    // A NaN factor passes the factor check and yields nothing.
    r = cuboid({0, 0, 0, 4, 4, 4}, NAN, 1, 1);
    EXPECT_EQ(r.status, qelWarnNothingToDo);
}

TEST(ResizeCuboid, ChecksInOrder) {
    const QelBox3D good = {0, 0, 0, 4, 4, 4};
    EXPECT_EQ(qelrGetResizeCuboid(QelBox3D{-1, 0, 0, 0, 0, 0}, nullptr, 0, 0, 0, 0, 0, 0, 3),
              qelErrNullPointer);
    for (const QelBox3D bad :
         {QelBox3D{-1, 0, 0, 4, 4, 4}, QelBox3D{0, 0, 0, 0, 4, 4}, QelBox3D{0, -1, 0, 4, 4, 4},
          QelBox3D{0, 0, 0, 4, 0, 4}, QelBox3D{0, 0, -1, 4, 4, 4}, QelBox3D{0, 0, 0, 4, 4, -2}}) {
        const Result r = cuboid(bad, 0, 0, 0, 0, 0, 0, 3);
        EXPECT_EQ(r.status, qelErrSize);
        EXPECT_TRUE(same(r.box, kUntouched));
    }
    EXPECT_EQ(cuboid(good, 0, 1, 1, 0, 0, 0, 3).status, qelErrFactor);
    EXPECT_EQ(cuboid(good, 1, -1, 1).status, qelErrFactor);
    EXPECT_EQ(cuboid(good, 1, 1, 0).status, qelErrFactor);
    for (int mode : {0, 3, 8, -1})
        EXPECT_EQ(cuboid(good, 1, 1, 1, 0, 0, 0, mode).status, qelErrInterpolation);
    for (int mode : {1, 2, 4, 5, 6, 7})
        EXPECT_EQ(cuboid(good, 1, 1, 1, 0, 0, 0, mode).status, qelOk);
}
