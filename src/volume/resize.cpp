// Separable resize of 8u, 16u and 32f volumes, contiguous (V) and planar (PV),
// with nearest, linear and the four cubic interpolations.
//
// A destination element d maps back to the source position
// p = (d + 0.5) / F - S / F - 0.5 on each axis. Linear and cubic resampling run
// in three passes over float data: each needed source row is resampled in x
// once per plane pass into a ring of rows, the rows are combined in y into a
// ring of planes (each needed source plane once), and the planes are combined
// in z, converted and stored. All scratch lives in the caller's buffer.

#include <cmath>
#include <cstring>

#include "core/impl.h"
#include "qelcore.h"
#include "simd/target.h"
#include "volume/resize_internal.h"
#include "volume/resize_passes.h"
#include "volume/volume_common.h"
#include "volume/volume_parallel.h"

namespace qelr::QELR_ISA::volume::resize {

// ---------------------------------------------------------------------------
// Buffer size and scratch arrangement

int64_t bytesPerThread(int mode, int32_t W, int32_t H, int32_t D) {
    using Wide = __int128;
    const auto a16 = [](Wide v) { return (v + 15) / 16 * 16; };
    const auto a64 = [](Wide v) { return (v + 63) / 64 * 64; };
    const auto b = [](Wide v) { return v / 64 * 64; };
    const Wide w = W, h = H, d = D;
    Wide bytes;
    if (mode == qelInterpNearest) {
        bytes = 4 * (a16(w) + a16(h) + a16(d)) + 64;
    } else {
        const Wide tables = 4 * (a16(w) + a16(h) + a16(d) + a64(w) + a64(h) + a64(d));
        if (mode == qelInterpLinear) {
            bytes = tables + 4 * b(2 * w + 127) + 8 * h * a64(w) + 4 * b(8 * (w + h) + 127) + 64;
        } else {
            bytes = tables + 8 * b(4 * w + 255) + 4 * b(4 * h + 255) + 4 * b(4 * d + 255) +
                    16 * h * a64(w) + 4 * b(128 * (w + h) + 255) + 64;
        }
    }
    // Far beyond any buffer a caller can have; capped so products stay exact.
    constexpr Wide kCap = Wide{1} << 62;
    return static_cast<int64_t>(bytes < kCap ? bytes : kCap);
}

namespace {

// Hands out 64-byte aligned pieces of a slice, each rounded up to 64 bytes.
class Carver {
 public:
    explicit Carver(uint8_t* slice)
        : base_(slice), used_((64 - reinterpret_cast<uintptr_t>(slice) % 64) % 64) {}

    template <class T>
    T* take(size_t count) {
        T* p = reinterpret_cast<T*>(base_ + used_);
        used_ += (count * sizeof(T) + 63) & ~size_t{63};
        return p;
    }

