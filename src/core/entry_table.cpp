// The table of implementation pointers behind the exported entry thunks.
//
// Slot i holds the implementation of the i-th name of exports.inc; the thunk
// of that name in entries.S jumps through the slot without touching any
// argument register, so every call goes straight to its implementation.
#include <algorithm>
#include <iterator>
#include <string_view>

#include "core/impl.h"

namespace {

constexpr std::string_view kExportNames[] = {
#define QELR_EXPORT(name) #name,
#include "core/exports.inc"
#undef QELR_EXPORT
};
static_assert(std::is_sorted(std::begin(kExportNames), std::end(kExportNames)),
              "exports.inc must list the exports in alphabetical order");
static_assert(std::adjacent_find(std::begin(kExportNames), std::end(kExportNames)) ==
                  std::end(kExportNames),
              "exports.inc lists a name twice");

using Entry = void (*)();

}  // namespace

extern "C" {
// Read by the thunks with RIP-relative addressing; never visible outside.
__attribute__((visibility("hidden"))) extern const Entry qelr_entry_table[];

const Entry qelr_entry_table[] = {
#define QELR_EXPORT(name) reinterpret_cast<Entry>(&qelr::impl::name),
#include "core/exports.inc"
#undef QELR_EXPORT
};
}

static_assert(std::size(kExportNames) == sizeof(qelr_entry_table) / sizeof(Entry));
