// The packet paths of the intersection functions (intersect_packet.cpp) and
// the one-ray kernels that they share (intersect_ray.cpp).
#pragma once

#include "core/align.h"
#include "qelr.h"
#include "raycast/kd_walk.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::raycast {

using core::aligned16;

// Any-hit of one ray already set up (inverses of the any-hit form) over
// 0 < t < 1: the index of the first triangle accepted, or -1.
int32_t anyHitRay(const QelTraceScene& scene, const Ray& ray);

// Packet paths: width and height are positive multiples of 4 and every plane
// touched starts on a 16-byte boundary. origins is null for the shared-origin form.
void nearestPackets(const float* origin, const float* const* origins, const float* const dirs[3],
                    float* dist, float* const uv[2], int* index, const QelTraceScene& scene,
                    int width, int height);
void anyHitPackets(const float origin[3], const float* const dirs[3], int* index, int* mask,
                   const QelTraceScene& scene, int width, int height);

}  // namespace qelr::QELR_ISA::raycast
