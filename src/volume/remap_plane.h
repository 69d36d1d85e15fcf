// The library's two-dimensional remap of one plane: every destination pixel
// reads the source at the position given by two coordinate maps. The volume
// remap hands sources of depth 1 to it.
#pragma once

#include <cstdint>

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::volume {

// A region of a plane: origin and extent.
struct PlaneRect {
    int32_t x, y, width, height;
};

// Remaps srcRoi of the source plane through xMap and yMap (absolute source
// coordinates, one per destination pixel) into the dstSize pixels of dst;
// pixels mapped outside the region keep their values. Steps are in bytes.
// Statuses, in the order checked: -8 null pointer, -6 sizes or region, -22
// mode not 1, 2, 4 or 6, -14 a step below 1, 29 region origin outside the
// plane (nothing written).
template <class T>
QelStatus remapPlane(const T* src, QelSize2D srcSize, int srcStep, PlaneRect srcRoi,
                     const float* xMap, int xMapStep, const float* yMap, int yMapStep, T* dst,
                     int dstStep, QelSize2D dstSize, int interpolation);

extern template QelStatus remapPlane<uint8_t>(const uint8_t*, QelSize2D, int, PlaneRect,
                                              const float*, int, const float*, int, uint8_t*, int,
                                              QelSize2D, int);
extern template QelStatus remapPlane<uint16_t>(const uint16_t*, QelSize2D, int, PlaneRect,
                                               const float*, int, const float*, int, uint16_t*, int,
                                               QelSize2D, int);
extern template QelStatus remapPlane<float>(const float*, QelSize2D, int, PlaneRect, const float*,
                                            int, const float*, int, float*, int, QelSize2D, int);

}  // namespace qelr::QELR_ISA::volume
