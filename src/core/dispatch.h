// The load-time choice of the instruction set behind the entry table, and
// access to both variants of an export for the library's own tests and
// benchmarks (which compare them in one process).
//
// Compiled once (not per instruction set): this is the part of the frame
// that knows both variants.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <type_traits>

namespace qelr::frame {

using Entry = void (*)();

enum class Isa { sse3, avx2 };

inline constexpr Isa kIsas[] = {Isa::sse3, Isa::avx2};

constexpr const char* isaName(Isa isa) { return isa == Isa::avx2 ? "avx2" : "sse3"; }

// The variant for a processor with these qelGetEnabledCpuFeatures bits and
// the value of QELR_CPU (nullptr when unset): AVX2 when the processor offers
// it, unless "sse3" is requested.
Isa chooseIsa(uint64_t features, const char* request);

// Whether this processor can run a variant.
bool isaRuns(Isa isa);

// The implementations of one variant, in the order of exports.inc.
const Entry* entriesOf(Isa isa);

// The variant chosen at load, and the table the entry thunks jump through.
Isa activeIsa();
const Entry* activeEntries();

inline constexpr std::string_view kExportNames[] = {
#define QELR_EXPORT(name) #name,
#include "core/exports.inc"
#undef QELR_EXPORT
};

// The slot of an export in the tables (the number of exports for a name that
// is not one, which fails where a constant slot is required).
constexpr size_t exportSlot(std::string_view name) {
    for (size_t i = 0; i < std::size(kExportNames); ++i) {
        if (kExportNames[i] == name) return i;
    }
    return std::size(kExportNames);
}

template <class F, size_t kSlot>
F variantOf(Isa isa) {
    static_assert(kSlot < std::size(kExportNames), "not an export");
    return reinterpret_cast<F>(entriesOf(isa)[kSlot]);
}

}  // namespace qelr::frame

// The implementation of export `name` in variant `isa`, with its prototype:
// QELR_VARIANT(Isa::avx2, qelrSH_32f)(...).
#define QELR_VARIANT(isa, name) \
    (::qelr::frame::variantOf<decltype(&::name), ::qelr::frame::exportSlot(#name)>(isa))
