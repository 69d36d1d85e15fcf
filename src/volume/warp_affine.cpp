// Affine warp of planar volumes: the destination cuboid is walked row by row,
// every element is mapped back into the source by the inverse transform and
// written only when it lands inside the (trimmed) source cuboid.
#include "volume/warp_affine.h"

#include <cmath>

#include "core/impl.h"
#include "volume/volume_parallel.h"
#include "volume/warp_affine_plane.h"

namespace qelr::volume::warp {

namespace {

// Whether the pair (p, q) is (nearly) proportional: both tiny, or q within a
// relative 1e-10 of p.
bool pairMatches(double p, double q) {
    if (std::fabs(p) <= 1e-200) return std::fabs(q) <= 1e-10;
    return std::fabs((p - q) / p) <= 1e-10;
}

}  // namespace

bool transformDegenerate(const double c[3][4]) {
    if (std::fabs(c[0][0]) <= 1e-100 && std::fabs(c[1][1]) <= 1e-100 &&
        std::fabs(c[2][2]) <= 1e-100) {
        return true;
    }
    // Rows 1 and 2 of the linear part: the three 2x2 minors taken as pairs of
    // products; all three matching means the rows are dependent.
    const double pairs[3][2] = {{c[1][1] * c[2][2], c[1][2] * c[2][1]},
                                {c[1][0] * c[2][2], c[1][2] * c[2][0]},
                                {c[1][0] * c[2][1], c[1][1] * c[2][0]}};
    for (const auto& pq : pairs) {
        if (!pairMatches(pq[0], pq[1])) return false;
    }
    return true;
}

bool invertTransform(const double c[3][4], double inv[3][4]) {
    const double m00 = c[1][1] * c[2][2] - c[1][2] * c[2][1];
    const double m01 = c[1][0] * c[2][2] - c[1][2] * c[2][0];
    const double m02 = c[1][0] * c[2][1] - c[1][1] * c[2][0];
    const double det = c[0][0] * m00 - c[0][1] * m01 + c[0][2] * m02;
    if (det > -1e-10 && det < 1e-10) return false;
    const double r = 1.0 / det;
    inv[0][0] = m00 * r;
    inv[0][1] = (c[0][2] * c[2][1] - c[0][1] * c[2][2]) * r;
    inv[0][2] = (c[0][1] * c[1][2] - c[0][2] * c[1][1]) * r;
    inv[1][0] = -m01 * r;
    inv[1][1] = (c[0][0] * c[2][2] - c[0][2] * c[2][0]) * r;
    inv[1][2] = (c[0][2] * c[1][0] - c[0][0] * c[1][2]) * r;
    inv[2][0] = m02 * r;
    inv[2][1] = (c[0][1] * c[2][0] - c[0][0] * c[2][1]) * r;
    inv[2][2] = (c[0][0] * c[1][1] - c[0][1] * c[1][0]) * r;
    for (int i = 0; i < 3; ++i) {
        inv[i][3] = -(inv[i][0] * c[0][3] + inv[i][1] * c[1][3] + inv[i][2] * c[2][3]);
    }
    return true;
}

namespace {

// Everything a row routine needs: the source, the destination and the
// inverse transform.
template <class T>
struct WarpJob {
    SourceView<T> src;
    T* const* dst;
    int dstRowStep;
    int32_t dstX0, dstX1;  // inclusive
    double inv[3][4];
};

template <class T>
using RowRoutine = void (*)(const WarpJob<T>& job, int32_t y, int32_t z);

// One destination row: positions start from the mapped first element and are
// accumulated by addition along the row.
template <class T, int Mode>
void warpRow(const WarpJob<T>& job, int32_t y, int32_t z) {
    const double(&d)[3][4] = job.inv;
    const double x0 = job.dstX0;
    double X = d[0][0] * x0 + d[0][1] * y + d[0][2] * z + d[0][3];
    double Y = d[1][0] * x0 + d[1][1] * y + d[1][2] * z + d[1][3];
    double Z = d[2][0] * x0 + d[2][1] * y + d[2][2] * z + d[2][3];
    T* out = rowOfPV(job.dst, job.dstRowStep, y, z);
    const SourceView<T>& s = job.src;
    for (int32_t x = job.dstX0; x <= job.dstX1; ++x) {
        if (insideSource(s, X, Y, Z)) {
            if constexpr (Mode == qelInterpNearest) {
                out[x] = sampleNearest(s, X, Y, roundHalfEven(Z));
            } else if constexpr (Mode == qelInterpLinear) {
                out[x] = roundToElement<T>(sampleLinear3(s, X, Y, Z));
            } else {
                out[x] = roundToElement<T>(sampleCubic3(s, X, Y, Z));
            }
        }
        X += d[0][0];
        Y += d[1][0];
        Z += d[2][0];
    }
}

// The row routines of one element type, indexed by the mode (0 and 3 empty).
template <class T>
constexpr RowRoutine<T> kRowRoutines[8] = {
    nullptr,
    warpRow<T, qelInterpNearest>,
    warpRow<T, qelInterpLinear>,
    nullptr,
    warpRow<T, qelInterpCubic>,
    warpRow<T, qelInterpCubicBSpline>,
    warpRow<T, qelInterpCubicCatmullRom>,
    warpRow<T, qelInterpCubicB05C03>,
};

template <class T>
QelStatus warpAffine(const T* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                     QelBox3D srcBox, T* const dstData[], int dstRowStep, QelBox3D dstBox,
                     const double coeffs[3][4], int interpolation) {
    if (srcData == nullptr || dstData == nullptr) return qelErrNullPointer;
    if (!sizeWellFormed(srcSize) || !boxWellFormed(srcBox) || !boxWellFormed(dstBox)) {
        return qelErrSize;
    }
    if (transformDegenerate(coeffs)) return qelErrSingularTransform;
    if (!isVolumeMode(interpolation)) return qelErrInterpolation;
    if (srcSize.depth == 1) {
        return warpSinglePlane(srcData, srcSize, srcRowStep, srcBox, dstData, dstRowStep, dstBox,
                               coeffs, interpolation);
    }
    if (!originInside(srcBox, srcSize)) return qelWarnRegionOutsideVolume;
    const QelBox3D box = trimToVolume(srcBox, srcSize);
    const int mode = degradeModeForSource(interpolation, srcSize);

    WarpJob<T> job;
    if (!invertTransform(coeffs, job.inv)) return qelErrSingularTransform;
    job.src = sourceViewOf(srcData, srcRowStep, box, mode);
    job.dst = dstData;
    job.dstRowStep = dstRowStep;
    job.dstX0 = dstBox.x;
    job.dstX1 = dstBox.x + dstBox.width - 1;

    const RowRoutine<T> row = kRowRoutines<T>[mode];
    runOverPlanes(dstBox.width, dstBox.height, dstBox.depth,
                  [&](int32_t begin, int32_t end, int, int) {
                      for (int32_t k = begin; k < end; ++k) {
                          for (int32_t j = 0; j < dstBox.height; ++j) {
                              row(job, dstBox.y + j, dstBox.z + k);
                          }
                      }
                  });
    return qelOk;
}

}  // namespace

}  // namespace qelr::volume::warp

