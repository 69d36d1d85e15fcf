// Load-time initialisation of libqelr.
//
// Runs once when the library is loaded into a process. The library's C++
// runtime makes no allocations of its own (no exceptions, no operator new),
// so there are no runtime allocation hooks to redirect: all of the library's
// memory already goes through qelMalloc and qelFree.
#include "core/memory.h"

namespace qelr::core {

namespace {

// Bits 0x10 and 0x20 of the core library's feature mask.
constexpr uint64_t kTunedFeatures = QEL_CPU_SSSE3 | QEL_CPU_MOVBE;

int g_featureFlag = 0;

__attribute__((constructor)) void onLoad() {
    const uint64_t features = qelGetEnabledCpuFeatures();
    g_featureFlag = (features & kTunedFeatures) == kTunedFeatures ? 1 : 0;
}

}  // namespace

bool loadTimeFeatureFlag() { return g_featureFlag != 0; }

}  // namespace qelr::core
