// Builds the scene to render: the built-in procedural scene, or a mesh file
// set on a checkered floor, with a camera and a light framing it.
#pragma once

#include <string>

#include "scene.h"

namespace qelr_render {

// meshPath empty: the built-in scene of about `sceneTriangles` triangles.
// `aspect` is width / height of the image.
bool makeScene(const std::string& meshPath, int sceneTriangles, float aspect, Scene& scene,
               std::string& error);

// Adds a checkered floor under the mesh already in `scene` (whose triangles
// get `albedo` and `reflectivity` where none is set yet) and places the camera
// and the light round its bounding box.
void frameOnFloor(Scene& scene, float aspect);

}  // namespace qelr_render
