// Alignment tests used to choose between the one-element and the vector
// paths of the functions on ray packs and planes.
#pragma once

#include <cstdint>

#include "simd/target.h"

namespace qelr::QELR_ISA::core {

// Whether a pointer starts on a 16-byte boundary.
inline bool aligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15u) == 0; }

// Whether every pointer does.
template <class... T>
inline bool allAligned16(const T*... p) {
    return (aligned16(p) && ...);
}

// Whether the three planes of a pack do.
template <class T>
inline bool planesAligned16(const T* const planes[3]) {
    return allAligned16(planes[0], planes[1], planes[2]);
}

}  // namespace qelr::QELR_ISA::core