 private:
    uint8_t* base_;
    size_t used_;
};

}  // namespace

Scratch carveScratch(int mode, int32_t w, int32_t h, int32_t planes, uint8_t* slice) {
    Carver c(slice);
    Scratch s{};
    const size_t nw = static_cast<size_t>(w), nh = static_cast<size_t>(h);
    const size_t nd = static_cast<size_t>(planes);
    s.x.index = c.take<int32_t>(nw);
    s.y.index = c.take<int32_t>(nh);
    s.z.index = c.take<int32_t>(nd);
    if (mode != qelInterpNearest) {
        const bool cubic = isCubicMode(mode);
        const size_t perYZ = cubic ? 4 : 1;  // four weights, or the fraction
        const size_t ring = cubic ? 4 : 2;
        s.x.weights = c.take<float>(nw * perYZ);
        s.y.weights = c.take<float>(nh * perYZ);
        s.z.weights = c.take<float>(nd * perYZ);
        s.rowStride = (nw + 15) & ~size_t{15};
        s.planeStride = s.rowStride * nh;
        s.rows = c.take<float>(ring * s.rowStride);
        s.planes = c.take<float>(ring * s.planeStride);
    }
    return s;
}

namespace {

// ---------------------------------------------------------------------------
// Geometry

struct Call {
    Axis x, y, z;
};

// The destination range of one axis and its inverse mapping. Returns false
// when the range is empty; a bound beyond the 32-bit range (or NaN) converts
// to INT32_MIN and makes it empty too.
bool mapAxis(int32_t s, int32_t n, int32_t t, int32_t m, double factor, double shift,
             int32_t srcExtent, Axis& a) {
    const int32_t srcEnd = s + n;  // the trimmed box ends inside the volume
    const int32_t dstEnd =
        static_cast<int32_t>(static_cast<uint32_t>(t) + static_cast<uint32_t>(m));
    const double first = s * factor + shift;
    const double last = srcEnd * factor + shift;
    const int32_t lo =
        simd::truncToInt32((first < t ? static_cast<double>(t) : first) + kRoundStartDown);
    const int32_t hi =
        simd::truncToInt32((last > dstEnd ? static_cast<double>(dstEnd) : last) + kRoundEndUp);
    if (!(lo >= t && lo < hi)) return false;
    a = {lo, hi - lo, srcExtent, 1.0 / factor, (0.0 - shift) / factor};
    return true;
}

QelStatus prepare(bool anyNull, QelVolumeSize srcSize, QelBox3D srcBox, QelBox3D dstBox,
                  double scaleX, double scaleY, double scaleZ, double offsetX, double offsetY,
                  double offsetZ, int interpolation, Call& call) {
    if (anyNull) return qelErrNullPointer;
    if (!sizeWellFormed(srcSize) || !boxWellFormed(srcBox) || !boxWellFormed(dstBox)) {
        return qelErrSize;
    }
    if (0 >= scaleX || 0 >= scaleY || 0 >= scaleZ) return qelErrFactor;  // NaN passes
    if (!isVolumeMode(interpolation)) return qelErrInterpolation;
    if (!originInside(srcBox, srcSize)) return qelWarnRegionOutsideVolume;
    const QelBox3D s = trimToVolume(srcBox, srcSize);
    const bool x =
        mapAxis(s.x, s.width, dstBox.x, dstBox.width, scaleX, offsetX, srcSize.width, call.x);
    const bool y =
        mapAxis(s.y, s.height, dstBox.y, dstBox.height, scaleY, offsetY, srcSize.height, call.y);
    const bool z =
        mapAxis(s.z, s.depth, dstBox.z, dstBox.depth, scaleZ, offsetZ, srcSize.depth, call.z);
    return x && y && z ? qelOk : qelWarnNothingToDo;
}

// ---------------------------------------------------------------------------
// Per-axis tables for destination coordinates lo + first .. lo + first + count - 1

// Nearest: the position is moved down by kNearestDown so that one falling exactly on
// an element boundary picks the lower element. An index outside the volume
// (an edge mapping onto the last half element, or absurd factors) is clamped.
void buildNearest(const Axis& a, int32_t first, int32_t count, int32_t* index) {
    for (int32_t k = 0; k < count; ++k) {
        const double d = static_cast<double>(a.lo + first + k);
        const double p = (d + 0.5) * a.inv + a.invOffset - kNearestDown;
        index[k] = clampTap(simd::truncToInt32(p), a.srcExtent);
    }
}

// Linear and cubic: the floor of the source position (clamped into
// [-1, srcExtent - 1], which keeps the clamped taps of every border case) and
// the fraction (linear) or the four tap weights (cubic).
void buildSampled(const Axis& a, int32_t first, int32_t count, int mode, AxisTable& t) {
    const double shifted = a.invOffset - 0.5;
    for (int32_t k = 0; k < count; ++k) {
        const double p = (static_cast<double>(a.lo + first + k) + 0.5) * a.inv + shifted;
        const int32_t i = simd::truncToInt32(std::floor(p));
        const float f = static_cast<float>(p - i);
        t.index[k] = i < -1 ? -1 : (i > a.srcExtent - 1 ? a.srcExtent - 1 : i);
        if (isCubicMode(mode)) {
            cubicWeights(mode, f, t.weights + 4 * k);
        } else {
            t.weights[k] = f;
        }
    }
}

// The leading and trailing elements whose taps need clamping. Positions grow
// with the destination coordinate, so the rest needs none; should that fail
// (a NaN position), the whole row takes the clamping path.
Runs runsOf(const int32_t* index, int32_t count, int32_t lowest, int32_t highest) {
    const auto interior = [&](int32_t i) { return i >= lowest && i <= highest; };
    int32_t left = 0;
    while (left < count && !interior(index[left])) ++left;
    int32_t right = 0;
    while (right < count - left && !interior(index[count - 1 - right])) ++right;
    for (int32_t k = left; k < count - right; ++k) {
        if (!interior(index[k])) return {count, 0};
    }
    return {left, right};
}

// ---------------------------------------------------------------------------
// Volume access

template <class T>
int wholeElementStep(int step) {
    constexpr int shift = sizeof(T) == 1 ? 0 : (sizeof(T) == 2 ? 1 : 2);
    return (step >> shift) * static_cast<int>(sizeof(T));
}

template <class T>
struct VolumeV {
    T* base;
    int rowStep, planeStep;  // bytes, whole elements
    VolumeV(T* b, int r, int p)
        : base(b), rowStep(wholeElementStep<T>(r)), planeStep(wholeElementStep<T>(p)) {}
    T* row(int32_t y, int32_t z) const { return rowOfV(base, rowStep, planeStep, y, z); }
};

template <class T>
struct VolumePV {
    T* const* planes;
    int rowStep;
    VolumePV(T* const* p, int r) : planes(p), rowStep(wholeElementStep<T>(r)) {}
    T* row(int32_t y, int32_t z) const { return rowOfPV(planes, rowStep, y, z); }
};

// ---------------------------------------------------------------------------
// Workers over destination planes [zBegin, zEnd) (relative to the origin)

template <class T, class Src, class Dst>
void resizeNearest(const Call& c, const Src& src, const Dst& dst, int32_t zBegin, int32_t zEnd,
                   uint8_t* slice) {
    const int32_t w = c.x.extent, h = c.y.extent;
    const Scratch s = carveScratch(qelInterpNearest, w, h, zEnd - zBegin, slice);
    buildNearest(c.x, 0, w, s.x.index);
    buildNearest(c.y, 0, h, s.y.index);
    buildNearest(c.z, zBegin, zEnd - zBegin, s.z.index);
    // A destination row or plane that reads the same source row or plane as
    // the one before it is a copy of that one.
    const size_t rowBytes = sizeof(T) * static_cast<size_t>(w);
    for (int32_t z = zBegin; z < zEnd; ++z) {
        const int32_t zs = s.z.index[z - zBegin];
        const bool samePlane = z > zBegin && zs == s.z.index[z - zBegin - 1];
        for (int32_t y = 0; y < h; ++y) {
            T* out = dst.row(c.y.lo + y, c.z.lo + z) + c.x.lo;
            if (samePlane) {
                std::memcpy(out, dst.row(c.y.lo + y, c.z.lo + z - 1) + c.x.lo, rowBytes);
            } else if (y > 0 && s.y.index[y] == s.y.index[y - 1]) {
                std::memcpy(out, dst.row(c.y.lo + y - 1, c.z.lo + z) + c.x.lo, rowBytes);
            } else {
                const T* in = src.row(s.y.index[y], zs);
                for (int32_t x = 0; x < w; ++x) out[x] = in[s.x.index[x]];
            }
        }
    }
}

// A ring of `size` (2 or 4) float buffers keyed by source index: index i lives
// in slot i mod size, so the 2 or 4 consecutive indices one sample needs never
// evict each other.
class Ring {
 public:
    Ring(float* data, size_t stride, int size) : data_(data), stride_(stride), mask_(size - 1) {
        clear();
    }

