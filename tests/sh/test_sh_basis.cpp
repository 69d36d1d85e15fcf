// Basis evaluation: accuracy against a double-precision reference, agreement
// of the two selectors, checkpoints, orthonormality, paths and statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/dispatch.h"
#include "sh_reference.h"
#include "test_util.h"

namespace {

using qelr_test::bitsOf;
using sh_test::bandNorm;
using sh_test::Directions;
using sh_test::Engine;
using qelr::frame::Isa;
using qelr::frame::isaName;
using sh_test::variants;

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

// Directions that exercise every path: random unit vectors, poles and the
// equator, a NaN with a payload, infinities and non-unit vectors.
Directions awkwardDirections() {
    Directions d = sh_test::randomDirections(14, 5);
    const float nan = qelr_test::floatOf(0x7FC01234u), inf = INFINITY;
    const float extra[][3] = {{nan, 0.5f, 0.5f}, {0.3f, inf, -0.2f}, {2.0f, -3.0f, 0.5f},
                              {-inf, 0.0f, nan}, {1e30f, 1e-30f, -1e30f}};
    for (const auto& e : extra) {
        d.x.push_back(e[0]);
        d.y.push_back(e[1]);
        d.z.push_back(e[2]);
    }
    return d;  // 24 directions: three vectors of eight, six of four
}

// Every variant writes the same bytes, for each pack size (so for every
// position of a direction in the vectors and the padded tail), and a band
// holds the bytes of the direct selector's full basis. The state may be
// copied before use.
TEST(SHBasis, VariantsAndPathsAgreeBitwise) {
    const Directions d = awkwardDirections();
    const int n = d.count();
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order = 0; order <= 15; ++order) {
            const int count = (order + 1) * (order + 1);
            Engine e(order, algorithm);
            std::vector<float> copy(e.size() / 4 + 4);
            std::memcpy(copy.data(), e.get(), e.size());
            const auto* moved = reinterpret_cast<const QelSHEngine*>(copy.data());
            const auto all = evaluate(d, order, algorithm);
            std::vector<float> out(n * count), band(n * (2 * order + 1));
            for (Isa isa : variants()) {
                for (int pack : {1, 3, 5, 8, 11}) {
                    for (int i = 0; i < n; i += pack)
                        ASSERT_EQ(QELR_VARIANT(isa, qelrSH_32f)(&d.x[i], &d.y[i], &d.z[i],
                                                                std::min(pack, n - i),
                                                                &out[i * count], order, moved),
                                  qelOk);
                    ASSERT_EQ(std::memcmp(out.data(), all.data(), 4 * out.size()), 0)
                        << isaName(isa) << " selector " << algorithm << " order " << order
                        << " pack " << pack;
                }
                if (algorithm != qelSHDirect) continue;
                ASSERT_EQ(QELR_VARIANT(isa, qelrSHBand_32f)(d.x.data(), d.y.data(), d.z.data(),
                                                            n, band.data(), order),
                          qelOk);
                for (int i = 0; i < n; ++i)
                    ASSERT_EQ(std::memcmp(&band[i * (2 * order + 1)],
                                          &all[i * count + order * order], 4 * (2 * order + 1)),
                              0)
                        << isaName(isa) << " band " << order << " direction " << i;
            }
        }
    }
}

// Large outputs are streamed; they hold the same bits as small calls on every
// variant, for aligned and unaligned destinations and odd coefficient counts.
TEST(SHBasis, StreamedOutputsAgreeBitwise) {
    const Directions d = sh_test::randomDirections(9400, 17);
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order : {15u, 14u}) {
            Engine e(order, algorithm);
            const int count = (order + 1) * (order + 1);
            const int n = static_cast<int>((8 << 20) / (4 * count)) + 5;  // over 8 MB
            ASSERT_LE(n, d.count());
            std::vector<float> big(static_cast<size_t>(n) * count + 4), small(big.size());
            for (int i = 0; i < n; i += 6)
                ASSERT_EQ(qelrSH_32f(&d.x[i], &d.y[i], &d.z[i], std::min(6, n - i),
                                     small.data() + static_cast<size_t>(i) * count, order,
                                     e.get()),
                          qelOk);
            for (Isa isa : variants()) {
                for (int shift : {0, 1}) {
                    ASSERT_EQ(QELR_VARIANT(isa, qelrSH_32f)(d.x.data(), d.y.data(), d.z.data(), n,
                                                            big.data() + shift, order, e.get()),
                              qelOk);
                    ASSERT_EQ(std::memcmp(big.data() + shift, small.data(),
                                          4 * static_cast<size_t>(n) * count),
                              0)
                        << isaName(isa) << " selector " << algorithm << " order " << order
                        << " shift " << shift;
                }
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
