// Directions of the primary rays of one block of a pinhole camera.
#include <cstddef>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "simd/simd.h"

namespace qelr::QELR_ISA::impl {

namespace {

// Offset of the block in pixels: the product wraps in 32 bits, then becomes a float.
float blockOffset(int pitch, int position) {
    return static_cast<float>(simd::mulWrap(pitch, position));
}

void castEyeScalar(const float* corner, const float* stepX, const float* stepY, float offX,
                   float offY, float* const dirs[3], int width, int height) {
    for (int j = 0; j < height; ++j) {
        const float fy = static_cast<float>(j) + offY;
        float* row[3];
        for (int c = 0; c < 3; ++c) row[c] = dirs[c] + static_cast<ptrdiff_t>(j) * width;
        for (int i = 0; i < width; ++i) {
            const float fx = static_cast<float>(i) + offX;
            for (int c = 0; c < 3; ++c) row[c][i] = stepY[c] * fy + corner[c] + stepX[c] * fx;
        }
    }
}

// Rays of a row at columns i to i + lanes - 1: stepX * column + row start.
template <bool kAligned, class F>
void storeRays(float* const row[3], int i, const F sx[3], const F start[3], F column) {
    for (int c = 0; c < 3; ++c) {
        const F v = sx[c] * column + start[c];
        if constexpr (kAligned) {
            simd::store16(row[c] + i, v);
        } else {
            storeu(row[c] + i, v);
        }
    }
}

// Vector path, for widths that are multiples of four: the row start is
// accumulated by stepY, the column counters are floats that start at 0, 1,
// 2, 3 and advance by 4.
template <bool kAligned>
void castEyeVector(const float* corner, const float* stepX, const float* stepY, float offX,
                   float offY, float* const dirs[3], int width, int height) {
    using simd::F32;
    using simd::Vf;
    constexpr int L = simd::kLanes;
    // While the column numbers stay below 2^24 the counters hold them exactly,
    // so counters of the native width advanced by L give the values of the
    // four-lane counters advanced by 4; from there on four lanes continue.
    const int exactEnd = width < (1 << 24) ? width : (1 << 24);
    Vf sx[3], start[3];
    F32<4> sx4[3], start4[3];
    float rowStart[3], sy[3];
    for (int c = 0; c < 3; ++c) {
        sy[c] = stepY[c];
        sx[c] = Vf(stepX[c]);
        sx4[c] = F32<4>(stepX[c]);
        rowStart[c] = stepY[c] * offY + corner[c] + stepX[c] * offX;
    }
    for (int j = 0; j < height; ++j) {
        float* row[3];
        for (int c = 0; c < 3; ++c) {
            row[c] = dirs[c] + static_cast<ptrdiff_t>(j) * width;
            start[c] = Vf(rowStart[c]);
            start4[c] = F32<4>(rowStart[c]);
        }
        int i = 0;
        if constexpr (L > 4) {
            Vf column = Vf::ramp();
            for (; i <= exactEnd - L; i += L) {
                storeRays<kAligned>(row, i, sx, start, column);
                column = column + Vf(float(L));
            }
        }
        F32<4> column = F32<4>::ramp() + F32<4>(float(i));
        for (; i < width; i += 4) {
            storeRays<kAligned>(row, i, sx4, start4, column);
            column = column + F32<4>(4.0f);
        }
        for (int c = 0; c < 3; ++c) rowStart[c] = rowStart[c] + sy[c];
    }
}

}  // namespace

QelStatus qelrCastEye_32f(const float* corner, const float* stepX, const float* stepY,
                          int blockWidth, int blockHeight, QelPos2D blockPos, float* const dirs[3],
                          QelSize2D size) {
    if (dirs == nullptr) return qelErrNullPointer;
    if (size.width < 1 || size.height < 1) return qelOk;
    const float offX = blockOffset(blockWidth, blockPos.x);
    const float offY = blockOffset(blockPos.y, blockHeight);
    if (size.width % 4 != 0) {
        castEyeScalar(corner, stepX, stepY, offX, offY, dirs, size.width, size.height);
    } else if (core::planesAligned16(dirs)) {
        castEyeVector<true>(corner, stepX, stepY, offX, offY, dirs, size.width, size.height);
    } else {
        castEyeVector<false>(corner, stepX, stepY, offX, offY, dirs, size.width, size.height);
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
