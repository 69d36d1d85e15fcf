// Layout of the spherical-harmonic state block.
//
// The block starts with a 24-byte header: the order, the selector and the
// byte offsets of tables A and B from the start of the block (0 for the
// direct selector). Offsets rather than addresses keep a block valid after the
// caller copies or moves it. Each table holds one float per band l and per
// m = 0..l, band l starting at l(l+1)/2.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

// Highest order either evaluation accepts.
inline constexpr uint32_t kMaxOrder = 15;
// Coefficients of the basis of the highest order: (15 + 1)^2.
inline constexpr int kMaxCoeffs = (kMaxOrder + 1) * (kMaxOrder + 1);
// Table entries of the bands up to the highest order: 16 * 17 / 2.
inline constexpr int kMaxTableEntries = (kMaxOrder + 1) * (kMaxOrder + 2) / 2;

struct EngineHeader {
    uint32_t order;
    uint32_t algorithm;
    uint64_t offsetA;
    uint64_t offsetB;
};
static_assert(sizeof(EngineHeader) == 24);

// Entries of each table for the given order, in 32-bit arithmetic.
inline uint32_t tableEntries(uint32_t order) { return (order + 1) * (order + 2) / 2; }

// Block size for the recurrence selector. The expression adds 30, not 31,
// before clearing the low five bits; the result still covers the header and
// both aligned tables (as long as the 32-bit arithmetic does not wrap, that
// is for orders below 32767).
inline uint32_t recurrenceBlockBytes(uint32_t order) {
    return ((8 * tableEntries(order) + 30) & ~31u) + 32;
}

// Field readers; the direct selector's block is only 16 bytes, so its table
// offsets are never read.
inline uint32_t engineOrder(const QelSHEngine* engine) {
    uint32_t v;
    std::memcpy(&v, engine, 4);
    return v;
}

inline uint32_t engineAlgorithm(const QelSHEngine* engine) {
    uint32_t v;
    std::memcpy(&v, reinterpret_cast<const unsigned char*>(engine) + 4, 4);
    return v;
}

inline const float* engineTable(const QelSHEngine* engine, size_t offsetField) {
    uint64_t offset;
    const auto* bytes = reinterpret_cast<const unsigned char*>(engine);
    std::memcpy(&offset, bytes + offsetField, 8);
    return reinterpret_cast<const float*>(bytes + offset);
}

inline const float* tableA(const QelSHEngine* engine) {
    return engineTable(engine, offsetof(EngineHeader, offsetA));
}

inline const float* tableB(const QelSHEngine* engine) {
    return engineTable(engine, offsetof(EngineHeader, offsetB));
}

// Whether a recurrence state holds the tables of bands 0..order (and band 1
// at least) inside its block. Always true unless the block size wrapped
// around in 32 bits (state orders of 32767 and more): the initialisation then
// fills only the bands that fit.
inline bool recurrenceTablesCover(const QelSHEngine* engine, uint32_t order) {
    uint64_t offsetB;
    std::memcpy(&offsetB,
                reinterpret_cast<const unsigned char*>(engine) + offsetof(EngineHeader, offsetB),
                8);
    const uint32_t stateOrder = engineOrder(engine);
    const uint64_t entries = order < 1 ? 3 : uint64_t{order + 1} * (order + 2) / 2;
    // Entries 0..2 are always written when they fit.
    return (order < 2 || entries <= tableEntries(stateOrder)) &&
           offsetB + 4 * entries <= recurrenceBlockBytes(stateOrder);
}

}  // namespace qelr::QELR_ISA::sh
