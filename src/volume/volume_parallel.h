// The parallel region of the volume operations: destination planes split in
// chunks over a team of ownGetNumThreads() threads.
#pragma once

#include <omp.h>

#include <cstdint>

#include "core/parallel.h"
#include "qelcore.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::volume {

// Runs work(firstPlane, endPlane, rank, team) over the destination depth.
// A destination of at least 16 in every extent with more than one thread
// available is split: the master thread reads the team size, and after a
// barrier every thread takes its chunk of depth / team planes (the last one
// also the remainder). Otherwise work runs once on the calling thread with
// rank 0 of a team of 1.
template <class Work>
void runOverPlanes(int32_t width, int32_t height, int32_t depth, Work&& work) {
    const int threads = ownGetNumThreads();
    if (!core::splitsOverThreads(width, height, depth, threads)) {
        work(0, depth, 0, 1);
        return;
    }
    int team = 1;
#pragma omp parallel num_threads(threads)
    {
#pragma omp master
        team = omp_get_num_threads();
#pragma omp barrier
        const int rank = omp_get_thread_num();
        const core::PlaneRange range = core::planeRangeOf(depth, team, rank);
        work(range.begin, range.end, rank, team);
    }
}

}  // namespace qelr::QELR_ISA::volume
