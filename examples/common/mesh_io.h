// Loading triangle meshes from OBJ and PLY files, and subdividing them.
#pragma once

#include <string>

#include "mesh.h"

namespace qelr_example {

// OBJ: "v x y z" and "f" lines (i, i/t, i/t/n or i//n corners, negative
// indices count back from the last vertex); polygons are fan-triangulated,
// everything else is ignored. Returns false with a message on failure.
bool loadObj(const std::string& path, Mesh& out, std::string& error);

// PLY, ascii or binary_little_endian: the x, y, z properties of the vertex
// element and the vertex_indices (or vertex_index) list of the face element,
// fan-triangulated; other elements and properties are skipped.
bool loadPly(const std::string& path, Mesh& out, std::string& error);

// By the file's extension (.obj or .ply, any case).
bool loadMesh(const std::string& path, Mesh& out, std::string& error);

// Splits every triangle into four at its edge midpoints (shared between
// neighbours) until the mesh has at least `targetTriangles` triangles.
Mesh subdivideToAtLeast(const Mesh& mesh, int targetTriangles);

}  // namespace qelr_example