    void clear() {
        for (int32_t& t : tags_) t = -1;
    }

    // The buffer of source index i, filled by fill(i, buffer) if not held.
    template <class Fill>
    const float* get(int32_t i, Fill&& fill) {
        float* buf = data_ + static_cast<size_t>(i & mask_) * stride_;
        if (tags_[i & mask_] != i) {
            fill(i, buf);
            tags_[i & mask_] = i;
        }
        return buf;
    }

 private:
    float* data_;
    size_t stride_;
    int32_t mask_;
    int32_t tags_[4];
};

// out = the taps' buffers combined with weights w (cubic) or fraction w[0]
// (linear; a border index takes its clamped buffer unweighted).
template <class T, class Get>
void combine(bool cubic, int32_t i, int32_t extent, const float* w, int32_t n, size_t offset,
             Get&& get, T* out) {
    if (cubic) {
        const float* r[4];
        for (int j = 0; j < 4; ++j) r[j] = get(clampTap(i - 1 + j, extent));
        const float* rows[4] = {r[0] + offset, r[1] + offset, r[2] + offset, r[3] + offset};
        sumRows4(rows, w, n, out);
    } else if (i < 0 || i > extent - 2) {
        storeRow(get(clampTap(i, extent)) + offset, n, out);
    } else {
        const float* r0 = get(i);
        const float* r1 = get(i + 1);
        sumRows2(r0 + offset, r1 + offset, 1.0f - w[0], w[0], n, out);
    }
}

template <class T, class Src, class Dst>
void resizeSeparable(const Call& c, int mode, const Src& src, const Dst& dst, int32_t zBegin,
                     int32_t zEnd, uint8_t* slice) {
    const int32_t w = c.x.extent, h = c.y.extent, planes = zEnd - zBegin;
    Scratch s = carveScratch(mode, w, h, planes, slice);
    const bool cubic = isCubicMode(mode);
    buildSampled(c.x, 0, w, mode, s.x);
    buildSampled(c.y, 0, h, mode, s.y);
    buildSampled(c.z, zBegin, planes, mode, s.z);
    const int taps = cubic ? 4 : 2;
    const int32_t ex = c.x.srcExtent, ey = c.y.srcExtent, ez = c.z.srcExtent;
    const Runs runs = cubic ? runsOf(s.x.index, w, 1, ex - 3) : runsOf(s.x.index, w, 0, ex - 2);
    const size_t yStep = cubic ? 4 : 1;  // weights per table entry of y and z

    Ring rows(s.rows, s.rowStride, taps);
    Ring planeRing(s.planes, s.planeStride, taps);

    // One source plane resampled in x and y into `plane`.
    const auto resamplePlane = [&](int32_t zs, float* plane) {
        rows.clear();
        const auto xPass = [&](int32_t ys, float* out) {
            const auto* in = src.row(ys, zs);
            if (cubic) {
                resampleRowCubic(in, ex, s.x, runs, w, out);
            } else {
                resampleRowLinear(in, ex, s.x, runs, w, out);
            }
        };
        const auto getRow = [&](int32_t ys) { return rows.get(ys, xPass); };
        for (int32_t y = 0; y < h; ++y) {
            combine(cubic, s.y.index[y], ey, s.y.weights + yStep * y, w, 0, getRow,
                    plane + s.rowStride * y);
        }
    };
    const auto getPlane = [&](int32_t zs) { return planeRing.get(zs, resamplePlane); };

    for (int32_t z = zBegin; z < zEnd; ++z) {
        const int32_t k = z - zBegin;
        const int32_t i = s.z.index[k];
        // Bring the plane's taps into the ring before any row uses them.
        if (cubic) {
            for (int j = -1; j <= 2; ++j) getPlane(clampTap(i + j, ez));
        } else {
            getPlane(clampTap(i, ez));
            getPlane(clampTap(i + 1, ez));
        }
        for (int32_t y = 0; y < h; ++y) {
            T* out = dst.row(c.y.lo + y, c.z.lo + z) + c.x.lo;
            combine(cubic, i, ez, s.z.weights + yStep * k, w, s.rowStride * y, getPlane, out);
        }
    }
}

template <class T, class Src, class Dst>
void runWorker(const Call& c, int mode, const Src& src, const Dst& dst, int32_t zBegin,
               int32_t zEnd, uint8_t* slice) {
    if (zBegin >= zEnd) return;
    if (mode == qelInterpNearest) {
        resizeNearest<T>(c, src, dst, zBegin, zEnd, slice);
    } else {
        resizeSeparable<T>(c, mode, src, dst, zBegin, zEnd, slice);
    }
}

// The five variants that run on the calling thread.
template <class T, class Src, class Dst>
QelStatus resizeSerial(bool anyNull, const Src& src, QelVolumeSize srcSize, QelBox3D srcBox,
                       const Dst& dst, QelBox3D dstBox, double scaleX, double scaleY, double scaleZ,
                       double offsetX, double offsetY, double offsetZ, int interpolation,
                       uint8_t* workBuffer) {
    Call c;
    const QelStatus st = prepare(anyNull, srcSize, srcBox, dstBox, scaleX, scaleY, scaleZ, offsetX,
                                 offsetY, offsetZ, interpolation, c);
    if (st != qelOk) return st;
    runWorker<T>(c, interpolation, src, dst, 0, c.z.extent, workBuffer);
    return qelOk;
}

// The whole buffer for a destination box, as the size query gives it (wide).
__int128 totalBufferBytes(int mode, const QelBox3D& dstBox) {
    return static_cast<__int128>(bytesPerThread(mode, dstBox.width, dstBox.height, dstBox.depth)) *
           ownGetNumThreads();
}

}  // namespace
}  // namespace qelr::QELR_ISA::volume::resize

