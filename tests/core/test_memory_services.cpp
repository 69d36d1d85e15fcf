// The library's memory services. This test defines qelMalloc and qelFree
// itself, so the library objects linked into it call these counting versions.
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

TEST(MemoryServices, EmptyRequestsDoNotReachTheAllocator) {
    g_mallocCalls = 0;
    EXPECT_EQ(allocInt64(0), nullptr);
    EXPECT_EQ(allocInt64(-1), nullptr);
    EXPECT_EQ(allocInt32(0), nullptr);
    EXPECT_EQ(allocBytes(-100), nullptr);
    EXPECT_EQ(g_mallocCalls, 0);
}

TEST(MemoryServices, ElementSizesMultiplyIn32Bits) {
    g_mallocCalls = 0;
    void* p = allocInt64(5);
    EXPECT_EQ(g_lastLength, 40);
    freeMemory(p);
    EXPECT_EQ(g_lastFreed, p);
    p = allocInt32(5);
    EXPECT_EQ(g_lastLength, 20);
    freeMemory(p);
    p = allocBytes(7);
    EXPECT_EQ(g_lastLength, 7);
    freeMemory(p);
    // 0x20000001 * 8 wraps to 8 in 32 bits: the allocator sees what the
    // 32-bit product gives.
    p = allocInt64(0x20000001);
    EXPECT_EQ(g_lastLength, 8);
    freeMemory(p);
    EXPECT_EQ(g_mallocCalls, 4);
    freeMemory(nullptr);
    EXPECT_EQ(g_lastFreed, nullptr);
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
