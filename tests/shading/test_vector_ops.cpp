// The per-ray shading operations: values against literal one-ray references
// on both paths, masks, statuses and which pointers are checked.
#include <gtest/gtest.h>
#include <qelr.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "pack_util.h"
#include "test_util.h"

using namespace qelr_test;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Each layout runs the function once: whole aligned groups (four-rays path),
// misaligned planes and a ragged length (both one ray at a time).
struct Layout {
    int len;
    Path path;
    bool four() const { return path == Path::kFour && len % 4 == 0; }
};
constexpr Layout kLayouts[] = {{64, Path::kFour}, {64, Path::kMisaligned}, {62, Path::kFour}};

#define EXPECT_BITS(got, want) EXPECT_EQ(bitsOf(got), bitsOf(want))

}  // namespace

TEST(ShadingOps, PointerChecksInArgumentOrder) {
    alignas(16) float f[8][4] = {};
    alignas(16) int m[4] = {0, 0, 0, 0};
    const float* in[3] = {f[0], f[1], f[2]};
    float* out[3] = {f[3], f[4], f[5]};
    const float light[3] = {0, 0, 0};
    constexpr int N = qelErrNullPointer;
    // Null in a checked pointer: -8 even when len is 0. Null in an unchecked
    // pointer with len 0: nothing is read, the call succeeds.
    EXPECT_EQ(qelrDot_32f_P3C1M(nullptr, in, m, f[6], 0), N);
    EXPECT_EQ(qelrDot_32f_P3C1M(in, nullptr, m, f[6], 0), N);
    EXPECT_EQ(qelrDot_32f_P3C1M(in, in, nullptr, f[6], 0), N);
    EXPECT_EQ(qelrDot_32f_P3C1M(in, in, m, nullptr, 0), N);
    EXPECT_EQ(qelrDotChangeNorm_32f_IM(nullptr, m, out, f[6], 0), N);
    EXPECT_EQ(qelrDotChangeNorm_32f_IM(in, nullptr, out, f[6], 0), N);
    EXPECT_EQ(qelrDotChangeNorm_32f_IM(in, m, nullptr, f[6], 0), N);
    EXPECT_EQ(qelrDotChangeNorm_32f_IM(in, m, out, nullptr, 0), N);
    EXPECT_EQ(qelrDistAttenuationSO_32f_M(nullptr, in, m, f[6], 0), qelOk);
    EXPECT_EQ(qelrDistAttenuationSO_32f_M(light, nullptr, m, f[6], 0), N);
    EXPECT_EQ(qelrDistAttenuationSO_32f_M(light, in, nullptr, f[6], 0), N);
    EXPECT_EQ(qelrDistAttenuationSO_32f_M(light, in, m, nullptr, 0), N);
    EXPECT_EQ(qelrCastShadowSO_32f(nullptr, f[6], in, in, m, f[7], out, 0), qelOk);
    EXPECT_EQ(qelrCastShadowSO_32f(light, nullptr, in, in, m, f[7], out, 0), N);
    EXPECT_EQ(qelrCastShadowSO_32f(light, f[6], nullptr, in, m, f[7], out, 0), N);
    EXPECT_EQ(qelrCastShadowSO_32f(light, f[6], in, nullptr, m, f[7], out, 0), N);
    EXPECT_EQ(qelrCastShadowSO_32f(light, f[6], in, in, nullptr, f[7], out, 0), N);
    EXPECT_EQ(qelrCastShadowSO_32f(light, f[6], in, in, m, nullptr, out, 0), N);
    EXPECT_EQ(qelrCastShadowSO_32f(light, f[6], in, in, m, f[7], nullptr, 0), N);
    EXPECT_EQ(qelrCastReflectionRay_32f(nullptr, m, in, out, 0), N);
    EXPECT_EQ(qelrCastReflectionRay_32f(in, nullptr, in, out, 0), N);
    EXPECT_EQ(qelrCastReflectionRay_32f(in, m, nullptr, out, 0), N);
    EXPECT_EQ(qelrCastReflectionRay_32f(in, m, in, nullptr, 0), N);
    EXPECT_EQ(qelrMul_32f_C1IM(nullptr, nullptr, nullptr, 0), qelOk);  // no checks at all
    EXPECT_EQ(qelrMul_32f_C1P3IM(nullptr, m, out, 0), N);
    EXPECT_EQ(qelrMul_32f_C1P3IM(f[6], nullptr, out, 0), N);
    EXPECT_EQ(qelrMul_32f_C1P3IM(f[6], m, nullptr, 0), N);
    EXPECT_EQ(qelrDiv_32f_C1IM(nullptr, m, f[7], 0), N);
    EXPECT_EQ(qelrDiv_32f_C1IM(f[6], nullptr, f[7], 0), qelOk);  // the mask is not checked
    EXPECT_EQ(qelrDiv_32f_C1IM(f[6], m, nullptr, 0), N);
    EXPECT_EQ(qelrAddMulMul_32f_AC1P3IM(nullptr, f[6], in, m, out, 0), qelOk);
    EXPECT_EQ(qelrAddMulMul_32f_AC1P3IM(light, nullptr, in, m, out, 0), N);
    EXPECT_EQ(qelrAddMulMul_32f_AC1P3IM(light, f[6], nullptr, m, out, 0), N);
    EXPECT_EQ(qelrAddMulMul_32f_AC1P3IM(light, f[6], in, nullptr, out, 0), N);
    EXPECT_EQ(qelrAddMulMul_32f_AC1P3IM(light, f[6], in, m, nullptr, 0), N);

    // A failed check writes nothing, even with rays to do.
    f[6][0] = 5.0f;
    m[0] = -1;
    EXPECT_EQ(qelrCastShadowSO_32f(light, f[6], in, in, m, f[7], nullptr, 4), N);
    EXPECT_EQ(qelrDiv_32f_C1IM(f[6], m, nullptr, 4), N);
    EXPECT_EQ(qelrDot_32f_P3C1M(in, in, m, nullptr, 4), N);
    EXPECT_EQ(m[0], -1);
    EXPECT_EQ(f[6][0], 5.0f);
    for (int c = 3; c < 8; ++c) EXPECT_EQ(f[c][0], c == 6 ? 5.0f : 0.0f);
}

