// The procedural sky: its radiance in any direction, and the diffuse light it
// casts on a surface, through spherical harmonics.
#pragma once

#include <qelr.h>

#include "camera.h"

namespace qelr_render {

// Sky radiance seen along the unit direction `d` (y is up) with the sun
// towards the unit direction `sun`: a blue gradient to a pale horizon, a
// glow round the sun and a dark ground below the horizon.
Vec3 skyRadiance(Vec3 d, Vec3 sun);

// The colour that distant surfaces fade into.
Vec3 hazeColour();

// The irradiance the sky gives a surface of normal n, divided by pi (so a
// surface of albedo a reflects a * value): the sky is sampled, projected on
// the spherical-harmonic basis with the forward transform, the bands are
// weighted by the cosine lobe, and the inverse transform evaluates them at
// the normals.
class SkyLight {
 public:
    static constexpr uint32_t kOrder = 2;

    SkyLight() = default;
    ~SkyLight();
    SkyLight(const SkyLight&) = delete;
    SkyLight& operator=(const SkyLight&) = delete;

    // Projects the sky of sun direction `sun`; false if the library refuses.
    bool init(Vec3 sun);

    // out[c][i] = the light of normal (nx[i], ny[i], nz[i]); unit normals.
    QelStatus evaluate(const float* nx, const float* ny, const float* nz, float* const out[3],
                       int n) const;

 private:
    QelSHEngine* engine_ = nullptr;
    float coeffs_[3][(kOrder + 1) * (kOrder + 1)] = {};
};

}  // namespace qelr_render
