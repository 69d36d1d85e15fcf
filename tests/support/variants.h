// Both instruction-set variants of an export, side by side in one process,
// for tests that check that they give the same bits. Internal tests only:
// the variants are reached through the frame's tables, not the entry thunks.
#pragma once

#include <qelcore.h>
#include <qelr.h>

#include <cstddef>
#include <iterator>
#include <string_view>

#include "core/dispatch.h"

namespace qelr_test {

inline constexpr std::string_view kExportNames[] = {
#define QELR_EXPORT(name) #name,
#include "core/exports.inc"
#undef QELR_EXPORT
};

constexpr size_t exportSlot(std::string_view name) {
    for (size_t i = 0; i < std::size(kExportNames); ++i) {
        if (kExportNames[i] == name) return i;
    }
    return std::size(kExportNames);  // not an export: fails to compile where a constant is needed
}

// Whether this processor runs the AVX2 variant.
inline bool avx2Runs() {
    return (qelGetEnabledCpuFeatures() & (QEL_CPU_AVX | QEL_CPU_AVX2)) ==
           (QEL_CPU_AVX | QEL_CPU_AVX2);
}

inline constexpr qelr::frame::Isa kIsas[] = {qelr::frame::Isa::sse3, qelr::frame::Isa::avx2};

template <class F>
F variantOf(qelr::frame::Isa isa, size_t slot) {
    return reinterpret_cast<F>(qelr::frame::entriesOf(isa)[slot]);
}

}  // namespace qelr_test

// The implementation of export `name` in variant `isa`, with its prototype.
#define QELR_VARIANT(isa, name)                \
    ::qelr_test::variantOf<decltype(&::name)>( \
        isa, std::integral_constant<size_t, ::qelr_test::exportSlot(#name)>::value)
