// Volumes for the benchmark programs: a contiguous volume with its plane
// pointers, a smooth phantom with noise, a rotation about the centre, and
// coordinate maps of a transform.
#pragma once

#include <qelr.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace qelr_bench {

// w x h x d elements, contiguous, planes in order.
template <class T>
struct Volume {
    int w, h, d;
    std::vector<T> data;
    std::vector<T*> planes;
    Volume(int w_, int h_, int d_) : w(w_), h(h_), d(d_), data(size_t(w_) * h_ * d_) {
        for (int z = 0; z < d; ++z) planes.push_back(data.data() + size_t(z) * w * h);
    }
    explicit Volume(int n) : Volume(n, n, n) {}
    QelVolumeSize size() const { return {w, h, d}; }
    QelBox3D box() const { return {0, 0, 0, w, h, d}; }
    int rowStep() const { return w * int(sizeof(T)); }
    const T* const* in() const { return planes.data(); }
    T& at(int x, int y, int z) { return data[(size_t(z) * h + y) * w + x]; }
    size_t bytes() const { return data.size() * sizeof(T); }
};

// A ball of 150 with a ripple, in a background of 20, plus noise in [0, 20).
template <class T>
Volume<T> phantom(int w, int h, int d, uint32_t seed = 1) {
    Volume<T> v(w, h, d);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> noise(0, 20);
    for (int z = 0; z < d; ++z)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const double r = std::hypot(x - 0.5 * w, y - 0.47 * h, z - 0.52 * d);
                v.at(x, y, z) = T((r < 0.4 * w ? 150 + 30 * std::sin(x * 0.2) : 20) + noise(rng));
            }
    return v;
}

// A rotation by 30 degrees about z and 20 about x, about the centre of an
// n-cube, as the warp's coefficients (x' = c[0] . (x, y, z, 1), ...).
inline void rotation(int n, double c[3][4]) {
    const double a = 30 * M_PI / 180, b = 20 * M_PI / 180, m = (n - 1) / 2.0;
    const double r[3][3] = {{std::cos(a), -std::sin(a) * std::cos(b), std::sin(a) * std::sin(b)},
                            {std::sin(a), std::cos(a) * std::cos(b), -std::cos(a) * std::sin(b)},
                            {0, std::sin(b), std::cos(b)}};
    for (int i = 0; i < 3; ++i) {
        c[i][3] = m;
        for (int j = 0; j < 3; ++j) {
            c[i][j] = r[i][j];
            c[i][3] -= r[i][j] * m;
        }
    }
}

// The remap coordinate maps of a transform over an n-cube.
struct Maps {
    Volume<float> x, y, z;
    Maps(int n, const double c[3][4]) : x(n), y(n), z(n) {
        Volume<float>* m[3] = {&x, &y, &z};
        for (int k = 0; k < n; ++k)
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i)
                    for (int a = 0; a < 3; ++a)
                        m[a]->at(i, j, k) = float(c[a][0] * i + c[a][1] * j + c[a][2] * k + c[a][3]);
    }
};

}  // namespace qelr_bench
