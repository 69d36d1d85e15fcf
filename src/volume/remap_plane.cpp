// Two-dimensional remap of one plane, with nearest, linear, the Lagrange and
// Catmull-Rom cubics and a six-tap Lanczos kernel; every tap is clamped into
// the accepted region, so no read leaves it.
#include "volume/remap_plane.h"

#include <array>
#include <cmath>

#include "simd/target.h"
#include "volume/remap_sampling.h"
#include "volume/volume_common.h"

namespace qelr::QELR_ISA::volume {

namespace {

// ---------------------------------------------------------------------------
// Lanczos-3: sinc(d) sinc(d / 3) for d < 3, sampled like the cubic tables at
// d = k / 100 for k = 0..300 (rounded to float), then zeros so that the entry
// after any index up to 300 exists.

constexpr int kLanczosTableSize = 304;
using LanczosTable = std::array<float, kLanczosTableSize>;

LanczosTable makeLanczosTable() {
    LanczosTable t{};
    const double pi = 3.14159265358979323846;
    t[0] = 1.0f;
    for (int k = 1; k < 300; ++k) {
        if (k % 100 == 0) continue;  // exactly 0 at the other taps, so it interpolates
        const double d = k / 100.0;
        t[k] =
            static_cast<float>(3.0 * std::sin(pi * d) * std::sin(pi * d / 3.0) / (pi * pi * d * d));
    }
    return t;  // the kernel is 0 at d = 3 and beyond
}

const LanczosTable kLanczos = makeLanczosTable();

// Weight at distance d from a table that reaches distance `cap`.
inline float tableWeight(const float* table, float d, float cap) {
    const float x = (d < cap ? d : cap) * 100.0f;
    const int k = static_cast<int>(x);
    const float r = x - static_cast<float>(k);
    return table[k] + (table[k + 1] - table[k]) * r;
}

// The six Lanczos weights of the taps -2 .. 3 around a base with fraction f,
// normalised to sum 1.
inline void lanczosWeights(float f, float w[6]) {
    float sum = 0.0f;
    for (int t = 0; t < 6; ++t) {
        w[t] = tableWeight(kLanczos.data(), std::fabs(-f + static_cast<float>(t - 2)), 3.0f);
        sum += w[t];
    }
    for (int t = 0; t < 6; ++t) w[t] /= sum;
}

// ---------------------------------------------------------------------------
// Sampling at one position inside the region.

struct PlaneBounds {
    int32_t x0, y0, x1, y1;
};

template <class T>
inline const T* rowAt(const T* plane, int step, int32_t y) {
    return reinterpret_cast<const T*>(reinterpret_cast<const uint8_t*>(plane) +
                                      static_cast<ptrdiff_t>(y) * step);
}

template <class T, int Mode>
inline T samplePlane(const T* src, int step, const PlaneBounds& b, float x, float y) {
    if constexpr (Mode == qelInterpNearest) {
        const int32_t ix = clampIndex(_mm_cvtss_si32(_mm_set_ss(x)), b.x0, b.x1);
        const int32_t iy = clampIndex(_mm_cvtss_si32(_mm_set_ss(y)), b.y0, b.y1);
        return rowAt(src, step, iy)[ix];
    } else if constexpr (Mode == qelInterpLinear) {
        // Base lowered at the upper bound so that base + 1 stays inside.
        const int32_t ix =
            clampIndex(_mm_cvtt_ss2si(_mm_set_ss(x)), b.x0, b.x1 - 1 < b.x0 ? b.x0 : b.x1 - 1);
        const int32_t iy =
            clampIndex(_mm_cvtt_ss2si(_mm_set_ss(y)), b.y0, b.y1 - 1 < b.y0 ? b.y0 : b.y1 - 1);
        const int32_t jx = ix + 1 > b.x1 ? b.x1 : ix + 1;
        const int32_t jy = iy + 1 > b.y1 ? b.y1 : iy + 1;
        const float fx = x - static_cast<float>(ix), fy = y - static_cast<float>(iy);
        const T* r0 = rowAt(src, step, iy);
        const T* r1 = rowAt(src, step, jy);
        const float c0 = static_cast<float>(r0[ix]) * (1.0f - fx) + static_cast<float>(r0[jx]) * fx;
        const float c1 = static_cast<float>(r1[ix]) * (1.0f - fx) + static_cast<float>(r1[jx]) * fx;
        return roundToElement<T>(c0 * (1.0f - fy) + c1 * fy);
    } else if constexpr (Mode == kInterpLanczos3) {
        const int32_t bx = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(x)), b.x0, b.x1);
        const int32_t by = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(y)), b.y0, b.y1);
        float wx[6], wy[6];
        lanczosWeights(x - static_cast<float>(bx), wx);
        lanczosWeights(y - static_cast<float>(by), wy);
        int32_t tx[6];
        for (int t = 0; t < 6; ++t) tx[t] = clampIndex(bx - 2 + t, b.x0, b.x1);
        float sum = 0.0f;
        for (int r = 0; r < 6; ++r) {
            const T* row = rowAt(src, step, clampIndex(by - 2 + r, b.y0, b.y1));
            float h = 0.0f;
            for (int t = 0; t < 6; ++t) h += wx[t] * static_cast<float>(row[tx[t]]);
            sum += wy[r] * h;
        }
        return roundToElement<T>(sum);
    } else {
        const CubicPairTable& table = cubicPairTable(Mode);
        const int32_t bx = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(x)), b.x0, b.x1);
        const int32_t by = clampIndex(_mm_cvtt_ss2si(_mm_set_ss(y)), b.y0, b.y1);
        const __m128 wx = cubicTapWeights(table, x - static_cast<float>(bx));
        const __m128 wy = cubicTapWeights(table, y - static_cast<float>(by));
        const auto row = [&](int r) {
            return rowTaps(rowAt(src, step, clampIndex(by - 1 + r, b.y0, b.y1)), bx, b.x0, b.x1);
        };
        const __m128 p = blendFour(wy, row(0), row(1), row(2), row(3));
        return roundToElement<T>(horizontalSum(_mm_mul_ps(p, wx)));
    }
}

