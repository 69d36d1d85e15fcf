// What the renderer draws: a triangle mesh with a colour and a reflectivity
// per triangle, a camera and a point light.
#pragma once

#include <string>
#include <vector>

#include "camera.h"

namespace qelr_render {

struct Scene {
    std::vector<float> vertices;      // three floats per vertex
    std::vector<int> triangles;       // four ints per triangle, the fourth unused
    std::vector<float> albedo;        // three floats per triangle, 0 to 1
    std::vector<float> reflectivity;  // one float per triangle, 0 to 1
    Camera camera{};
    Vec3 light{};  // position of the point light
    std::string name;

    int vertexCount() const { return int(vertices.size() / 3); }
    int triangleCount() const { return int(triangles.size() / 4); }
};

}  // namespace qelr_render
