// Forward and inverse transforms and the array operations behind them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "sh_reference.h"
#include "test_util.h"

namespace {

using qelr_test::bitsOf;
using sh_test::Directions;
using sh_test::Engine;
using sh_test::kSelectors;

std::vector<float> randomValues(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    std::vector<float> v(n);
    for (auto& x : v) x = u(rng);
    return v;
}

// A zero sample adds +0, not the -0 that a product with a negative basis
// value would give; a sample of one adds the basis itself.
TEST(SHTransform, ZeroAndOneShortcuts) {
    const float x = 0.0f, y = -1.0f, z = 0.0f, one = 1.0f;  // basis values of both signs
    Engine e(3, qelSHDirect);
    for (float v : {0.0f, -0.0f}) {
        std::vector<float> c(16, -0.0f);
        ASSERT_EQ(qelrSHTFwd_32f_C1I(&x, &y, &z, &v, 1, c.data(), 3, e.get()), qelOk);
        for (float k : c) EXPECT_EQ(bitsOf(k), 0u);
    }
    float c[16] = {}, basis[16];
    ASSERT_EQ(qelrSHTFwd_32f_C1I(&x, &y, &z, &one, 1, c, 3, e.get()), qelOk);
    ASSERT_EQ(qelrSH_32f(&x, &y, &z, 1, basis, 3, e.get()), qelOk);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(c[k], basis[k]) << k;  // -0 + +0 is +0
}

// The three-channel layouts are three one-channel transforms side by side,
// and every variant writes the same bytes, NaN and infinite samples included.
TEST(SHTransform, ChannelLayoutsAndVariantsAgreeBitwise) {
    const Directions d = sh_test::randomDirections(30, 8);  // 35: vectors and a tail
    const int n = d.count();
    const float *x = d.x.data(), *y = d.y.data(), *z = d.z.data();
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order : {2u, 5u, 15u}) {
            const int count = (order + 1) * (order + 1);
            Engine e(order, algorithm);
            std::vector<float> planes[3], coeffs[3], interleaved(3 * n);
            for (int c = 0; c < 3; ++c) {
                planes[c] = randomValues(n, 30 + c);
                coeffs[c] = randomValues(count, 50 + c);
            }
            planes[1][4] = qelr_test::floatOf(0x7FC05678u);
            planes[2][7] = INFINITY;
            coeffs[2][count - 1] = qelr_test::floatOf(0xFFC0ABCDu);
            for (int i = 0; i < 3 * n; ++i) interleaved[i] = planes[i % 3][i / 3];
            const float* src[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
            const float* cin[3] = {coeffs[0].data(), coeffs[1].data(), coeffs[2].data()};
            std::vector<float> first;  // everything the first variant wrote
            for (auto isa : sh_test::variants()) {
#define V(f) QELR_VARIANT(isa, f)
                std::vector<float> fwd[3][3], inv[3];  // [layout][channel], [channel]
                float* dst[2][3];
                std::vector<float> invP3(3 * n), invC3(3 * n);
                float* invDst[3] = {&invP3[0], &invP3[n], &invP3[2 * n]};
                for (int c = 0; c < 3; ++c) {
                    for (int k = 0; k < 3; ++k) fwd[k][c] = randomValues(count, 40 + c);
                    dst[0][c] = fwd[1][c].data();
                    dst[1][c] = fwd[2][c].data();
                    inv[c].resize(n);
                    ASSERT_EQ(V(qelrSHTFwd_32f_C1I)(x, y, z, src[c], n, fwd[0][c].data(), order,
                                                    e.get()), qelOk);
                    ASSERT_EQ(V(qelrSHTInv_32f_C1)(cin[c], order, x, y, z, inv[c].data(), n,
                                                   e.get()), qelOk);
                }
                ASSERT_EQ(V(qelrSHTFwd_32f_C3P3I)(x, y, z, interleaved.data(), n, dst[0], order,
                                                  e.get()), qelOk);
                ASSERT_EQ(V(qelrSHTFwd_32f_P3I)(x, y, z, src, n, dst[1], order, e.get()), qelOk);
                ASSERT_EQ(V(qelrSHTInv_32f_P3)(cin, order, x, y, z, invDst, n, e.get()), qelOk);
                ASSERT_EQ(V(qelrSHTInv_32f_P3C3)(cin, order, x, y, z, invC3.data(), n, e.get()),
                          qelOk);
#undef V
                std::vector<float> all;
                for (int c = 0; c < 3; ++c) {
                    EXPECT_EQ(std::memcmp(fwd[0][c].data(), fwd[1][c].data(), 4 * count), 0);
                    EXPECT_EQ(std::memcmp(fwd[0][c].data(), fwd[2][c].data(), 4 * count), 0);
                    for (int i = 0; i < n; ++i) {
                        EXPECT_EQ(bitsOf(invP3[c * n + i]), bitsOf(inv[c][i]));
                        EXPECT_EQ(bitsOf(invC3[3 * i + c]), bitsOf(inv[c][i]));
                    }
                    all.insert(all.end(), fwd[0][c].begin(), fwd[0][c].end());
                    all.insert(all.end(), inv[c].begin(), inv[c].end());
                }
                if (first.empty()) first = all;
                EXPECT_EQ(std::memcmp(all.data(), first.data(), 4 * all.size()), 0)
                    << qelr::frame::isaName(isa) << " selector " << algorithm << " order " << order;
            }
        }
    }
}

