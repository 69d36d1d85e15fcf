#include "volume/remap_sampling.h"

#include "simd/target.h"

namespace qelr::QELR_ISA::volume {

namespace {

CubicPairTable makePairTable(int mode) {
    const float* t = cubicTable(mode);
    CubicPairTable p{};
    for (int k = 0; k < kCubicTableSize - 1; ++k) {
        p.pair[k][0] = t[k];
        p.pair[k][1] = t[k + 1] - t[k];
    }
    return p;
}

// Built at load from the constant tables.
const CubicPairTable kPairTables[4] = {
    makePairTable(qelInterpCubic), makePairTable(qelInterpCubicBSpline),
    makePairTable(qelInterpCubicCatmullRom), makePairTable(qelInterpCubicB05C03)};

}  // namespace

const CubicPairTable& cubicPairTable(int mode) { return kPairTables[mode - qelInterpCubic]; }

}  // namespace qelr::QELR_ISA::volume
