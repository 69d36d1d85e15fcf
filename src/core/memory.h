// Memory services of the library. Everything the library allocates comes from
// qelMalloc (libqelcore) and goes back through qelFree.
#pragma once

#include <cstdint>

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::core {

// n elements of 8 bytes; n not above 0 gives nullptr without allocating.
// The byte count is n * 8 taken in 32-bit arithmetic, as the allocator takes it.
void* allocInt64(int32_t n);

// n elements of 4 bytes, as allocInt64.
void* allocInt32(int32_t n);

// n bytes, as allocInt64.
void* allocBytes(int32_t n);

// Copies n 32-bit elements: -8 for a null pointer, -6 for n not above 0.
QelStatus copyInt32(const void* src, void* dst, int32_t n);

// Passes the pointer to qelFree unchanged (nullptr included).
void freeMemory(void* ptr);

}  // namespace qelr::QELR_ISA::core
