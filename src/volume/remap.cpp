// Volume remap: every destination voxel reads the source at the position
// that the three coordinate maps give, if that position lies inside the
// accepted source box; voxels mapped outside keep their values.

#include "core/impl.h"
#include "simd/target.h"
#include "volume/remap_plane.h"
#include "volume/remap_sampling.h"
#include "volume/volume_common.h"
#include "volume/volume_parallel.h"

namespace qelr::QELR_ISA::volume {

namespace {

// A row routine: one destination row of `width` voxels from its three map rows.
template <class T>
using RemapRow = void (*)(const T* const* src, int srcRowStep, const InclusiveBox& box, T* dst,
                          int32_t width, const float* mx, const float* my, const float* mz);

// ---------------------------------------------------------------------------
// Nearest: each coordinate rounded in the current rounding mode.

template <class T>
void nearestRow(const T* const* src, int srcRowStep, const InclusiveBox& box, T* dst, int32_t width,
                const float* mx, const float* my, const float* mz) {
    const float x0 = static_cast<float>(box.x0), x1 = static_cast<float>(box.x1);
    const float y0 = static_cast<float>(box.y0), y1 = static_cast<float>(box.y1);
    const float z0 = static_cast<float>(box.z0), z1 = static_cast<float>(box.z1);
    for (int32_t i = 0; i < width; ++i) {
        const float x = mx[i], y = my[i], z = mz[i];
        if (!(x >= x0 && x <= x1 && y >= y0 && y <= y1 && z >= z0 && z <= z1)) continue;
        // The clamps only matter where a bound is not exact in float.
        const int32_t ix = clampIndex(_mm_cvtss_si32(_mm_set_ss(x)), box.x0, box.x1);
        const int32_t iy = clampIndex(_mm_cvtss_si32(_mm_set_ss(y)), box.y0, box.y1);
        const int32_t iz = clampIndex(_mm_cvtss_si32(_mm_set_ss(z)), box.z0, box.z1);
        dst[i] = rowOfPV(src, srcRowStep, iy, iz)[ix];
    }
}

// ---------------------------------------------------------------------------
// Linear: four voxels per step, one per lane.

// Base indices and fractions of one axis for four lanes: the base is the
// coordinate truncated and lowered by one at the upper bound (kept at the
// lower bound when the box is one element thick); the second index is
// base + 1 (the base itself on a one-element axis). Coordinates are first
// moved onto the box (NaN onto its lower bound), so lanes outside it still
// give indices that are safe to read; the integer minimum keeps the base
// inside even where a bound is not exact in float.
struct LinearAxis {
    __m128i base, next;
    __m128 frac;
};

inline LinearAxis linearAxis(__m128 coord, int32_t lo, int32_t hi) {
    const __m128 c = _mm_min_ps(_mm_max_ps(coord, _mm_set1_ps(static_cast<float>(lo))),
                                _mm_set1_ps(static_cast<float>(hi)));
    const bool thick = hi > lo;
    const __m128i base = minEpi32(_mm_cvttps_epi32(c), _mm_set1_epi32(thick ? hi - 1 : lo));
    const __m128i next = _mm_add_epi32(base, _mm_set1_epi32(thick ? 1 : 0));
    return {base, next, _mm_sub_ps(c, _mm_cvtepi32_ps(base))};
}

inline __m128 lerp(__m128 a, __m128 b, __m128 f) {
    return _mm_add_ps(_mm_mul_ps(a, _mm_sub_ps(_mm_set1_ps(1.0f), f)), _mm_mul_ps(b, f));
}

template <class T>
inline void linearBlock(const T* const* src, int srcRowStep, const InclusiveBox& box, T* dst,
                        __m128 fx, __m128 fy, __m128 fz, int valid) {
    const __m128 inside = _mm_and_ps(_mm_and_ps(inRange(fx, _mm_set1_ps(static_cast<float>(box.x0)),
                                                        _mm_set1_ps(static_cast<float>(box.x1))),
                                                inRange(fy, _mm_set1_ps(static_cast<float>(box.y0)),
                                                        _mm_set1_ps(static_cast<float>(box.y1)))),
                                     inRange(fz, _mm_set1_ps(static_cast<float>(box.z0)),
                                             _mm_set1_ps(static_cast<float>(box.z1))));
    const int mask = _mm_movemask_ps(inside) & valid;
    if (mask == 0) return;
    const LinearAxis ax = linearAxis(fx, box.x0, box.x1);
    const LinearAxis ay = linearAxis(fy, box.y0, box.y1);
    const LinearAxis az = linearAxis(fz, box.z0, box.z1);
    alignas(16) int32_t xs[4], ys[4], z0[4], z1[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(xs), ax.base);
    _mm_store_si128(reinterpret_cast<__m128i*>(ys), ay.base);
    _mm_store_si128(reinterpret_cast<__m128i*>(z0), az.base);
    _mm_store_si128(reinterpret_cast<__m128i*>(z1), az.next);
    // The first voxel of each pair per lane, in rows (y0, z0), (y1, z0),
    // (y0, z1), (y1, z1); row y1 is the next row, or y0 itself on a box one
    // row tall.
    const ptrdiff_t nextRow = box.y1 > box.y0 ? srcRowStep : 0;
    const uint8_t* corner[4][4];
    for (int l = 0; l < 4; ++l) {
        const ptrdiff_t offset = static_cast<ptrdiff_t>(ys[l]) * srcRowStep +
                                 static_cast<ptrdiff_t>(xs[l]) * static_cast<ptrdiff_t>(sizeof(T));
        corner[0][l] = reinterpret_cast<const uint8_t*>(src[z0[l]]) + offset;
        corner[1][l] = corner[0][l] + nextRow;
        corner[2][l] = reinterpret_cast<const uint8_t*>(src[z1[l]]) + offset;
        corner[3][l] = corner[2][l] + nextRow;
    }
    // The pair (x, x + 1) of four rows, blended along x.
    const auto alongX = [&](const uint8_t* const* rows) {
        const auto at = [&](int l) { return reinterpret_cast<const T*>(rows[l]); };
        __m128 a, b;
        if (box.x1 > box.x0) {
            loadPairs(at(0), at(1), at(2), at(3), a, b);
        } else {  // one voxel wide: both taps are x0
            a = b = _mm_setr_ps(static_cast<float>(*at(0)), static_cast<float>(*at(1)),
                                static_cast<float>(*at(2)), static_cast<float>(*at(3)));
        }
        return lerp(a, b, ax.frac);
    };
    // Along x, then y, then z.
    const __m128 d0 = lerp(alongX(corner[0]), alongX(corner[1]), ay.frac);
    const __m128 d1 = lerp(alongX(corner[2]), alongX(corner[3]), ay.frac);
    storeLanes(dst, lerp(d0, d1, az.frac), mask);
}

template <class T>
void linearRow(const T* const* src, int srcRowStep, const InclusiveBox& box, T* dst, int32_t width,
               const float* mx, const float* my, const float* mz) {
    int32_t i = 0;
    for (; i <= width - 4; i += 4) {
        linearBlock(src, srcRowStep, box, dst + i, _mm_loadu_ps(mx + i), _mm_loadu_ps(my + i),
                    _mm_loadu_ps(mz + i), 0xF);
    }
    if (i < width) {
        // The last one to three voxels run through the same block with the
        // missing lanes masked off (a partial mask writes lane by lane).
        alignas(16) float tx[4] = {}, ty[4] = {}, tz[4] = {};
        const int32_t n = width - i;
        for (int32_t l = 0; l < n; ++l) {
            tx[l] = mx[i + l];
            ty[l] = my[i + l];
            tz[l] = mz[i + l];
        }
        linearBlock(src, srcRowStep, box, dst + i, _mm_load_ps(tx), _mm_load_ps(ty),
                    _mm_load_ps(tz), (1 << n) - 1);
    }
}

// ---------------------------------------------------------------------------
// Cubic family: a 4 x 4 x 4 neighbourhood per voxel. Near the faces of the
// box the taps beyond it are clamped onto it (edge voxels repeat), as linear
// keeps its pair inside, so every read stays inside the accepted box.

template <class T, int Mode>
void cubicRow(const T* const* src, int srcRowStep, const InclusiveBox& box, T* dst, int32_t width,
              const float* mx, const float* my, const float* mz) {
    const CubicPairTable& table = cubicPairTable(Mode);
    const float x0 = static_cast<float>(box.x0), x1 = static_cast<float>(box.x1);
    const float y0 = static_cast<float>(box.y0), y1 = static_cast<float>(box.y1);
    const float z0 = static_cast<float>(box.z0), z1 = static_cast<float>(box.z1);
    for (int32_t i = 0; i < width; ++i) {
        const float x = mx[i], y = my[i], z = mz[i];
        if (!(x >= x0 && x <= x1 && y >= y0 && y <= y1 && z >= z0 && z <= z1)) continue;
        const int32_t bx = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(x)), box.x0, box.x1);
        const int32_t by = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(y)), box.y0, box.y1);
        const int32_t bz = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(z)), box.z0, box.z1);
        const __m128 wx = cubicTapWeights(table, x - static_cast<float>(bx));
        const __m128 wy = cubicTapWeights(table, y - static_cast<float>(by));
        const __m128 wz = cubicTapWeights(table, z - static_cast<float>(bz));
        const uint8_t* plane[4];
        ptrdiff_t row[4];
        for (int t = 0; t < 4; ++t) {
            plane[t] =
                reinterpret_cast<const uint8_t*>(src[clampIndex(bz - 1 + t, box.z0, box.z1)]);
            row[t] = static_cast<ptrdiff_t>(clampIndex(by - 1 + t, box.y0, box.y1)) * srcRowStep;
        }
        // Lanes hold the four x taps: the rows of each plane tap blended
        // along y, the planes along z, then the x taps weighted and summed.
        const auto blendRows = [&](auto taps) {
            const auto planeTap = [&](int c) {
                return blendFour(wy, taps(plane[c] + row[0]), taps(plane[c] + row[1]),
                                 taps(plane[c] + row[2]), taps(plane[c] + row[3]));
            };
            return blendFour(wz, planeTap(0), planeTap(1), planeTap(2), planeTap(3));
        };
        __m128 q;
        if (bx - 1 >= box.x0 && bx + 2 <= box.x1) {
            const ptrdiff_t first =
                static_cast<ptrdiff_t>(bx - 1) * static_cast<ptrdiff_t>(sizeof(T));
            q = blendRows(
                [&](const uint8_t* r) { return loadFour(reinterpret_cast<const T*>(r + first)); });
        } else {
            const int32_t tx[4] = {clampIndex(bx - 1, box.x0, box.x1), bx,
                                   clampIndex(bx + 1, box.x0, box.x1),
                                   clampIndex(bx + 2, box.x0, box.x1)};
            q = blendRows([&](const uint8_t* r) {
                return gatherFour(reinterpret_cast<const T*>(r), tx[0], tx[1], tx[2], tx[3]);
            });
        }
        dst[i] = roundToElement<T>(horizontalSum(_mm_mul_ps(q, wx)));
    }
}

