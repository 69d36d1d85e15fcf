// Basis evaluation: accuracy against a double-precision reference, agreement
// of the two selectors, checkpoints, orthonormality, paths and statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "sh/sh_basis.h"
#include "sh_reference.h"
#include "test_util.h"

namespace {

using qelr_test::bitsOf;
using sh_test::bandNorm;
using sh_test::Directions;
using sh_test::Engine;

constexpr uint32_t kSelectors[] = {qelSHDirect, qelSHRecurrence};

std::vector<float> evaluate(const Directions& d, uint32_t order, uint32_t algorithm) {
    Engine e(order, algorithm);
    std::vector<float> out(static_cast<size_t>(d.count()) * (order + 1) * (order + 1));
    EXPECT_EQ(qelrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.count(), out.data(), order, e.get()),
              qelOk);
    return out;
}

// Largest error of each band against the reference, relative to the band's
// root-sum-square (which is the same for every unit direction).
std::vector<double> bandErrors(const Directions& d, const std::vector<float>& values, int order) {
    std::vector<double> worst(order + 1, 0.0);
    const int count = (order + 1) * (order + 1);
    for (int i = 0; i < d.count(); ++i) {
        const auto ref = sh_test::referenceBasis(d.x[i], d.y[i], d.z[i], order);
        for (int l = 0; l <= order; ++l) {
            for (int k = l * l; k < (l + 1) * (l + 1); ++k) {
                const double err = std::fabs(values[i * count + k] - ref[k]) / bandNorm(l);
                worst[l] = std::fmax(worst[l], err);
            }
        }
    }
    return worst;
}

TEST(SHBasis, BothSelectorsMatchTheReferenceAtEveryOrder) {
    const Directions d = sh_test::randomDirections(60, 7);
    for (uint32_t algorithm : kSelectors) {
        for (int order = 0; order <= 15; ++order) {
            const auto worst = bandErrors(d, evaluate(d, order, algorithm), order);
            for (int l = 0; l <= order; ++l) {
                // A few single-precision roundings, growing slowly with the band.
                const double bound = 3e-7 + 1.5e-7 * l;
                EXPECT_LT(worst[l], bound) << "selector " << algorithm << " band " << l;
            }
        }
    }
}

TEST(SHBasis, SelectorsAgree) {
    const Directions d = sh_test::randomDirections(500, 11);
    const auto direct = evaluate(d, 15, qelSHDirect);
    const auto recur = evaluate(d, 15, qelSHRecurrence);
    for (int l = 0; l <= 15; ++l) {
        double worst = 0;
        for (int i = 0; i < d.count(); ++i)
            for (int k = l * l; k < (l + 1) * (l + 1); ++k)
                worst = std::fmax(worst, std::fabs(direct[i * 256 + k] - recur[i * 256 + k]));
        EXPECT_LT(worst / bandNorm(l), 1e-5) << "band " << l;
    }
}

TEST(SHBasis, Checkpoints) {
    const Directions d = sh_test::randomDirections(40, 3);
    for (uint32_t algorithm : kSelectors) {
        const auto v = evaluate(d, 3, algorithm);
        for (int i = 0; i < d.count(); ++i) {
            const double x = d.x[i], y = d.y[i], z = d.z[i];
            const double expect[16] = {0.282094806432724,
                                       -0.4886025119029199 * y,
                                       0.4886025119029199 * z,
                                       -0.4886025119029199 * x,
                                       1.092548430592079 * x * y,
                                       -1.092548430592079 * y * z,
                                       0.31539156525252 * (3 * z * z - 1),
                                       -1.092548430592079 * x * z,
                                       0.5462742152960395 * (x * x - y * y),
                                       0.5900435899266435 * (y * y * y - 3 * x * x * y),
                                       2.890611442640554 * x * y * z,
                                       -0.4570457994644657 * y * (5 * z * z - 1),
                                       0.3731763325901154 * z * (5 * z * z - 3),
                                       -0.4570457994644657 * x * (5 * z * z - 1),
                                       1.445305721320277 * z * (x * x - y * y),
                                       -0.5900435899266435 * (x * x * x - 3 * x * y * y)};
            for (int k = 0; k < 16; ++k)
                EXPECT_NEAR(v[16 * i + k], expect[k], 4e-7)
                    << "selector " << algorithm << " k " << k;
        }
    }
}

