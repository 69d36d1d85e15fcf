// Affine warp of planar volumes: the destination cuboid is walked row by row,
// every element is mapped back into the source by the inverse transform and
// written only when it lands inside the (trimmed) source cuboid.
#include "volume/warp_affine.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "core/impl.h"
#include "simd/target.h"
#include "volume/volume_parallel.h"
#include "volume/warp_affine_plane.h"

namespace qelr::QELR_ISA::volume::warp {

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
    double inv[3][4];
};

// A row routine walks destination elements [xBegin, xEnd) of one row,
// counted from the cuboid's first x (`out` points at that element): `p`
// holds the back-mapped position of element xBegin on entry and is advanced
// by the first column of the inverse per element (positions along a row are
// accumulated by addition, never recomputed).
template <class T>
using RowRoutine = void (*)(const WarpJob<T>& job, T* out, int32_t xBegin, int32_t xEnd,
                            double p[3]);

// One element at a time (the nearest and cubic rows, the linear row's tail).
template <class T, int Mode>
void warpRow(const WarpJob<T>& job, T* out, int32_t xBegin, int32_t xEnd, double p[3]) {
    const double(&d)[3][4] = job.inv;
    const SourceView<T>& s = job.src;
    double X = p[0], Y = p[1], Z = p[2];
    for (int32_t x = xBegin; x < xEnd; ++x) {
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
    p[0] = X;
    p[1] = Y;
    p[2] = Z;
}

// Lower indices and fractions of the linear pairs of four positions, as
// linearTap does for one.
struct LinearTaps4 {
    __m128i i;
    __m128 f;
};

inline LinearTaps4 linearTaps4(const double p[4], int32_t last) {
    const __m128d p01 = _mm_loadu_pd(p), p23 = _mm_loadu_pd(p + 2);
    __m128i i = _mm_unpacklo_epi64(_mm_cvttpd_epi32(p01), _mm_cvttpd_epi32(p23));
    const __m128i lower = _mm_and_si128(_mm_cmpeq_epi32(i, _mm_set1_epi32(last)),
                                        _mm_cmpgt_epi32(i, _mm_setzero_si128()));
    i = _mm_add_epi32(i, lower);  // -1 where the index sits on the last element
    const __m128 f01 = _mm_cvtpd_ps(_mm_sub_pd(p01, _mm_cvtepi32_pd(i)));
    const __m128 f23 = _mm_cvtpd_ps(_mm_sub_pd(p23, _mm_cvtepi32_pd(_mm_unpackhi_epi64(i, i))));
    return {i, _mm_movelh_ps(f01, f23)};
}

inline __m128 lerp4(__m128 a, __m128 b, __m128 f) {
    return _mm_add_ps(_mm_mul_ps(a, _mm_sub_ps(_mm_set1_ps(1.0f), f)), _mm_mul_ps(b, f));
}

// The element pairs (p[l][0], p[l][1]) of four lanes as two vectors of
// floats: the first elements and the second elements.
inline void loadPairs4(const float* const p[4], __m128& a, __m128& b) {
    auto pairOf = [](const float* q) {
        double bits;  // two floats, read as one 64-bit unit without alignment
        std::memcpy(&bits, q, sizeof bits);
        return _mm_castpd_ps(_mm_set_sd(bits));
    };
    const __m128 u01 = _mm_unpacklo_ps(pairOf(p[0]), pairOf(p[1]));  // a0 a1 b0 b1
    const __m128 u23 = _mm_unpacklo_ps(pairOf(p[2]), pairOf(p[3]));  // a2 a3 b2 b3
    a = _mm_movelh_ps(u01, u23);
    b = _mm_movehl_ps(u23, u01);
}

template <class T>
inline void loadPairs4(const T* const p[4], __m128& a, __m128& b) {
    // Each pair read as one integer: the first element in the low bits.
    using Pair = std::conditional_t<sizeof(T) == 1, uint16_t, uint32_t>;
    auto pairOf = [](const T* q) {
        Pair v;
        std::memcpy(&v, q, sizeof v);
        return static_cast<int32_t>(v);
    };
    const __m128i v = _mm_setr_epi32(pairOf(p[0]), pairOf(p[1]), pairOf(p[2]), pairOf(p[3]));
    constexpr int kBits = 8 * sizeof(T);
    const __m128i low = _mm_and_si128(v, _mm_set1_epi32((1 << kBits) - 1));
    a = _mm_cvtepi32_ps(low);
    b = _mm_cvtepi32_ps(_mm_srli_epi32(v, kBits));
}

// Trilinear samples at four positions, lane by lane the same arithmetic as
// sampleLinear3: the eight neighbours of each are gathered into vectors and
// blended along x, then y, then z.
template <class T>
inline __m128 sampleLinear3x4(const SourceView<T>& s, const double px[4], const double py[4],
                              const double pz[4]) {
    const LinearTaps4 tx = linearTaps4(px, s.last[0]);
    const LinearTaps4 ty = linearTaps4(py, s.last[1]);
    const LinearTaps4 tz = linearTaps4(pz, s.last[2]);
    alignas(16) int32_t ix[4], iy[4], iz[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(ix), tx.i);
    _mm_store_si128(reinterpret_cast<__m128i*>(iy), ty.i);
    _mm_store_si128(reinterpret_cast<__m128i*>(iz), tz.i);
    __m128 n[8];  // neighbour (dx + 2 dy + 4 dz) of the four lanes
    for (int dz = 0; dz < 2; ++dz) {
        for (int dy = 0; dy < 2; ++dy) {
            const T* pair[4];
            for (int l = 0; l < 4; ++l) {
                pair[l] = rowOfPV(s.planes, s.rowStep, iy[l] + dy, iz[l] + dz) + ix[l];
            }
            loadPairs4(pair, n[2 * dy + 4 * dz], n[1 + 2 * dy + 4 * dz]);
        }
    }
    const __m128 y0 = lerp4(lerp4(n[0], n[1], tx.f), lerp4(n[2], n[3], tx.f), ty.f);
    const __m128 y1 = lerp4(lerp4(n[4], n[5], tx.f), lerp4(n[6], n[7], tx.f), ty.f);
    return lerp4(y0, y1, tz.f);
}

// Whether all four positions lie inside the source cuboid (the inclusive
// test of insideSource, two positions per comparison).
template <class T>
inline bool allInside4(const SourceView<T>& s, const double px[4], const double py[4],
                       const double pz[4]) {
    __m128d ok = _mm_castsi128_pd(_mm_set1_epi32(-1));
    const double* p[3] = {px, py, pz};
    for (int a = 0; a < 3; ++a) {
        const __m128d lo = _mm_set1_pd(s.first[a]), hi = _mm_set1_pd(s.last[a]);
        for (int h = 0; h < 4; h += 2) {
            const __m128d v = _mm_load_pd(p[a] + h);
            ok = _mm_and_pd(ok, _mm_and_pd(_mm_cmpge_pd(v, lo), _mm_cmple_pd(v, hi)));
        }
    }
    return _mm_movemask_pd(ok) == 3;
}

// The linear row: four positions at a time; when all four lie inside, they
// are sampled together, otherwise one by one.
template <class T>
void warpRowLinear(const WarpJob<T>& job, T* out, int32_t xBegin, int32_t xEnd, double p[3]) {
    const double(&d)[3][4] = job.inv;
    const SourceView<T>& s = job.src;
    double X = p[0], Y = p[1], Z = p[2];
    int32_t x = xBegin;
    for (; x + 4 <= xEnd; x += 4) {
        alignas(16) double px[4], py[4], pz[4];
        for (int l = 0; l < 4; ++l) {
            px[l] = X;
            py[l] = Y;
            pz[l] = Z;
            X += d[0][0];
            Y += d[1][0];
            Z += d[2][0];
        }
        if (allInside4(s, px, py, pz)) {
            alignas(16) float v[4];
            _mm_store_ps(v, sampleLinear3x4(s, px, py, pz));
            for (int l = 0; l < 4; ++l) out[x + l] = roundToElement<T>(v[l]);
        } else {
            for (int l = 0; l < 4; ++l) {
                if (insideSource(s, px[l], py[l], pz[l])) {
                    out[x + l] = roundToElement<T>(sampleLinear3(s, px[l], py[l], pz[l]));
                }
            }
        }
    }
    p[0] = X;
    p[1] = Y;
    p[2] = Z;
    warpRow<T, qelInterpLinear>(job, out, x, xEnd, p);
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
    warpRow<T, qelInterpNearest>,
    warpRowLinear<T>,
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
