#include "camera.h"

#include <cmath>

namespace qelr_render {

namespace {

Vec3 sub(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec3 cross(Vec3 a, Vec3 b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
Vec3 unit(Vec3 a) {
    const float r = std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z);
    return {a.x / r, a.y / r, a.z / r};
}

}  // namespace

EyeRays eyeRaysOf(const Camera& camera, int width, int height) {
    const Vec3 forward = unit(sub(camera.target, camera.eye));
    const Vec3 right = unit(cross(forward, camera.up));
    const Vec3 up = cross(right, forward);
    const float halfHeight = std::tan(camera.verticalFovDegrees * 3.14159265f / 360.0f);
    const float halfWidth = halfHeight * float(width) / float(height);
    // Pixel centres span [-1 + 1/W, 1 - 1/W] across and [1 - 1/H, -1 + 1/H] down.
    const float sx = 2.0f * halfWidth / float(width);
    const float sy = 2.0f * halfHeight / float(height);
    const float x0 = -halfWidth + 0.5f * sx;
    const float y0 = halfHeight - 0.5f * sy;
    const float f[3] = {forward.x, forward.y, forward.z};
    const float r[3] = {right.x, right.y, right.z};
    const float u[3] = {up.x, up.y, up.z};
    EyeRays rays;
    for (int c = 0; c < 3; ++c) {
        rays.corner[c] = f[c] + x0 * r[c] + y0 * u[c];
        rays.stepX[c] = sx * r[c];
        rays.stepY[c] = -sy * u[c];
    }
    return rays;
}

}  // namespace qelr_render
