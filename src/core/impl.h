// Declarations of the implementations behind the exported entry points.
//
// Every exported function `qelrX` is an entry thunk (entries.S) that jumps
// through slot i of the entry table to `qelr::impl::qelrX`, which has exactly
// the prototype declared in qelr.h. Family sources define these functions.
#pragma once

#include "qelr.h"

namespace qelr::impl {
#define QELR_EXPORT(name) extern decltype(::name) name;
#include "core/exports.inc"
#undef QELR_EXPORT
}  // namespace qelr::impl