// ---------------------------------------------------------------------------
// Row routines: without the flag, pixels mapped outside the region are left
// unchanged; with it, coordinates are clamped onto the region first (pixels
// with a NaN coordinate are still left unchanged).

template <class T>
using PlaneRow = void (*)(const T* src, int step, const PlaneBounds& b, T* dst, int32_t width,
                          const float* mx, const float* my);

template <class T, int Mode, bool ReplicateEdge>
void planeRow(const T* src, int step, const PlaneBounds& b, T* dst, int32_t width, const float* mx,
              const float* my) {
    const float x0 = static_cast<float>(b.x0), x1 = static_cast<float>(b.x1);
    const float y0 = static_cast<float>(b.y0), y1 = static_cast<float>(b.y1);
    for (int32_t i = 0; i < width; ++i) {
        float x = mx[i], y = my[i];
        if constexpr (ReplicateEdge) {
            if (x != x || y != y) continue;
            x = x < x0 ? x0 : (x > x1 ? x1 : x);
            y = y < y0 ? y0 : (y > y1 ? y1 : y);
        } else {
            if (!(x >= x0 && x <= x1 && y >= y0 && y <= y1)) continue;
        }
        dst[i] = samplePlane<T, Mode>(src, step, b, x, y);
    }
}

// Indexed by the mode value (1, 2, 4, 6, 16); the flag picks the second table.
constexpr int kPlaneModeSlots = kInterpLanczos3 + 1;

template <class T, bool ReplicateEdge>
constexpr std::array<PlaneRow<T>, kPlaneModeSlots> planeRowTable() {
    std::array<PlaneRow<T>, kPlaneModeSlots> t{};
    t[qelInterpNearest] = planeRow<T, qelInterpNearest, ReplicateEdge>;
    t[qelInterpLinear] = planeRow<T, qelInterpLinear, ReplicateEdge>;
    t[qelInterpCubic] = planeRow<T, qelInterpCubic, ReplicateEdge>;
    t[qelInterpCubicCatmullRom] = planeRow<T, qelInterpCubicCatmullRom, ReplicateEdge>;
    t[kInterpLanczos3] = planeRow<T, kInterpLanczos3, ReplicateEdge>;
    return t;
}

