// Helpers of the spherical-harmonic tests: engine blocks, directions and an independent double-precision reference
// of the basis (associated Legendre recurrence in z, trigonometric azimuth).
#pragma once

#include <qelcore.h>
#include <qelr.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "core/dispatch.h"

namespace sh_test {

constexpr uint32_t kSelectors[] = {qelSHDirect, qelSHRecurrence};

// The instruction-set variants this processor runs.
inline std::vector<qelr::frame::Isa> variants() {
    std::vector<qelr::frame::Isa> v;
    for (auto isa : qelr::frame::kIsas)
        if (qelr::frame::isaRuns(isa)) v.push_back(isa);
    return v;
}

// A state block of the reported size from qelMalloc (16-byte aligned).
struct Engine {
    uint32_t size = 0;
    QelStatus status;
    void* block = nullptr;
    Engine(uint32_t order, uint32_t algorithm)
        : status(qelrSHGetSize_32f(order, algorithm, &size)) {
        if (status == qelOk) block = qelMalloc(static_cast<int>(size));
        if (block != nullptr) status = qelrSHInit_32f(get(), order, algorithm);
    }
    ~Engine() { qelFree(block); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    QelSHEngine* get() const { return static_cast<QelSHEngine*>(block); }
};

// Planes of unit directions (normalised in double, rounded to float).
struct Directions {
    std::vector<float> x, y, z;
    int count() const { return static_cast<int>(x.size()); }
    void add(double a, double b, double c) {
        const double r = std::sqrt(a * a + b * b + c * c);
        x.push_back(static_cast<float>(a / r));
        y.push_back(static_cast<float>(b / r));
        z.push_back(static_cast<float>(c / r));
    }
};

inline Directions randomDirections(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    Directions d;
    for (int i = 0; i < n; ++i) d.add(g(rng), g(rng), g(rng));
    // The poles and the equator, where factors vanish.
    const double special[5][3] = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {0, -1, 0}, {1, 1, 0}};
    for (const auto& s : special) d.add(s[0], s[1], s[2]);
    return d;
}

// Real orthonormal basis with the Condon-Shortley phase up to `order`, evaluated in double precision.
inline std::vector<double> referenceBasis(float fx, float fy, float fz, int order) {
    const double x = fx, y = fy, z = fz;
    const double phi = std::atan2(y, x);
    const double sinTheta = std::sqrt(std::fmax(0.0, 1.0 - z * z));
    std::vector<double> out((order + 1) * (order + 1));
    for (int m = 0; m <= order; ++m) {
        // P_m^m, P_{m+1}^m, then upwards in l.
        double pmm = 1.0;
        for (int k = 1; k <= m; ++k) pmm *= -(2.0 * k - 1.0) * sinTheta;
        double pPrev = 0.0, p = pmm;
        for (int l = m; l <= order; ++l) {
            if (l == m + 1) {
                pPrev = p;
                p = z * (2.0 * m + 1.0) * pmm;
            } else if (l > m + 1) {
                const double next = ((2.0 * l - 1.0) * z * p - (l + m - 1.0) * pPrev) / (l - m);
                pPrev = p;
                p = next;
            }
            double ratio = 1.0;  // (l-m)!/(l+m)!
            for (int k = l - m + 1; k <= l + m; ++k) ratio /= k;
            const double norm = std::sqrt((2.0 * l + 1.0) / (4.0 * M_PI) * ratio);
            if (m == 0) {
                out[l * l + l] = norm * p;
            } else {
                out[l * l + l + m] = std::sqrt(2.0) * norm * p * std::cos(m * phi);
                out[l * l + l - m] = std::sqrt(2.0) * norm * p * std::sin(m * phi);
            }
        }
    }
    return out;
}

// Root-sum-square of a band over m, the same for every unit direction.
inline double bandNorm(int l) { return std::sqrt((2.0 * l + 1.0) / (4.0 * M_PI)); }

// Directions and weights that integrate products of two functions of order up to `order` over the sphere exactly:
// Gauss-Legendre nodes in z times uniform azimuths.
struct Quadrature {
    Directions dirs;
    std::vector<double> weight;
};

inline Quadrature sphereQuadrature(int order) {
    const int nz = order + 1;
    const int nphi = 2 * order + 2;
    Quadrature q;
    for (int i = 0; i < nz; ++i) {
        double t = std::cos(M_PI * (i + 0.75) / (nz + 0.5));
        double dp = 0.0;
        for (int iter = 0; iter < 100; ++iter) {
            double p0 = 1.0, p1 = t;
            for (int k = 2; k <= nz; ++k) {
                const double p2 = ((2.0 * k - 1.0) * t * p1 - (k - 1.0) * p0) / k;
                p0 = p1;
                p1 = p2;
            }
            dp = nz * (t * p1 - p0) / (t * t - 1.0);
            const double step = p1 / dp;
            t -= step;
            if (std::fabs(step) < 1e-16) break;
        }
        const double w = 2.0 / ((1.0 - t * t) * dp * dp);
        for (int j = 0; j < nphi; ++j) {
            const double phi = 2.0 * M_PI * (j + 0.5) / nphi;
            const double s = std::sqrt(1.0 - t * t);
            q.dirs.add(s * std::cos(phi), s * std::sin(phi), t);
            q.weight.push_back(w * 2.0 * M_PI / nphi);
        }
    }
    return q;
}

}  // namespace sh_test
