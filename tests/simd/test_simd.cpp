// The vector layer against scalar code, lane by lane, at every width the
// target has. Built once per instruction set: every lane must give the bits
// of the one IEEE (or two's complement) operation it stands for, which is
// what makes the SSE3 and AVX2 variants of the library agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "simd/simd.h"

namespace {

using namespace qelr::simd;

bool targetRuns() {
#if QELR_SIMD_LANES == 8
    return __builtin_cpu_supports("avx2");
#else
    return true;
#endif
}

uint32_t bits(float f) { return bitsOf(f); }
uint64_t bits(double d) {
    uint64_t b;
    std::memcpy(&b, &d, 8);
    return b;
}
uint32_t bits(int32_t i) { return static_cast<uint32_t>(i); }

// Inputs: special values first, then random floats over many magnitudes.
template <class T>
std::vector<T> samples(size_t count, uint32_t seed) {
    constexpr T inf = std::numeric_limits<T>::infinity();
    std::vector<T> v = {T(0), T(-0.0), T(1), T(-1), T(0.5), T(2.5), T(-2.5), T(3.5), inf, -inf,
                        std::numeric_limits<T>::quiet_NaN(), std::numeric_limits<T>::denorm_min(),
                        -std::numeric_limits<T>::min(), std::numeric_limits<T>::max(),
                        T(2147483648.0), T(-2147483904.0), T(1e-30), T(65535.5), T(255.5),
                        T(-32768.5)};
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-40, 40);
    while (v.size() < count) v.push_back(T(std::ldexp(mantissa(rng), exponent(rng))));
    return v;
}

std::vector<int32_t> intSamples(size_t count, uint32_t seed) {
    std::vector<int32_t> v = {0, 1, -1, 255, 256, -256, 65535, 65536, -32768, -32769, 32767,
                              std::numeric_limits<int32_t>::min(),
                              std::numeric_limits<int32_t>::max()};
    std::mt19937 rng(seed);
    while (v.size() < count) v.push_back(static_cast<int32_t>(rng()) >> (rng() % 31));
    return v;
}

// Runs op on vectors of N lanes over the sample arrays (b rotated against a,
// so that every pair of specials meets) and compares every lane with ref.
template <class V, class T, class Op, class Ref>
void expectLanes(const char* what, const std::vector<T>& a, Op op, Ref ref) {
    constexpr int N = V::kLanes;
    for (size_t shift = 0; shift < a.size(); shift += 7) {
        for (size_t i = 0; i + N <= a.size(); i += N) {
            alignas(64) T x[N], y[N];
            for (int l = 0; l < N; ++l) {
                x[l] = a[i + l];
                y[l] = a[(i + l + shift) % a.size()];
            }
            const auto out = op(V::load(x), V::load(y));
            alignas(64) std::remove_cvref_t<decltype(ref(x[0], y[0]))> lanes[N];
            store(lanes, out);
            for (int l = 0; l < N; ++l) {
                const auto want = ref(x[l], y[l]);
                ASSERT_EQ(bits(lanes[l]), bits(want))
                    << what << " at width " << N << " of " << x[l] << ", " << y[l];
            }
        }
    }
}

// The vector expression `op` of lanes a, b (vectors V) against the scalar
// expression `ref` of elements a, b (type T), over the samples s.
#define LANES(name, op, ref)                                                     \
    expectLanes<V>(                                                              \
        name, s, [&](V a, [[maybe_unused]] V b) { return op; },                  \
        [&]([[maybe_unused]] T a, [[maybe_unused]] T b) { return ref; })

