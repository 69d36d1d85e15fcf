// The plane split shared by the parallel regions of the volume functions.
#pragma once

#include <cstdint>

#include "simd/target.h"

namespace qelr::QELR_ISA::core {

// Planes [begin, end) of thread `rank` in a team of `team` threads splitting
// `depth` planes: chunks of depth / team planes, the last thread also takes
// the remainder.
struct PlaneRange {
    int32_t begin;
    int32_t end;
};

inline PlaneRange planeRangeOf(int32_t depth, int32_t team, int32_t rank) {
    const int32_t chunk = depth / team;
    const int32_t begin = rank * chunk;
    const int32_t end = rank == team - 1 ? depth : begin + chunk;
    return {begin, end};
}

// Whether a volume region of this extent is split over threads: every extent
// at least 16 and more than one thread available.
inline bool splitsOverThreads(int32_t width, int32_t height, int32_t depth, int32_t threads) {
    return width >= 16 && height >= 16 && depth >= 16 && threads > 1;
}

}  // namespace qelr::QELR_ISA::core
