// Sizes and offsets at the 32-bit limits. A box may start just below INT32_MAX and reach past it, and a filter anchor
// may move row and plane indices beyond the 32-bit range; the caller's pointers then address those elements (a plane
// pointer may point far before its buffer), and every element the caller named must be handled, without wrapping.
#include <gtest/gtest.h>
#include <qelr.h>

#include <climits>
#include <cstdint>
#include <vector>

namespace {

// p moved by `bytes` without C++ pointer arithmetic (the result addresses memory outside p's object on purpose: the
// library adds the offset back).
template <class T>
T* movedBy(T* p, int64_t bytes) {
    return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(bytes));
}

// The affine warp walks a destination cuboid that ends past INT32_MAX: each of its elements that maps into the source
// is written, the others are not. The destination holds exactly the box, addressed with its absolute coordinates.
TEST(Limits, WarpDestinationCuboidEndingPastInt32Max) {
    const int32_t m = INT32_MAX - 1;
    struct Case {
        int srcDepth;
        QelBox3D dst;
        double shift[3];  // forward translation; 0 maps every element outside
    } cases[] = {
        {4, {m, 0, 0, 4, 1, 1}, {0, 0, 0}}, {4, {m, 0, 0, 4, 1, 1}, {m, 0, 0}}, {4, {0, m, 0, 2, 4, 1}, {0, m, 0}},
        {4, {0, 0, m, 4, 1, 4}, {0, 0, m}}, {1, {m, 0, 5, 4, 2, 1}, {m, 0, 5}},  // the single-plane path
        {1, {1, m, 0, 3, 4, 1}, {1, m, 0}},
    };
    for (const Case& c : cases) {
        const int sd = c.srcDepth;
        const QelBox3D& b = c.dst;
        std::vector<uint8_t> src(16 * sd);
        std::vector<const uint8_t*> sp;
        for (size_t i = 0; i < src.size(); ++i) src[i] = uint8_t(1 + i);
        for (int z = 0; z < sd; ++z) sp.push_back(src.data() + 16 * z);
        const double coeffs[3][4] = {{1, 0, 0, c.shift[0]}, {0, 1, 0, c.shift[1]}, {0, 0, 1, c.shift[2]}};
        const bool written = c.shift[0] + c.shift[1] + c.shift[2] != 0;
        for (int mode : {qelInterpNearest, qelInterpLinear, qelInterpCubicCatmullRom}) {
            SCOPED_TRACE(testing::Message()
                         << "box " << b.x << "," << b.y << "," << b.z << " source depth " << sd << " mode " << mode);
            std::vector<uint8_t> dst(size_t(b.width) * b.height * b.depth, 0);
            std::vector<uint8_t*> dp;
            for (int k = 0; k < b.depth; ++k)
                dp.push_back(movedBy(&dst[size_t(k) * b.width * b.height], -(int64_t{b.x} + int64_t{b.y} * b.width)));
            ASSERT_EQ(qelrWarpAffine_8u_C1PV(sp.data(), {4, 4, sd}, 4, {0, 0, 0, 4, 4, sd},
                                             movedBy(dp.data(), -int64_t{b.z} * 8), b.width, b, coeffs, mode),
                      qelOk);
            // Integer translations: element (i, j, k) of the box reads source element (i, j, k) exactly.
            for (int k = 0; k < b.depth; ++k)
                for (int j = 0; j < b.height; ++j)
                    for (int i = 0; i < b.width; ++i)
                        EXPECT_EQ(dst[(size_t(k) * b.height + j) * b.width + i], written ? src[16 * k + 4 * j + i] : 0)
                            << i << "," << j << "," << k;
        }
    }
}

