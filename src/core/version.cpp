// The version query.
#include "core/impl.h"

namespace qelr::frame {
// One record for the whole library, whichever instruction set answers the
// query (an inline variable: the copies of both variants are one object).
inline constexpr QelLibraryVersion kVersionRecord = {
    7, 1, 0, 36264, {'m', '7', '\0', '\0'}, "qelVX SSE3 (m7)", "7.1.0 (r36264)", "Jul 23 2012",
};
}  // namespace qelr::frame

namespace qelr::QELR_ISA::impl {

const QelLibraryVersion* qelrGetLibVersion() { return &frame::kVersionRecord; }

}  // namespace qelr::QELR_ISA::impl