namespace qelr::QELR_ISA::impl {

using namespace qelr::volume;
using namespace qelr::volume::resize;

QelStatus qelrResizeGetBufSize(QelBox3D srcBox, QelBox3D dstBox, int channelCount,
                               int interpolation, int* outSize) {
    if (outSize == nullptr) return qelErrNullPointer;
    if (!boxWellFormed(srcBox) || !boxWellFormed(dstBox)) return qelErrSize;
    if (channelCount != 1) return qelErrChannels;
    if (!isVolumeMode(interpolation)) return qelErrInterpolation;
    const __int128 total = totalBufferBytes(interpolation, dstBox);
    if (total > INT32_MAX) return qelErrSize;  // no int can hold the size
    *outSize = static_cast<int>(total);
    return qelOk;
}

QelStatus qelrResize_8u_C1V(const QelU8* srcData, QelVolumeSize srcSize, int srcRowStep,
                            int srcSliceStep, QelBox3D srcBox, QelU8* dstData, int dstRowStep,
                            int dstSliceStep, QelBox3D dstBox, double scaleX, double scaleY,
                            double scaleZ, double offsetX, double offsetY, double offsetZ,
                            int interpolation, QelU8* workBuffer) {
    return resizeSerial<uint8_t>(!srcData || !dstData || !workBuffer,
                                 VolumeV<const uint8_t>(srcData, srcRowStep, srcSliceStep), srcSize,
                                 srcBox, VolumeV<uint8_t>(dstData, dstRowStep, dstSliceStep),
                                 dstBox, scaleX, scaleY, scaleZ, offsetX, offsetY, offsetZ,
                                 interpolation, workBuffer);
}

QelStatus qelrResize_16u_C1V(const uint16_t* srcData, QelVolumeSize srcSize, int srcRowStep,
                             int srcSliceStep, QelBox3D srcBox, uint16_t* dstData, int dstRowStep,
                             int dstSliceStep, QelBox3D dstBox, double scaleX, double scaleY,
                             double scaleZ, double offsetX, double offsetY, double offsetZ,
                             int interpolation, QelU8* workBuffer) {
    return resizeSerial<uint16_t>(
        !srcData || !dstData || !workBuffer,
        VolumeV<const uint16_t>(srcData, srcRowStep, srcSliceStep), srcSize, srcBox,
        VolumeV<uint16_t>(dstData, dstRowStep, dstSliceStep), dstBox, scaleX, scaleY, scaleZ,
        offsetX, offsetY, offsetZ, interpolation, workBuffer);
}

QelStatus qelrResize_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                             QelBox3D srcBox, QelU8* const dstData[], int dstRowStep,
                             QelBox3D dstBox, double scaleX, double scaleY, double scaleZ,
                             double offsetX, double offsetY, double offsetZ, int interpolation,
                             QelU8* workBuffer) {
    return resizeSerial<uint8_t>(!srcData || !dstData || !workBuffer,
                                 VolumePV<const uint8_t>(srcData, srcRowStep), srcSize, srcBox,
                                 VolumePV<uint8_t>(dstData, dstRowStep), dstBox, scaleX, scaleY,
                                 scaleZ, offsetX, offsetY, offsetZ, interpolation, workBuffer);
}

