#include "scene_gen.h"

#include <algorithm>
#include <cmath>

namespace qelr_example {

namespace {

constexpr float kPi = 3.14159265358979f;
constexpr float kHalfSize = 50.0f;

uint32_t hash(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352du;
    x ^= x >> 15;
    x *= 0x846ca68bu;
    x ^= x >> 16;
    return x;
}

float lattice(int ix, int iz, uint32_t seed) {
    const uint32_t h = hash(static_cast<uint32_t>(ix) * 73856093u ^
                            static_cast<uint32_t>(iz) * 19349663u ^ hash(seed));
    return static_cast<float>(h >> 8) * (1.0f / 16777216.0f);
}

// Smoothly interpolated value noise in [0, 1).
float valueNoise(float x, float z, uint32_t seed) {
    const float fx = std::floor(x), fz = std::floor(z);
    const int ix = static_cast<int>(fx), iz = static_cast<int>(fz);
    float tx = x - fx, tz = z - fz;
    tx = tx * tx * (3.0f - 2.0f * tx);
    tz = tz * tz * (3.0f - 2.0f * tz);
    const float a = lattice(ix, iz, seed), b = lattice(ix + 1, iz, seed);
    const float c = lattice(ix, iz + 1, seed), d = lattice(ix + 1, iz + 1, seed);
    return (a + (b - a) * tx) * (1.0f - tz) + (c + (d - c) * tx) * tz;
}

// A small deterministic generator for placing objects.
struct Rng {
    uint32_t state;
    float next() {
        state = hash(state + 0x9e3779b9u);
        return static_cast<float>(state >> 8) * (1.0f / 16777216.0f);
    }
};

void addTerrain(Mesh& m, int cells, uint32_t seed) {
    const int base = m.vertexCount();
    const float step = 2.0f * kHalfSize / cells;
    for (int j = 0; j <= cells; ++j)
        for (int i = 0; i <= cells; ++i) {
            const float x = -kHalfSize + i * step, z = -kHalfSize + j * step;
            m.addVertex(x, terrainHeight(x, z, seed), z);
        }
    const int row = cells + 1;
    for (int j = 0; j < cells; ++j)
        for (int i = 0; i < cells; ++i) {
            const int v = base + j * row + i;
            m.addTriangle(v, v + row, v + 1);
            m.addTriangle(v + 1, v + row, v + row + 1);
        }
}

void addSphere(Mesh& m, const float c[3], float r, int rings) {
    const int segments = 2 * rings;
    const int base = m.vertexCount();
    for (int j = 0; j <= rings; ++j) {
        const float theta = kPi * j / rings;
        for (int i = 0; i < segments; ++i) {
            const float phi = 2.0f * kPi * i / segments;
            m.addVertex(c[0] + r * std::sin(theta) * std::cos(phi), c[1] + r * std::cos(theta),
                        c[2] + r * std::sin(theta) * std::sin(phi));
        }
    }
    for (int j = 0; j < rings; ++j)
        for (int i = 0; i < segments; ++i) {
            const int a = base + j * segments + i, b = base + j * segments + (i + 1) % segments;
            const int c0 = a + segments, d = b + segments;
            if (j > 0) m.addTriangle(a, b, c0);
            if (j < rings - 1) m.addTriangle(b, d, c0);
        }
}

void addTorus(Mesh& m, const float c[3], float major, float minor, int minorSegs, float tilt) {
    const int majorSegs = 2 * minorSegs;
    const int base = m.vertexCount();
    const float ct = std::cos(tilt), st = std::sin(tilt);
    for (int j = 0; j < majorSegs; ++j) {
        const float u = 2.0f * kPi * j / majorSegs;
        for (int i = 0; i < minorSegs; ++i) {
            const float v = 2.0f * kPi * i / minorSegs;
            const float rr = major + minor * std::cos(v);
            const float x = rr * std::cos(u), y = minor * std::sin(v), z = rr * std::sin(u);
            // Tilted about the x axis so the rings stand at different angles.
            m.addVertex(c[0] + x, c[1] + y * ct - z * st, c[2] + y * st + z * ct);
        }
    }
    for (int j = 0; j < majorSegs; ++j)
        for (int i = 0; i < minorSegs; ++i) {
            const int a = base + j * minorSegs + i;
            const int b = base + j * minorSegs + (i + 1) % minorSegs;
            const int c0 = base + ((j + 1) % majorSegs) * minorSegs + i;
            const int d = base + ((j + 1) % majorSegs) * minorSegs + (i + 1) % minorSegs;
            m.addTriangle(a, b, c0);
            m.addTriangle(b, d, c0);
        }
}

}  // namespace

float terrainHeight(float x, float z, uint32_t seed) {
    // Rolling hills of a few octaves, with a ridge line across the middle.
    float h = 0.0f, amplitude = 9.0f, frequency = 1.0f / 28.0f;
    for (int octave = 0; octave < 5; ++octave) {
        h += amplitude * (valueNoise(x * frequency, z * frequency, seed + octave) - 0.5f);
        amplitude *= 0.45f;
        frequency *= 2.1f;
    }
    const float ridge =
        1.0f - std::fabs(valueNoise(x / 40.0f, z / 40.0f, seed ^ 0xabcdu) * 2.0f - 1.0f);
    return h + 6.0f * ridge * ridge;
}

Mesh makeProceduralScene(int approxTriangles, uint32_t seed) {
    Mesh m;
    const int total = std::max(approxTriangles, 200);
    const int cells = std::max(4, static_cast<int>(std::lround(std::sqrt(0.6 * total / 2.0))));
    addTerrain(m, cells, seed);

    // Objects share the rest: more of them in larger scenes.
    const int objects = std::clamp(total / 4000, 6, 400);
    const int perObject = std::max(24, (total - m.triangleCount()) / objects);
    Rng rng{seed * 2654435761u + 17u};
    for (int k = 0; k < objects; ++k) {
        const float x = -42.0f + 84.0f * rng.next(), z = -42.0f + 84.0f * rng.next();
        const float size = 1.0f + 4.0f * rng.next() * rng.next();
        if (rng.next() < 0.6f) {  // 4 r^2 - 4 r triangles for r rings
            const int rings =
                std::max(3, static_cast<int>(std::lround(0.5 + 0.5 * std::sqrt(1.0 + perObject))));
            const float c[3] = {x, terrainHeight(x, z, seed) + size * 0.8f, z};
            addSphere(m, c, size, rings);
        } else {  // 4 m^2 triangles for m segments around the tube
            const int segs = std::max(3, static_cast<int>(std::lround(std::sqrt(perObject / 4.0))));
            const float c[3] = {x, terrainHeight(x, z, seed) + size * 1.2f, z};
            addTorus(m, c, size, size * 0.3f, segs, kPi * rng.next());
        }
    }
    return m;
}

}  // namespace qelr_example
