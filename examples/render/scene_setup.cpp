#include "scene_setup.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace qelr_render {

namespace {

struct Box {
    Vec3 lo{FLT_MAX, FLT_MAX, FLT_MAX};
    Vec3 hi{-FLT_MAX, -FLT_MAX, -FLT_MAX};
};

Box boundsOf(const std::vector<float>& v) {
    Box b;
    for (size_t i = 0; i + 2 < v.size(); i += 3) {
        b.lo = {std::min(b.lo.x, v[i]), std::min(b.lo.y, v[i + 1]), std::min(b.lo.z, v[i + 2])};
        b.hi = {std::max(b.hi.x, v[i]), std::max(b.hi.y, v[i + 1]), std::max(b.hi.z, v[i + 2])};
    }
    return b;
}

void addTriangle(Scene& s, int a, int b, int c, Vec3 albedo, float reflectivity) {
    s.triangles.insert(s.triangles.end(), {a, b, c, 0});
    s.albedo.insert(s.albedo.end(), {albedo.x, albedo.y, albedo.z});
    s.reflectivity.push_back(reflectivity);
}

}  // namespace

void frameOnFloor(Scene& scene, float aspect) {
    const Box box = boundsOf(scene.vertices);
    const Vec3 centre{0.5f * (box.lo.x + box.hi.x), 0.5f * (box.lo.y + box.hi.y),
                      0.5f * (box.lo.z + box.hi.z)};
    const float dx = box.hi.x - box.lo.x, dy = box.hi.y - box.lo.y, dz = box.hi.z - box.lo.z;
    const float radius = std::max(0.5f * std::sqrt(dx * dx + dy * dy + dz * dz), 1e-3f);

    // The mesh's own triangles: a warm clay, slightly glossy.
    const size_t meshTriangles = scene.triangles.size() / 4;
    scene.albedo.resize(3 * meshTriangles, 0.0f);
    scene.reflectivity.resize(meshTriangles, 0.0f);
    for (size_t t = 0; t < meshTriangles; ++t) {
        if (scene.albedo[3 * t] + scene.albedo[3 * t + 1] + scene.albedo[3 * t + 2] > 0) continue;
        scene.albedo[3 * t] = 0.80f, scene.albedo[3 * t + 1] = 0.55f,
                         scene.albedo[3 * t + 2] = 0.42f;
        scene.reflectivity[t] = 0.04f;
    }

    // A floor of 24 x 24 tiles, four radii wide, just under the mesh.
    constexpr int kTiles = 24;
    const float half = 4.0f * radius, tile = 2.0f * half / kTiles;
    const float y = box.lo.y - 1e-3f * radius;
    const int base = scene.vertexCount();
    for (int j = 0; j <= kTiles; ++j) {
        for (int i = 0; i <= kTiles; ++i) {
            scene.vertices.insert(scene.vertices.end(),
                                  {centre.x - half + i * tile, y, centre.z - half + j * tile});
        }
    }
    for (int j = 0; j < kTiles; ++j) {
        for (int i = 0; i < kTiles; ++i) {
            const int v = base + j * (kTiles + 1) + i;
            const Vec3 colour = (i + j) % 2 ? Vec3{0.82f, 0.82f, 0.80f} : Vec3{0.22f, 0.24f, 0.28f};
            addTriangle(scene, v, v + kTiles + 1, v + 1, colour, 0.25f);
            addTriangle(scene, v + 1, v + kTiles + 1, v + kTiles + 2, colour, 0.25f);
        }
    }

    // Camera in front, a little to the right and above; light up to the left.
    const float fov = 40.0f;
    const float fit =
        1.25f * radius / std::sin(0.5f * fov * 3.14159265f / 180.0f) / std::min(1.0f, aspect);
    const Vec3 view{0.55f, 0.42f, 1.0f};
    const float vl = std::sqrt(view.x * view.x + view.y * view.y + view.z * view.z);
    scene.camera.target = {centre.x, centre.y - 0.1f * dy, centre.z};
    scene.camera.eye = {centre.x + fit * view.x / vl, centre.y + fit * view.y / vl,
                        centre.z + fit * view.z / vl};
    scene.camera.up = {0, 1, 0};
    scene.camera.verticalFovDegrees = fov;
    scene.light = {centre.x - 2.5f * radius, centre.y + 4.0f * radius, centre.z + 2.0f * radius};
}

}  // namespace qelr_render
