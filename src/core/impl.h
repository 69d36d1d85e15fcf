// Declarations of the implementations behind the exported entry points.
//
// Every exported function `qelrX` is an entry thunk (entries.S) that jumps
// through slot i of the entry table to `qelr::impl::qelrX` of the instruction
// set chosen at load time; each has exactly the prototype declared in qelr.h.
// Family sources define these functions once per instruction set.
#pragma once

#include "qelr.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {
#define QELR_EXPORT(name) extern decltype(::name) name;
#include "core/exports.inc"
#undef QELR_EXPORT
}  // namespace qelr::QELR_ISA::impl
