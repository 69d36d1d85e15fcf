// Forward and inverse transforms and the array operations behind them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "core/dispatch.h"
#include "sh_reference.h"
#include "test_util.h"

namespace {

using qelr_test::bitsOf;
using sh_test::Directions;
using sh_test::Engine;
using qelr::frame::Isa;
using qelr::frame::isaName;
using sh_test::variants;

constexpr uint32_t kSelectors[] = {qelSHDirect, qelSHRecurrence};

std::vector<float> randomValues(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    std::vector<float> v(n);
    for (auto& x : v) x = u(rng);
    return v;
}

std::vector<float> basisOf(const Directions& d, int i, uint32_t order, const QelSHEngine* e) {
    std::vector<float> b((order + 1) * (order + 1));
    EXPECT_EQ(qelrSH_32f(&d.x[i], &d.y[i], &d.z[i], 1, b.data(), order, e), qelOk);
    return b;
}

// Forward: each coefficient gains v * basis sample by sample, in float, with
// the exact zero and one samples among them.
TEST(SHTransform, ForwardAccumulatesSampleBySample) {
    const Directions d = sh_test::randomDirections(20, 21);
    const int n = d.count();
    auto v = randomValues(n, 4);
    v[1] = 1.0f;
    v[2] = 0.0f;
    v[3] = -0.0f;
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order : {0u, 2u, 7u, 15u}) {
            Engine e(order, algorithm);
            const int count = (order + 1) * (order + 1);
            auto coeffs = randomValues(count, 9);  // existing content is kept
            auto expect = coeffs;
            for (int i = 0; i < n; ++i) {
                const auto b = basisOf(d, i, order, e.get());
                for (int k = 0; k < count; ++k) expect[k] += b[k] * v[i];
            }
            ASSERT_EQ(qelrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), v.data(), n,
                                         coeffs.data(), order, e.get()),
                      qelOk);
            EXPECT_EQ(std::memcmp(coeffs.data(), expect.data(), 4 * count), 0) << order;
        }
    }
}

// The zero shortcut adds +0, not the -0 that a product with a negative basis
// value would give; all-zero samples leave the values of the coefficients.
TEST(SHTransform, ZeroAndOneShortcuts) {
    const float x = 0.0f, y = -1.0f, z = 0.0f;  // basis values of both signs
    Engine e(3, qelSHDirect);
    for (float v : {0.0f, -0.0f}) {
        std::vector<float> c(16, -0.0f);
        ASSERT_EQ(qelrSHTFwd_32f_C1I(&x, &y, &z, &v, 1, c.data(), 3, e.get()), qelOk);
        for (float k : c) EXPECT_EQ(bitsOf(k), 0u);
    }
    const float one = 1.0f;
    std::vector<float> c(4, 0.0f);
    const float zz = 1.0f, zero = 0.0f;
    ASSERT_EQ(qelrSHTFwd_32f_C1I(&zero, &zero, &zz, &one, 1, c.data(), 1, e.get()), qelOk);
    EXPECT_EQ(bitsOf(c[0]), 0x3E906EBBu);
    EXPECT_NEAR(c[2], 0.4886025, 1e-7);
    EXPECT_EQ(c[1], 0.0f);
    EXPECT_EQ(c[3], 0.0f);
}

