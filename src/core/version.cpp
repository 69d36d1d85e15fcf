// The version query.
#include "core/impl.h"

namespace qelr::impl {

namespace {
constexpr QelLibraryVersion kVersion = {
    7, 1, 0, 36264, {'m', '7', '\0', '\0'}, "qelVX SSE3 (m7)", "7.1.0 (r36264)", "Jul 23 2012",
};
}  // namespace

const QelLibraryVersion* qelrGetLibVersion() { return &kVersion; }

}  // namespace qelr::impl
