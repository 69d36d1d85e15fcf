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

namespace qelr::sh {

// Highest order either evaluation accepts.
inline constexpr uint32_t kMaxOrder = 15;
// Coefficients of the basis of the highest order: (15 + 1)^2.
inline constexpr int kMaxCoeffs = (kMaxOrder + 1) * (kMaxOrder + 1);

struct EngineHeader {
    uint32_t order;
    uint32_t algorithm;
    uint64_t offsetA;
    uint64_t offsetB;
};
static_assert(sizeof(EngineHeader) == 24);

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

}  // namespace qelr::sh
