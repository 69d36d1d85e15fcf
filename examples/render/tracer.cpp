#include "tracer.h"

#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>

#include "progress.h"

namespace qelr_render {

namespace {

constexpr int kBlock = 64;                   // block edge in pixels
constexpr int kBlockRays = kBlock * kBlock;  // rays per block
constexpr float kHitEps = 0.9995f;           // keeps hit points off their surface
constexpr float kAmbient = 0.55f;            // share of the sky light that reaches surfaces
constexpr float kExposure = 0.8f;

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

Vec3 unit(Vec3 v) {
    const float r = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return r > 0 ? Vec3{v.x / r, v.y / r, v.z / r} : Vec3{0, 1, 0};
}

// A filmic curve (a fit of the ACES reference tone map) keeps highlights
// from clipping and the shadows' contrast; then the sRGB curve.
uint8_t toByte(float linear) {
    const float v = kExposure * std::max(linear, 0.0f);
    const float x =
        std::clamp((v * (2.51f * v + 0.03f)) / (v * (2.43f * v + 0.59f) + 0.14f), 0.0f, 1.0f);
    const float s = x <= 0.0031308f ? 12.92f * x : 1.055f * std::pow(x, 1.0f / 2.4f) - 0.055f;
    return uint8_t(std::lround(std::clamp(s, 0.0f, 1.0f) * 255.0f));
}

// Element i of a pack of three planes.
void store(float* const pack[3], int i, Vec3 v) {
    pack[0][i] = v.x;
    pack[1][i] = v.y;
    pack[2][i] = v.z;
}

QelStatus check(QelStatus s, const char* what, std::string& error) {
    if (s < 0) error = std::string(what) + " failed with status " + std::to_string(s);
    return s;
}

}  // namespace

// The ray planes of one block, one set per thread, from one allocation.
struct Tracer::Block {
    explicit Block(float* memory) : memory_(memory) {
        if (memory == nullptr) return;
        float* p = memory;
        auto plane = [&p]() {
            float* q = p;
            p += kBlockRays;
            return q;
        };
        auto pack = [&](float* out[3]) {
            for (int c = 0; c < 3; ++c) out[c] = plane();
        };
        for (float** p3 : {dirs, points, normals, colour, albedo, shadowDirs, ambient, reflDirs,
                           points2, colour2}) {
            pack(p3);
        }
        for (float** p1 : {&dist, &dist2, &cosine, &cosView, &sign, &atten, &weight, &keep, &uv[0],
                           &uv[1], &uv2[0], &uv2[1]}) {
            *p1 = plane();
        }
        index = reinterpret_cast<int*>(plane());
        index2 = reinterpret_cast<int*>(plane());
        shadowMask = reinterpret_cast<int*>(plane());
        occluder = reinterpret_cast<int*>(plane());
        // The light must be on the side the normal faces (towards the viewer
        // after the facing correction): (point - light) . n < 0.
        std::fill(sign, sign + kBlockRays, -1.0f);
    }
    static constexpr int kPlanes = 10 * 3 + 8 + 4 + 4;
    ~Block() { qelFree(memory_); }

