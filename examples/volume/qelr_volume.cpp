// qelr-volume: the volume functions of libqelr on a synthetic phantom.
//
// Builds a 3-D phantom of nested ellipsoids, then resizes it, warps it (a
// rotation), remaps it (a swirl about the z axis) and filters a 16-bit copy
// with a smoothing and an edge kernel, timing each call, and writes every
// result as a PNG montage of slices.
//
//     qelr-volume [output-directory]
#include <qelcore.h>
#include <qelr.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "png_writer.h"

namespace {

constexpr int kN = 128;  // the phantom is kN^3

// A planar volume in one allocation, with one pointer per plane and `margin`
// elements, rows and planes of border around it (the filter reads past the
// region it writes).
template <class T>
struct Volume {
    int width, height, depth, margin;
    std::vector<T> data;
    std::vector<T*> planes;  // plane z - margin, pointing at its element (0, 0)

    Volume(int w, int h, int d, int m = 0)
        : width(w),
          height(h),
          depth(d),
          margin(m),
          data(size_t(w + 2 * m) * (h + 2 * m) * (d + 2 * m)) {
        for (int z = 0; z < d + 2 * m; ++z) {
            planes.push_back(data.data() + (size_t(z) * (h + 2 * m) + m) * (w + 2 * m) + m);
        }
    }
    int rowStep() const { return (width + 2 * margin) * int(sizeof(T)); }
    // Plane pointers addressing element (0, 0, 0) of the region.
    T* const* region() { return planes.data() + margin; }
    const T* const* region() const { return planes.data() + margin; }
    T& at(int x, int y, int z) { return region()[z][y * (width + 2 * margin) + x]; }
    T at(int x, int y, int z) const { return region()[z][y * (width + 2 * margin) + x]; }
};

// Ellipsoids: centre, half axes (in units of the half volume), rotation about
// z in degrees and the value added inside.
struct Ellipsoid {
    double cx, cy, cz, ax, ay, az, angle, value;
};

constexpr Ellipsoid kPhantom[] = {
    {0.0, 0.0, 0.0, 0.69, 0.92, 0.81, 0, 1.0},          // skull
    {0.0, -0.0184, 0.0, 0.6624, 0.874, 0.78, 0, -0.8},  // brain
    {0.22, 0.0, 0.0, 0.11, 0.31, 0.22, -18, -0.2},      // ventricles
    {-0.22, 0.0, 0.0, 0.16, 0.41, 0.28, 18, -0.2},
    {0.0, 0.35, -0.15, 0.21, 0.25, 0.41, 0, 0.1},
    {0.0, 0.1, 0.25, 0.046, 0.046, 0.05, 0, 0.2},
    {-0.08, -0.605, 0.0, 0.046, 0.023, 0.05, 0, 0.3},
    {0.06, -0.605, 0.0, 0.023, 0.046, 0.02, 0, 0.3},
    {0.3, 0.3, 0.4, 0.1, 0.08, 0.1, 30, 0.4},
};

float phantomAt(int x, int y, int z) {
    const double h = (kN - 1) / 2.0;
    const double px = (x - h) / h, py = (y - h) / h, pz = (z - h) / h;
    double v = 0;
    for (const Ellipsoid& e : kPhantom) {
        const double a = e.angle * M_PI / 180;
        const double dx = px - e.cx, dy = py - e.cy, dz = pz - e.cz;
        const double u = dx * std::cos(a) + dy * std::sin(a);
        const double w = -dx * std::sin(a) + dy * std::cos(a);
        if ((u * u) / (e.ax * e.ax) + (w * w) / (e.ay * e.ay) + (dz * dz) / (e.az * e.az) <= 1) {
            v += e.value;
        }
    }
    return float(v);
}

// Runs `call` once, prints its time and rate over `voxels` destination voxels.
void timed(const char* what, size_t voxels, const std::function<QelStatus()>& call) {
    const auto t0 = std::chrono::steady_clock::now();
    const QelStatus status = call();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("  %-34s %8.1f ms  %8.1f Mvoxels/s  (status %d)\n", what, s * 1e3, voxels / s / 1e6,
                int(status));
}

// Eight slices along z, evenly spaced over the middle 70% of the depth, side
// by side in a 4 x 2 grid; the values are mapped linearly from [lo, hi] to
// black..white.
template <class T>
void writeMontage(const std::string& path, const Volume<T>& v, double lo, double hi) {
    const int cols = 4, rows = 2, w = v.width, h = v.height;
    std::vector<uint8_t> image(size_t(cols) * w * rows * h);
    for (int s = 0; s < cols * rows; ++s) {
        const int z = int((0.15 + 0.7 * s / (cols * rows - 1)) * (v.depth - 1));
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const double t = (double(v.at(x, y, z)) - lo) / (hi - lo);
                const size_t px = size_t((s / cols) * h + y) * cols * w + (s % cols) * w + x;
                image[px] = uint8_t(std::lround(255 * std::clamp(t, 0.0, 1.0)));
            }
        }
    }
    if (qelr_example::writePng(path, image.data(), cols * w, rows * h, 1)) {
        std::printf("  wrote %s\n", path.c_str());
    } else {
        std::printf("  could not write %s\n", path.c_str());
    }
}