// The filter with anchors that move source rows and planes beyond the 32-bit range (both signs) and columns far
// off: every destination voxel is the convolution of the source the caller addressed there.
TEST(Limits, FilterAnchorBeyondInt32Range) {
    struct Case {
        QelVolumeSize roi, ks;
        QelOffset3D anchor;
    } cases[] = {
        {{4, 2, 1}, {1, 1, 1}, {0, INT32_MAX, 0}}, {{4, 1, 2}, {1, 1, 2}, {0, 0, INT32_MAX}},
        {{4, 1, 1}, {1, 2, 1}, {0, INT32_MIN, 0}}, {{3, 1, 2}, {1, 1, 2}, {0, 0, INT32_MIN}},
        {{9, 1, 1}, {3, 1, 1}, {INT32_MAX, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "anchor " << c.anchor.x << "," << c.anchor.y << "," << c.anchor.z);
        // The source the filter may read: x from ax - (kw - 1) to w - 1 + ax, likewise y and z; allocated exactly
        // and addressed absolutely.
        const int64_t x0 = int64_t{c.anchor.x} - (c.ks.width - 1);
        const int64_t y0 = int64_t{c.anchor.y} - (c.ks.height - 1);
        const int64_t z0 = int64_t{c.anchor.z} - (c.ks.depth - 1);
        const int sw = c.roi.width + c.ks.width - 1, sh = c.roi.height + c.ks.height - 1;
        const int sd = c.roi.depth + c.ks.depth - 1;
        std::vector<int16_t> src(size_t(sw) * sh * sd);
        for (size_t i = 0; i < src.size(); ++i) src[i] = int16_t(3 * i + 1);
        const int srcStep = sw * 2;
        std::vector<const int16_t*> sp;
        for (int z = 0; z < sd; ++z) sp.push_back(movedBy(src.data() + size_t(z) * sw * sh, -(x0 * 2 + y0 * srcStep)));
        std::vector<int32_t> kernel(size_t(c.ks.width) * c.ks.height * c.ks.depth);
        for (size_t i = 0; i < kernel.size(); ++i) kernel[i] = int32_t(i + 1);
        const size_t n = size_t(c.roi.width) * c.roi.height * c.roi.depth;
        std::vector<int16_t> dst(n, -7);
        std::vector<int16_t*> dp;
        for (int z = 0; z < c.roi.depth; ++z) dp.push_back(dst.data() + size_t(z) * c.roi.width * c.roi.height);
        int bufSize = 0;
        ASSERT_EQ(qelrFilterGetBufSize(c.roi, c.ks, 1, &bufSize), qelOk);
        std::vector<QelU8> buf(bufSize);
        ASSERT_EQ(qelrFilter_16s_C1PV(movedBy(sp.data(), -z0 * 8), srcStep, dp.data(), c.roi.width * 2, c.roi,
                                      kernel.data(), c.ks, c.anchor, 1, buf.data()),
                  qelOk);
        for (int k = 0; k < c.roi.depth; ++k)
            for (int j = 0; j < c.roi.height; ++j)
                for (int i = 0; i < c.roi.width; ++i) {
                    int64_t sum = 0;
                    for (int r = 0; r < c.ks.depth; ++r)
                        for (int q = 0; q < c.ks.height; ++q)
                            for (int p = 0; p < c.ks.width; ++p) {
                                const int64_t x = i + int64_t{c.anchor.x} - p - x0;
                                const int64_t y = j + int64_t{c.anchor.y} - q - y0;
                                const int64_t z = k + int64_t{c.anchor.z} - r - z0;
                                sum += kernel[(size_t(r) * c.ks.height + q) * c.ks.width + p] *
                                       int64_t{src[size_t((z * sh + y) * sw + x)]};
                            }
                    EXPECT_EQ(dst[(size_t(k) * c.roi.height + j) * c.roi.width + i], sum) << i << "," << j << "," << k;
                }
    }
}

// Element offsets past 2^31 bytes: a plane or row step of 4 MB to 1 GB and a box far into the volume. Only the
// addressed row exists (the base and plane pointers are moved back by the offset); nearest copies it exactly.
TEST(Limits, ByteOffsetsPast2GiB) {
    const int64_t mb4 = 1 << 22, gb1 = 1 << 30;
    uint8_t src8[4] = {11, 22, 33, 44}, dst8[4] = {};
    float src32[4] = {1.5f, -2, 3, 4}, dst32[4] = {};
    std::vector<uint8_t> work(4096);
    // Contiguous 8-bit resize: plane 1000 of 4 MB planes, source and destination.
    const QelBox3D b8{0, 0, 1000, 4, 1, 1};
    ASSERT_EQ(qelrResize_8u_C1V(movedBy(src8, -1000 * mb4), {4, 1, 1001}, 4, int(mb4), b8, movedBy(dst8, -1000 * mb4),
                                4, int(mb4), b8, 1, 1, 1, 0, 0, 0, qelInterpNearest, work.data()),
              qelOk);
    EXPECT_EQ(std::vector<uint8_t>(dst8, dst8 + 4), std::vector<uint8_t>(src8, src8 + 4));
    // Contiguous float resize: row 600 of 4 MB rows.
    const QelBox3D b32{0, 600, 0, 4, 1, 1};
    ASSERT_EQ(qelrResize_32f_C1V(movedBy(src32, -600 * mb4), {4, 601, 1}, int(mb4), 4, b32, movedBy(dst32, -600 * mb4),
                                 int(mb4), 4, b32, 1, 1, 1, 0, 0, 0, qelInterpNearest, work.data()),
              qelOk);
    EXPECT_EQ(std::vector<float>(dst32, dst32 + 4), std::vector<float>(src32, src32 + 4));
    // Planar remap and warp: row 3 of 1 GB rows, four planes.
    std::vector<uint16_t> s16(16), d16(16, 0), w16(16, 0);
    std::vector<const uint16_t*> sp;
    std::vector<uint16_t*> dp, wp;
    std::vector<float> mx(16), my(16, 3), mz(16);
    std::vector<const float*> px, py, pz;
    for (int k = 0; k < 4; ++k) {
        for (int i = 0; i < 4; ++i)
            s16[4 * k + i] = uint16_t(1000 * k + i + 1), mx[4 * k + i] = float(i), mz[4 * k + i] = float(k);
        sp.push_back(movedBy(&s16[4 * k], -3 * gb1));
        dp.push_back(&d16[4 * k]);
        wp.push_back(movedBy(&w16[4 * k], -3 * gb1));
        px.push_back(&mx[4 * k]), py.push_back(&my[4 * k]), pz.push_back(&mz[4 * k]);
    }
    ASSERT_EQ(qelrRemap_16u_C1PV(sp.data(), {4, 4, 4}, int(gb1), {0, 3, 0, 4, 1, 4}, px.data(), py.data(), pz.data(),
                                 16, dp.data(), 8, {4, 1, 4}, qelInterpNearest),
              qelOk);
    EXPECT_EQ(d16, s16);
    const double id[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    ASSERT_EQ(qelrWarpAffine_16u_C1PV(sp.data(), {4, 4, 4}, int(gb1), {0, 3, 0, 4, 1, 4}, wp.data(), int(gb1),
                                      {0, 3, 0, 4, 1, 4}, id, qelInterpNearest),
              qelOk);
    EXPECT_EQ(w16, s16);
    // Filter: the anchor puts the source row 3 GB past the plane pointers.
    int16_t fs[4] = {5, -6, 7, -8}, fd[4] = {};
    const int16_t* fsp[1] = {movedBy(fs, -3 * gb1)};
    int16_t* fdp[1] = {fd};
    const int32_t one = 1;
    ASSERT_EQ(qelrFilter_16s_C1PV(fsp, int(gb1), fdp, 8, {4, 1, 1}, &one, {1, 1, 1}, {0, 3, 0}, 1, work.data()), qelOk);
    EXPECT_EQ(std::vector<int16_t>(fd, fd + 4), std::vector<int16_t>(fs, fs + 4));
}

// Index products that leave 32 bits wrap as the 32-bit arithmetic of the packs does.
TEST(Limits, PackIndexProductsPast32Bits) {
    // Flat normals read 3 * index floats in 32-bit arithmetic: 0x55555556 * 3 wraps to 2, so the ray gets floats 2..4
    // of the table (no wider offset).
    const float normals[6] = {0, 1, 2, 3, 4, 5};
    const int hit[1] = {0x55555556};
    float out[3] = {-1, -1, -1};
    float* o3[3] = {out, out + 1, out + 2};
    ASSERT_EQ(qelrSurfFlatNormal_32f(normals, hit, o3, 1), qelOk);
    EXPECT_EQ(std::vector<float>(out, out + 3), (std::vector<float>{2, 3, 4}));
    // Smooth normals: group length x index wraps the same way (4 * 2^30 = 0).
    const float vn[9] = {0, 0, 1, 0, 0, 1, 0, 0, 1};
    const int groups[4] = {0, 1, 2, 0};
    const int big[1] = {1 << 30};
    const float u[1] = {0.25f}, w[1] = {0.25f};
    const float* uv[2] = {u, w};
    ASSERT_EQ(qelrSurfSmoothNormal_32f(vn, groups, big, uv, o3, 1, 4), qelOk);
    EXPECT_EQ(std::vector<float>(out, out + 3), (std::vector<float>{0, 0, 1}));
}

}  // namespace