    float* memory_;
    float *dirs[3], *points[3], *normals[3], *colour[3], *albedo[3], *shadowDirs[3];
    float *ambient[3], *reflDirs[3], *points2[3], *colour2[3];
    float *dist, *dist2, *cosine, *cosView, *sign, *atten, *weight, *keep;
    float *uv[2], *uv2[2];
    int *index, *index2, *shadowMask, *occluder;
};

Tracer::~Tracer() {
    qelFree(accel_);
    if (tree_ != nullptr) qelrKDTreeFree(tree_);
}

bool Tracer::build(std::string& error, RenderStats& stats) {
    const auto t0 = std::chrono::steady_clock::now();
    const int vertexCount = scene_.vertexCount();
    const int triangleCount = scene_.triangleCount();
    const float* v = scene_.vertices.data();
    const int* t = scene_.triangles.data();

    int recordSize = 0;
    if (check(qelrTriangleAccelGetSize(&recordSize), "qelrTriangleAccelGetSize", error) < 0) {
        return false;
    }
    accel_ = static_cast<TriangleAccel*>(qelMalloc(recordSize * std::max(triangleCount, 1)));
    if (accel_ == nullptr) {
        error = "out of memory for the accelerator records";
        return false;
    }
    qelrTriangleAccelInit(accel_, v, t, triangleCount);
    if (check(qelrSetBoundBox_32f(v, vertexCount, bounds_), "qelrSetBoundBox_32f", error) < 0) {
        return false;
    }
    triangleNormals_.assign(3 * size_t(triangleCount), 0.0f);
    if (check(qelrTriangleNormal_32f(v, t, triangleNormals_.data(), triangleCount),
              "qelrTriangleNormal_32f", error) < 0) {
        return false;
    }
    const KDTreeBuildParams params{qelKdCostDriven, 40, 1.0f, 1024, 0};
    if (check(qelrKDTreeBuildAlloc(&tree_, v, t, vertexCount, triangleCount, &stats.treeBytes,
                                   &params),
              "qelrKDTreeBuildAlloc", error) < 0) {
        tree_ = nullptr;
        return false;
    }
    trace_ = {bounds_, accel_, tree_};

    // Vertex normals for smooth shading: the mean of the normals of the
    // triangles around each vertex.
    vertexNormals_.assign(3 * size_t(vertexCount), 0.0f);
    for (int i = 0; i < triangleCount; ++i) {
        for (int k = 0; k < 3; ++k) {
            float* n = &vertexNormals_[3 * size_t(t[4 * i + k])];
            for (int c = 0; c < 3; ++c) n[c] += triangleNormals_[3 * size_t(i) + c];
        }
    }
    for (int i = 0; i < vertexCount; ++i) {
        float* n = &vertexNormals_[3 * size_t(i)];
        const float r = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        for (int c = 0; c < 3 && r > 0; ++c) n[c] /= r;
    }
    stats.buildSeconds = secondsSince(t0);

    const Vec3 centre{0.5f * (bounds_[0] + bounds_[3]), 0.5f * (bounds_[1] + bounds_[4]),
                      0.5f * (bounds_[2] + bounds_[5])};
    const Vec3 toLight{scene_.light.x - centre.x, scene_.light.y - centre.y,
                       scene_.light.z - centre.z};
    lightDistanceSquared_ = toLight.x * toLight.x + toLight.y * toLight.y + toLight.z * toLight.z;
    sun_ = unit(toLight);
    const float diagonal = std::sqrt((bounds_[3] - bounds_[0]) * (bounds_[3] - bounds_[0]) +
                                     (bounds_[4] - bounds_[1]) * (bounds_[4] - bounds_[1]) +
                                     (bounds_[5] - bounds_[2]) * (bounds_[5] - bounds_[2]));
    fogDistance_ = 6.0f * diagonal;
    if (!sky_.init(sun_)) {
        error = "the spherical-harmonic sky could not be set up";
        return false;
    }
    return true;
}

// Shades the hits of a pack of rays: normals turned towards the ray, the
// point light where a shadow ray finds nothing in between, and the sky's
// ambient light; colour = albedo * (light + ambient) for hits, 0 for misses.
void Tracer::shadeHits(Block& b, QelSize2D size, const float* const dirs[3], const int* index,
                       const float* const uv[2], const float* const points[3],
                       float* const colour[3], int64_t& shadowRays) const {
    const int n = size.width * size.height;
    if (flat_) {
        qelrSurfFlatNormal_32f(triangleNormals_.data(), index, b.normals, n);
    } else {
        qelrSurfSmoothNormal_32f(vertexNormals_.data(), scene_.triangles.data(), index, uv,
                                 b.normals, n, 4);
    }
    qelrDotChangeNorm_32f_IM(dirs, index, b.normals, b.cosView, n);
    for (int i = 0; i < n; ++i) {
        const int t = index[i];
        for (int c = 0; c < 3; ++c) {
            colour[c][i] = 0.0f;
            b.albedo[c][i] = t < 0 ? 0.0f : scene_.albedo[3 * size_t(t) + c];
        }
        b.shadowMask[i] = t;
    }

    // Direct light: shadow rays run from the light to the points.
    const float light[3] = {scene_.light.x, scene_.light.y, scene_.light.z};
    qelrCastShadowSO_32f(light, b.sign, b.normals, points, b.shadowMask, b.cosine, b.shadowDirs, n);
    for (int i = 0; i < n; ++i) shadowRays += b.shadowMask[i] >= 0;
    qelrIntersectAnySO_32f(light, b.shadowDirs, b.occluder, b.shadowMask, size, &trace_);
    // cosine holds |(point - light) . n| = d cos(angle); divided by d three
    // times it becomes cos(angle) / d^2.
    qelrDistAttenuationSO_32f_M(light, points, b.shadowMask, b.atten, n);
    for (int k = 0; k < 3; ++k) qelrDiv_32f_C1IM(b.atten, b.shadowMask, b.cosine, n);
    const float d2 = lightDistanceSquared_;
    const float lightColour[3] = {2.3f * d2, 2.05f * d2, 1.7f * d2};
    qelrAddMulMul_32f_AC1P3IM(lightColour, b.cosine, b.albedo, b.shadowMask, colour, n);

    // Ambient light from the sky, evaluated at the normals (misses get any
    // unit vector, their result is not used).
    for (int i = 0; i < n; ++i) {
        if (index[i] < 0 ||
            (b.normals[0][i] == 0 && b.normals[1][i] == 0 && b.normals[2][i] == 0)) {
            store(b.normals, i, {0.0f, 1.0f, 0.0f});
        }
    }
    sky_.evaluate(b.normals[0], b.normals[1], b.normals[2], b.ambient, n);
    for (int i = 0; i < n; ++i) {
        if (index[i] < 0) continue;
        for (int c = 0; c < 3; ++c)
            colour[c][i] += b.albedo[c][i] * kAmbient * std::max(b.ambient[c][i], 0.0f);
    }
}

// Traces and shades one block of pixels into b.colour.
void Tracer::traceBlock(Block& b, QelSize2D size, QelPos2D pos, RenderStats& counts) const {
    const int n = size.width * size.height;
    const float eye[3] = {scene_.camera.eye.x, scene_.camera.eye.y, scene_.camera.eye.z};
    qelrCastEye_32f(eyeRays_.corner, eyeRays_.stepX, eyeRays_.stepY, kBlock, kBlock, pos, b.dirs,
                    size);
    std::fill(b.dist, b.dist + n, FLT_MAX);
    qelrIntersectEyeSO_32f(eye, b.dirs, b.dist, b.uv, b.index, &trace_, size);
    counts.eyeRays += n;
    qelrHitPoint3DEpsS0_32f_M(eye, b.dirs, b.dist, b.index, b.points, n, kHitEps);
    shadeHits(b, size, b.dirs, b.index, b.uv, b.points, b.colour, counts.shadowRays);

    // How much of the reflection is seen: the surface's reflectivity raised
    // towards 1 at grazing angles (Schlick's approximation of Fresnel).
    for (int i = 0; i < n; ++i) {
        const int t = b.index[i];
        if (t < 0) {
            b.weight[i] = b.keep[i] = 0.0f;
            b.dist2[i] = 0.0f;  // nothing to reflect: a distance of 0 hits nothing
            continue;
        }
        const float len = std::sqrt(b.dirs[0][i] * b.dirs[0][i] + b.dirs[1][i] * b.dirs[1][i] +
                                    b.dirs[2][i] * b.dirs[2][i]);
        const float cosView = std::min(1.0f, -b.cosView[i] / len);
        const float r0 = scene_.reflectivity[size_t(t)];
        const float g = 1.0f - cosView;
        const float grazing = g * g * g * g * g;
        b.weight[i] = r0 > 0.0f ? r0 + (1.0f - r0) * grazing * 0.6f : 0.0f;
        b.keep[i] = 1.0f - b.weight[i];
        b.dist2[i] = r0 > 0.0f ? FLT_MAX : 0.0f;  // matte surfaces reflect nothing
        counts.reflectionRays += r0 > 0.0f;
    }
    qelrMul_32f_C1P3IM(b.keep, b.index, b.colour, n);

    // One reflection bounce from the hit points.
    qelrCastReflectionRay_32f(b.dirs, b.index, b.normals, b.reflDirs, n);
    qelrIntersectMO_32f(b.points, b.reflDirs, b.dist2, b.uv2, b.index2, &trace_, size);
    qelrHitPoint3DEpsM0_32f_M(b.points, b.reflDirs, b.dist2, b.index2, b.points2, n, kHitEps);
    shadeHits(b, size, b.reflDirs, b.index2, b.uv2, b.points2, b.colour2, counts.shadowRays);
    for (int i = 0; i < n; ++i) {
        if (b.weight[i] > 0.0f && b.index2[i] < 0) {
            const Vec3 s =
                skyRadiance(unit({b.reflDirs[0][i], b.reflDirs[1][i], b.reflDirs[2][i]}), sun_);
            store(b.colour2, i, s);
        }
    }
    const float white[3] = {1.0f, 1.0f, 1.0f};
    qelrAddMulMul_32f_AC1P3IM(white, b.weight, b.colour2, b.index, b.colour, n);

    // Far surfaces fade into the haze; the sky is behind everything.
    const Vec3 haze = hazeColour();
    for (int i = 0; i < n; ++i) {
        const Vec3 d{b.dirs[0][i], b.dirs[1][i], b.dirs[2][i]};
        if (b.index[i] >= 0) {
            const float distance = b.dist[i] * std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
            const float fog = 1.0f - std::exp(-distance / fogDistance_);
            b.colour[0][i] += (haze.x - b.colour[0][i]) * fog;
            b.colour[1][i] += (haze.y - b.colour[1][i]) * fog;
            b.colour[2][i] += (haze.z - b.colour[2][i]) * fog;
            continue;
        }
        const Vec3 s = skyRadiance(unit(d), sun_);
        store(b.colour, i, s);
    }
}

bool Tracer::render(const RenderSettings& settings, std::vector<uint8_t>& rgb, std::string& error,
                    RenderStats& stats) {
    flat_ = settings.flatNormals;
    const int s = settings.samples;
    const int w = settings.width * s, h = settings.height * s;  // rays per row and column
    eyeRays_ = eyeRaysOf(scene_.camera, w, h);
    const int blocksX = (w + kBlock - 1) / kBlock, blocksY = (h + kBlock - 1) / kBlock;
    std::vector<float> hdr(3 * size_t(w) * h);
    Progress progress("rendering", blocksX * blocksY, settings.progressBar);
    bool outOfMemory = false;
    const auto t0 = std::chrono::steady_clock::now();

#pragma omp parallel
    {
        float* memory =
            static_cast<float*>(qelMalloc(int(sizeof(float)) * kBlockRays * Block::kPlanes));
        if (memory == nullptr) {
#pragma omp atomic write
            outOfMemory = true;
        }
        Block b(memory);
        RenderStats counts;
#pragma omp for schedule(dynamic, 1) collapse(2)
        for (int by = 0; by < blocksY; ++by) {
            for (int bx = 0; bx < blocksX; ++bx) {
                if (memory == nullptr) continue;
                const QelSize2D size{std::min(kBlock, w - bx * kBlock),
                                     std::min(kBlock, h - by * kBlock)};
                traceBlock(b, size, QelPos2D{bx, by}, counts);
                for (int j = 0; j < size.height; ++j) {
                    float* row = &hdr[3 * (size_t(by * kBlock + j) * w + bx * kBlock)];
                    for (int i = 0; i < size.width; ++i) {
                        for (int c = 0; c < 3; ++c)
                            row[3 * i + c] = b.colour[c][j * size.width + i];
                    }
                }
                progress.step();
            }
        }
#pragma omp critical
        {
            stats.eyeRays += counts.eyeRays;
            stats.shadowRays += counts.shadowRays;
            stats.reflectionRays += counts.reflectionRays;
        }
    }
    stats.renderSeconds = secondsSince(t0);
    if (outOfMemory) {
        error = "out of memory for the ray planes";
        return false;
    }

    // Average the samples of each pixel, then tone-map.
    rgb.assign(3 * size_t(settings.width) * settings.height, 0);
    const float norm = 1.0f / float(s * s);
    for (int y = 0; y < settings.height; ++y) {
        for (int x = 0; x < settings.width; ++x) {
            for (int c = 0; c < 3; ++c) {
                float sum = 0;
                for (int j = 0; j < s; ++j) {
                    for (int i = 0; i < s; ++i)
                        sum += hdr[3 * (size_t(y * s + j) * w + x * s + i) + c];
                }
                rgb[3 * (size_t(y) * settings.width + x) + c] = toByte(sum * norm);
            }
        }
    }
    return true;
}

}  // namespace qelr_render