template <class V>
void checkFloatLanes() {
    using T = std::remove_cvref_t<decltype(firstLane(V()))>;
    const std::vector<T> s = samples<T>(160, 7);
    auto mask = [](bool c) {
        if constexpr (sizeof(T) == 4) {
            return floatFromBits(c ? 0xFFFFFFFFu : 0u);
        } else {
            const uint64_t b = c ? ~uint64_t{0} : 0;
            double d;
            std::memcpy(&d, &b, 8);
            return d;
        }
    };
    LANES("+", a + b, a + b);
    LANES("-", a - b, a - b);
    LANES("*", a * b, a * b);
    LANES("/", a / b, a / b);
    LANES("sqrt", sqrt(a), std::sqrt(a));
    // The processor's min and max return the second operand unless the first is smaller.
    LANES("min", min(a, b), a < b ? a : b);
    LANES("max", max(a, b), a > b ? a : b);
    LANES("abs", abs(a), std::fabs(a));
    LANES("neg", -a, -a);
    LANES("<", a < b, mask(a < b));
    LANES("<=", a <= b, mask(a <= b));
    LANES(">", a > b, mask(a > b));
    LANES(">=", a >= b, mask(a >= b));
    LANES("==", a == b, mask(a == b));
    LANES("!=", a != b, mask(a != b));
    LANES("select", select(a < b, a, b), a < b ? a : b);
    LANES("andNot", andNot(a < b, b), a < b ? T(0) : b);
    // Every NaN becomes the processor's default NaN; the one-lane form agrees.
    const T dnan = T(defaultNaN());
    LANES("canonicalNaN", canonicalNaN(a * b), a * b != a * b ? dnan : a * b);
    EXPECT_EQ(bitsOf(canonicalNaN(floatFromBits(0x7FC01234u))), 0xFFC00000u);
    // laneBits and the any/all tests read the masks lane by lane.
    const V lo = V::loadu(s.data()), hi = V::loadu(s.data() + V::kLanes);
    int want = 0;
    for (int l = 0; l < V::kLanes; ++l) want |= (s[l] < s[V::kLanes + l]) << l;
    EXPECT_EQ(laneBits(lo < hi), want);
    EXPECT_EQ(anyLane(lo < hi), want != 0);
    EXPECT_TRUE(allLanes(V(T(1)) > V(T(0))));
    EXPECT_FALSE(anyLane(V(T(1)) < V(T(0))));
}

template <int N>
void checkIntLanes() {
    using V = I32<N>;
    using T = int32_t;
    const std::vector<int32_t> s = intSamples(160, 11);
    using U = uint32_t;
    auto mask = [](bool c) { return c ? int32_t(-1) : int32_t(0); };
    LANES("+", a + b, int32_t(U(a) + U(b)));
    LANES("-", a - b, int32_t(U(a) - U(b)));
    LANES("mulWrap", mulWrap(a, b), int32_t(U(a) * U(b)));
    // The one-lane form: 3 * 0x55555556 = 2^32 + 2, 2^16 * 2^16 = 2^32.
    EXPECT_EQ(mulWrap(3, 0x55555556), 2);
    EXPECT_EQ(mulWrap(65536, 65536), 0);
    EXPECT_EQ(mulWrap(-1, std::numeric_limits<int32_t>::min()),
              std::numeric_limits<int32_t>::min());
    LANES("min", min(a, b), std::min(a, b));
    LANES("max", max(a, b), std::max(a, b));
    LANES(">", a > b, mask(a > b));
    LANES("<", a < b, mask(a < b));
    LANES("==", a == b, mask(a == b));
    LANES("select", select(a > b, a, b), std::max(a, b));
    LANES("bits", (a & b) | andNot(a, b ^ a), (a & b) | (~a & (b ^ a)));
    LANES("shifts", shiftLeft<3>(a) ^ shiftRightLogical<5>(a) ^ shiftRightArith<7>(a),
          int32_t((U(a) << 3) ^ (U(a) >> 5)) ^ (a >> 7));
    // The 16-bit halves of each lane, signed.
    const auto half = [](int32_t a, int shift) { return int32_t(int16_t(U(a) >> shift)); };
    LANES("mulAddPairs16", mulAddPairs16(a, b),
          int32_t(U(half(a, 0) * half(b, 0)) + U(half(a, 16) * half(b, 16))));
    LANES("mulLow16", mulLow16(a, b),
          int32_t((U(half(a, 0) * half(b, 0)) & 0xFFFF) | (U(half(a, 16) * half(b, 16)) << 16)));
}