// A band-limited function sampled on a quadrature grid projects onto its
// coefficients (added to what the array holds), and the inverse reproduces
// it at other directions.
TEST(SHTransform, RoundTripReproducesABandLimitedFunction) {
    const Directions d = sh_test::randomDirections(50, 13);
    for (uint32_t algorithm : kSelectors) {
        for (int order : {0, 3, 15}) {
            Engine e(order, algorithm);
            const int count = (order + 1) * (order + 1);
            const auto truth = randomValues(count, 77);
            const auto f = [&](const Directions& p, int i) {
                const auto y = sh_test::referenceBasis(p.x[i], p.y[i], p.z[i], order);
                double sum = 0;
                for (int k = 0; k < count; ++k) sum += truth[k] * y[k];
                return sum;
            };
            const auto q = sh_test::sphereQuadrature(order);
            const int n = q.dirs.count();
            std::vector<float> samples(n), coeffs(count, 1.0f), values(d.count());
            for (int i = 0; i < n; ++i) samples[i] = static_cast<float>(f(q.dirs, i) * q.weight[i]);
            ASSERT_EQ(qelrSHTFwd_32f_C1I(q.dirs.x.data(), q.dirs.y.data(), q.dirs.z.data(),
                                         samples.data(), n, coeffs.data(), order, e.get()),
                      qelOk);
            for (int k = 0; k < count; ++k) EXPECT_NEAR(coeffs[k], truth[k] + 1.0f, 2e-5) << k;
            for (int k = 0; k < count; ++k) coeffs[k] -= 1.0f;
            ASSERT_EQ(qelrSHTInv_32f_C1(coeffs.data(), order, d.x.data(), d.y.data(), d.z.data(),
                                        values.data(), d.count(), e.get()),
                      qelOk);
            for (int i = 0; i < d.count(); ++i)
                EXPECT_NEAR(values[i], f(d, i), 2e-4 * count / 16.0 + 1e-6) << i;
        }
    }
}

TEST(SHTransform, StatusesInTheirOrder) {
    const float p[1] = {0.0f};
    float w[16] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
    float* planes[3] = {w, w, w};
    float* holed[3] = {w, nullptr, w};
    const float* cplanes[3] = {w, w, w};
    const float* choled[3] = {w, w, nullptr};
    Engine small(1, qelSHDirect), deep(20, qelSHRecurrence);
    const QelSHEngine* e = small.get();
    EXPECT_EQ(qelrSHTFwd_32f_C1I(p, p, p, nullptr, -1, w, 1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTFwd_32f_C1I(p, p, p, p, 1, w, 1, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrSHTFwd_32f_C3P3I(p, p, p, p, -1, holed, 1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTFwd_32f_P3I(p, p, p, choled, -1, planes, 1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTFwd_32f_P3I(p, p, p, cplanes, -1, holed, 1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 1, p, nullptr, p, w, 1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTInv_32f_P3(choled, 1, p, p, p, planes, -1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTInv_32f_P3(cplanes, 1, p, p, p, holed, -1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTInv_32f_P3(cplanes, 1, p, p, p, nullptr, -1, e), qelErrNullPointer);
    EXPECT_EQ(qelrSHTInv_32f_P3C3(choled, 1, p, p, p, w, -1, e), qelErrNullPointer);

    EXPECT_EQ(qelrSHTFwd_32f_C1I(p, p, p, p, 0, w, 9, e), qelErrSize);
    EXPECT_EQ(qelrSHTInv_32f_P3C3(cplanes, 9, p, p, p, w, 0, e), qelErrSize);
    EXPECT_EQ(qelrSHTFwd_32f_C3P3I(p, p, p, p, -1, planes, 2, e), qelErrBadArgument);
    EXPECT_EQ(qelrSHTInv_32f_P3(cplanes, 2, p, p, p, planes, -1, e), qelErrBadArgument);
    EXPECT_EQ(qelrSHTFwd_32f_P3I(p, p, p, cplanes, -1, planes, 1, e), qelOk);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 1, p, p, p, w, -3, e), qelOk);
    // Orders above 15 that the state allows are refused before any sample,
    // unless there is no sample to process; so is an unknown selector.
    EXPECT_EQ(qelrSHTFwd_32f_C1I(p, p, p, p, 1, w, 16, deep.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSHTInv_32f_P3C3(cplanes, 16, p, p, p, w, 1, deep.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 17, p, p, p, w, -1, deep.get()), qelOk);
    alignas(16) uint32_t unknown[4] = {3, 2, 0, 0};
    const auto* bad = reinterpret_cast<const QelSHEngine*>(unknown);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 1, p, p, p, w, 1, bad), qelErrBadArgument);
    EXPECT_EQ(qelrSHTFwd_32f_P3I(p, p, p, cplanes, 1, planes, 1, bad), qelErrBadArgument);
    for (float v : w) EXPECT_EQ(v, 5.0f);
}

}  // namespace