// ---------------------------------------------------------------------------
// Kernels: walk the planes [zBegin, zEnd) and rows of the destination.

template <class T>
struct RemapArgs {
    const T* const* src;
    int srcRowStep;
    InclusiveBox box;
    const float* const* mapX;
    const float* const* mapY;
    const float* const* mapZ;
    int mapStep;
    T* const* dst;
    int dstRowStep;
    QelVolumeSize dstSize;
};

template <class T>
using RemapKernel = void (*)(const RemapArgs<T>& a, int32_t zBegin, int32_t zEnd);

template <class T, RemapRow<T> Row>
void remapKernel(const RemapArgs<T>& a, int32_t zBegin, int32_t zEnd) {
    for (int32_t z = zBegin; z < zEnd; ++z) {
        for (int32_t y = 0; y < a.dstSize.height; ++y) {
            Row(a.src, a.srcRowStep, a.box, rowOfPV(a.dst, a.dstRowStep, y, z), a.dstSize.width,
                rowOfPV(a.mapX, a.mapStep, y, z), rowOfPV(a.mapY, a.mapStep, y, z),
                rowOfPV(a.mapZ, a.mapStep, y, z));
        }
    }
}

// Indexed by the mode value; 0 and 3 are not modes.
template <class T>
constexpr RemapKernel<T> kRemapKernels[8] = {
    nullptr,
    remapKernel<T, nearestRow<T>>,
    remapKernel<T, linearRow<T>>,
    nullptr,
    remapKernel<T, cubicRow<T, qelInterpCubic>>,
    remapKernel<T, cubicRow<T, qelInterpCubicBSpline>>,
    remapKernel<T, cubicRow<T, qelInterpCubicCatmullRom>>,
    remapKernel<T, cubicRow<T, qelInterpCubicB05C03>>,
};