QelStatus qelrResize_16u_C1PV(const uint16_t* const srcData[], QelVolumeSize srcSize,
                              int srcRowStep, QelBox3D srcBox, uint16_t* const dstData[],
                              int dstRowStep, QelBox3D dstBox, double scaleX, double scaleY,
                              double scaleZ, double offsetX, double offsetY, double offsetZ,
                              int interpolation, QelU8* workBuffer) {
    return resizeSerial<uint16_t>(!srcData || !dstData || !workBuffer,
                                  VolumePV<const uint16_t>(srcData, srcRowStep), srcSize, srcBox,
                                  VolumePV<uint16_t>(dstData, dstRowStep), dstBox, scaleX, scaleY,
                                  scaleZ, offsetX, offsetY, offsetZ, interpolation, workBuffer);
}

QelStatus qelrResize_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize, int srcRowStep,
                              QelBox3D srcBox, float* const dstData[], int dstRowStep,
                              QelBox3D dstBox, double scaleX, double scaleY, double scaleZ,
                              double offsetX, double offsetY, double offsetZ, int interpolation,
                              QelU8* workBuffer) {
    return resizeSerial<float>(!srcData || !dstData || !workBuffer,
                               VolumePV<const float>(srcData, srcRowStep), srcSize, srcBox,
                               VolumePV<float>(dstData, dstRowStep), dstBox, scaleX, scaleY, scaleZ,
                               offsetX, offsetY, offsetZ, interpolation, workBuffer);
}