// Conversions, widening loads and saturating stores at width N.
template <int N>
void checkConversions() {
    using F = F32<N>;
    using V = F;
    using T = float;
    const std::vector<float> s = samples<float>(160, 13);
    auto x86Int = [](double v, bool trunc) {
        const double r = trunc ? std::trunc(v) : std::nearbyint(v);
        return (r >= -2147483648.0 && r < 2147483648.0) ? int32_t(r)
                                                        : std::numeric_limits<int32_t>::min();
    };
    LANES("truncToInt", truncToInt(a), x86Int(a, true));
    LANES("roundToInt", roundToInt(a), x86Int(a, false));
    LANES("toFloat(asInt)", toFloat(asInt(a) & I32<N>(0xFFFFFF)),
          float(int32_t(bitsOf(a) & 0xFFFFFF)));
    LANES("narrow(widen)", narrow(widen(a) * widen(b)), float(double(a) * double(b)));
    LANES("truncToInt(double)", truncToInt(widen(a) * widen(b)),
          x86Int(double(a) * double(b), true));
    LANES("toDouble", narrow(toDouble(truncToInt(a)) * F64<N>(0.5)),
          float(double(x86Int(a, true)) * 0.5));
    // The refined approximations: every lane as the one-lane form, and close
    // to the exact value.
    LANES("reciprocalRefined", reciprocalRefined(a), reciprocalRefined(a));
    LANES("rsqrtRefined", rsqrtRefined(a), rsqrtRefined(a));
    // The one-lane conversions round and truncate as the lanes do.
    for (float x : s) {
        EXPECT_EQ(roundToInt32(x), x86Int(x, false)) << x;
        EXPECT_EQ(truncToInt32(x), x86Int(x, true)) << x;
    }
    for (float x : {1.0f, 3.0f, 0.1f, 7.5e-3f, 1234.5f}) {
        EXPECT_NEAR(reciprocalRefined(x) * x, 1.0f, 1e-6f) << x;
        EXPECT_NEAR(rsqrtRefined(x) * std::sqrt(x), 1.0f, 1e-6f) << x;
    }

    // Widening loads read exactly N elements; saturating stores write exactly N.
    std::mt19937 rng(5);
    alignas(64) uint8_t u8[N + 1];
    alignas(64) uint16_t u16[N + 1];
    alignas(64) int16_t i16[N + 1];
    for (int l = 0; l <= N; ++l) {
        u8[l] = uint8_t(rng());
        u16[l] = uint16_t(rng());
        i16[l] = int16_t(rng());
    }
    alignas(64) int32_t w[3][N];
    store(w[0], loadWidenU8<N>(u8));
    store(w[1], loadWidenU16<N>(u16));
    store(w[2], loadWidenI16<N>(i16));
    alignas(64) float f[N];
    store(f, loadAsFloat<N>(i16));
    for (int l = 0; l < N; ++l) {
        EXPECT_EQ(w[0][l], u8[l]);
        EXPECT_EQ(w[1][l], u16[l]);
        EXPECT_EQ(w[2][l], i16[l]);
        EXPECT_EQ(f[l], float(i16[l]));
    }
    const std::vector<int32_t> ints = intSamples(8 * N, 17);
    for (size_t i = 0; i + N <= ints.size(); i += N) {
        const I32<N> v = I32<N>::loadu(ints.data() + i);
        uint8_t o8[N + 1];
        uint16_t o16[N + 1];
        int16_t os16[N + 1];
        o8[N] = 0xAB;
        o16[N] = 0xABCD;
        os16[N] = 0x1234;
        storeSaturated(o8, v);
        storeSaturated(o16, v);
        storeSaturated(os16, v);
        for (int l = 0; l < N; ++l) {
            const int64_t x = ints[i + l];
            EXPECT_EQ(o8[l], std::clamp<int64_t>(x, 0, 255)) << x;
            EXPECT_EQ(o16[l], std::clamp<int64_t>(x, 0, 65535)) << x;
            EXPECT_EQ(os16[l], std::clamp<int64_t>(x, -32768, 32767)) << x;
        }
        EXPECT_EQ(o8[N], 0xAB);
        EXPECT_EQ(o16[N], 0xABCD);
        EXPECT_EQ(os16[N], 0x1234);
    }

    // Gathers read base[index] per lane.
    std::vector<float> table(1000);
    for (size_t k = 0; k < table.size(); ++k) table[k] = float(k) * 0.25f;
    alignas(64) int32_t idx[N];
    for (int l = 0; l < N; ++l) idx[l] = int32_t(rng() % table.size());
    store(f, gather(table.data(), I32<N>::load(idx)));
    for (int l = 0; l < N; ++l) EXPECT_EQ(f[l], table[idx[l]]);
    store(f, F::ramp());
    for (int l = 0; l < N; ++l) EXPECT_EQ(f[l], float(l));
    // 16-byte aligned loads and stores at an address that is not 32-byte aligned.
    alignas(64) float buf[3 * N];
    for (int l = 0; l < 3 * N; ++l) buf[l] = float(l);
    store16(buf + 4 + N, load16<F>(buf + 4));
    for (int l = 0; l < N; ++l) EXPECT_EQ(buf[4 + N + l], float(4 + l));
}

class Simd : public ::testing::Test {
 protected:
    void SetUp() override {
        if (!targetRuns()) GTEST_SKIP() << "this processor lacks the instruction set of this build";
    }
};

TEST_F(Simd, FloatAndDoubleLanesAreTheScalarOperations) {
    checkFloatLanes<F32<4>>();
    checkFloatLanes<F64<2>>();
    checkFloatLanes<Vf>();
    checkFloatLanes<Vd>();
}

TEST_F(Simd, IntegerLanesWrapAsTwosComplement) {
    checkIntLanes<4>();
    checkIntLanes<kLanes>();
}

TEST_F(Simd, ConversionsLoadsAndStoresFollowTheProcessorRules) {
    checkConversions<4>();
    checkConversions<kLanes>();
}