// Runs the kernel over all destination planes, split over a team when the
// destination is large enough and more than one thread is available.
template <class T>
QelStatus remapVolume(const T* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                      QelBox3D srcBox, const float* const pxMap[], const float* const pyMap[],
                      const float* const pzMap[], int mapStep, T* const dstData[], int dstRowStep,
                      QelVolumeSize dstVolume, int interpolation) {
    if (srcData == nullptr || dstData == nullptr) return qelErrNullPointer;
    if (pxMap == nullptr || pyMap == nullptr || pzMap == nullptr) return qelErrNullPointer;
    if (!sizeWellFormed(srcSize) || !boxWellFormed(srcBox) || !sizeWellFormed(dstVolume))
        return qelErrSize;
    if (!isVolumeMode(interpolation)) return qelErrInterpolation;
    if (srcSize.depth == 1) {
        return remapPlane<T>(srcData[0], {srcSize.width, srcSize.height}, srcRowStep,
                             {srcBox.x, srcBox.y, srcBox.width, srcBox.height}, pxMap[0], mapStep,
                             pyMap[0], mapStep, dstData[0], dstRowStep,
                             {dstVolume.width, dstVolume.height}, interpolation);
    }
    if (!originInside(srcBox, srcSize)) return qelWarnRegionOutsideVolume;
    const QelBox3D accepted = trimToVolume(srcBox, srcSize);
    const int mode = degradeModeForSource(interpolation, srcSize);
    const RemapArgs<T> args{
        srcData,    srcRowStep, inclusiveBoundsOf(accepted), pxMap, pyMap, pzMap, mapStep, dstData,
        dstRowStep, dstVolume};
    const RemapKernel<T> kernel = kRemapKernels<T>[mode];
    runOverPlanes(dstVolume.width, dstVolume.height, dstVolume.depth,
                  [&](int32_t first, int32_t end, int, int) { kernel(args, first, end); });
    return qelOk;
}

}  // namespace

}  // namespace qelr::QELR_ISA::volume

