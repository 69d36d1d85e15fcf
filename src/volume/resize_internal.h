// Resize internals: the per-axis geometry, the arrangement of one thread's
// scratch inside the caller's buffer and the buffer size granted per thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/target.h"

namespace qelr::QELR_ISA::volume::resize {

// One axis of a resize: the destination range written and the mapping of a
// destination coordinate back to the source.
struct Axis {
    int32_t lo;         // first destination coordinate written (absolute)
    int32_t extent;     // number of destination coordinates written
    int32_t srcExtent;  // extent of the whole source volume; taps are clamped into it
    double inv;         // 1 / factor
    double invOffset;   // (0 - shift) / factor
};

// Bytes of scratch the buffer-size query grants one thread for a destination
// box of W x H x D (before the multiplication by the team size).
int64_t bytesPerThread(int mode, int32_t W, int32_t H, int32_t D);

// Sampling table of one axis for a run of destination coordinates:
// - nearest: `index` holds the source index;
// - linear: `index` holds the floor of the source position, clamped into
//   [-1, srcExtent - 1], and `weights` the fraction;
// - cubic: `index` as for linear, `weights` the four tap weights.
struct AxisTable {
    int32_t* index;
    float* weights;
};

// One thread's scratch: the three tables, the ring of x-resampled rows and
// the ring of xy-resampled planes (rows padded to `rowStride` floats).
struct Scratch {
    AxisTable x, y, z;
    float* rows;
    float* planes;
    size_t rowStride;    // floats from one row to the next (rows and plane rows)
    size_t planeStride;  // floats from one ring plane to the next
};

// Carves the scratch for destination extents w x h and `planes` destination
// planes out of `slice` (64-byte aligned pieces).
Scratch carveScratch(int mode, int32_t w, int32_t h, int32_t planes, uint8_t* slice);

}  // namespace qelr::QELR_ISA::volume::resize