// The forward transform of a rotation by `az` degrees about z and `ax` about
// x, about the centre of the volume.
void rotationAboutCentre(double az, double ax, double c[3][4]) {
    const double a = az * M_PI / 180, b = ax * M_PI / 180;
    const double r[3][3] = {{std::cos(a), -std::sin(a), 0},
                            {std::sin(a) * std::cos(b), std::cos(a) * std::cos(b), -std::sin(b)},
                            {std::sin(a) * std::sin(b), std::cos(a) * std::sin(b), std::cos(b)}};
    const double centre = (kN - 1) / 2.0;
    for (int i = 0; i < 3; ++i) {
        c[i][3] = centre;
        for (int j = 0; j < 3; ++j) {
            c[i][j] = r[i][j];
            c[i][3] -= r[i][j] * centre;
        }
    }
}

// Resizes the whole of `src` by `scale` on every axis into `dst` (whose size
// the caller took from qelrGetResizeCuboid).
QelStatus resize(const Volume<uint8_t>& src, Volume<uint8_t>& dst, double scale, int mode) {
    const QelBox3D srcBox{0, 0, 0, src.width, src.height, src.depth};
    const QelBox3D dstBox{0, 0, 0, dst.width, dst.height, dst.depth};
    int size = 0;
    QelStatus status = qelrResizeGetBufSize(srcBox, dstBox, 1, mode, &size);
    if (status != qelOk) return status;
    std::vector<QelU8> buffer(size);
    return qelrResize_8u_C1PV(src.region(), QelVolumeSize{src.width, src.height, src.depth},
                              src.rowStep(), srcBox, dst.region(), dst.rowStep(), dstBox, scale,
                              scale, scale, 0, 0, 0, mode, buffer.data());
}

// The maps of a swirl about the z axis through the centre: a voxel at radius
// r < R reads the source rotated by maxTurn * (1 - r / R) radians.
struct SwirlMaps {
    Volume<float> x{kN, kN, kN}, y{kN, kN, kN}, z{kN, kN, kN};

    explicit SwirlMaps(double maxTurn) {
        const double c = (kN - 1) / 2.0, R = 0.9 * c;
        for (int k = 0; k < kN; ++k)
            for (int j = 0; j < kN; ++j)
                for (int i = 0; i < kN; ++i) {
                    const double dx = i - c, dy = j - c, r = std::hypot(dx, dy);
                    const double t = r < R ? maxTurn * (1 - r / R) * (1 - r / R) : 0;
                    x.at(i, j, k) = float(c + dx * std::cos(t) - dy * std::sin(t));
                    y.at(i, j, k) = float(c + dx * std::sin(t) + dy * std::cos(t));
                    z.at(i, j, k) = float(k);
                }
    }
};

// Filters `src` (which carries a margin of at least 1) with a 3x3x3 kernel.
QelStatus filter3(const Volume<int16_t>& src, Volume<int16_t>& dst, const int32_t kernel[27],
                  int divisor) {
    const QelVolumeSize roi{dst.width, dst.height, dst.depth}, ks{3, 3, 3};
    int size = 0;
    QelStatus status = qelrFilterGetBufSize(roi, ks, 1, &size);
    if (status != qelOk) return status;
    std::vector<QelU8> buffer(size);
    return qelrFilter_16s_C1PV(src.region(), src.rowStep(), dst.region(), dst.rowStep(), roi,
                               kernel, ks, QelOffset3D{1, 1, 1}, divisor, buffer.data());
}

}  // namespace