TEST(SHBasis, PoleAndBandZeroValues) {
    const float x[2] = {0, 0.6f}, y[2] = {0, -0.8f}, z[2] = {1, 0};
    for (uint32_t algorithm : kSelectors) {
        Engine e(15, algorithm);
        std::vector<float> out(512);
        ASSERT_EQ(qelrSH_32f(x, y, z, 1, out.data(), 15, e.get()), qelOk);
        EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
        EXPECT_NEAR(out[2], 0.4886025, 1e-7);
        for (int l = 1; l <= 15; ++l) {
            for (int m = -l; m <= l; ++m) {
                if (m != 0) {
                    EXPECT_EQ(out[l * l + l + m], 0.0f) << l << " " << m;
                }
            }
        }
        // Order 0 writes exactly one value per direction.
        out.assign(3, -1.0f);
        ASSERT_EQ(qelrSH_32f(x, y, z, 2, out.data(), 0, e.get()), qelOk);
        EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
        EXPECT_EQ(bitsOf(out[1]), 0x3E906EBBu);
        EXPECT_EQ(out[2], -1.0f);
    }
    // The recurrence's band 1 carries table A's bits.
    Engine e(1, qelSHRecurrence);
    const float one = 1.0f, zero = 0.0f;
    float out[4];
    ASSERT_EQ(qelrSH_32f(&zero, &one, &zero, 1, out, 1, e.get()), qelOk);
    EXPECT_EQ(bitsOf(out[1]), 0xBEFA2A1Du);
    ASSERT_EQ(qelrSH_32f(&zero, &zero, &one, 1, out, 1, e.get()), qelOk);
    EXPECT_EQ(bitsOf(out[2]), 0x3EFA2A1Du);
}

TEST(SHBasis, OrthonormalUnderQuadrature) {
    const auto q = sh_test::sphereQuadrature(15);
    for (uint32_t algorithm : kSelectors) {
        const auto v = evaluate(q.dirs, 15, algorithm);
        double worst = 0;
        for (int a = 0; a < 256; ++a) {
            for (int b = a; b < 256; ++b) {
                double sum = 0;
                for (int i = 0; i < q.dirs.count(); ++i)
                    sum += q.weight[i] * v[i * 256 + a] * v[i * 256 + b];
                worst = std::fmax(worst, std::fabs(sum - (a == b ? 1.0 : 0.0)));
            }
        }
        EXPECT_LT(worst, 3e-6) << "selector " << algorithm;
    }
}

// Packs of four directions and single directions give the same bits, the
// band function gives the direct selector's bits, and a copied state works.
TEST(SHBasis, PathsAgreeBitwise) {
    const Directions d = sh_test::randomDirections(8, 5);  // 13 directions
    const int n = d.count();
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order = 0; order <= 15; ++order) {
            const int count = (order + 1) * (order + 1);
            const auto all = evaluate(d, order, algorithm);
            Engine e(order, algorithm);
            std::vector<float> copy(e.size() / 4 + 4);
            std::memcpy(copy.data(), e.get(), e.size());
            const auto* moved = reinterpret_cast<const QelSHEngine*>(copy.data());
            std::vector<float> one(count);
            for (int i = 0; i < n; ++i) {
                ASSERT_EQ(qelrSH_32f(&d.x[i], &d.y[i], &d.z[i], 1, one.data(), order, moved),
                          qelOk);
                ASSERT_EQ(std::memcmp(one.data(), &all[i * count], 4 * count), 0)
                    << "selector " << algorithm << " order " << order << " direction " << i;
            }
            if (algorithm != qelSHDirect) continue;
            std::vector<float> band(n * (2 * order + 1));
            ASSERT_EQ(qelrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), n, band.data(), order),
                      qelOk);
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(std::memcmp(&band[i * (2 * order + 1)], &all[i * count + order * order],
                                      4 * (2 * order + 1)),
                          0)
                    << "band " << order << " direction " << i;
        }
    }
}

