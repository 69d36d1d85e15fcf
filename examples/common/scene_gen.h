// A deterministic procedural scene for benchmarks and examples: a landscape
// of displaced terrain with spheres and tori scattered over it.
#pragma once

#include <cstdint>

#include "mesh.h"

namespace qelr_example {

// About `approxTriangles` triangles (within a few percent for counts of a
// thousand and more): 60 percent terrain, the rest in the objects. The same
// arguments always give the same mesh. The scene spans about [-50, 50] on x
// and z with y up.
Mesh makeProceduralScene(int approxTriangles, uint32_t seed = 1);

// Terrain height at (x, z) of the scene made with `seed`.
float terrainHeight(float x, float z, uint32_t seed = 1);

}  // namespace qelr_example
