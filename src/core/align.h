// Alignment test used to choose between the one-element and the four-element
// (16-byte vector) paths.
#pragma once

#include <cstdint>

#include "simd/target.h"

namespace qelr::QELR_ISA::core {

// Whether a pointer starts on a 16-byte boundary.
inline bool aligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15u) == 0; }

}  // namespace qelr::QELR_ISA::core