// Large outputs are streamed; they hold the same bits as small calls, for
// aligned and unaligned destinations and odd coefficient counts.
TEST(SHBasis, StreamedOutputsAgreeBitwise) {
    const Directions d = sh_test::randomDirections(9400, 17);
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order : {15u, 14u}) {
            Engine e(order, algorithm);
            const int count = (order + 1) * (order + 1);
            const int n = static_cast<int>(qelr::sh::kStreamingBytes / (4 * count)) + 5;
            ASSERT_LE(n, d.count());
            std::vector<float> big(static_cast<size_t>(n) * count + 4), small(big.size());
            for (int shift : {0, 1}) {
                ASSERT_EQ(qelrSH_32f(d.x.data(), d.y.data(), d.z.data(), n, big.data() + shift,
                                     order, e.get()),
                          qelOk);
                for (int i = 0; i < n; i += 6) {
                    const int chunk = std::min(6, n - i);
                    ASSERT_EQ(qelrSH_32f(&d.x[i], &d.y[i], &d.z[i], chunk,
                                         small.data() + shift + static_cast<size_t>(i) * count,
                                         order, e.get()),
                              qelOk);
                }
                ASSERT_EQ(std::memcmp(big.data() + shift, small.data() + shift,
                                      4 * static_cast<size_t>(n) * count),
                          0)
                    << "selector " << algorithm << " order " << order << " shift " << shift;
            }
        }
    }
}

TEST(SHBasis, StatusesInTheirOrder) {
    const float p[1] = {0};
    float out[4] = {7, 7, 7, 7};
    Engine direct(3, qelSHDirect);
    Engine recur(20, qelSHRecurrence);
    const QelSHEngine* e = direct.get();
    EXPECT_EQ(qelrSH_32f(nullptr, p, p, 0, out, 99, e), qelErrNullPointer);
    EXPECT_EQ(qelrSH_32f(p, nullptr, p, 1, out, 0, e), qelErrNullPointer);
    EXPECT_EQ(qelrSH_32f(p, p, nullptr, 1, out, 0, e), qelErrNullPointer);
    EXPECT_EQ(qelrSH_32f(p, p, p, 1, nullptr, 0, e), qelErrNullPointer);
    EXPECT_EQ(qelrSH_32f(p, p, p, 1, out, 0, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrSH_32f(p, p, p, 0, out, 99, e), qelErrSize);
    EXPECT_EQ(qelrSH_32f(p, p, p, -1, out, 4, e), qelErrBadArgument);
    EXPECT_EQ(qelrSH_32f(p, p, p, -1, out, 3, e), qelOk);
    EXPECT_EQ(qelrSH_32f(p, p, p, 1, out, 16, recur.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSH_32f(p, p, p, -1, out, 16, recur.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSH_32f(p, p, p, -1, out, 15, recur.get()), qelOk);
    alignas(16) uint32_t unknown[4] = {15, 2, 0, 0};
    EXPECT_EQ(qelrSH_32f(p, p, p, 1, out, 1, reinterpret_cast<const QelSHEngine*>(unknown)),
              qelErrBadArgument);

    EXPECT_EQ(qelrSHBand_32f(nullptr, p, p, 1, out, 0), qelErrNullPointer);
    EXPECT_EQ(qelrSHBand_32f(p, nullptr, p, 1, out, 0), qelErrNullPointer);
    EXPECT_EQ(qelrSHBand_32f(p, p, nullptr, 1, out, 0), qelErrNullPointer);
    EXPECT_EQ(qelrSHBand_32f(p, p, p, 1, nullptr, 99), qelErrNullPointer);
    EXPECT_EQ(qelrSHBand_32f(p, p, p, 0, out, 16), qelErrBadArgument);
    EXPECT_EQ(qelrSHBand_32f(p, p, p, 0, out, 15), qelErrSize);
    EXPECT_EQ(qelrSHBand_32f(p, p, p, -5, out, 15), qelOk);
    for (float v : out) EXPECT_EQ(v, 7.0f);
}

}  // namespace
