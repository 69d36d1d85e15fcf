// The version query.
#include "core/impl.h"
#include "qelr_version.h"

namespace qelr::frame {
// One record for the whole library, whichever instruction set answers the
// query (an inline variable: the copies of both variants are one object).
// The numbers and the text come from the build's project version.
inline constexpr QelLibraryVersion kVersionRecord = {
    QELR_VERSION_MAJOR, QELR_VERSION_MINOR, QELR_VERSION_PATCH, QELR_BUILD_NUMBER,
    {'m', '7', '\0', '\0'}, "qelVX SSE3 (m7)", QELR_VERSION_TEXT, "Jul 23 2012",
};
}  // namespace qelr::frame

namespace qelr::QELR_ISA::impl {

const QelLibraryVersion* qelrGetLibVersion() { return &frame::kVersionRecord; }

}  // namespace qelr::QELR_ISA::impl
