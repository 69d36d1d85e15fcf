// A pinhole camera, turned into the corner and step vectors of the eye rays.
#pragma once

namespace qelr_render {

struct Vec3 {
    float x, y, z;
};

struct Camera {
    Vec3 eye;
    Vec3 target;
    Vec3 up;
    float verticalFovDegrees;
};

// The direction through the centre of pixel (0, 0) and the change of
// direction from one column and one row to the next, for an image of
// width x height pixels; the direction through pixel centre (i, j) is
// corner + i * stepX + j * stepY. The centre of the image looks along
// target - eye, with unit length.
struct EyeRays {
    float corner[3];
    float stepX[3];
    float stepY[3];
};

EyeRays eyeRaysOf(const Camera& camera, int width, int height);

}  // namespace qelr_render
