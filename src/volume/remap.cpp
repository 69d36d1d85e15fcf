// Volume remap: every destination voxel reads the source at the position
// that the three coordinate maps give, if that position lies inside the
// accepted source box; voxels mapped outside keep their values.

#include "core/impl.h"
#include "simd/target.h"
#include "volume/remap_plane.h"
#include "volume/volume_common.h"
#include "volume/volume_parallel.h"

namespace qelr::QELR_ISA::volume {

namespace {

// A row routine: one destination row of `width` voxels from its three map rows.
template <class T>
using RemapRow = void (*)(const T* const* src, int srcRowStep, const Bounds& box, T* dst,
                          int32_t width, const float* mx, const float* my, const float* mz);

// The coordinates of kLanes voxels (the map entries, or zeros past the row's
// end) and the lanes whose position lies inside the box (NaN fails).
struct Block {
    Vf c[3];
    int inside;
};

template <class Body>
QELR_INLINE void forBlocks(const Bounds& box, int32_t width, const float* mx, const float* my,
                           const float* mz, Body&& body) {
    Vf lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = Vf(static_cast<float>(box.first[a]));
        hi[a] = Vf(static_cast<float>(box.last[a]));
    }
    const auto run = [&](int32_t i, Block& b, int valid) {
        Vf in = (b.c[0] >= lo[0]) & (b.c[0] <= hi[0]);
        in = in & (b.c[1] >= lo[1]) & (b.c[1] <= hi[1]);
        in = in & (b.c[2] >= lo[2]) & (b.c[2] <= hi[2]);
        b.inside = simd::laneBits(in) & valid;
        if (b.inside != 0) body(i, b);
    };
    int32_t i = 0;
    for (; i + kLanes <= width; i += kLanes) {
        Block b{{Vf::loadu(mx + i), Vf::loadu(my + i), Vf::loadu(mz + i)}, 0};
        run(i, b, (1 << kLanes) - 1);
    }
    if (i < width) {
        // The last voxels run through the same block with the missing lanes
        // masked off.
        alignas(32) float t[3][kLanes] = {};
        const int32_t n = width - i;
        for (int32_t l = 0; l < n; ++l) {
            t[0][l] = mx[i + l];
            t[1][l] = my[i + l];
            t[2][l] = mz[i + l];
        }
        Block b{{Vf::load(t[0]), Vf::load(t[1]), Vf::load(t[2])}, 0};
        run(i, b, (1 << n) - 1);
    }
}

// Per-lane indices of a vector of integers.
struct Lanes {
    alignas(32) int32_t v[kLanes];
    explicit Lanes(Vi a) { simd::store(v, a); }
    int32_t operator[](int l) const { return v[l]; }
};

// Index along one axis: rounded (nearest) or truncated, then clamped into the
// box (which matters only where a bound is not exact in float).
inline Vi clampedIndex(Vi i, int32_t lo, int32_t hi) {
    return simd::min(simd::max(i, Vi(lo)), Vi(hi));
}

// ---------------------------------------------------------------------------
// Nearest: each coordinate rounded in the current rounding mode.

template <class T>
void nearestRow(const T* const* src, int srcRowStep, const Bounds& box, T* dst, int32_t width,
                const float* mx, const float* my, const float* mz) {
    forBlocks(box, width, mx, my, mz, [&](int32_t i, const Block& b) {
        const Lanes ix(clampedIndex(simd::roundToInt(b.c[0]), box.first[0], box.last[0]));
        const Lanes iy(clampedIndex(simd::roundToInt(b.c[1]), box.first[1], box.last[1]));
        const Lanes iz(clampedIndex(simd::roundToInt(b.c[2]), box.first[2], box.last[2]));
        for (int l = 0; l < kLanes; ++l) {
            if (b.inside & (1 << l)) dst[i + l] = rowOfPV(src, srcRowStep, iy[l], iz[l])[ix[l]];
        }
    });
}

// ---------------------------------------------------------------------------
// Linear: one voxel per lane.

// Base indices and fractions of one axis: the base is the coordinate
// truncated and lowered by one at the upper bound (kept at the lower bound
// when the box is one element thick); the second index is base + 1 (the base
// itself on a one-element axis). Coordinates are first moved onto the box
// (NaN onto its lower bound), so lanes outside it still give indices that are
// safe to read; the integer minimum keeps the base inside even where a bound
// is not exact in float.
struct LinearAxis {
    Vi base, next;
    Vf frac;
};

inline LinearAxis linearAxis(Vf coord, int32_t lo, int32_t hi) {
    const Vf c =
        simd::min(simd::max(coord, Vf(static_cast<float>(lo))), Vf(static_cast<float>(hi)));
    const bool thick = hi > lo;
    const Vi base = simd::min(simd::truncToInt(c), Vi(thick ? hi - 1 : lo));
    return {base, base + Vi(thick ? 1 : 0), c - simd::toFloat(base)};
}

template <class T>
void linearRow(const T* const* src, int srcRowStep, const Bounds& box, T* dst, int32_t width,
               const float* mx, const float* my, const float* mz) {
    // Row y1 is the next row, or y0 itself on a box one row tall.
    const ptrdiff_t nextRow = box.last[1] > box.first[1] ? srcRowStep : 0;
    forBlocks(box, width, mx, my, mz, [&](int32_t i, const Block& b) {
        const LinearAxis ax = linearAxis(b.c[0], box.first[0], box.last[0]);
        const LinearAxis ay = linearAxis(b.c[1], box.first[1], box.last[1]);
        const LinearAxis az = linearAxis(b.c[2], box.first[2], box.last[2]);
        const Lanes xs(ax.base), ys(ay.base), z0(az.base), z1(az.next);
        // The pairs in rows y0 and y1 of planes z0 and z1.
        const T* near[kLanes];
        const T* far[kLanes];
        for (int l = 0; l < kLanes; ++l) {
            const ptrdiff_t offset =
                static_cast<ptrdiff_t>(ys[l]) * srcRowStep +
                static_cast<ptrdiff_t>(xs[l]) * static_cast<ptrdiff_t>(sizeof(T));
            near[l] = byteOffset(src[z0[l]], offset);
            far[l] = byteOffset(src[z1[l]], offset);
        }
        const auto corner = [&](int r, int l) {
            return byteOffset(r < 2 ? near[l] : far[l], r & 1 ? nextRow : 0);
        };
        const Vf v = trilinear<T>(corner, box.last[0] > box.first[0], ax.frac, ay.frac, az.frac);
        storeRoundedMasked(dst + i, v, b.inside);
    });
}

// ---------------------------------------------------------------------------
// Cubic family: a 4 x 4 x 4 neighbourhood per voxel. Near the faces of the
// box the taps beyond it are clamped onto it (edge voxels repeat), as linear
// keeps its pair inside, so every read stays inside the accepted box.

template <class T, int Mode>
void cubicRow(const T* const* src, int srcRowStep, const Bounds& box, T* dst, int32_t width,
              const float* mx, const float* my, const float* mz) {
    const KernelTable& table = kernelTable(Mode);
    forBlocks(box, width, mx, my, mz, [&](int32_t i, const Block& b) {
        const Lanes bx(clampedIndex(simd::truncToInt(b.c[0]), box.first[0], box.last[0]));
        const Lanes by(clampedIndex(simd::truncToInt(b.c[1]), box.first[1], box.last[1]));
        const Lanes bz(clampedIndex(simd::truncToInt(b.c[2]), box.first[2], box.last[2]));
        alignas(32) float c[3][kLanes];
        for (int a = 0; a < 3; ++a) simd::store(c[a], b.c[a]);
        for (int l = 0; l < kLanes; ++l) {
            if (!(b.inside & (1 << l))) continue;
            const simd::F32<4> wx = tapWeights(table, c[0][l] - static_cast<float>(bx[l]));
            const simd::F32<4> wy = tapWeights(table, c[1][l] - static_cast<float>(by[l]));
            const simd::F32<4> wz = tapWeights(table, c[2][l] - static_cast<float>(bz[l]));
            const uint8_t* planes[4];
            ptrdiff_t rows[4];
            for (int t = 0; t < 4; ++t) {
                planes[t] = reinterpret_cast<const uint8_t*>(
                    src[clampIndex(bz[l] - 1 + t, box.first[2], box.last[2])]);
                rows[t] =
                    static_cast<ptrdiff_t>(clampIndex(by[l] - 1 + t, box.first[1], box.last[1])) *
                    srcRowStep;
            }
            const CubicColumns x = cubicColumns(bx[l], box.first[0], box.last[0]);
            dst[i + l] = roundToElement<T>(cubicVolume<T>(planes, rows, x, wx, wy, wz));
        }
    });
}

// ---------------------------------------------------------------------------
// Kernels: walk the planes [zBegin, zEnd) and rows of the destination.

template <class T>
struct RemapArgs {
    const T* const* src;
    int srcRowStep;
    Bounds box;
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
    const int mode = degradeMode(interpolation, smallestOf(srcSize));
    const RemapArgs<T> args{srcData, srcRowStep, boundsOf(accepted), pxMap,    pyMap, pzMap,
                            mapStep, dstData,    dstRowStep,         dstVolume};
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
