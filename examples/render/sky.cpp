#include "sky.h"

#include <cmath>
#include <vector>

namespace qelr_render {

namespace {

Vec3 mix(Vec3 a, Vec3 b, float t) {
    return {a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t};
}

}  // namespace

constexpr Vec3 kZenith{0.07f, 0.20f, 0.64f};
constexpr Vec3 kHorizon{0.64f, 0.73f, 0.86f};
constexpr Vec3 kGround{0.28f, 0.29f, 0.27f};

Vec3 skyRadiance(Vec3 d, Vec3 sun) {
    // Blue overhead, pale at the horizon; below it the haze darkens slowly
    // towards the ground, continuous with the horizon.
    Vec3 c = d.y >= 0.0f ? mix(kHorizon, kZenith, std::pow(d.y, 0.33f))
                         : mix(kHorizon, kGround, std::pow(-d.y, 0.6f));
    const float cosSun = d.x * sun.x + d.y * sun.y + d.z * sun.z;
    if (cosSun > 0.0f && d.y > -0.05f) {
        const float glow = 0.7f * std::pow(cosSun, 10.0f) + 8.0f * std::pow(cosSun, 800.0f);
        c.x += glow * 1.0f;
        c.y += glow * 0.85f;
        c.z += glow * 0.62f;
    }
    return c;
}

Vec3 hazeColour() { return kHorizon; }

SkyLight::~SkyLight() { qelFree(engine_); }

bool SkyLight::init(Vec3 sun) {
    uint32_t size = 0;
    if (qelrSHGetSize_32f(kOrder, qelSHRecurrence, &size) != qelOk) return false;
    engine_ = static_cast<QelSHEngine*>(qelMalloc(int(size)));
    if (engine_ == nullptr || qelrSHInit_32f(engine_, kOrder, qelSHRecurrence) != qelOk) {
        return false;
    }
    // Directions spread evenly over the sphere (a Fibonacci spiral), each
    // standing for 4 pi / n of solid angle.
    constexpr int n = 4096;
    std::vector<float> x(n), y(n), z(n), r(n), g(n), b(n);
    const float golden = 3.14159265f * (3.0f - std::sqrt(5.0f));
    const float weight = 4.0f * 3.14159265f / n;
    for (int i = 0; i < n; ++i) {
        y[i] = 1.0f - (2.0f * i + 1.0f) / n;
        const float ring = std::sqrt(1.0f - y[i] * y[i]);
        x[i] = ring * std::cos(golden * i);
        z[i] = ring * std::sin(golden * i);
        const Vec3 s = skyRadiance({x[i], y[i], z[i]}, sun);
        r[i] = s.x * weight;
        g[i] = s.y * weight;
        b[i] = s.z * weight;
    }
    const float* src[3] = {r.data(), g.data(), b.data()};
    float* coeffs[3] = {coeffs_[0], coeffs_[1], coeffs_[2]};
    if (qelrSHTFwd_32f_P3I(x.data(), y.data(), z.data(), src, n, coeffs, kOrder, engine_) !=
        qelOk) {
        return false;
    }
    // The clamped cosine lobe over pi, band by band: 1, 2/3, 1/4.
    static constexpr float kLobe[kOrder + 1] = {1.0f, 2.0f / 3.0f, 0.25f};
    for (auto& channel : coeffs_) {
        for (uint32_t l = 0; l <= kOrder; ++l) {
            for (uint32_t k = l * l; k < (l + 1) * (l + 1); ++k) channel[k] *= kLobe[l];
        }
    }
    return true;
}

QelStatus SkyLight::evaluate(const float* nx, const float* ny, const float* nz, float* const out[3],
                             int n) const {
    const float* coeffs[3] = {coeffs_[0], coeffs_[1], coeffs_[2]};
    return qelrSHTInv_32f_P3(coeffs, kOrder, nx, ny, nz, out, n, engine_);
}

}  // namespace qelr_render
