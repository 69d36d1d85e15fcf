#include "volume/volume_common.h"

#include <cmath>

#include "simd/target.h"

namespace qelr::QELR_ISA::volume {

namespace {

constexpr double kernelAt(int mode, double d) {
    if (d >= 2.0) return 0.0;
    const bool near = d < 1.0;
    switch (mode) {
        case qelInterpCubic:  // Lagrange through the four taps
            return near ? ((0.5 * d - 1.0) * d - 0.5) * d + 1.0
                        : ((-0.16666666666666666 * d + 1.0) * d - 1.8333333333333333) * d + 1.0;
        case qelInterpCubicBSpline:  // B = 1, C = 0
            return near ? ((0.5 * d - 1.0) * d) * d + 0.6666666666666666
                        : ((-0.16666666666666666 * d + 1.0) * d) * d + (1.3333333333333333 - d - d);
        case qelInterpCubicCatmullRom:  // B = 0, C = 0.5
            return near ? (1.5 * d - 2.5) * (d * d) + 1.0 : ((-0.5 * d + 2.5) * d - 4.0) * d + 2.0;
        case qelInterpCubicB05C03:  // B = 0.5, C = 0.3
            return near ? (0.95 * d - 1.7) * (d * d) + 0.8333333333333334
                        : ((-0.38333333333333336 * d + 2.0) * d - 3.4) * d + 1.8666666666666667;
        default:
            return 0.0;
    }
}

constexpr KernelTable makeTable(int mode) {
    float t[kCubicTableSize] = {};  // entries 201..207 stay zero
    for (int k = 0; k <= 200; ++k) t[k] = static_cast<float>(kernelAt(mode, k / 100.0));
    KernelTable p{};
    for (int k = 0; k < kCubicTableSize - 1; ++k) {
        p.pair[k][0] = t[k];
        p.pair[k][1] = t[k + 1] - t[k];
    }
    return p;
}

constexpr KernelTable kTables[4] = {makeTable(qelInterpCubic), makeTable(qelInterpCubicBSpline),
                                    makeTable(qelInterpCubicCatmullRom),
                                    makeTable(qelInterpCubicB05C03)};

}  // namespace

void cubicWeights(int mode, float f, float w[4]) {
    const float t0 = -1.0f - f;
    const float t[4] = {t0, t0 + 1.0f, t0 + 2.0f, t0 + 3.0f};
    for (int i = 0; i < 4; ++i) {
        w[i] = static_cast<float>(kernelAt(mode, std::fabs(static_cast<double>(t[i]))));
    }
}

const KernelTable& kernelTable(int mode) { return kTables[mode - qelInterpCubic]; }

}  // namespace qelr::QELR_ISA::volume