// The three-channel layouts are three one-channel transforms side by side,
// and every variant writes the same bytes, NaN and infinite samples included.
TEST(SHTransform, ChannelLayoutsAndVariantsAgreeBitwise) {
    const Directions d = sh_test::randomDirections(30, 8);  // 35: vectors and a tail
    const int n = d.count();
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order : {2u, 5u, 15u}) {
            const int count = (order + 1) * (order + 1);
            Engine e(order, algorithm);
            std::vector<float> planes[3], interleaved(3 * n);
            for (int c = 0; c < 3; ++c) planes[c] = randomValues(n, 30 + c);
            planes[1][4] = qelr_test::floatOf(0x7FC05678u);
            planes[2][7] = INFINITY;
            for (int c = 0; c < 3; ++c)
                for (int i = 0; i < n; ++i) interleaved[3 * i + c] = planes[c][i];
            std::vector<float> first;  // everything the first variant wrote
            for (Isa isa : variants()) {
#define V(f) QELR_VARIANT(isa, f)
                std::vector<float> single[3], viaC3[3], viaP3[3];
                for (int c = 0; c < 3; ++c) {
                    single[c] = viaC3[c] = viaP3[c] = randomValues(count, 40 + c);
                    ASSERT_EQ(V(qelrSHTFwd_32f_C1I)(d.x.data(), d.y.data(), d.z.data(),
                                                    planes[c].data(), n, single[c].data(), order,
                                                    e.get()),
                              qelOk);
                }
                float* c3[3] = {viaC3[0].data(), viaC3[1].data(), viaC3[2].data()};
                float* p3[3] = {viaP3[0].data(), viaP3[1].data(), viaP3[2].data()};
                const float* src[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
                ASSERT_EQ(V(qelrSHTFwd_32f_C3P3I)(d.x.data(), d.y.data(), d.z.data(),
                                                  interleaved.data(), n, c3, order, e.get()),
                          qelOk);
                ASSERT_EQ(V(qelrSHTFwd_32f_P3I)(d.x.data(), d.y.data(), d.z.data(), src, n, p3,
                                                order, e.get()),
                          qelOk);
                for (int c = 0; c < 3; ++c) {
                    EXPECT_EQ(std::memcmp(single[c].data(), viaC3[c].data(), 4 * count), 0);
                    EXPECT_EQ(std::memcmp(single[c].data(), viaP3[c].data(), 4 * count), 0);
                }
                // The inverse of random coefficients (one channel also NaN).
                std::vector<float> coeffs[3];
                for (int c = 0; c < 3; ++c) coeffs[c] = randomValues(count, 50 + c);
                coeffs[2][count - 1] = qelr_test::floatOf(0xFFC0ABCDu);
                const float* cin[3] = {coeffs[0].data(), coeffs[1].data(), coeffs[2].data()};
                std::vector<float> out1[3], outP3[3], outC3(3 * n);
                for (int c = 0; c < 3; ++c) {
                    out1[c].resize(n);
                    outP3[c].resize(n);
                    ASSERT_EQ(V(qelrSHTInv_32f_C1)(cin[c], order, d.x.data(), d.y.data(),
                                                   d.z.data(), out1[c].data(), n, e.get()),
                              qelOk);
                }
                float* dst[3] = {outP3[0].data(), outP3[1].data(), outP3[2].data()};
                ASSERT_EQ(V(qelrSHTInv_32f_P3)(cin, order, d.x.data(), d.y.data(), d.z.data(),
                                               dst, n, e.get()),
                          qelOk);
                ASSERT_EQ(V(qelrSHTInv_32f_P3C3)(cin, order, d.x.data(), d.y.data(), d.z.data(),
                                                 outC3.data(), n, e.get()),
                          qelOk);
#undef V
                std::vector<float> all;
                for (int c = 0; c < 3; ++c) {
                    for (int i = 0; i < n; ++i) {
                        EXPECT_EQ(bitsOf(outP3[c][i]), bitsOf(out1[c][i]));
                        EXPECT_EQ(bitsOf(outC3[3 * i + c]), bitsOf(out1[c][i]));
                    }
                    all.insert(all.end(), single[c].begin(), single[c].end());
                    all.insert(all.end(), out1[c].begin(), out1[c].end());
                }
                if (first.empty()) first = all;
                EXPECT_EQ(std::memcmp(all.data(), first.data(), 4 * all.size()), 0)
                    << isaName(isa) << " selector " << algorithm << " order " << order;
            }
        }
    }
}

