// The load-time choice of the instruction-set variant.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <cstdlib>

#include "core/dispatch.h"

namespace {

using qelr::frame::Isa;

TEST(Dispatch, ChoosesAvx2OnlyWhenOfferedAndNotRefused) {
    const uint64_t avx2 = QEL_CPU_SSE3 | QEL_CPU_AVX | QEL_CPU_AVX2;
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, nullptr), Isa::avx2);
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, "avx2"), Isa::avx2);
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, "sse3"), Isa::sse3);
    EXPECT_EQ(qelr::frame::chooseIsa(avx2, "neon"), Isa::avx2);  // unknown: the best
    // Never an instruction set the processor (or its OS) does not offer.
    EXPECT_EQ(qelr::frame::chooseIsa(QEL_CPU_SSE3, "avx2"), Isa::sse3);
    EXPECT_EQ(qelr::frame::chooseIsa(QEL_CPU_SSE3 | QEL_CPU_AVX2, nullptr), Isa::sse3);
}

TEST(Dispatch, TableHoldsTheVariantChosenAtLoad) {
    const Isa expected =
        qelr::frame::chooseIsa(qelGetEnabledCpuFeatures(), std::getenv("QELR_CPU"));
    EXPECT_EQ(qelr::frame::activeIsa(), expected);
    const qelr::frame::Entry* chosen = qelr::frame::entriesOf(expected);
    for (size_t i = 0; i < std::size(qelr::frame::kExportNames); ++i) {
        EXPECT_EQ(qelr::frame::activeEntries()[i], chosen[i]) << qelr::frame::kExportNames[i];
        // Every export has two distinct variants.
        EXPECT_NE(qelr::frame::entriesOf(Isa::sse3)[i], qelr::frame::entriesOf(Isa::avx2)[i]);
    }
    // The public entry reaches the chosen variant; both answer with one record.
    EXPECT_EQ(qelrGetLibVersion(), QELR_VARIANT(expected, qelrGetLibVersion)());
    EXPECT_EQ(QELR_VARIANT(Isa::sse3, qelrGetLibVersion)(),
              QELR_VARIANT(Isa::avx2, qelrGetLibVersion)());
}

}  // namespace