template <class T>
constexpr std::array<PlaneRow<T>, kPlaneModeSlots> kPlaneRows = planeRowTable<T, false>();
template <class T>
constexpr std::array<PlaneRow<T>, kPlaneModeSlots> kPlaneRowsReplicate = planeRowTable<T, true>();

inline bool isPlaneMode(int mode) {
    return mode == qelInterpNearest || mode == qelInterpLinear || mode == qelInterpCubic ||
           mode == qelInterpCubicCatmullRom || mode == kInterpLanczos3;
}

// Mode actually used for a plane of this size: the six-tap kernel needs 6
// pixels per axis, the cubics 4, linear 2.
inline int degradeModeForPlane(int mode, QelSize2D s) {
    if (mode == kInterpLanczos3 && (s.width < 6 || s.height < 6)) mode = qelInterpCubic;
    if (isCubicMode(mode) && (s.width < 4 || s.height < 4)) mode = qelInterpLinear;
    if (s.width < 2 || s.height < 2) mode = qelInterpNearest;
    return mode;
}

}  // namespace

template <class T>
QelStatus remapPlane(const T* src, QelSize2D srcSize, int srcStep, PlaneRect srcRoi,
                     const float* xMap, int xMapStep, const float* yMap, int yMapStep, T* dst,
                     int dstStep, QelSize2D dstSize, int interpolation) {
    if (src == nullptr || xMap == nullptr || yMap == nullptr || dst == nullptr)
        return qelErrNullPointer;
    if (srcSize.width <= 0 || srcSize.height <= 0 || srcRoi.x < 0 || srcRoi.width <= 0 ||
        srcRoi.y < 0 || srcRoi.height <= 0 || dstSize.width <= 0 || dstSize.height <= 0)
        return qelErrSize;
    const bool replicateEdge = (interpolation & kRemapReplicateEdge) != 0;
    const int requested = interpolation & ~kRemapReplicateEdge;
    if (!isPlaneMode(requested)) return qelErrInterpolation;
    if (srcStep < 1 || xMapStep < 1 || yMapStep < 1 || dstStep < 1) return qelErrStep;
    if (srcRoi.x >= srcSize.width || srcRoi.y >= srcSize.height) return qelWarnRegionOutsidePlane;

    const int32_t width =
        srcRoi.width < srcSize.width - srcRoi.x ? srcRoi.width : srcSize.width - srcRoi.x;
    const int32_t height =
        srcRoi.height < srcSize.height - srcRoi.y ? srcRoi.height : srcSize.height - srcRoi.y;
    const PlaneBounds bounds{srcRoi.x, srcRoi.y, srcRoi.x + width - 1, srcRoi.y + height - 1};
    const int mode = degradeModeForPlane(requested, srcSize);
    const PlaneRow<T> row = (replicateEdge ? kPlaneRowsReplicate<T> : kPlaneRows<T>)[mode];
    for (int32_t y = 0; y < dstSize.height; ++y) {
        row(src, srcStep, bounds,
            reinterpret_cast<T*>(reinterpret_cast<uint8_t*>(dst) +
                                 static_cast<ptrdiff_t>(y) * dstStep),
            dstSize.width, rowAt(xMap, xMapStep, y), rowAt(yMap, yMapStep, y));
    }
    return qelOk;
}

template QelStatus remapPlane<uint8_t>(const uint8_t*, QelSize2D, int, PlaneRect, const float*, int,
                                       const float*, int, uint8_t*, int, QelSize2D, int);
template QelStatus remapPlane<uint16_t>(const uint16_t*, QelSize2D, int, PlaneRect, const float*,
                                        int, const float*, int, uint16_t*, int, QelSize2D, int);
template QelStatus remapPlane<float>(const float*, QelSize2D, int, PlaneRect, const float*, int,
                                     const float*, int, float*, int, QelSize2D, int);

}  // namespace qelr::QELR_ISA::volume