namespace qelr::QELR_ISA::impl {

QelStatus qelrRemap_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                            QelBox3D srcBox, const float* const pxMap[], const float* const pyMap[],
                            const float* const pzMap[], int mapStep, QelU8* const dstData[],
                            int dstRowStep, QelVolumeSize dstVolume, int interpolation) {
    return volume::remapVolume<uint8_t>(srcData, srcSize, srcRowStep, srcBox, pxMap, pyMap, pzMap,
                                        mapStep, dstData, dstRowStep, dstVolume, interpolation);
}

QelStatus qelrRemap_16u_C1PV(const uint16_t* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                             QelBox3D srcBox, const float* const pxMap[],
                             const float* const pyMap[], const float* const pzMap[], int mapStep,
                             uint16_t* const dstData[], int dstRowStep, QelVolumeSize dstVolume,
                             int interpolation) {
    return volume::remapVolume<uint16_t>(srcData, srcSize, srcRowStep, srcBox, pxMap, pyMap, pzMap,
                                         mapStep, dstData, dstRowStep, dstVolume, interpolation);
}

QelStatus qelrRemap_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                             QelBox3D srcBox, const float* const pxMap[],
                             const float* const pyMap[], const float* const pzMap[], int mapStep,
                             float* const dstData[], int dstRowStep, QelVolumeSize dstVolume,
                             int interpolation) {
    return volume::remapVolume<float>(srcData, srcSize, srcRowStep, srcBox, pxMap, pyMap, pzMap,
                                      mapStep, dstData, dstRowStep, dstVolume, interpolation);
}

}  // namespace qelr::QELR_ISA::impl
