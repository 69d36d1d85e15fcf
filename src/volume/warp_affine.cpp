// Affine warp of planar volumes: the destination cuboid is walked row by row,
// every element is mapped back into the source by the inverse transform and
// written only when it lands inside the (trimmed) source cuboid.
#include "volume/warp_affine.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "core/impl.h"
#include "volume/volume_parallel.h"
#include "volume/warp_affine_plane.h"

namespace qelr::QELR_ISA::volume::warp {

namespace {

// The screening thresholds of the published warp rules: a transform whose
// three diagonal coefficients are all at most kTinyDiagonal, or whose rows 1
// and 2 are dependent (every pair of minor products within a relative
// kPairTolerance, a product at most kTinyProduct counting as zero), or whose
// determinant lies within kMinDeterminant of zero is singular.
constexpr double kTinyDiagonal = 1e-100;
constexpr double kTinyProduct = 1e-200;
constexpr double kPairTolerance = 1e-10;
constexpr double kMinDeterminant = 1e-10;

// Whether the pair (p, q) is (nearly) proportional: both tiny, or q within a
// relative kPairTolerance of p.
bool pairMatches(double p, double q) {
    if (std::fabs(p) <= kTinyProduct) return std::fabs(q) <= kPairTolerance;
    return std::fabs((p - q) / p) <= kPairTolerance;
}

}  // namespace

bool transformDegenerate(const double c[3][4]) {
    if (std::fabs(c[0][0]) <= kTinyDiagonal && std::fabs(c[1][1]) <= kTinyDiagonal &&
        std::fabs(c[2][2]) <= kTinyDiagonal) {
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
    if (det > -kMinDeterminant && det < kMinDeterminant) return false;
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

// Everything a row routine needs: the source, the destination, the inverse
// transform and the mode's kernel table (cubic modes).
template <class T>
struct WarpJob {
    SourceView<T> src;
    T* const* dst;
    int dstRowStep;
    double inv[3][4];
    const KernelTable* table;
};

// A row routine walks destination elements [xBegin, xEnd) of one row,
// counted from the cuboid's first x (`out` points at that element): `p`
// holds the back-mapped position of element xBegin on entry and is advanced
// by the first column of the inverse per element (positions along a row are
// accumulated by addition, never recomputed).
template <class T>
using RowRoutine = void (*)(const WarpJob<T>& job, T* out, int32_t xBegin, int32_t xEnd,
                            double p[3]);

// The positions of up to N consecutive elements, one per lane, and the lanes
// that lie inside the source cuboid. Lanes past the count hold the cuboid's
// first corner and are not inside.
template <int N>
struct Positions {
    simd::F64<N> c[3];
    simd::F64<N> mask;  // lanes inside
    int inside;
};

template <int N>
inline Positions<N> positionsOf(const Bounds& b, const double (&d)[3][4], double p[3], int n) {
    using D = simd::F64<N>;
    // The positions stay in registers: vectors built from scalars, not read
    // back from memory just written.
    double q[3][N];
    for (int a = 0; a < 3; ++a) {
        double v = p[a];
        for (int l = 0; l < N; ++l) {
            q[a][l] = l < n ? v : b.first[a];
            if (l < n) v += d[a][0];
        }
        p[a] = v;
    }
    Positions<N> r;
    D in = D(1.0) == D(1.0);
    for (int a = 0; a < 3; ++a) {
        const double* v = q[a];
#if QELR_SIMD_LANES == 8
        if constexpr (N == 8) {
            r.c[a] = D(simd::F64<4>::of(v[0], v[1], v[2], v[3]),
                       simd::F64<4>::of(v[4], v[5], v[6], v[7]));
        } else {
            r.c[a] = simd::F64<4>::of(v[0], v[1], v[2], v[3]);
        }
#else
        r.c[a] = D(simd::F64<2>::of(v[0], v[1]), simd::F64<2>::of(v[2], v[3]));
#endif
        in = in & (r.c[a] >= D(double(b.first[a]))) & (r.c[a] <= D(double(b.last[a])));
    }
    r.mask = in;
    r.inside = simd::laneBits(in) & ((1 << n) - 1);
    return r;
}

template <int N>
struct Lanes {
    alignas(32) int32_t v[N];
    explicit Lanes(simd::I32<N> a) { simd::store(v, a); }
    int32_t operator[](int l) const { return v[l]; }
};

// Nearest: one element at a time (the copy is cheaper than forming vectors).
template <class T>
void warpRowNearest(const WarpJob<T>& job, T* out, int32_t xBegin, int32_t xEnd, double p[3]) {
    const double(&d)[3][4] = job.inv;
    double X = p[0], Y = p[1], Z = p[2];
    for (int32_t x = xBegin; x < xEnd; ++x) {
        if (insideSource(job.src, X, Y, Z)) {
            out[x] = sampleNearest(job.src, X, Y, simd::roundToInt32(Z));
        }
        X += d[0][0];
        Y += d[1][0];
        Z += d[2][0];
    }
    p[0] = X;
    p[1] = Y;
    p[2] = Z;
}

// Linear and cubic: N elements at a time: positions, the inside test, then
// the mode. Linear float rows take four lanes: eight gain nothing there over
// the pair loads, which dominate.
template <class T, int Mode>
void warpRow(const WarpJob<T>& job, T* out, int32_t xBegin, int32_t xEnd, double p[3]) {
    constexpr int N = Mode == qelInterpLinear && std::is_same_v<T, float> ? 4 : kLanes;
    using I = simd::I32<N>;
    using D = simd::F64<N>;
    const SourceView<T>& s = job.src;
    const Bounds& b = s.box;
    for (int32_t x = xBegin; x < xEnd; x += N) {
        const int n = xEnd - x < N ? xEnd - x : N;
        const Positions<N> q = positionsOf<N>(b, job.inv, p, n);
        if (q.inside == 0) continue;
        if constexpr (Mode == qelInterpLinear) {
            // Lanes outside take the first corner, so their reads stay inside.
            I i[3];
            simd::F32<N> f[3];
            for (int a = 0; a < 3; ++a) {
                const D c = simd::select(q.mask, q.c[a], D(double(b.first[a])));
                I k = simd::truncToInt(c);
                k = k + ((k == I(b.last[a])) & (k > I(0)));  // -1 on the last element
                i[a] = k;
                f[a] = simd::narrow(c - simd::toDouble(k));
            }
            const Lanes<N> ix(i[0]), iy(i[1]), iz(i[2]);
            // The pairs in rows y and y + 1 of planes z and z + 1.
            const T* near[N];
            const T* far[N];
            for (int l = 0; l < N; ++l) {
                near[l] = s.row(iy[l], iz[l]) + ix[l];
                far[l] = s.row(iy[l], iz[l] + 1) + ix[l];
            }
            const auto corner = [&](int r, int l) {
                return byteOffset(r < 2 ? near[l] : far[l], r & 1 ? ptrdiff_t{s.rowStep} : 0);
            };
            storeRoundedMasked(out + x, trilinear<T>(corner, true, f[0], f[1], f[2]), q.inside);
        } else {
            const Lanes<N> ix(simd::truncToInt(q.c[0])), iy(simd::truncToInt(q.c[1]));
            const Lanes<N> iz(simd::truncToInt(q.c[2]));
            alignas(32) double c[3][N];
            for (int a = 0; a < 3; ++a) simd::store(c[a], q.c[a]);
            for (int l = 0; l < n; ++l) {
                if (!(q.inside & (1 << l))) continue;
                const KernelTable& t = *job.table;
                const simd::F32<4> wx = tapWeights(t, static_cast<float>(c[0][l] - ix[l]));
                const simd::F32<4> wy = tapWeights(t, static_cast<float>(c[1][l] - iy[l]));
                const simd::F32<4> wz = tapWeights(t, static_cast<float>(c[2][l] - iz[l]));
                const uint8_t* planes[4];
                ptrdiff_t rows[4];
                for (int k = 0; k < 4; ++k) {
                    planes[k] = reinterpret_cast<const uint8_t*>(
                        s.planes[clampIndex(iz[l] - 1 + k, b.first[2], b.last[2])]);
                    rows[k] =
                        static_cast<ptrdiff_t>(clampIndex(iy[l] - 1 + k, b.first[1], b.last[1])) *
                        s.rowStep;
                }
                const CubicColumns cx = cubicColumns(ix[l], b.first[0], b.last[0]);
                out[x + l] = roundToElement<T>(cubicVolume<T>(planes, rows, cx, wx, wy, wz));
            }
        }
    }
}

// Destination planes [zBegin, zEnd) of the cuboid. Rows are taken in bands
// of kBandRows and each band is walked in segments of kSegment elements, so
// that the source elements one tile needs stay in cache; every row keeps its
// own running position, so the accumulation along a row is the same as in
// one pass.
constexpr int32_t kBandRows = 8;
constexpr int32_t kSegment = 32;

template <class T>
void warpPlanes(const WarpJob<T>& job, RowRoutine<T> row, const QelBox3D& dstBox, int32_t zBegin,
                int32_t zEnd) {
    const double(&d)[3][4] = job.inv;
    const double x0 = dstBox.x;
    const int32_t width = dstBox.width;
    for (int32_t k = zBegin; k < zEnd; ++k) {
        // The cuboid may end past INT32_MAX: its coordinates are formed in 64
        // bits so that every element the caller named is handled.
        const int64_t z = int64_t{dstBox.z} + k;
        for (int32_t band = 0; band < dstBox.height; band += kBandRows) {
            const int32_t rows = std::min(kBandRows, dstBox.height - band);
            double pos[kBandRows][3];
            T* out[kBandRows];
            for (int32_t r = 0; r < rows; ++r) {
                const int64_t y = int64_t{dstBox.y} + band + r;
                for (int a = 0; a < 3; ++a) {
                    pos[r][a] = d[a][0] * x0 + d[a][1] * static_cast<double>(y) +
                                d[a][2] * static_cast<double>(z) + d[a][3];
                }
                out[r] = rowOfPV(job.dst, job.dstRowStep, y, z) + dstBox.x;
            }
            for (int32_t xs = 0; xs < width; xs += std::min(kSegment, width - xs)) {
                const int32_t xe = xs + std::min(kSegment, width - xs);
                for (int32_t r = 0; r < rows; ++r) row(job, out[r], xs, xe, pos[r]);
            }
        }
    }
}

// The row routines of one element type, indexed by the mode (0 and 3 empty).
template <class T>
constexpr RowRoutine<T> kRowRoutines[8] = {
    nullptr,
    warpRowNearest<T>,
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
    const int mode = degradeMode(interpolation, smallestOf(srcSize));

    WarpJob<T> job;
    if (!invertTransform(coeffs, job.inv)) return qelErrSingularTransform;
    job.src = {srcData, srcRowStep, boundsOf(box)};
    job.table = isCubicMode(mode) ? &kernelTable(mode) : nullptr;
    job.dst = dstData;
    job.dstRowStep = dstRowStep;

    const RowRoutine<T> row = kRowRoutines<T>[mode];
    runOverPlanes(
        dstBox.width, dstBox.height, dstBox.depth,
        [&](int32_t begin, int32_t end, int, int) { warpPlanes(job, row, dstBox, begin, end); });
    return qelOk;
}

}  // namespace

}  // namespace qelr::QELR_ISA::volume::warp

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
