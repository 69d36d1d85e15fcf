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
    const auto same = [](const std::vector<float>& a, const std::vector<float>& b) {
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), 4 * a.size()) == 0;
    };
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
                // Channel c at offset c * count (coefficients) or c * n (values);
                // the forward transforms add to the same initial coefficients.
                const std::vector<float> initial = randomValues(3 * count, 40);
                std::vector<float> fwd[3] = {initial, initial, initial}, inv(3 * n), invP3(3 * n),
                                   invC3(3 * n);
                float* out[3][3];
                for (int k = 0; k < 3; ++k)
                    for (int c = 0; c < 3; ++c)
                        out[k][c] = k < 2 ? &fwd[k + 1][c * count] : &invP3[c * n];
#define V(f) QELR_VARIANT(isa, f)
                for (int c = 0; c < 3; ++c) {
                    ASSERT_EQ(V(qelrSHTFwd_32f_C1I)(x, y, z, src[c], n, &fwd[0][c * count], order,
                                                    e.get()),
                              qelOk);
                    ASSERT_EQ(V(qelrSHTInv_32f_C1)(cin[c], order, x, y, z, &inv[c * n], n, e.get()),
                              qelOk);
                }
                ASSERT_EQ(
                    V(qelrSHTFwd_32f_C3P3I)(x, y, z, interleaved.data(), n, out[0], order, e.get()),
                    qelOk);
                ASSERT_EQ(V(qelrSHTFwd_32f_P3I)(x, y, z, src, n, out[1], order, e.get()), qelOk);
                ASSERT_EQ(V(qelrSHTInv_32f_P3)(cin, order, x, y, z, out[2], n, e.get()), qelOk);
                ASSERT_EQ(V(qelrSHTInv_32f_P3C3)(cin, order, x, y, z, invC3.data(), n, e.get()),
                          qelOk);
#undef V
                EXPECT_TRUE(same(fwd[1], fwd[0]) && same(fwd[2], fwd[0]) && same(invP3, inv));
                for (int i = 0; i < 3 * n; ++i)
                    EXPECT_EQ(bitsOf(invC3[i]), bitsOf(inv[(i % 3) * n + i / 3]));
                fwd[0].insert(fwd[0].end(), inv.begin(), inv.end());
                if (first.empty()) first = fwd[0];
                EXPECT_TRUE(same(fwd[0], first))
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

// Orders above 15 that the state allows, and unknown selectors, are refused
// before any sample is touched, unless there is no sample.
TEST(SHTransform, RefusedBeforeAnySample) {
    const float p[1] = {0.0f};
    float w[16] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
    float* planes[3] = {w, w, w};
    const float* cplanes[3] = {w, w, w};
    Engine deep(20, qelSHRecurrence);
    alignas(16) uint32_t unknown[4] = {3, 2, 0, 0};
    const auto* bad = reinterpret_cast<const QelSHEngine*>(unknown);
    EXPECT_EQ(qelrSHTInv_32f_P3C3(cplanes, 16, p, p, p, w, 1, deep.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 17, p, p, p, w, -1, deep.get()), qelOk);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 1, p, p, p, w, 1, bad), qelErrBadArgument);
    EXPECT_EQ(qelrSHTFwd_32f_P3I(p, p, p, cplanes, 1, planes, 1, bad), qelErrBadArgument);
    for (float v : w) EXPECT_EQ(v, 5.0f);
}

}  // namespace