// A band-limited function sampled on a quadrature grid projects onto its
// coefficients, and the inverse reproduces it at other directions.
TEST(SHTransform, RoundTripReproducesABandLimitedFunction) {
    for (uint32_t algorithm : kSelectors) {
        for (int order : {3, 15}) {
            Engine e(order, algorithm);
            const int count = (order + 1) * (order + 1);
            const auto truth = randomValues(count, 77);
            const auto q = sh_test::sphereQuadrature(order);
            const int n = q.dirs.count();
            std::vector<float> samples(n);
            for (int i = 0; i < n; ++i) {
                const auto y =
                    sh_test::referenceBasis(q.dirs.x[i], q.dirs.y[i], q.dirs.z[i], order);
                double f = 0;
                for (int k = 0; k < count; ++k) f += truth[k] * y[k];
                samples[i] = static_cast<float>(f * q.weight[i]);
            }
            std::vector<float> coeffs(count, 0.0f);
            ASSERT_EQ(qelrSHTFwd_32f_C1I(q.dirs.x.data(), q.dirs.y.data(), q.dirs.z.data(),
                                         samples.data(), n, coeffs.data(), order, e.get()),
                      qelOk);
            for (int k = 0; k < count; ++k) EXPECT_NEAR(coeffs[k], truth[k], 2e-5) << k;

            const Directions d = sh_test::randomDirections(50, 13);
            std::vector<float> values(d.count());
            ASSERT_EQ(qelrSHTInv_32f_C1(coeffs.data(), order, d.x.data(), d.y.data(), d.z.data(),
                                        values.data(), d.count(), e.get()),
                      qelOk);
            for (int i = 0; i < d.count(); ++i) {
                const auto y = sh_test::referenceBasis(d.x[i], d.y[i], d.z[i], order);
                double f = 0;
                for (int k = 0; k < count; ++k) f += truth[k] * y[k];
                EXPECT_NEAR(values[i], f, 2e-4 * count / 16.0) << i;
            }
        }
    }
}

TEST(SHTransform, OrderZeroRoundTrip) {
    const Directions d = sh_test::randomDirections(10, 2);
    const auto v = randomValues(d.count(), 6);
    Engine e(0, qelSHRecurrence);
    float c = 0.0f;
    ASSERT_EQ(
        qelrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), v.data(), d.count(), &c, 0, e.get()),
        qelOk);
    double sum = 0;
    for (float s : v) sum += s;
    std::vector<float> out(d.count());
    ASSERT_EQ(qelrSHTInv_32f_C1(&c, 0, d.x.data(), d.y.data(), d.z.data(), out.data(), d.count(),
                                e.get()),
              qelOk);
    for (float o : out) EXPECT_NEAR(o, 0.282094806432724 * 0.282094806432724 * sum, 1e-6);
}

TEST(SHTransform, StatusesInTheirOrder) {
    const float p[1] = {0.0f};
    float w[16] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
    float* planes[3] = {w, w, w};
    float* holed[3] = {w, nullptr, w};
    const float* cplanes[3] = {w, w, w};
    const float* choled[3] = {w, w, nullptr};
    Engine small(1, qelSHDirect);
    Engine deep(20, qelSHRecurrence);
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
    // unless there is no sample to process.
    EXPECT_EQ(qelrSHTFwd_32f_C1I(p, p, p, p, 1, w, 16, deep.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSHTInv_32f_P3C3(cplanes, 16, p, p, p, w, 1, deep.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 17, p, p, p, w, -1, deep.get()), qelOk);
    // So is a state with an unknown selector.
    alignas(16) uint32_t unknown[4] = {3, 2, 0, 0};
    const auto* bad = reinterpret_cast<const QelSHEngine*>(unknown);
    EXPECT_EQ(qelrSHTInv_32f_C1(w, 1, p, p, p, w, 1, bad), qelErrBadArgument);
    EXPECT_EQ(qelrSHTFwd_32f_P3I(p, p, p, cplanes, 1, planes, 1, bad), qelErrBadArgument);
    for (float v : w) EXPECT_EQ(v, 5.0f);
}

}  // namespace