TEST(ShadingOps, DotProductsAndFacingNormals) {
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len);
        const Values3 a = randomValues3(rng, L.len), b = randomValues3(rng, L.len);
        const std::vector<int> mask = randomMask(rng, L.len);
        Pack pa(a, L.path), pb(b, L.path);
        Plane<int> pm(mask, L.path);
        Plane<float> dot(L.len, L.path), dst(L.len, L.path);
        ASSERT_EQ(qelrDot_32f_P3C1M(pa.p3(), pb.p3(), pm.data(), dot.data(), L.len), qelOk);
        ASSERT_EQ(qelrDotChangeNorm_32f_IM(pa.p3(), pm.data(), pb.p3(), dst.data(), L.len), qelOk);
        for (int i = 0; i < L.len; ++i) {
            const float p = a[0][i] * b[0][i] + a[1][i] * b[1][i] + a[2][i] * b[2][i];
            const float s = p > 0.0f ? -1.0f : 1.0f;
            const bool on = mask[i] >= 0;
            EXPECT_BITS(dot[i], on ? p : 0.0f);
            EXPECT_BITS(dst[i], on ? p * s : 0.0f);
            EXPECT_LE(dst[i], 0.0f);
            for (int c = 0; c < 3; ++c) EXPECT_BITS(pb.at(c, i), on ? b[c][i] * s : b[c][i]);
        }
    }
    // A = N = (0, 0, 1): the normal turns round and the dot product is -1.
    float az = 1, nx = 0, ny = 0, nz = 1, d = 5, zero = 0;
    const float* A[3] = {&zero, &zero, &az};
    float* Nrm[3] = {&nx, &ny, &nz};
    const int hit = 0;
    EXPECT_EQ(qelrDotChangeNorm_32f_IM(A, &hit, Nrm, &d, 1), qelOk);
    EXPECT_EQ(d, -1.0f);
    EXPECT_EQ(nz, -1.0f);
}

