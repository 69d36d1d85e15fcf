// State size, initialisation and recurrence tables.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sh/sh_engine.h"
#include "sh_reference.h"

namespace {

using sh_test::Engine;

TEST(SHState, SizesAndFailedInitialisations) {
    uint32_t size = 12345;
    EXPECT_EQ(qelrSHGetSize_32f(0, qelSHDirect, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrSHGetSize_32f(99, 5, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrSHGetSize_32f(16, qelSHDirect, &size), qelErrSize);
    EXPECT_EQ(qelrSHGetSize_32f(0, 2, &size), qelErrBadArgument);
    EXPECT_EQ(size, 12345u);
    EXPECT_EQ(qelrSHGetSize_32f(15, qelSHDirect, &size), qelOk);
    EXPECT_EQ(size, 16u);
    const uint32_t orders[] = {0, 1, 2, 3, 6, 15, 16, 100};
    const uint32_t sizes[] = {64, 64, 96, 128, 256, 1120, 1280, 41248};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(qelrSHGetSize_32f(orders[i], qelSHRecurrence, &size), qelOk);
        EXPECT_EQ(size, sizes[i]) << "order " << orders[i];
    }
    // A failed initialisation writes nothing.
    alignas(16) unsigned char block[1024];
    std::memset(block, 0xAB, sizeof block);
    auto* engine = reinterpret_cast<QelSHEngine*>(block);
    EXPECT_EQ(qelrSHInit_32f(nullptr, 3, qelSHDirect), qelErrNullPointer);
    EXPECT_EQ(qelrSHInit_32f(engine, 16, qelSHDirect), qelErrSize);
    EXPECT_EQ(qelrSHInit_32f(engine, 3, 7), qelErrBadArgument);
    for (unsigned char b : block) ASSERT_EQ(b, 0xAB);
    // The direct block is 16 bytes: order, selector, zeros.
    EXPECT_EQ(qelrSHInit_32f(engine, 9, qelSHDirect), qelOk);
    const uint32_t head[4] = {9, 0, 0, 0};
    EXPECT_EQ(std::memcmp(block, head, 16), 0);
    EXPECT_EQ(block[16], 0xAB);
}

// Both tables lie inside a block of exactly the reported size, on 16-byte
// boundaries (AddressSanitizer checks the writes of the initialisation);
// orders 0 and 1 hold nothing but table A's first three entries.
TEST(SHState, TablesFitTheReportedSize) {
    for (uint32_t order = 0; order <= 200; ++order) {
        Engine e(order, qelSHRecurrence);
        ASSERT_EQ(e.status(), qelOk);
        const auto* base = reinterpret_cast<const unsigned char*>(e.get());
        const auto* a = reinterpret_cast<const unsigned char*>(qelr::sh::tableA(e.get()));
        const auto* b = reinterpret_cast<const unsigned char*>(qelr::sh::tableB(e.get()));
        const size_t n = (order + 1) * (order + 2) / 2;
        EXPECT_EQ((a - base) % 16, 0);
        EXPECT_EQ((b - base) % 16, 0);
        EXPECT_GE(a - base, 24);
        EXPECT_GE(b, a + 4 * n);
        EXPECT_LE(static_cast<size_t>(b - base) + 4 * n, e.size()) << order;
        for (uint32_t i = 24; order <= 1 && i < e.size(); ++i)
            EXPECT_TRUE(base[i] == 0 || (base + i >= a && base + i < a + 12)) << i;
    }
}

// For state orders of 32767 and more the 32-bit size wraps around: the
// initialisation stays inside the reported block, and an evaluation needing
// bands that did not fit is refused instead of reading past the block.
TEST(SHState, WrappedSizesStayInsideTheBlock) {
    const float x = 0.6f, y = 0.0f, z = 0.8f;
    float out[256], expect[256];
    Engine tiny(0xFFFFFFFFu, qelSHRecurrence);
    ASSERT_EQ(tiny.status(), qelOk);
    EXPECT_EQ(tiny.size(), 32u);
    EXPECT_EQ(qelrSH_32f(&x, &y, &z, 1, out, 0, tiny.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSH_32f(&x, &y, &z, -1, out, 0, tiny.get()), qelOk);
    EXPECT_EQ(qelrSHTInv_32f_C1(out, 0, &x, &y, &z, out, 1, tiny.get()), qelErrBadArgument);

    Engine wrapped(65535, qelSHRecurrence);  // 32768 entries in 32 bits
    Engine normal(15, qelSHRecurrence);
    ASSERT_EQ(qelrSH_32f(&x, &y, &z, 1, out, 15, wrapped.get()), qelOk);
    ASSERT_EQ(qelrSH_32f(&x, &y, &z, 1, expect, 15, normal.get()), qelOk);
    EXPECT_EQ(std::memcmp(out, expect, sizeof out), 0);
}

TEST(SHState, ReinitialisingOverwritesEverything) {
    Engine big(30, qelSHRecurrence), small(3, qelSHRecurrence);
    ASSERT_EQ(qelrSHInit_32f(big.get(), 3, qelSHRecurrence), qelOk);
    EXPECT_EQ(std::memcmp(big.get(), small.get(), small.size()), 0);
    ASSERT_EQ(qelrSHInit_32f(big.get(), 3, qelSHDirect), qelOk);
    EXPECT_EQ(qelr::sh::engineAlgorithm(big.get()), 0u);
}

}  // namespace
