// Size and initialisation of the spherical-harmonic state.
#include "sh/sh_engine.h"

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "core/impl.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

using sh::EngineHeader;

constexpr uint32_t kDirectBlockBytes = 16;
constexpr uint64_t kTableAlign = 16;

// Band-0 constant 1/(2 sqrt(pi)) and the band-1 coefficient sqrt(3/(4 pi)) as
// the tables hold them; the latter is one unit in the last place above the
// nearest float, and the recurrence's band 1 is defined by these bits.
constexpr uint32_t kBand0Bits = 0x3E906EBBu;
constexpr uint32_t kBand1Bits = 0x3EFA2A1Du;

uint64_t alignUp(uint64_t v) { return (v + kTableAlign - 1) & ~(kTableAlign - 1); }

// Fills band l >= 2 of both tables. The integer products are formed in 32-bit
// unsigned arithmetic (exact for every band the evaluation can use);
// A(l,0), A(l,l) and B(l,0) are computed in double precision, the inner
// entries from single-precision quotients.
void fillBand(float* a, float* b, uint32_t l) {
    const uint32_t fourL2m1 = 4 * l * l - 1;
    const double ld = static_cast<double>(l);
    a[0] = static_cast<float>(std::sqrt(static_cast<double>(fourL2m1)) / ld);
    a[l] = static_cast<float>(-std::sqrt(static_cast<double>(2 * l + 1) / (2.0 * ld)));
    const float ratio = static_cast<float>(2 * l + 1) / static_cast<float>(2 * l - 3);
    b[0] = static_cast<float>((1.0 / ld - 1.0) * std::sqrt(static_cast<double>(ratio)));
    // Rewritten by the loop below with the equal value sqrt((4l^2-1)/(2l-1)).
    a[l - 1] = static_cast<float>(std::sqrt(static_cast<double>(2 * l + 1)));
    for (uint32_t m = 1; m + 1 <= l; ++m) {
        const uint32_t l2m2 = l * l - m * m;
        const uint32_t lm1 = l - 1;
        const uint32_t num = (2 * l + 1) * (lm1 * lm1 - m * m);
        const uint32_t den = (2 * l - 3) * l2m2;
        a[m] = std::sqrt(static_cast<float>(fourL2m1) / static_cast<float>(l2m2));
        const float q = static_cast<float>(num) / static_cast<float>(den);
        b[m] = static_cast<float>(-std::sqrt(static_cast<double>(q)));
    }
}

}  // namespace

QelStatus qelrSHGetSize_32f(uint32_t order, uint32_t algorithm, uint32_t* outSize) {
    if (outSize == nullptr) return qelErrNullPointer;
    if (algorithm == qelSHDirect) {
        if (order > sh::kMaxOrder) return qelErrSize;
        *outSize = kDirectBlockBytes;
        return qelOk;
    }
    if (algorithm != qelSHRecurrence) return qelErrBadArgument;
    *outSize = sh::recurrenceBlockBytes(order);
    return qelOk;
}

QelStatus qelrSHInit_32f(QelSHEngine* engine, uint32_t order, uint32_t algorithm) {
    if (engine == nullptr) return qelErrNullPointer;
    auto* bytes = reinterpret_cast<unsigned char*>(engine);
    if (algorithm == qelSHDirect) {
        if (order > sh::kMaxOrder) return qelErrSize;
        std::memset(bytes, 0, kDirectBlockBytes);
        EngineHeader header{order, algorithm, 0, 0};
        std::memcpy(bytes, &header, 8);
        return qelOk;
    }
    if (algorithm != qelSHRecurrence) return qelErrBadArgument;

    const uint64_t size = sh::recurrenceBlockBytes(order);
    const uint32_t entries = sh::tableEntries(order);
    const uint64_t offsetA = alignUp(sizeof(EngineHeader));
    const uint64_t offsetB = alignUp(offsetA + 4 * uint64_t{entries});
    std::memset(bytes, 0, size);
    const EngineHeader header{order, algorithm, offsetA, offsetB};
    std::memcpy(bytes, &header, sizeof header);

    // Both tables must lie inside the reported block. That holds for every
    // order whose 32-bit size does not wrap around; for the orders where it
    // does, only the bands that fit are filled (see recurrenceTablesCover).
    const auto fits = [&](uint64_t count) { return offsetB + 4 * count <= size; };
    float* a = reinterpret_cast<float*>(bytes + offsetA);
    float* b = reinterpret_cast<float*>(bytes + offsetB);
    if (!fits(3)) return qelOk;
    a[0] = std::bit_cast<float>(kBand0Bits);
    a[1] = std::bit_cast<float>(kBand1Bits);
    a[2] = -std::bit_cast<float>(kBand1Bits);
    for (uint32_t l = 2; l <= order; ++l) {
        const uint64_t start = uint64_t{l} * (l + 1) / 2;
        if (start + l + 1 > entries || !fits(start + l + 1)) break;
        fillBand(a + start, b + start, l);
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