TEST_F(Simd, FourLaneReductionsAndShufflesHaveOneOrder) {
    const float a[4] = {1e8f, 1.0f, -1e8f, 1.0f};
    // ((a0 + a1) + (a2 + a3)): 1e8 + 1 rounds to 1e8 and -1e8 + 1 to -1e8.
    EXPECT_EQ(sumLanes(F32<4>::loadu(a)), 0.0f);
    alignas(16) float out[4];
    store(out, pairwiseAdd(F32<4>::loadu(a), F32<4>(2.0f)));
    EXPECT_EQ(out[0], 1e8f + 1.0f);
    EXPECT_EQ(out[2], 4.0f);
    F32<4> r[4];
    for (int k = 0; k < 4; ++k)
        r[k] = F32<4>::of(4.0f * k, 4.0f * k + 1, 4.0f * k + 2, 4.0f * k + 3);
    transpose(r[0], r[1], r[2], r[3]);
    for (int k = 0; k < 4; ++k) {
        store(out, r[k]);
        for (int j = 0; j < 4; ++j) EXPECT_EQ(out[j], 4.0f * j + k);
    }
    const float p[4] = {1, 2, 3, 4}, q[2] = {5, 6};
    store(out, evenLanes(loadTwoPairs(p, q), loadTwoPairs(p + 2, p)));
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(out[1], 5.0f);
    EXPECT_EQ(out[2], 3.0f);
    EXPECT_EQ(out[3], 1.0f);
    store(out, broadcastLane<2>(F32<4>::loadu(p)));
    EXPECT_EQ(out[3], 3.0f);
    // 16-bit halves h0..h7 of a and g0..g7 of b: lane i of zipLow16 is
    // (h_i, g_i), of zipHigh16 (h_{4+i}, g_{4+i}).
    alignas(16) int32_t zipped[4];
    const I32<4> a16 = I32<4>::of(0x00010000, 0x00030002, 0x00050004, 0x00070006);
    const I32<4> b16 = I32<4>::of(0x00110010, 0x00130012, 0x00150014, 0x00170016);
    store(zipped, zipLow16(a16, b16));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(zipped[i], (0x10 + i) << 16 | i);
    store(zipped, zipHigh16(a16, b16));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(zipped[i], (0x14 + i) << 16 | (4 + i));
#if QELR_SIMD_LANES == 8
    alignas(32) double lanes[4];
    store(lanes, F64<4>::of(1.5, -2.0, 3.25, 4.0));
    EXPECT_TRUE(lanes[0] == 1.5 && lanes[1] == -2.0 && lanes[2] == 3.25 && lanes[3] == 4.0);
    // Eight lanes: each half transposed as its own 4 x 4 block.
    F32<8> w[4];
    alignas(32) float in[8], wide[8];
    for (int k = 0; k < 4; ++k) {
        for (int j = 0; j < 8; ++j) in[j] = 8.0f * k + j;
        w[k] = F32<8>::load(in);
    }
    store(wide, pairwiseAdd(w[0], w[1]));  // rows 0 (0..7) and 1 (8..15)
    const float sums[8] = {1, 5, 17, 21, 9, 13, 25, 29};
    for (int j = 0; j < 8; ++j) EXPECT_EQ(wide[j], sums[j]);
    transpose(w[0], w[1], w[2], w[3]);
    for (int k = 0; k < 4; ++k) {
        store(wide, w[k]);
        for (int h = 0; h < 2; ++h)
            for (int j = 0; j < 4; ++j) EXPECT_EQ(wide[4 * h + j], 8.0f * j + 4 * h + k);
    }
#endif
    // Triples from four addresses, the last one ending the array.
    const float t[12] = {0, 1, 2, 10, 11, 12, 20, 21, 22, 30, 31, 32};
    F32<4> xyz[3];
    loadTriples(t + 9, t + 3, t, t + 6, xyz[0], xyz[1], xyz[2]);
    const int row[4] = {3, 1, 0, 2};
    for (int c = 0; c < 3; ++c) {
        store(out, xyz[c]);
        for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k], 10.0f * row[k] + c);
    }
}

TEST_F(Simd, GroupsOfFourCoverTheRunOnceNativeWidthFirst) {
    for (int len : {4, 8, 12, 20}) {
        std::vector<int> seen(len, 0);
        int next = 0;
        forGroupsOfFour(len, [&](auto lanes, int i) {
            constexpr int n = decltype(lanes)::kLanes;
            EXPECT_EQ(i, next);
            EXPECT_TRUE(n == kLanes || (n == 4 && len - i == 4));
            for (int k = i; k < i + n; ++k) ++seen[k];
            next = i + n;
        });
        EXPECT_EQ(next, len);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), len);
    }
}

}  // namespace