// The one variant that splits the destination planes over a team of threads;
// every thread builds its own tables in its own slice of the buffer.
QelStatus qelrResize_32f_C1V(const float* srcData, QelVolumeSize srcSize, int srcRowStep,
                             int srcSliceStep, QelBox3D srcBox, float* dstData, int dstRowStep,
                             int dstSliceStep, QelBox3D dstBox, double scaleX, double scaleY,
                             double scaleZ, double offsetX, double offsetY, double offsetZ,
                             int interpolation, QelU8* workBuffer) {
    Call c;
    const QelStatus st =
        prepare(!srcData || !dstData || !workBuffer, srcSize, srcBox, dstBox, scaleX, scaleY,
                scaleZ, offsetX, offsetY, offsetZ, interpolation, c);
    if (st != qelOk) return st;
    const VolumeV<const float> src(srcData, srcRowStep, srcSliceStep);
    const VolumeV<float> dst(dstData, dstRowStep, dstSliceStep);
    // Each thread works in its slice of the whole buffer, (rank * B) / team.
    const __int128 total = totalBufferBytes(interpolation, dstBox);
    runOverPlanes(c.x.extent, c.y.extent, c.z.extent,
                  [&](int32_t first, int32_t end, int rank, int team) {
                      uint8_t* slice = workBuffer + static_cast<size_t>((rank * total) / team);
                      runWorker<float>(c, interpolation, src, dst, first, end, slice);
                  });
    return qelOk;  // once validated, the workers cannot fail
}

}  // namespace qelr::QELR_ISA::impl