TEST(ShadingOps, DistanceAttenuation) {
    const float light[3] = {0.25f, -0.5f, 0.125f};
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len + 1);
        const Values3 p = randomValues3(rng, L.len);
        const std::vector<int> mask = randomMask(rng, L.len);
        Pack pp(p, L.path);
        Plane<int> pm(mask, L.path);
        Plane<float> dst(L.len, L.path);
        ASSERT_EQ(qelrDistAttenuationSO_32f_M(light, pp.p3(), pm.data(), dst.data(), L.len), qelOk);
        for (int i = 0; i < L.len; ++i) {
            const float dx = p[0][i] - light[0], dy = p[1][i] - light[1], dz = p[2][i] - light[2];
            const float q = dx * dx + dy * dy + dz * dz;
            EXPECT_BITS(dst[i], mask[i] < 0 ? 1.0f : q >= 1.0f ? std::sqrt(q) : 1.0f);
        }
    }
    // Points at distance 0.5, 3 and exactly 1 from a light at the origin.
    float x[4] = {0.5f, 0, 1, 9}, y[4] = {0, 3, 0, 0}, z[4] = {0, 0, 0, 0}, dst[4];
    const float* pts[3] = {x, y, z};
    const int mask[4] = {0, 0, 0, -1};
    const float origin[3] = {0, 0, 0};
    EXPECT_EQ(qelrDistAttenuationSO_32f_M(origin, pts, mask, dst, 4), qelOk);
    EXPECT_EQ(dst[0], 1.0f);
    EXPECT_EQ(dst[1], 3.0f);
    EXPECT_EQ(dst[2], 1.0f);
    EXPECT_EQ(dst[3], 1.0f);
}

TEST(ShadingOps, ShadowRaysKeepSameSignAndMaskTheRest) {
    const float light[3] = {0.5f, 3.0f, -0.25f};
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len + 2);
        const Values3 n = randomValues3(rng, L.len);
        Values3 p = randomValues3(rng, L.len);
        // Ray 5 grazes: its light vector is at right angles to the normal.
        p[0][5] = light[0] + n[1][5];
        p[1][5] = light[1] - n[0][5];
        p[2][5] = light[2];
        Values sign(L.len);
        for (auto& s : sign) s = std::array<float, 4>{1.0f, -1.0f, 0.0f, 0.5f}[rng() % 4];
        sign[5] = 1.0f;
        std::vector<int> mask = randomMask(rng, L.len);
        mask[5] = 0;
        Pack pn(n, L.path), pp(p, L.path), dirs(randomValues3(rng, L.len), L.path);
        Plane<float> ps(sign, L.path), cosine(L.len, L.path);
        Plane<int> pm(mask, L.path);
        ASSERT_EQ(qelrCastShadowSO_32f(light, ps.data(), pn.p3(), pp.p3(), pm.data(), cosine.data(),
                                       dirs.p3(), L.len),
                  qelOk);
        for (int i = 0; i < L.len; ++i) {
            float v[3], q = 0;
            for (int c = 0; c < 3; ++c) v[c] = p[c][i] - light[c];
            q = v[0] * n[0][i] + v[1] * n[1][i] + v[2] * n[2][i];
            if (std::fabs(q) < 0.0017453292f) q = 0.0f;
            const bool lit = mask[i] >= 0 && sign[i] * q > 0.0f;
            EXPECT_BITS(cosine[i], lit ? std::fabs(q) : 0.0f);
            for (int c = 0; c < 3; ++c) EXPECT_BITS(dirs.at(c, i), lit ? v[c] : 0.0f);
            // The four-rays path sends every unlit ray out with -1; the one-ray
            // path keeps a negative input mask as it was.
            const int unlit = (mask[i] < 0 && !L.four()) ? mask[i] : -1;
            EXPECT_EQ(pm[i], lit ? mask[i] : unlit) << i;
        }
        EXPECT_EQ(pm[5], -1);
        EXPECT_EQ(cosine[5], 0.0f);
    }
}

TEST(ShadingOps, ReflectionRays) {
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len + 3);
        const Values3 d = randomValues3(rng, L.len), n = randomValues3(rng, L.len);
        const std::vector<int> mask = randomMask(rng, L.len);
        Pack pd(d, L.path), pn(n, L.path), out(randomValues3(rng, L.len), L.path);
        Plane<int> pm(mask, L.path);
        ASSERT_EQ(qelrCastReflectionRay_32f(pd.p3(), pm.data(), pn.p3(), out.p3(), L.len), qelOk);
        for (int i = 0; i < L.len; ++i) {
            const float p = n[1][i] * d[1][i] + n[2][i] * d[2][i] + n[0][i] * d[0][i];
            for (int c = 0; c < 3; ++c) {
                EXPECT_BITS(out.at(c, i), mask[i] < 0 ? 0.0f : d[c][i] - n[c][i] * (p + p));
            }
        }
    }
    float dx = 1, dy = -1, dz = 0, nx = 0, ny = 1, nz = 0, r[3];
    const float* D[3] = {&dx, &dy, &dz};
    const float* Nrm[3] = {&nx, &ny, &nz};
    float* R[3] = {r, r + 1, r + 2};
    const int hit = 0;
    EXPECT_EQ(qelrCastReflectionRay_32f(D, &hit, Nrm, R, 1), qelOk);
    EXPECT_EQ(r[0], 1.0f);
    EXPECT_EQ(r[1], 1.0f);
    EXPECT_EQ(r[2], 0.0f);
}

