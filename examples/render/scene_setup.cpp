#include "scene_setup.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "mesh_io.h"
#include "scene_gen.h"

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

// A small deterministic hash for picking colours.
uint32_t mixBits(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352du;
    x ^= x >> 15;
    x *= 0x846ca68bu;
    return x ^ (x >> 16);
}

// The built-in landscape: terrain coloured by height and slope, a lake, and
// spheres and tori in bright colours, some of them mirror-like.
void makeLandscape(Scene& scene, int triangles) {
    qelr_example::Mesh mesh = qelr_example::makeProceduralScene(triangles);
    scene.vertices = std::move(mesh.vertices);
    scene.triangles = std::move(mesh.indices);
    const int count = scene.triangleCount();
    const float* v = scene.vertices.data();

    static const Vec3 kPalette[] = {{0.85f, 0.18f, 0.12f}, {0.95f, 0.62f, 0.10f},
                                    {0.15f, 0.40f, 0.85f}, {0.10f, 0.65f, 0.60f},
                                    {0.92f, 0.90f, 0.86f}, {0.60f, 0.20f, 0.70f}};
    int object = -1, objectEnd = -1;  // objects take consecutive vertex ranges
    for (int t = 0; t < count; ++t) {
        const int* tri = &scene.triangles[4 * size_t(t)];
        bool terrain = true;
        float y = 0.0f;
        for (int k = 0; k < 3; ++k) {
            const float* p = v + 3 * size_t(tri[k]);
            terrain = terrain && std::fabs(p[1] - qelr_example::terrainHeight(p[0], p[2])) < 1e-4f;
            y += p[1] / 3.0f;
        }
        Vec3 colour;
        float reflect = 0.0f;
        if (terrain) {
            // Slope from the triangle's normal: grass on the flat, rock on
            // the steep, lighter stone high up.
            const float* a = v + 3 * size_t(tri[0]);
            const float* b = v + 3 * size_t(tri[1]);
            const float* c = v + 3 * size_t(tri[2]);
            const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
            const float e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
            const float n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                e1[0] * e2[1] - e1[1] * e2[0]};
            const float up = std::fabs(n[1]) / std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
            const float rock = std::clamp((0.93f - up) * 6.0f, 0.0f, 1.0f);
            const float high = std::clamp((y - 6.0f) / 5.0f, 0.0f, 1.0f);
            const Vec3 grass{0.16f, 0.36f, 0.05f}, stone{0.30f, 0.27f, 0.23f},
                peak{0.66f, 0.62f, 0.54f};
            colour = {grass.x + (stone.x - grass.x) * rock, grass.y + (stone.y - grass.y) * rock,
                      grass.z + (stone.z - grass.z) * rock};
            colour = {colour.x + (peak.x - colour.x) * high, colour.y + (peak.y - colour.y) * high,
                      colour.z + (peak.z - colour.z) * high};
        } else {
            if (std::min({tri[0], tri[1], tri[2]}) > objectEnd) ++object;
            objectEnd = std::max({objectEnd, tri[0], tri[1], tri[2]});
            const uint32_t h = mixBits(uint32_t(object) + 7u);
            colour = kPalette[h % 6];
            reflect = (h >> 8) % 3 == 0 ? 0.65f : 0.06f;
        }
        scene.albedo.insert(scene.albedo.end(), {colour.x, colour.y, colour.z});
        scene.reflectivity.push_back(reflect);
    }

    // A lake: a flat mirror-like sheet over the low ground.
    const float water = -1.5f, half = 50.0f;
    const int base = scene.vertexCount();
    for (float z : {-half, half}) {
        for (float x : {-half, half}) scene.vertices.insert(scene.vertices.end(), {x, water, z});
    }
    addTriangle(scene, base, base + 2, base + 1, {0.10f, 0.22f, 0.28f}, 0.55f);
    addTriangle(scene, base + 1, base + 2, base + 3, {0.10f, 0.22f, 0.28f}, 0.55f);

    scene.camera = {{-44.0f, 17.0f, 46.0f}, {0.0f, 0.0f, -6.0f}, {0, 1, 0}, 50.0f};
    scene.light = {70.0f, 90.0f, 35.0f};
    scene.name = "procedural landscape";
}

}  // namespace

bool makeScene(const std::string& meshPath, int sceneTriangles, float aspect, Scene& scene,
               std::string& error) {
    if (meshPath.empty()) {
        makeLandscape(scene, sceneTriangles);
        return true;
    }
    qelr_example::Mesh mesh;
    if (!qelr_example::loadMesh(meshPath, mesh, error)) return false;
    if (mesh.triangleCount() == 0) {
        error = meshPath + ": no triangles";
        return false;
    }
    scene.vertices = std::move(mesh.vertices);
    scene.triangles = std::move(mesh.indices);
    const size_t slash = meshPath.find_last_of('/');
    scene.name = slash == std::string::npos ? meshPath : meshPath.substr(slash + 1);
    frameOnFloor(scene, aspect);
    return true;
}

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
        scene.albedo[3 * t] = 0.70f;
        scene.albedo[3 * t + 1] = 0.42f;
        scene.albedo[3 * t + 2] = 0.30f;
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
            const Vec3 colour = (i + j) % 2 ? Vec3{0.66f, 0.66f, 0.64f} : Vec3{0.26f, 0.28f, 0.32f};
            addTriangle(scene, v, v + kTiles + 1, v + 1, colour, 0.25f);
            addTriangle(scene, v + 1, v + kTiles + 1, v + kTiles + 2, colour, 0.25f);
        }
    }

    // Camera in front, a little to the right and above; light up to the left.
    const float fov = 40.0f;
    const float fit =
        0.95f * radius / std::tan(0.5f * fov * 3.14159265f / 180.0f) / std::min(1.0f, aspect);
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
