// Single-plane path of the affine warp. The source plane is interpolated as a
// two-dimensional image; each destination row is done in two passes over a
// row of working memory: the first walks the back-mapped positions, marks the
// elements that land inside the source (one byte each) and interpolates them
// into a row of floats; the second converts and stores the marked elements.
#include "volume/warp_affine_plane.h"

#include <climits>

#include "core/memory.h"
#include "volume/warp_affine.h"

namespace qelr::QELR_ISA::volume::warp {

namespace {

template <class T>
float samplePlane(const SourceView<T>& s, int mode, double X, double Y) {
    switch (mode) {
        case qelInterpNearest:
            return static_cast<float>(sampleNearest(s, X, Y, 0));
        case qelInterpLinear:
            return sampleLinear2(s, X, Y, 0);
        default:
            return sampleCubic2(s, kernelTable(mode), X, Y, 0);
    }
}

}  // namespace

template <class T>
QelStatus warpSinglePlane(const T* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                          QelBox3D srcBox, T* const dstData[], int dstRowStep, QelBox3D dstBox,
                          const double coeffs[3][4], int interpolation) {
    if (!originInside(srcBox, srcSize)) return qelWarnRegionOutsideVolume;
    const QelBox3D box = trimToVolume(srcBox, srcSize);
    // The plane is interpolated in x and y only: its width and height decide.
    const int mode =
        degradeMode(interpolation, srcSize.width < srcSize.height ? srcSize.width : srcSize.height);
    double d[3][4];
    if (!invertTransform(coeffs, d)) return qelErrSingularTransform;

    const int32_t n = dstBox.width;
    if (n > INT32_MAX / 4) return qelErrNoMemory;  // n floats do not fit a 32-bit byte count
    auto* inside = static_cast<uint8_t*>(core::allocBytes(n));
    auto* values = static_cast<float*>(core::allocInt32(n));
    if (inside == nullptr || values == nullptr) {
        core::freeMemory(inside);
        core::freeMemory(values);
        return qelErrNoMemory;
    }

    const SourceView<T> s{srcData, srcRowStep, boundsOf(box)};
    const double x0 = dstBox.x;
    for (int32_t k = 0; k < dstBox.depth; ++k) {
        const int64_t z = int64_t{dstBox.z} + k;  // the cuboid may end past INT32_MAX
        const double zd = static_cast<double>(z);
        for (int32_t j = 0; j < dstBox.height; ++j) {
            const int64_t y = int64_t{dstBox.y} + j;
            const double yd = static_cast<double>(y);
            double X = d[0][0] * x0 + d[0][1] * yd + d[0][2] * zd + d[0][3];
            double Y = d[1][0] * x0 + d[1][1] * yd + d[1][2] * zd + d[1][3];
            double Z = d[2][0] * x0 + d[2][1] * yd + d[2][2] * zd + d[2][3];
            for (int32_t i = 0; i < n; ++i) {
                inside[i] = insideSource(s, X, Y, Z);
                if (inside[i]) values[i] = samplePlane(s, mode, X, Y);
                X += d[0][0];
                Y += d[1][0];
                Z += d[2][0];
            }
            T* out = rowOfPV(dstData, dstRowStep, y, z) + dstBox.x;
            for (int32_t i = 0; i < n; ++i) {
                if (inside[i]) out[i] = roundToElement<T>(values[i]);
            }
        }
    }
    core::freeMemory(inside);
    core::freeMemory(values);
    return qelOk;
}

#define QELR_WARP_PLANE(T)                                                                \
    template QelStatus warpSinglePlane<T>(const T* const[], QelVolumeSize, int, QelBox3D, \
                                          T* const[], int, QelBox3D, const double[3][4], int);
QELR_WARP_PLANE(uint8_t)
QELR_WARP_PLANE(uint16_t)
QELR_WARP_PLANE(float)
#undef QELR_WARP_PLANE

}  // namespace qelr::QELR_ISA::volume::warp
