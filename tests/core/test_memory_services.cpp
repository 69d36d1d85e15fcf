// The library's memory services. This test defines qelMalloc and qelFree itself, so the library objects linked
// into it call these counting versions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/memory.h"

namespace {
int g_mallocCalls = 0;
int g_lastLength = 0;
void* g_lastFreed = reinterpret_cast<void*>(1);
}  // namespace

extern "C" void* qelMalloc(int length) {
    ++g_mallocCalls;
    g_lastLength = length;
    return length > 0 ? std::malloc(static_cast<size_t>(length)) : nullptr;
}

extern "C" void qelFree(void* ptr) {
    g_lastFreed = ptr;
    std::free(ptr);
}

using namespace qelr::core;

// The allocator sees the 32-bit product of count and element size; counts not above 0 never reach it.
TEST(MemoryServices, AllocatorSeesThe32BitByteCount) {
    const struct {
        void* (*alloc)(int32_t);
        int32_t n, bytes;  // bytes 0: the allocator is not called
    } rows[] = {{allocInt64, 5, 40}, {allocInt32, 5, 20},
                {allocBytes, 7, 7},  {allocInt64, 0x20000001, 8},  // 0x20000001 * 8 = 2^32 + 8
                {allocInt64, 0, 0},  {allocInt64, -1, 0},
                {allocInt32, 0, 0},  {allocBytes, -100, 0}};
    for (const auto& r : rows) {
        g_mallocCalls = 0;
        g_lastLength = 0;
        void* p = r.alloc(r.n);
        EXPECT_EQ(g_mallocCalls, r.bytes != 0) << r.n;
        EXPECT_EQ(g_lastLength, r.bytes) << r.n;
        EXPECT_EQ(p != nullptr, r.bytes != 0) << r.n;
        freeMemory(p);
        EXPECT_EQ(g_lastFreed, p);
    }
}

TEST(MemoryServices, CopyChecksPointersBeforeCount) {
    int src[3] = {1, 2, 3};
    int dst[3] = {0, 0, 0};
    EXPECT_EQ(copyInt32(nullptr, dst, 0), qelErrNullPointer);
    EXPECT_EQ(copyInt32(src, nullptr, 3), qelErrNullPointer);
    EXPECT_EQ(copyInt32(src, dst, 0), qelErrSize);
    EXPECT_EQ(copyInt32(src, dst, -2), qelErrSize);
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(copyInt32(src, dst, 3), qelOk);
    EXPECT_EQ(std::memcmp(src, dst, sizeof src), 0);
}
