// The destination box that a resize of a source box writes.
#include "core/impl.h"
#include "simd/simd.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::impl {

namespace {

struct AxisRange {
    int32_t lo, hi;
};

// The start rounds a value with fraction exactly .5 down and the end rounds
// it up, so a mapped edge on a half element belongs to both ends; each end is
// clamped to 0 on its own.
AxisRange mapAxis(int32_t start, int32_t length, double factor, double shift) {
    const int32_t end =
        static_cast<int32_t>(static_cast<uint32_t>(start) + static_cast<uint32_t>(length));
    const int32_t lo = simd::truncToInt32(start * factor + shift + volume::kRoundStartDown);
    const int32_t hi = simd::truncToInt32(end * factor + shift + volume::kRoundEndUp);
    return {lo > 0 ? lo : 0, hi > 0 ? hi : 0};
}

}  // namespace

QelStatus qelrGetResizeCuboid(QelBox3D srcBox, QelBox3D* outDstBox, double scaleX, double scaleY,
                              double scaleZ, double offsetX, double offsetY, double offsetZ,
                              int interpolation) {
    if (outDstBox == nullptr) return qelErrNullPointer;
    if (!volume::boxWellFormed(srcBox)) return qelErrSize;
    if (0 >= scaleX || 0 >= scaleY || 0 >= scaleZ) return qelErrFactor;  // NaN passes
    if (!volume::isVolumeMode(interpolation)) return qelErrInterpolation;

    const AxisRange x = mapAxis(srcBox.x, srcBox.width, scaleX, offsetX);
    const AxisRange y = mapAxis(srcBox.y, srcBox.height, scaleY, offsetY);
    const AxisRange z = mapAxis(srcBox.z, srcBox.depth, scaleZ, offsetZ);
    if (!(x.lo < x.hi && y.lo < y.hi && z.lo < z.hi)) return qelWarnNothingToDo;

    *outDstBox = {x.lo, y.lo, z.lo, x.hi - x.lo, y.hi - y.lo, z.hi - z.lo};
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
