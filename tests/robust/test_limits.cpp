// Sizes and offsets at the 32-bit limits. A box may start just below
// INT32_MAX and reach past it, and a filter anchor may move row and plane
// indices beyond the 32-bit range; the caller's pointers then address those
// elements (a plane pointer may point far before its buffer), and every
// element the caller named must be handled, with no index wrapping.
#include <gtest/gtest.h>
#include <qelr.h>

#include <climits>
#include <cstdint>
#include <vector>

namespace {

// p moved by `bytes` without C++ pointer arithmetic (the result addresses
// memory outside p's object on purpose: the library adds the offset back).
template <class T>
T* movedBy(T* p, int64_t bytes) {
    return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(bytes));
}

// A planar 8-bit destination covering exactly the elements of `box`, addressed
// with the box's absolute coordinates; every element starts at `fill`.
struct BoxVolume {
    std::vector<uint8_t> data;
    std::vector<uint8_t*> planes;
    QelBox3D box;
    BoxVolume(QelBox3D b, uint8_t fill)
        : data(size_t(b.width) * b.height * b.depth, fill), box(b) {
        for (int k = 0; k < b.depth; ++k) {
            planes.push_back(movedBy(data.data() + size_t(k) * b.width * b.height,
                                     -(int64_t{b.x} + int64_t{b.y} * b.width)));
        }
    }
    uint8_t* const* pv() { return movedBy(planes.data(), -int64_t{box.z} * 8); }
    int rowStep() const { return box.width; }
    uint8_t at(int i, int j, int k) const { return data[(size_t(k) * box.height + j) * box.width + i]; }
};

// The affine warp walks a destination cuboid that ends past INT32_MAX: each
// of its elements that maps into the source is written, the others are not.
TEST(Limits, WarpDestinationCuboidEndingPastInt32Max) {
    const int32_t m = INT32_MAX - 1;
    struct Case {
        int srcDepth;
        QelBox3D dst;
        double shift[3];  // forward translation; 0 maps every element outside
    } cases[] = {
        {4, {m, 0, 0, 4, 1, 1}, {0, 0, 0}},
        {4, {m, 0, 0, 4, 1, 1}, {m, 0, 0}},
        {4, {0, m, 0, 2, 4, 1}, {0, m, 0}},
        {4, {0, 0, m, 4, 1, 4}, {0, 0, m}},
        {1, {m, 0, 5, 4, 2, 1}, {m, 0, 5}},  // the single-plane path
        {1, {1, m, 0, 3, 4, 1}, {1, m, 0}},
    };
    for (const Case& c : cases) {
        const int sd = c.srcDepth;
        std::vector<uint8_t> src(16 * sd);
        for (size_t i = 0; i < src.size(); ++i) src[i] = uint8_t(1 + i);
        std::vector<const uint8_t*> sp;
        for (int z = 0; z < sd; ++z) sp.push_back(src.data() + 16 * z);
        const double coeffs[3][4] = {
            {1, 0, 0, c.shift[0]}, {0, 1, 0, c.shift[1]}, {0, 0, 1, c.shift[2]}};
        const bool written = c.shift[0] + c.shift[1] + c.shift[2] != 0;
        for (int mode : {qelInterpNearest, qelInterpLinear, qelInterpCubicCatmullRom}) {
            SCOPED_TRACE(testing::Message() << "box " << c.dst.x << "," << c.dst.y << ","
                                            << c.dst.z << " source depth " << sd << " mode " << mode);
            BoxVolume dst(c.dst, 0);
            ASSERT_EQ(qelrWarpAffine_8u_C1PV(sp.data(), {4, 4, sd}, 4, {0, 0, 0, 4, 4, sd},
                                             dst.pv(), dst.rowStep(), c.dst, coeffs, mode),
                      qelOk);
            for (int k = 0; k < c.dst.depth; ++k) {
                for (int j = 0; j < c.dst.height; ++j) {
                    for (int i = 0; i < c.dst.width; ++i) {
                        // Integer translations: element (i, j, k) of the box
                        // reads source element (i, j, k) exactly.
                        EXPECT_EQ(dst.at(i, j, k), written ? src[16 * k + 4 * j + i] : 0)
                            << i << "," << j << "," << k;
                    }
                }
            }
        }
    }
}

