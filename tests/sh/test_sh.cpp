// Spherical harmonics: state sizes and tables; the basis against a double-precision reference, at exact values
// and with the same bits on every variant and path; the transforms by quadrature round trips and across layouts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "sh/sh_engine.h"
#include "sh/sh_vector.h"
#include "sh_reference.h"
#include "test_util.h"

namespace {

using qelr::frame::isaName;
using qelr_test::bitsOf;
using sh_test::Directions;
using sh_test::Engine;
using sh_test::kSelectors;

TEST(SHState, SizesAndTheDirectBlock) {
    uint32_t size = 0;
    EXPECT_EQ(qelrSHGetSize_32f(15, qelSHDirect, &size), qelOk);
    EXPECT_EQ(size, 16u);
    const uint32_t orders[] = {0, 1, 2, 3, 6, 15, 16, 100};
    const uint32_t sizes[] = {64, 64, 96, 128, 256, 1120, 1280, 41248};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(qelrSHGetSize_32f(orders[i], qelSHRecurrence, &size), qelOk);
        EXPECT_EQ(size, sizes[i]) << "order " << orders[i];
    }
    // The direct block is 16 bytes: order, selector, zeros.
    alignas(16) unsigned char block[32];
    std::memset(block, 0xAB, sizeof block);
    EXPECT_EQ(qelrSHInit_32f(reinterpret_cast<QelSHEngine*>(block), 9, qelSHDirect), qelOk);
    const uint32_t head[4] = {9, 0, 0, 0};
    EXPECT_EQ(std::memcmp(block, head, 16), 0);
    EXPECT_EQ(block[16], 0xAB);
}

// Both tables lie inside a block of exactly the reported size, on 16-byte boundaries (AddressSanitizer checks the
// initialisation); orders 0 and 1 hold nothing but table A's first three entries.
TEST(SHState, TablesFitTheReportedSize) {
    for (uint32_t order = 0; order <= 200; ++order) {
        Engine e(order, qelSHRecurrence);
        ASSERT_EQ(e.status, qelOk);
        const auto* base = reinterpret_cast<const unsigned char*>(e.get());
        const auto* a = reinterpret_cast<const unsigned char*>(qelr::sh::tableA(e.get()));
        const auto* b = reinterpret_cast<const unsigned char*>(qelr::sh::tableB(e.get()));
        const size_t n = (order + 1) * (order + 2) / 2;
        EXPECT_EQ((a - base) % 16, 0);
        EXPECT_EQ((b - base) % 16, 0);
        EXPECT_GE(a - base, 24);
        EXPECT_GE(b, a + 4 * n);
        EXPECT_LE(static_cast<size_t>(b - base) + 4 * n, e.size) << order;
        for (uint32_t i = 24; order <= 1 && i < e.size; ++i)
            EXPECT_TRUE(base[i] == 0 || (base + i >= a && base + i < a + 12)) << i;
    }
}

// From state order 32767 the 32-bit size wraps: init stays inside the block; bands that did not fit are refused.
TEST(SHState, WrappedSizesStayInsideTheBlock) {
    const float x = 0.6f, y = 0.0f, z = 0.8f;
    float out[256], expect[256];
    Engine tiny(0xFFFFFFFFu, qelSHRecurrence);
    ASSERT_EQ(tiny.status, qelOk);
    EXPECT_EQ(tiny.size, 32u);
    EXPECT_EQ(qelrSH_32f(&x, &y, &z, 1, out, 0, tiny.get()), qelErrBadArgument);
    EXPECT_EQ(qelrSH_32f(&x, &y, &z, -1, out, 0, tiny.get()), qelOk);
    EXPECT_EQ(qelrSHTInv_32f_C1(out, 0, &x, &y, &z, out, 1, tiny.get()), qelErrBadArgument);

    Engine wrapped(65535, qelSHRecurrence);  // 32768 entries in 32 bits
    Engine normal(15, qelSHRecurrence);
    ASSERT_EQ(qelrSH_32f(&x, &y, &z, 1, out, 15, wrapped.get()), qelOk);
    ASSERT_EQ(qelrSH_32f(&x, &y, &z, 1, expect, 15, normal.get()), qelOk);
    EXPECT_EQ(std::memcmp(out, expect, sizeof out), 0);
}

TEST(SHState, ReinitialisingOverwritesEverything) {
    Engine big(30, qelSHRecurrence), small(3, qelSHRecurrence);
    ASSERT_EQ(qelrSHInit_32f(big.get(), 3, qelSHRecurrence), qelOk);
    EXPECT_EQ(std::memcmp(big.get(), small.get(), small.size), 0);
    ASSERT_EQ(qelrSHInit_32f(big.get(), 3, qelSHDirect), qelOk);
    EXPECT_EQ(qelr::sh::engineAlgorithm(big.get()), 0u);
}

std::vector<float> evaluate(const Directions& d, uint32_t order, uint32_t algorithm) {
    Engine e(order, algorithm);
    std::vector<float> out(static_cast<size_t>(d.count()) * (order + 1) * (order + 1));
    EXPECT_EQ(qelrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.count(), out.data(), order, e.get()),
              qelOk);
    return out;
}

// Each band's largest error, relative to its root-sum-square, stays within a few float roundings growing with l.
TEST(SHBasis, BothSelectorsMatchTheReferenceAtEveryOrder) {
    const Directions d = sh_test::randomDirections(60, 7);
    for (uint32_t algorithm : kSelectors) {
        for (int order = 0; order <= 15; ++order) {
            const auto v = evaluate(d, order, algorithm);
            const int count = (order + 1) * (order + 1);
            for (int i = 0; i < d.count(); ++i) {
                const auto ref = sh_test::referenceBasis(d.x[i], d.y[i], d.z[i], order);
                for (int l = 0; l <= order; ++l)
                    for (int k = l * l; k < (l + 1) * (l + 1); ++k)
                        ASSERT_LT(std::fabs(v[i * count + k] - ref[k]) / sh_test::bandNorm(l),
                                  3e-7 + 1.5e-7 * l)
                            << "selector " << algorithm << " order " << order << " k " << k;
            }
        }
    }
}

