// The load-time choice of the instruction set behind the entry table.
//
// Compiled once (not per instruction set): this is the part of the frame
// that knows both variants.
#pragma once

#include <cstdint>

namespace qelr::frame {

using Entry = void (*)();

enum class Isa { sse3, avx2 };

// The variant for a processor with these qelGetEnabledCpuFeatures bits and
// the value of QELR_CPU (nullptr when unset): AVX2 when the processor offers
// it, unless "sse3" is requested.
Isa chooseIsa(uint64_t features, const char* request);

// The implementations of one variant, in the order of exports.inc.
const Entry* entriesOf(Isa isa);

// The variant chosen at load, and the table the entry thunks jump through.
Isa activeIsa();
const Entry* activeEntries();

}  // namespace qelr::frame
