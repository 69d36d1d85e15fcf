// Renders a scene with the library: accelerator records and a cost-driven
// KD-tree once, then per 64 x 64 block of pixels eye rays, nearest hits,
// normals, shadow rays towards the light, one reflection bounce and the sky's
// spherical-harmonic ambient light.
#pragma once

#include <qelr.h>

#include <cstdint>
#include <string>
#include <vector>

#include "scene.h"
#include "sky.h"

namespace qelr_render {

struct RenderSettings {
    int width = 640;  // image pixels
    int height = 400;
    int samples = 1;  // samples per pixel along each axis
    bool flatNormals = false;
    bool progressBar = false;
};

struct RenderStats {
    double buildSeconds = 0;  // accelerator records, triangle normals and KD-tree
    double renderSeconds = 0;
    int64_t eyeRays = 0;
    int64_t shadowRays = 0;
    int64_t reflectionRays = 0;
    int treeBytes = 0;
    int64_t rays() const { return eyeRays + shadowRays + reflectionRays; }
};

class Tracer {
 public:
    explicit Tracer(const Scene& scene) : scene_(scene) {}
    ~Tracer();
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    // Builds what tracing needs; false with `error` set when the library fails.
    bool build(std::string& error, RenderStats& stats);

    // Renders into `rgb` (three bytes per pixel, rows top to bottom).
    bool render(const RenderSettings& settings, std::vector<uint8_t>& rgb, std::string& error,
                RenderStats& stats);

 private:
    struct Block;
    void traceBlock(Block& b, QelSize2D size, QelPos2D pos, RenderStats& counts) const;
    void shadeHits(Block& b, QelSize2D size, const float* const dirs[3], const int* index,
                   const float* const uv[2], const float* const points[3], float* const colour[3],
                   int64_t& shadowRays) const;

    const Scene& scene_;
    TriangleAccel* accel_ = nullptr;
    KDTreeNode* tree_ = nullptr;
    float bounds_[6] = {};
    std::vector<float> triangleNormals_;
    std::vector<float> vertexNormals_;
    QelTraceScene trace_{};
    SkyLight sky_;
    Vec3 sun_{};
    float lightDistanceSquared_ = 1.0f;  // from the light to the scene's centre
    float fogDistance_ = 1.0f;           // distance at which 63% of a colour is haze
    EyeRays eyeRays_{};
    bool flat_ = false;
};

}  // namespace qelr_render