int main(int argc, char** argv) {
    const std::string dir = argc > 1 ? std::string(argv[1]) + "/" : std::string();
    const size_t voxels = size_t(kN) * kN * kN;
    std::printf("qelr-volume: %d^3 phantom, %d threads\n", kN, ownGetNumThreads());

    // The phantom as 8-bit and as 16-bit signed (with a border of one
    // element, replicated from the faces, for the 3x3x3 filters).
    Volume<uint8_t> phantom8(kN, kN, kN);
    Volume<int16_t> phantom16(kN, kN, kN, 1);
    for (int z = -1; z <= kN; ++z)
        for (int y = -1; y <= kN; ++y)
            for (int x = -1; x <= kN; ++x) {
                const auto inside = [](int v) { return std::clamp(v, 0, kN - 1); };
                const float v = phantomAt(inside(x), inside(y), inside(z));
                phantom16.at(x, y, z) = int16_t(std::lround(1000 * v));
                if (x == inside(x) && y == inside(y) && z == inside(z)) {
                    phantom8.at(x, y, z) = uint8_t(std::lround(std::clamp(v, 0.0f, 1.0f) * 255));
                }
            }
    writeMontage(dir + "volume_phantom.png", phantom8, 0, 255);

    // Resize: down by 0.6 (linear) and up by 1.5 (Catmull-Rom).
    for (const auto& [scale, mode, name] :
         {std::tuple{0.6, int(qelInterpLinear), "down_linear"},
          std::tuple{1.5, int(qelInterpCubicCatmullRom), "up_catmull_rom"}}) {
        QelBox3D out{};
        qelrGetResizeCuboid(QelBox3D{0, 0, 0, kN, kN, kN}, &out, scale, scale, scale, 0, 0, 0,
                            mode);
        Volume<uint8_t> resized(out.width, out.height, out.depth);
        const std::string what = std::string("resize x") + (scale < 1 ? "0.6" : "1.5") +
                                 (mode == qelInterpLinear ? " (8u, linear)" : " (8u, Catmull-Rom)");
        timed(what.c_str(), resized.data.size(),
              [&] { return resize(phantom8, resized, scale, mode); });
        writeMontage(dir + "volume_resize_" + name + ".png", resized, 0, 255);
    }

    // Affine warp: a rotation about the centre, Catmull-Rom interpolation.
    Volume<uint8_t> rotated(kN, kN, kN);
    double coeffs[3][4];
    rotationAboutCentre(25, 15, coeffs);
    const QelVolumeSize size{kN, kN, kN};
    const QelBox3D box{0, 0, 0, kN, kN, kN};
    timed("warp, rotation (8u, Catmull-Rom)", voxels, [&] {
        return qelrWarpAffine_8u_C1PV(phantom8.region(), size, phantom8.rowStep(), box,
                                      rotated.region(), rotated.rowStep(), box, coeffs,
                                      qelInterpCubicCatmullRom);
    });
    writeMontage(dir + "volume_warp_rotation.png", rotated, 0, 255);

    // Remap: a swirl about the z axis, trilinear.
    const SwirlMaps swirl(2.0);
    Volume<uint8_t> swirled(kN, kN, kN);
    timed("remap, swirl (8u, linear)", voxels, [&] {
        return qelrRemap_8u_C1PV(phantom8.region(), size, phantom8.rowStep(), box, swirl.x.region(),
                                 swirl.y.region(), swirl.z.region(), swirl.x.rowStep(),
                                 swirled.region(), swirled.rowStep(), size, qelInterpLinear);
    });
    writeMontage(dir + "volume_remap_swirl.png", swirled, 0, 255);

    // Filters: a binomial smoothing (1 2 1 in each axis, divisor 64) and the
    // six-neighbour Laplacian as an edge kernel.
    int32_t smooth[27], laplace[27];
    for (int i = 0; i < 27; ++i) {
        const int w[3] = {1, 2, 1};
        smooth[i] = w[i % 3] * w[i / 3 % 3] * w[i / 9];
        const int faces = (i % 3 != 1) + (i / 3 % 3 != 1) + (i / 9 != 1);
        laplace[i] = i == 13 ? 6 : (faces == 1 ? -1 : 0);
    }
    Volume<int16_t> smoothed(kN, kN, kN), edges(kN, kN, kN);
    timed("filter 3x3x3, smoothing (16s)", voxels,
          [&] { return filter3(phantom16, smoothed, smooth, 64); });
    timed("filter 3x3x3, Laplacian edges (16s)", voxels,
          [&] { return filter3(phantom16, edges, laplace, 1); });
    writeMontage(dir + "volume_filter_smooth.png", smoothed, -100, 1100);
    for (auto& v : edges.data) v = int16_t(std::abs(int(v)));
    writeMontage(dir + "volume_filter_edges.png", edges, 0, 400);
    return 0;
}
