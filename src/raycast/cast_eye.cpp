// Directions of the primary rays of one block of a pinhole camera.
#include <pmmintrin.h>

#include <cstddef>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

// Offset of the block in pixels: the product wraps in 32 bits, then becomes a float.
float blockOffset(int pitch, int position) {
    return static_cast<float>(
        static_cast<int32_t>(static_cast<uint32_t>(pitch) * static_cast<uint32_t>(position)));
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

// Four rays per store: the row start is accumulated by stepY, the column
// counters are floats advanced by 4.
template <bool kAligned>
void castEyeVector(const float* corner, const float* stepX, const float* stepY, float offX,
                   float offY, float* const dirs[3], int width, int height) {
    __m128 rowStart[3], sx[3], sy[3];
    for (int c = 0; c < 3; ++c) {
        sx[c] = _mm_set1_ps(stepX[c]);
        sy[c] = _mm_set1_ps(stepY[c]);
        rowStart[c] = _mm_set1_ps(stepY[c] * offY + corner[c] + stepX[c] * offX);
    }
    const __m128 four = _mm_set1_ps(4.0f);
    for (int j = 0; j < height; ++j) {
        const ptrdiff_t rowOffset = static_cast<ptrdiff_t>(j) * width;
        __m128 column = _mm_setr_ps(0.0f, 1.0f, 2.0f, 3.0f);
        for (int i = 0; i < width; i += 4) {
            for (int c = 0; c < 3; ++c) {
                const __m128 v = _mm_add_ps(_mm_mul_ps(sx[c], column), rowStart[c]);
                float* out = dirs[c] + rowOffset + i;
                if constexpr (kAligned) {
                    _mm_store_ps(out, v);
                } else {
                    _mm_storeu_ps(out, v);
                }
            }
            column = _mm_add_ps(column, four);
        }
        for (int c = 0; c < 3; ++c) rowStart[c] = _mm_add_ps(rowStart[c], sy[c]);
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
    } else if (core::aligned16(dirs[0]) && core::aligned16(dirs[1]) && core::aligned16(dirs[2])) {
        castEyeVector<true>(corner, stepX, stepY, offX, offY, dirs, size.width, size.height);
    } else {
        castEyeVector<false>(corner, stepX, stepY, offX, offY, dirs, size.width, size.height);
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
