#include "sky.h"

#include <cmath>
#include <vector>

namespace qelr_render {

namespace {

Vec3 mix(Vec3 a, Vec3 b, float t) {
    return {a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t};
}

}  // namespace

Vec3 skyRadiance(Vec3 d, Vec3 sun) {
    const Vec3 zenith{0.18f, 0.36f, 0.85f}, horizon{0.85f, 0.88f, 0.95f};
    const Vec3 groundNear{0.42f, 0.38f, 0.34f}, groundFar{0.16f, 0.15f, 0.14f};
    Vec3 c;
    if (d.y >= 0.0f) {
        c = mix(horizon, zenith, std::pow(d.y, 0.45f));
    } else {
        c = mix(groundNear, groundFar, std::pow(-d.y, 0.5f));
    }
    const float cosSun = d.x * sun.x + d.y * sun.y + d.z * sun.z;
    if (cosSun > 0.0f && d.y > -0.05f) {
        const float glow = 0.9f * std::pow(cosSun, 12.0f) + 6.0f * std::pow(cosSun, 600.0f);
        c.x += glow * 1.0f;
        c.y += glow * 0.82f;
        c.z += glow * 0.6f;
    }
    return c;
}

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
