// The version record, the core services and the load-time choice of the instruction-set variant.
#include <gtest/gtest.h>
#include <omp.h>
#include <qelcore.h>
#include <qelr.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/dispatch.h"

namespace {

using qelr::frame::Isa;

// The numbers are the build's project version; the text repeats them with the build number; one static record.
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

TEST(Dispatch, ChoosesAvx2OnlyWhenOfferedAndNotRefused) {
    const uint64_t avx2 = QEL_CPU_SSE3 | QEL_CPU_AVX | QEL_CPU_AVX2, sse3 = QEL_CPU_SSE | QEL_CPU_SSE2 | QEL_CPU_SSE3;
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, nullptr), Isa::avx2);
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, "avx2"), Isa::avx2);
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, "sse3"), Isa::sse3);
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, "neon"), Isa::avx2);  // unknown: the best
    // Never an instruction set the processor (or its OS) does not offer.
    EXPECT_EQ(qelr::frame::chooseIsa(QEL_CPU_SSE3, "avx2"), Isa::sse3);
    EXPECT_EQ(qelr::frame::chooseIsa(QEL_CPU_SSE3 | QEL_CPU_AVX2, nullptr), Isa::sse3);
    // This processor: the SSE3 baseline, and AVX2 only with AVX.
    const uint64_t f = qelGetEnabledCpuFeatures();
    EXPECT_EQ(f & sse3, sse3);
    EXPECT_TRUE(!(f & QEL_CPU_AVX2) || (f & QEL_CPU_AVX));
}

TEST(Dispatch, TableHoldsTheVariantChosenAtLoad) {
    const Isa expected = qelr::frame::chooseIsa(qelGetEnabledCpuFeatures(), std::getenv("QELR_CPU"));
    EXPECT_EQ(qelr::frame::activeIsa(), expected);
    const qelr::frame::Entry* chosen = qelr::frame::entriesOf(expected);
    for (size_t i = 0; i < std::size(qelr::frame::kExportNames); ++i) {
        EXPECT_EQ(qelr::frame::activeEntries()[i], chosen[i]) << qelr::frame::kExportNames[i];
        // Every export has two distinct variants.
        EXPECT_NE(qelr::frame::entriesOf(Isa::sse3)[i], qelr::frame::entriesOf(Isa::avx2)[i]);
    }
    // The public entry reaches the chosen variant; both answer with one record.
    EXPECT_EQ(qelrGetLibVersion(), QELR_VARIANT(expected, qelrGetLibVersion)());
    EXPECT_EQ(QELR_VARIANT(Isa::sse3, qelrGetLibVersion)(), QELR_VARIANT(Isa::avx2, qelrGetLibVersion)());
}

}  // namespace
