#include "core/memory.h"

#include <cstring>

#include "simd/target.h"

namespace qelr::QELR_ISA::core {

namespace {
// 32-bit product with wrap-around, as the allocator's int argument takes it.
int32_t wrapMul(int32_t n, int32_t size) {
    return static_cast<int32_t>(static_cast<uint32_t>(n) * static_cast<uint32_t>(size));
}
}  // namespace

void* allocInt64(int32_t n) { return n > 0 ? qelMalloc(wrapMul(n, 8)) : nullptr; }

void* allocInt32(int32_t n) { return n > 0 ? qelMalloc(wrapMul(n, 4)) : nullptr; }

void* allocBytes(int32_t n) { return n > 0 ? qelMalloc(n) : nullptr; }

QelStatus copyInt32(const void* src, void* dst, int32_t n) {
    if (src == nullptr || dst == nullptr) return qelErrNullPointer;
    if (n <= 0) return qelErrSize;
    std::memcpy(dst, src, static_cast<size_t>(n) * 4);
    return qelOk;
}

void freeMemory(void* ptr) { qelFree(ptr); }

}  // namespace qelr::QELR_ISA::core
