// The affine warp of a source volume one plane deep.
#pragma once

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::volume::warp {

// Warps a source of depth 1 (the checks up to the mode have passed): the
// plane is interpolated in x and y only, so its own width and height decide
// how far the mode degrades; a destination element is written when its
// back-mapped position lies inside the trimmed source cuboid, whose z range
// is the single plane [0, 0]. Statuses: 40, -56, -4 when the working memory
// cannot be had, else 0.
template <class T>
QelStatus warpSinglePlane(const T* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                          QelBox3D srcBox, T* const dstData[], int dstRowStep, QelBox3D dstBox,
                          const double coeffs[3][4], int interpolation);

}  // namespace qelr::QELR_ISA::volume::warp
