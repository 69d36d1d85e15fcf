// Two-dimensional remap of one plane, with nearest, linear and the Lagrange
// and Catmull-Rom cubics; every tap is clamped into the accepted region, so
// no read leaves it.
#include "volume/remap_plane.h"

#include "simd/simd.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume {

namespace {

template <class T>
inline const T* rowAt(const T* plane, int step, int32_t y) {
    return byteOffset(plane, static_cast<ptrdiff_t>(y) * step);
}

// The pixel at (x, y), a position inside the region (bounds in x and y).
template <class T, int Mode>
inline T samplePlane(const T* src, int step, const Bounds& b, float x, float y) {
    const int32_t x0 = b.first[0], y0 = b.first[1], x1 = b.last[0], y1 = b.last[1];
    if constexpr (Mode == qelInterpNearest) {
        const int32_t ix = clampIndex(simd::roundToInt32(x), x0, x1);
        const int32_t iy = clampIndex(simd::roundToInt32(y), y0, y1);
        return rowAt(src, step, iy)[ix];
    } else if constexpr (Mode == qelInterpLinear) {
        // Base lowered at the upper bound so that base + 1 stays inside.
        const int32_t ix = clampIndex(simd::truncToInt32(x), x0, x1 - 1 < x0 ? x0 : x1 - 1);
        const int32_t iy = clampIndex(simd::truncToInt32(y), y0, y1 - 1 < y0 ? y0 : y1 - 1);
        const int32_t jx = ix + 1 > x1 ? x1 : ix + 1;
        const int32_t jy = iy + 1 > y1 ? y1 : iy + 1;
        const float fx = x - static_cast<float>(ix), fy = y - static_cast<float>(iy);
        const T* r0 = rowAt(src, step, iy);
        const T* r1 = rowAt(src, step, jy);
        const float c0 = lerp(static_cast<float>(r0[ix]), static_cast<float>(r0[jx]), fx);
        const float c1 = lerp(static_cast<float>(r1[ix]), static_cast<float>(r1[jx]), fx);
        return roundToElement<T>(lerp(c0, c1, fy));
    } else {
        const KernelTable& table = kernelTable(Mode);
        const int32_t bx = clampIndex(simd::truncToInt32(x), x0, x1);
        const int32_t by = clampIndex(simd::truncToInt32(y), y0, y1);
        const uint8_t* rows[4];
        for (int r = 0; r < 4; ++r) {
            rows[r] =
                reinterpret_cast<const uint8_t*>(rowAt(src, step, clampIndex(by - 1 + r, y0, y1)));
        }
        return roundToElement<T>(cubicPlane<T>(rows, cubicColumns(bx, x0, x1),
                                               tapWeights(table, x - static_cast<float>(bx)),
                                               tapWeights(table, y - static_cast<float>(by))));
    }
}

// One destination row: pixels mapped outside the region are left unchanged.
template <class T>
using PlaneRow = void (*)(const T* src, int step, const Bounds& b, T* dst, int32_t width,
                          const float* mx, const float* my);

template <class T, int Mode>
void planeRow(const T* src, int step, const Bounds& b, T* dst, int32_t width, const float* mx,
              const float* my) {
    const float x0 = static_cast<float>(b.first[0]), x1 = static_cast<float>(b.last[0]);
    const float y0 = static_cast<float>(b.first[1]), y1 = static_cast<float>(b.last[1]);
    for (int32_t i = 0; i < width; ++i) {
        const float x = mx[i], y = my[i];
        if (x >= x0 && x <= x1 && y >= y0 && y <= y1)
            dst[i] = samplePlane<T, Mode>(src, step, b, x, y);
    }
}

// Indexed by the mode value; the plane remap knows 1, 2, 4 and 6.
template <class T>
constexpr PlaneRow<T> kPlaneRows[7] = {nullptr,
                                       planeRow<T, qelInterpNearest>,
                                       planeRow<T, qelInterpLinear>,
                                       nullptr,
                                       planeRow<T, qelInterpCubic>,
                                       nullptr,
                                       planeRow<T, qelInterpCubicCatmullRom>};

inline bool isPlaneMode(int mode) {
    return mode == qelInterpNearest || mode == qelInterpLinear || mode == qelInterpCubic ||
           mode == qelInterpCubicCatmullRom;
}

}  // namespace

template <class T>
QelStatus remapPlane(const T* src, QelSize2D srcSize, int srcStep, PlaneRect srcRoi,
                     const float* xMap, int xMapStep, const float* yMap, int yMapStep, T* dst,
                     int dstStep, QelSize2D dstSize, int interpolation) {
    if (src == nullptr || xMap == nullptr || yMap == nullptr || dst == nullptr)
        return qelErrNullPointer;
    if (srcSize.width <= 0 || srcSize.height <= 0 || srcRoi.x < 0 || srcRoi.width <= 0 ||
        srcRoi.y < 0 || srcRoi.height <= 0 || dstSize.width <= 0 || dstSize.height <= 0)
        return qelErrSize;
    if (!isPlaneMode(interpolation)) return qelErrInterpolation;
    if (srcStep < 1 || xMapStep < 1 || yMapStep < 1 || dstStep < 1) return qelErrStep;
    if (srcRoi.x >= srcSize.width || srcRoi.y >= srcSize.height) return qelWarnRegionOutsidePlane;

    const QelBox3D box = trimToVolume({srcRoi.x, srcRoi.y, 0, srcRoi.width, srcRoi.height, 1},
                                      {srcSize.width, srcSize.height, 1});
    const int32_t smallest = srcSize.width < srcSize.height ? srcSize.width : srcSize.height;
    const PlaneRow<T> row = kPlaneRows<T>[degradeMode(interpolation, smallest)];
    for (int32_t y = 0; y < dstSize.height; ++y) {
        row(src, srcStep, boundsOf(box), byteOffset(dst, static_cast<ptrdiff_t>(y) * dstStep),
            dstSize.width, rowAt(xMap, xMapStep, y), rowAt(yMap, yMapStep, y));
    }
    return qelOk;
}

template QelStatus remapPlane<uint8_t>(const uint8_t*, QelSize2D, int, PlaneRect, const float*, int,
                                       const float*, int, uint8_t*, int, QelSize2D, int);
template QelStatus remapPlane<uint16_t>(const uint16_t*, QelSize2D, int, PlaneRect, const float*,
                                        int, const float*, int, uint16_t*, int, QelSize2D, int);
template QelStatus remapPlane<float>(const float*, QelSize2D, int, PlaneRect, const float*, int,
                                     const float*, int, float*, int, QelSize2D, int);

}  // namespace qelr::QELR_ISA::volume
