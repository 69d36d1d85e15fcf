// The version record and the core services, through the public API.
#include <gtest/gtest.h>
#include <omp.h>
#include <qelr.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

// The numbers are the build's project version; the text repeats them with
// the build number; the record is one static object.
TEST(Version, RecordIsConstantAndMatchesTheProjectVersion) {
    const QelLibraryVersion* v = qelrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, qelrGetLibVersion());
    char numbers[32], text[64];
    std::snprintf(numbers, sizeof numbers, "%d.%d.%d", v->major, v->minor, v->update);
    EXPECT_STREQ(numbers, QELR_PROJECT_VERSION);
    std::snprintf(text, sizeof text, "%s (r%d)", numbers, v->build);
    EXPECT_STREQ(v->versionText, text);
    EXPECT_EQ(std::memcmp(v->cpuCode, "m7\0\0", 4), 0);
    EXPECT_STREQ(v->libraryName, "qelVX SSE3 (m7)");
}

TEST(CoreServices, MallocIsAlignedAndRefusesEmptyRequests) {
    EXPECT_EQ(qelMalloc(0), nullptr);
    EXPECT_EQ(qelMalloc(-5), nullptr);
    for (int len : {1, 3, 64, 1000, 1 << 20}) {
        void* p = qelMalloc(len);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
        std::memset(p, 0xAB, static_cast<size_t>(len));
        qelFree(p);
    }
    qelFree(nullptr);
}

TEST(CoreServices, TeamSizeDefaultsToProcessorsAndCanBeSet) {
    const int initial = ownGetNumThreads();
    EXPECT_EQ(initial, omp_get_num_procs());
    EXPECT_EQ(qelSetNumThreads(0), qelErrSize);
    EXPECT_EQ(qelSetNumThreads(-3), qelErrSize);
    EXPECT_EQ(ownGetNumThreads(), initial);
    EXPECT_EQ(qelSetNumThreads(initial + 14), qelOk);
    EXPECT_EQ(ownGetNumThreads(), initial + 14);
    EXPECT_EQ(qelSetNumThreads(initial), qelOk);
}

TEST(CoreServices, CpuFeaturesIncludeTheSse3Baseline) {
    const uint64_t f = qelGetEnabledCpuFeatures();
    EXPECT_EQ(f, qelGetEnabledCpuFeatures());
    EXPECT_TRUE(f & QEL_CPU_SSE);
    EXPECT_TRUE(f & QEL_CPU_SSE2);
    EXPECT_TRUE(f & QEL_CPU_SSE3);
    if (f & QEL_CPU_AVX2) {
        EXPECT_TRUE(f & QEL_CPU_AVX);
    }
}
