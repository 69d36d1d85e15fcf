// The volume exports of one element type in a chosen instruction-set variant,
// for the tests and benchmarks that run the variants side by side:
// VolumeVariants<uint16_t>::remap(Isa::avx2)(...).
#pragma once

#include <cstdint>

#include "core/dispatch.h"
#include "qelr.h"

namespace qelr::frame {

template <class T>
struct VolumeVariants;
#define QELR_VOLUME_VARIANTS(T, ty)                                                     \
    template <>                                                                         \
    struct VolumeVariants<T> {                                                          \
        static auto resizeV(Isa i) { return QELR_VARIANT(i, qelrResize_##ty##_C1V); }   \
        static auto resizePV(Isa i) { return QELR_VARIANT(i, qelrResize_##ty##_C1PV); } \
        static auto remap(Isa i) { return QELR_VARIANT(i, qelrRemap_##ty##_C1PV); }     \
        static auto warp(Isa i) { return QELR_VARIANT(i, qelrWarpAffine_##ty##_C1PV); } \
        static constexpr const char* name = #ty;                                        \
    };
QELR_VOLUME_VARIANTS(uint8_t, 8u)
QELR_VOLUME_VARIANTS(uint16_t, 16u)
QELR_VOLUME_VARIANTS(float, 32f)
#undef QELR_VOLUME_VARIANTS

}  // namespace qelr::frame