// The filter with anchors that move source rows and planes beyond the 32-bit
// range (both signs) and columns far off: every destination voxel is the
// convolution of the source the caller addressed there.
TEST(Limits, FilterAnchorBeyondInt32Range) {
    struct Case {
        QelVolumeSize roi, ks;
        QelOffset3D anchor;
    } cases[] = {
        {{4, 2, 1}, {1, 1, 1}, {0, INT32_MAX, 0}},
        {{4, 1, 2}, {1, 1, 2}, {0, 0, INT32_MAX}},
        {{4, 1, 1}, {1, 2, 1}, {0, INT32_MIN, 0}},
        {{3, 1, 2}, {1, 1, 2}, {0, 0, INT32_MIN}},
        {{9, 1, 1}, {3, 1, 1}, {INT32_MAX, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "anchor " << c.anchor.x << "," << c.anchor.y << ","
                                        << c.anchor.z);
        // The source the filter may read: x from ax - (kw - 1) to w - 1 + ax,
        // likewise y and z; allocated exactly and addressed absolutely.
        const int64_t x0 = int64_t{c.anchor.x} - (c.ks.width - 1);
        const int64_t y0 = int64_t{c.anchor.y} - (c.ks.height - 1);
        const int64_t z0 = int64_t{c.anchor.z} - (c.ks.depth - 1);
        const int sw = c.roi.width + c.ks.width - 1, sh = c.roi.height + c.ks.height - 1;
        const int sd = c.roi.depth + c.ks.depth - 1;
        std::vector<int16_t> src(size_t(sw) * sh * sd);
        for (size_t i = 0; i < src.size(); ++i) src[i] = int16_t(3 * i + 1);
        const int srcStep = sw * 2;
        std::vector<const int16_t*> sp;
        for (int z = 0; z < sd; ++z) {
            sp.push_back(movedBy(src.data() + size_t(z) * sw * sh, -(x0 * 2 + y0 * srcStep)));
        }
        std::vector<int32_t> kernel(size_t(c.ks.width) * c.ks.height * c.ks.depth);
        for (size_t i = 0; i < kernel.size(); ++i) kernel[i] = int32_t(i + 1);

        const size_t n = size_t(c.roi.width) * c.roi.height * c.roi.depth;
        std::vector<int16_t> dst(n, -7);
        std::vector<int16_t*> dp;
        for (int z = 0; z < c.roi.depth; ++z) {
            dp.push_back(dst.data() + size_t(z) * c.roi.width * c.roi.height);
        }
        int bufSize = 0;
        ASSERT_EQ(qelrFilterGetBufSize(c.roi, c.ks, 1, &bufSize), qelOk);
        std::vector<QelU8> buf(bufSize);
        ASSERT_EQ(qelrFilter_16s_C1PV(movedBy(sp.data(), -z0 * 8), srcStep, dp.data(),
                                      c.roi.width * 2, c.roi, kernel.data(), c.ks, c.anchor, 1,
                                      buf.data()),
                  qelOk);
        for (int k = 0; k < c.roi.depth; ++k) {
            for (int j = 0; j < c.roi.height; ++j) {
                for (int i = 0; i < c.roi.width; ++i) {
                    int64_t sum = 0;
                    for (int r = 0; r < c.ks.depth; ++r) {
                        for (int q = 0; q < c.ks.height; ++q) {
                            for (int p = 0; p < c.ks.width; ++p) {
                                const int64_t x = i + int64_t{c.anchor.x} - p - x0;
                                const int64_t y = j + int64_t{c.anchor.y} - q - y0;
                                const int64_t z = k + int64_t{c.anchor.z} - r - z0;
                                sum += kernel[(size_t(r) * c.ks.height + q) * c.ks.width + p] *
                                       int64_t{src[size_t((z * sh + y) * sw + x)]};
                            }
                        }
                    }
                    EXPECT_EQ(dst[(size_t(k) * c.roi.height + j) * c.roi.width + i], sum)
                        << i << "," << j << "," << k;
                }
            }
        }
    }
}

}  // namespace