// At the pole m != 0 values are exactly 0; bands 0 and 1 (recurrence) carry table A's bits; order 0 writes one each.
TEST(SHBasis, PoleAndBandZeroValues) {
    const float x[2] = {0, 0}, y[2] = {0, 1}, z[2] = {1, 0};
    for (uint32_t algorithm : kSelectors) {
        Engine e(15, algorithm);
        std::vector<float> out(512);
        ASSERT_EQ(qelrSH_32f(x, y, z, 2, out.data(), 15, e.get()), qelOk);
        EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
        for (int l = 1; l <= 15; ++l)
            for (int m = -l; m <= l; ++m)
                EXPECT_TRUE(m == 0 || out[l * l + l + m] == 0.0f) << l << " " << m;
        if (algorithm == qelSHRecurrence) {
            EXPECT_EQ(bitsOf(out[2]), 0x3EFA2A1Du);
            EXPECT_EQ(bitsOf(out[256 + 1]), 0xBEFA2A1Du);
        }
        out.assign(3, -1.0f);
        ASSERT_EQ(qelrSH_32f(x, y, z, 2, out.data(), 0, e.get()), qelOk);
        EXPECT_EQ(bitsOf(out[0]), 0x3E906EBBu);
        EXPECT_EQ(bitsOf(out[1]), 0x3E906EBBu);
        EXPECT_EQ(out[2], -1.0f);
    }
}

// Every variant writes the same bytes for each pack size (every position in the vectors and the padded tail),
// NaNs, infinities and non-unit vectors included, from a copied state; a band holds the bytes of the full basis.
TEST(SHBasis, VariantsAndPathsAgreeBitwise) {
    Directions d = sh_test::randomDirections(14, 5);
    const float nan = qelr_test::floatOf(0x7FC01234u), inf = INFINITY;
    d.x.insert(d.x.end(), {nan, 0.3f, 2.0f, -inf, 1e30f});
    d.y.insert(d.y.end(), {0.5f, inf, -3.0f, 0.0f, 1e-30f});
    d.z.insert(d.z.end(), {0.5f, -0.2f, 0.5f, nan, -1e30f});
    const int n = d.count();  // 24: three vectors of eight, six of four
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order = 0; order <= 15; ++order) {
            const int count = (order + 1) * (order + 1);
            Engine e(order, algorithm);
            std::vector<float> copy(e.size / 4 + 4);
            std::memcpy(copy.data(), e.get(), e.size);
            const auto* moved = reinterpret_cast<const QelSHEngine*>(copy.data());
            const auto all = evaluate(d, order, algorithm);
            std::vector<float> out(n * count), band(n * (2 * order + 1));
            for (auto isa : sh_test::variants()) {
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
                ASSERT_EQ(QELR_VARIANT(isa, qelrSHBand_32f)(d.x.data(), d.y.data(), d.z.data(), n,
                                                            band.data(), order),
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

// Large outputs are streamed: the same bits as small calls on every variant, aligned or not, odd counts too.
TEST(SHBasis, StreamedOutputsAgreeBitwise) {
    const Directions d = sh_test::randomDirections(9400, 17);
    for (uint32_t algorithm : kSelectors) {
        for (uint32_t order : {15u, 14u}) {
            Engine e(order, algorithm);
            const size_t count = (order + 1) * (order + 1);
            const int n = static_cast<int>((8 << 20) / (4 * count)) + 5;  // over 8 MB
            ASSERT_LE(n, d.count());
            std::vector<float> big(n * count + 4), small(big.size());
            for (int i = 0; i < n; i += 6)
                ASSERT_EQ(qelrSH_32f(&d.x[i], &d.y[i], &d.z[i], std::min(6, n - i),
                                     &small[i * count], order, e.get()),
                          qelOk);
            for (auto isa : sh_test::variants()) {
                for (int shift : {0, 1}) {
                    ASSERT_EQ(QELR_VARIANT(isa, qelrSH_32f)(d.x.data(), d.y.data(), d.z.data(), n,
                                                            big.data() + shift, order, e.get()),
                              qelOk);
                    ASSERT_EQ(std::memcmp(big.data() + shift, small.data(), 4 * n * count), 0)
                        << isaName(isa) << " selector " << algorithm << " order " << order
                        << " shift " << shift;
                }
            }
        }
    }
}

std::vector<float> randomValues(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    std::vector<float> v(n);
    for (auto& x : v) x = u(rng);
    return v;
}

// A zero sample adds +0, not the -0 of a product with a negative basis value; a sample of one adds the basis.
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

// The three-channel layouts are three one-channel transforms side by side, the same bytes on every variant.
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
                // Channel c at c * count (coefficients) or c * n (values); the forward ones add to the same start.
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
                    << isaName(isa) << " selector " << algorithm << " order " << order;
            }
        }
    }
}

// A band-limited function on a quadrature grid projects onto its coefficients (added); the inverse reproduces it.
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

// Orders above 15 that the state allows, and unknown selectors, are refused before any sample, unless none.
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
    // The array operations behind the transforms refuse empty arrays.
    EXPECT_EQ(qelr::sh::zeroFill(w, 0), qelErrSize);
    EXPECT_EQ(qelr::sh::addInPlace(p, w, 0), qelErrSize);
    for (float v : w) EXPECT_EQ(v, 5.0f);
}

}  // namespace
