// The table of implementation pointers behind the exported entry thunks, and
// the load-time choice of the instruction set that fills it.
//
// Slot i holds the implementation of the i-th name of exports.inc; the thunk
// of that name in entries.S jumps through the slot without touching any
// argument register, so every call goes straight to its implementation.
//
// Every implementation exists twice, compiled for SSE3 (the baseline) and for
// AVX2, and both give the same output bits. When the library is loaded, the
// table is filled with the AVX2 variants if the processor (and the operating
// system) offer AVX2, else it keeps the SSE3 variants it starts with. The
// environment variable QELR_CPU, set to "sse3" or "avx2", restricts the choice
// (it never selects instructions the processor lacks), so that both variants
// can be run and compared on one machine. Afterwards the table's page is made
// read-only, as a table fixed at build time would be.
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "core/dispatch.h"
#include "qelcore.h"
#include "qelr.h"

namespace qelr::sse3::impl {
#define QELR_EXPORT(name) extern decltype(::name) name;
#include "core/exports.inc"
#undef QELR_EXPORT
}  // namespace qelr::sse3::impl

namespace qelr::avx2::impl {
#define QELR_EXPORT(name) extern decltype(::name) name;
#include "core/exports.inc"
#undef QELR_EXPORT
}  // namespace qelr::avx2::impl

namespace qelr::frame {

namespace {

static_assert(std::is_sorted(std::begin(kExportNames), std::end(kExportNames)),
              "exports.inc must list the exports in alphabetical order");
static_assert(std::adjacent_find(std::begin(kExportNames), std::end(kExportNames)) ==
                  std::end(kExportNames),
              "exports.inc lists a name twice");
constexpr size_t kExportCount = std::size(kExportNames);

const Entry kSse3Entries[] = {
#define QELR_EXPORT(name) reinterpret_cast<Entry>(&qelr::sse3::impl::name),
#include "core/exports.inc"
#undef QELR_EXPORT
};
const Entry kAvx2Entries[] = {
#define QELR_EXPORT(name) reinterpret_cast<Entry>(&qelr::avx2::impl::name),
#include "core/exports.inc"
#undef QELR_EXPORT
};
static_assert(std::size(kSse3Entries) == kExportCount && std::size(kAvx2Entries) == kExportCount);

constexpr size_t kPageBytes = 4096;
constexpr size_t kTableSlots = kPageBytes / sizeof(Entry);
static_assert(kExportCount <= kTableSlots);

Isa g_isa = Isa::sse3;

}  // namespace

}  // namespace qelr::frame

extern "C" {
// Read by the thunks with RIP-relative addressing; never visible outside. It
// fills a page of its own, so that it can be made read-only once chosen.
// Until then it holds the SSE3 variants, which every supported processor runs.
__attribute__((visibility("hidden"), aligned(qelr::frame::kPageBytes)))
qelr::frame::Entry qelr_entry_table[qelr::frame::kTableSlots] = {
#define QELR_EXPORT(name) reinterpret_cast<qelr::frame::Entry>(&qelr::sse3::impl::name),
#include "core/exports.inc"
#undef QELR_EXPORT
};
}

namespace qelr::frame {

Isa chooseIsa(uint64_t features, const char* request) {
    const bool avx2 = (features & (QEL_CPU_AVX | QEL_CPU_AVX2)) == (QEL_CPU_AVX | QEL_CPU_AVX2);
    if (request != nullptr && std::strcmp(request, "sse3") == 0) return Isa::sse3;
    return avx2 ? Isa::avx2 : Isa::sse3;
}

bool isaRuns(Isa isa) {
    return isa == Isa::sse3 || chooseIsa(qelGetEnabledCpuFeatures(), nullptr) == Isa::avx2;
}

const Entry* entriesOf(Isa isa) { return isa == Isa::avx2 ? kAvx2Entries : kSse3Entries; }

Isa activeIsa() { return g_isa; }

const Entry* activeEntries() { return qelr_entry_table; }

namespace {

__attribute__((constructor)) void chooseAtLoad() {
    g_isa = chooseIsa(qelGetEnabledCpuFeatures(), std::getenv("QELR_CPU"));
    const Entry* chosen = entriesOf(g_isa);
    std::copy(chosen, chosen + kExportCount, qelr_entry_table);
    // Nothing writes the table again. A failure leaves it writable, which
    // changes nothing else.
    mprotect(qelr_entry_table, kPageBytes, PROT_READ);
}

}  // namespace

}  // namespace qelr::frame
