// qelr-sh-plot: the real spherical-harmonic basis drawn on the sphere. One
// picture per basis function (l, m), band l on row l, m from -l to l across;
// each shows the sphere seen from slightly above the equator, red where the
// function is positive, blue where it is negative, brighter where it is
// larger, lit from the upper left.
//
//   qelr-sh-plot [output.png] [order]     (defaults: qelr-sh-basis.png, 4)
#include <qelr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "png_writer.h"

namespace {

constexpr int kCell = 72;  // pixels per picture, square
constexpr float kTilt = 0.35f;  // radians the view is raised above the equator

// The unit directions seen at the pixels of one picture (NaN outside the disc).
void viewDirections(std::vector<float>& x, std::vector<float>& y, std::vector<float>& z,
                    std::vector<float>& light) {
    const float c = std::cos(kTilt), s = std::sin(kTilt);
    for (int row = 0; row < kCell; ++row) {
        for (int col = 0; col < kCell; ++col) {
            // Screen coordinates in [-1, 1], 8 % of margin.
            const float u = ((col + 0.5f) / kCell * 2.0f - 1.0f) * 1.08f;
            const float v = (1.0f - (row + 0.5f) / kCell * 2.0f) * 1.08f;
            const float r2 = u * u + v * v;
            if (r2 >= 1.0f) {
                x.push_back(0.0f), y.push_back(0.0f), z.push_back(1.0f), light.push_back(-1.0f);
                continue;
            }
            const float w = std::sqrt(1.0f - r2);  // toward the viewer
            // Viewer on the -y side, raised by kTilt: screen u is world x,
            // screen v and depth w rotate about x.
            x.push_back(u);
            y.push_back(-(w * c - v * s));
            z.push_back(v * c + w * s);
            light.push_back(std::max(0.0f, (-0.4f * u + 0.5f * v + 0.77f * w)) * 0.75f + 0.25f);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* output = argc > 1 ? argv[1] : "qelr-sh-basis.png";
    const int order = argc > 2 ? std::atoi(argv[2]) : 4;
    if (order < 0 || order > 15) {
        std::fprintf(stderr, "order must be 0 to 15\n");
        return 2;
    }
    const int functions = (order + 1) * (order + 1);

    std::vector<float> x, y, z, light;
    viewDirections(x, y, z, light);
    const int n = kCell * kCell;

    // The state for the direct (closed-form) algorithm, then the whole basis
    // at every pixel direction in one call.
    uint32_t size = 0;
    if (qelrSHGetSize_32f(order, qelSHDirect, &size) != qelOk) return 1;
    QelSHEngine* engine = static_cast<QelSHEngine*>(qelMalloc(static_cast<int>(size)));
    if (engine == nullptr || qelrSHInit_32f(engine, order, qelSHDirect) != qelOk) return 1;
    std::vector<float> basis(static_cast<size_t>(n) * functions);
    const QelStatus status = qelrSH_32f(x.data(), y.data(), z.data(), n, basis.data(), order, engine);
    qelFree(engine);
    if (status != qelOk) {
        std::fprintf(stderr, "qelrSH_32f: status %d\n", status);
        return 1;
    }

    const int columns = 2 * order + 1, width = columns * kCell, height = (order + 1) * kCell;
    std::vector<uint8_t> image(static_cast<size_t>(width) * height * 3, 255);
    for (int l = 0; l <= order; ++l) {
        for (int m = -l; m <= l; ++m) {
            const int k = l * l + l + m;
            float peak = 1e-6f;
            for (int i = 0; i < n; ++i) peak = std::max(peak, std::fabs(basis[size_t(i) * functions + k]));
            const int left = (order + m) * kCell, top = l * kCell;
            for (int i = 0; i < n; ++i) {
                if (light[i] < 0.0f) continue;
                const float value = basis[size_t(i) * functions + k] / peak;  // -1 .. 1
                // Grey where the function is near zero, blending into red
                // (positive) or blue (negative) as its magnitude grows.
                const float t = std::pow(std::fabs(value), 0.7f);
                const float grey = 0.93f * light[i];
                const float tint[3] = {value > 0 ? 0.9f : 0.12f, 0.18f, value > 0 ? 0.12f : 0.9f};
                float rgb[3];
                for (int c = 0; c < 3; ++c) rgb[c] = grey * (1.0f - t) + tint[c] * light[i] * t;
                uint8_t* p = &image[(size_t(top + i / kCell) * width + left + i % kCell) * 3];
                for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::clamp(rgb[c], 0.0f, 1.0f) * 255.0f + 0.5f);
            }
        }
    }
    if (!qelr_example::writePng(output, image.data(), width, height, 3)) {
        std::fprintf(stderr, "cannot write %s\n", output);
        return 1;
    }
    std::printf("spherical-harmonic basis, bands 0 to %d (%d functions), written to %s (%d x %d)\n",
                order, functions, output, width, height);
    return 0;
}