using qelr::volume::warp::warpAffine;

QelStatus qelr::impl::qelrWarpAffineGetBufSize(QelBox3D srcBox, QelBox3D dstBox, int channelCount,
                                               int interpolation, int* outSize) {
    if (outSize == nullptr) return qelErrNullPointer;
    if (!volume::boxWellFormed(srcBox) || !volume::boxWellFormed(dstBox)) return qelErrSize;
    if (channelCount != 1) return qelErrChannels;
    if (!volume::isVolumeMode(interpolation)) return qelErrInterpolation;
    *outSize = 0;  // the warp takes no buffer
    return qelOk;
}

QelStatus qelr::impl::qelrWarpAffine_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                             int srcRowStep, QelBox3D srcBox,
                                             QelU8* const dstData[], int dstRowStep,
                                             QelBox3D dstBox, const double coeffs[3][4],
                                             int interpolation) {
    return warpAffine(srcData, srcSize, srcRowStep, srcBox, dstData, dstRowStep, dstBox, coeffs,
                      interpolation);
}

QelStatus qelr::impl::qelrWarpAffine_16u_C1PV(const uint16_t* const srcData[],
                                              QelVolumeSize srcSize, int srcRowStep,
                                              QelBox3D srcBox, uint16_t* const dstData[],
                                              int dstRowStep, QelBox3D dstBox,
                                              const double coeffs[3][4], int interpolation) {
    return warpAffine(srcData, srcSize, srcRowStep, srcBox, dstData, dstRowStep, dstBox, coeffs,
                      interpolation);
}

QelStatus qelr::impl::qelrWarpAffine_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                              int srcRowStep, QelBox3D srcBox,
                                              float* const dstData[], int dstRowStep,
                                              QelBox3D dstBox, const double coeffs[3][4],
                                              int interpolation) {
    return warpAffine(srcData, srcSize, srcRowStep, srcBox, dstData, dstRowStep, dstBox, coeffs,
                      interpolation);
}