TEST(ShadingOps, MaskedMultiplyClearsByMultiplyingByZero) {
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len + 4);
        Values src = randomValues(rng, L.len);
        Values3 acc = randomValues3(rng, L.len);
        src[1] = kInf;  // masked rays with infinite or NaN operands give NaN
        acc[0][2] = kNaN;
        acc[1][3] = -0.0f;
        std::vector<int> mask = randomMask(rng, L.len);
        mask[1] = mask[2] = -1;
        Plane<float> ps(src, L.path), c1(acc[0], L.path);
        Plane<int> pm(mask, L.path);
        Pack p3(acc, L.path);
        ASSERT_EQ(qelrMul_32f_C1IM(ps.data(), pm.data(), c1.data(), L.len), qelOk);
        ASSERT_EQ(qelrMul_32f_C1P3IM(ps.data(), pm.data(), p3.p3(), L.len), qelOk);
        for (int i = 0; i < L.len; ++i) {
            const float factor = mask[i] < 0 ? 0.0f : 1.0f;
            EXPECT_BITS(c1[i], acc[0][i] * src[i] * factor);
            for (int c = 0; c < 3; ++c) EXPECT_BITS(p3.at(c, i), acc[c][i] * src[i] * factor);
        }
        EXPECT_TRUE(std::isnan(c1[1]));
        EXPECT_TRUE(std::isnan(c1[2]));
    }
}

TEST(ShadingOps, DivisionByZeroRule) {
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len + 5);
        Values src = randomValues(rng, L.len), x = randomValues(rng, L.len);
        std::vector<int> mask = randomMask(rng, L.len);
        for (int i = 0; i < 12; ++i) mask[i] = 0;
        const float divisors[6] = {0.0f, -0.0f, 0.0f, -0.0f, kNaN, 0.0f};
        const float dividends[6] = {2.0f, -2.0f, 0.0f, kNaN, 3.0f, -kInf};
        for (int i = 0; i < 6; ++i) {
            src[i] = divisors[i];
            x[i] = dividends[i];
        }
        for (int i = 12; i < L.len; ++i) {
            if (mask[i] < 0) src[i] = 0.0f;  // masked: never divided
        }
        auto run = [&](const std::vector<int>& m) {
            Plane<float> ps(src, L.path), pd(x, L.path);
            Plane<int> pm(m, L.path);
            const QelStatus st = qelrDiv_32f_C1IM(ps.data(), pm.data(), pd.data(), L.len);
            for (int i = 0; i < L.len; ++i) {
                float want = x[i] / src[i];
                if (m[i] < 0) {
                    want = 0.0f;
                } else if (src[i] == 0.0f) {
                    want = floatOf(x[i] > 0 ? 0x7F800000u : x[i] < 0 ? 0xFF800000u : 0xFFC00000u);
                }
                EXPECT_BITS(pd[i], want) << i;
            }
            return st;
        };
        EXPECT_EQ(run(mask), qelWarnDivisionByZero);
        for (int i = 0; i < 6; ++i) mask[i] = i == 4 ? 0 : -1;  // only the NaN divisor left
        EXPECT_EQ(run(mask), qelOk);
    }
}

TEST(ShadingOps, ColourAccumulation) {
    const float colour[3] = {0.75f, 0.5f, 0.25f};
    for (const Layout& L : kLayouts) {
        std::mt19937 rng(L.len + 6);
        const Values scale = randomValues(rng, L.len);
        const Values3 src = randomValues3(rng, L.len);
        Values3 acc = randomValues3(rng, L.len);
        acc[2][0] = -0.0f;  // a masked -0 stays -0
        std::vector<int> mask = randomMask(rng, L.len);
        mask[0] = -1;
        Plane<float> ps(scale, L.path);
        Pack pin(src, L.path), pacc(acc, L.path);
        Plane<int> pm(mask, L.path);
        ASSERT_EQ(
            qelrAddMulMul_32f_AC1P3IM(colour, ps.data(), pin.p3(), pm.data(), pacc.p3(), L.len),
            qelOk);
        for (int i = 0; i < L.len; ++i) {
            for (int c = 0; c < 3; ++c) {
                const float want =
                    mask[i] < 0 ? acc[c][i] : acc[c][i] + colour[c] * src[c][i] * scale[i];
                EXPECT_BITS(pacc.at(c, i), want);
            }
        }
    }
}
