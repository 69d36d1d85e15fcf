// A planar volume owned by a test: padded rows, one pointer per plane.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

namespace qelr_test {

template <class T>
struct PlanarVolume {
    int width, height, depth;
    int rowElems;  // row pitch in elements (padded)
    std::vector<T> data;
    std::vector<T*> planes;
    std::vector<const T*> constPlanes;

    PlanarVolume(int w, int h, int d, T fill = T(0), int pad = 3)
        : width(w),
          height(h),
          depth(d),
          rowElems(w + pad),
          data(static_cast<size_t>(rowElems) * h * d, fill) {
        for (int z = 0; z < d; ++z) {
            planes.push_back(data.data() + static_cast<size_t>(z) * rowElems * h);
            constPlanes.push_back(planes.back());
        }
    }
    int rowStep() const { return rowElems * static_cast<int>(sizeof(T)); }
    T& at(int x, int y, int z) { return planes[z][y * rowElems + x]; }
    const T& at(int x, int y, int z) const { return planes[z][y * rowElems + x]; }

    // Values uniformly in [lo, hi] (integers for integer types).
    void randomize(std::mt19937& rng, double lo, double hi) {
        std::uniform_real_distribution<double> u(lo, hi);
        for (auto& v : data) {
            const double r = u(rng);
            v = std::is_floating_point_v<T> ? static_cast<T>(r) : static_cast<T>(std::floor(r));
        }
    }
};

}  // namespace qelr_test
