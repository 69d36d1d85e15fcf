// The vector layer against scalar code, lane by lane, at every width of the target (built once per instruction set):
// each lane gives the bits of the one IEEE or two's complement operation it stands for, so the variants agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
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

template <class T>
auto bits(T v) {
    if constexpr (sizeof(T) == 8)
        return std::bit_cast<uint64_t>(v);
    else
        return std::bit_cast<uint32_t>(v);
}

// The lanes of v, stored.
template <class V, class T = std::remove_cvref_t<decltype(firstLane(V()))>>
std::vector<T> lanesOf(V v) {
    alignas(64) T out[V::kLanes];
    store(out, v);
    return std::vector<T>(out, out + V::kLanes);
}

// Inputs: special values first, then random floats over many magnitudes.
template <class T>
std::vector<T> samples(size_t count, uint32_t seed) {
    using L = std::numeric_limits<T>;
    std::vector<T> v = {L::infinity(), -L::infinity(), L::quiet_NaN(), L::denorm_min(), -L::min(), L::max()};
    for (double d :
         {0.0, -0.0, 1.0, -1.0, 0.5, 2.5, -2.5, 3.5, 2147483648.0, -2147483904.0, 1e-30, 65535.5, 255.5, -32768.5})
        v.push_back(T(d));
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-40, 40);
    while (v.size() < count) v.push_back(T(std::ldexp(mantissa(rng), exponent(rng))));
    return v;
}

std::vector<int32_t> intSamples(size_t count, uint32_t seed) {
    using L = std::numeric_limits<int32_t>;
    std::vector<int32_t> v = {0, 1, -1, 255, 256, -256, 65535, 65536, -32768, -32769, 32767, L::min(), L::max()};
    std::mt19937 rng(seed);
    while (v.size() < count) v.push_back(static_cast<int32_t>(rng()) >> (rng() % 31));
    return v;
}

// Runs op on vectors of N lanes over the samples (b rotated against a, so every pair of specials meets) against ref.
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
            const auto lanes = lanesOf(op(V::load(x), V::load(y)));
            for (int l = 0; l < N; ++l)
                ASSERT_EQ(bits(lanes[l]), bits(ref(x[l], y[l])))
                    << what << " at width " << N << " of " << x[l] << ", " << y[l];
        }
    }
}

// The vector expression `op` of lanes a, b (vectors V) against the scalar `ref` of elements a, b (type T).
#define LANES(name, op, ref)                                    \
    expectLanes<V>(                                             \
        name, s, [&](V a, [[maybe_unused]] V b) { return op; }, \
        [&]([[maybe_unused]] T a, [[maybe_unused]] T b) { return ref; })

template <class V>
void checkFloatLanes() {
    using T = std::remove_cvref_t<decltype(firstLane(V()))>;
    const std::vector<T> s = samples<T>(160, 7);
    using B = decltype(bits(T()));
    auto mask = [](bool c) { return std::bit_cast<T>(c ? ~B(0) : B(0)); };
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
    EXPECT_EQ(mulWrap(-1, std::numeric_limits<int32_t>::min()), std::numeric_limits<int32_t>::min());
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
    LANES("mulAddPairs16", mulAddPairs16(a, b), int32_t(U(half(a, 0) * half(b, 0)) + U(half(a, 16) * half(b, 16))));
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
        return (r >= -2147483648.0 && r < 2147483648.0) ? int32_t(r) : std::numeric_limits<int32_t>::min();
    };
    LANES("truncToInt", truncToInt(a), x86Int(a, true));
    LANES("roundToInt", roundToInt(a), x86Int(a, false));
    LANES("toFloat(asInt)", toFloat(asInt(a) & I32<N>(0xFFFFFF)), float(int32_t(bitsOf(a) & 0xFFFFFF)));
    LANES("narrow(widen)", narrow(widen(a) * widen(b)), float(double(a) * double(b)));
    LANES("truncToInt(double)", truncToInt(widen(a) * widen(b)), x86Int(double(a) * double(b), true));
    LANES("toDouble", narrow(toDouble(truncToInt(a)) * F64<N>(0.5)), float(double(x86Int(a, true)) * 0.5));
    // The refined approximations: every lane as the one-lane form, and close to the exact value.
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
    for (int l = 0; l <= N; ++l) u8[l] = uint8_t(rng()), u16[l] = uint16_t(rng()), i16[l] = int16_t(rng());
    EXPECT_EQ(lanesOf(loadWidenU8<N>(u8)), std::vector<int32_t>(u8, u8 + N));
    EXPECT_EQ(lanesOf(loadWidenU16<N>(u16)), std::vector<int32_t>(u16, u16 + N));
    EXPECT_EQ(lanesOf(loadWidenI16<N>(i16)), std::vector<int32_t>(i16, i16 + N));
    EXPECT_EQ(lanesOf(loadAsFloat<N>(i16)), std::vector<float>(i16, i16 + N));
    const std::vector<int32_t> ints = intSamples(8 * N, 17);
    for (size_t i = 0; i + N <= ints.size(); i += N) {
        auto saturated = [&]<class E>(E sentinel) {
            E out[N + 1];
            out[N] = sentinel;
            storeSaturated(out, I32<N>::loadu(ints.data() + i));
            for (int l = 0; l < N; ++l)
                EXPECT_EQ(out[l], std::clamp<int64_t>(ints[i + l], std::numeric_limits<E>::min(),
                                                      std::numeric_limits<E>::max()))
                    << ints[i + l];
            EXPECT_EQ(out[N], sentinel);
        };
        saturated(uint8_t(0xAB));
        saturated(uint16_t(0xABCD));
        saturated(int16_t(0x1234));
    }

    // Gathers read base[index] per lane.
    std::vector<float> table(1000), want;
    for (size_t k = 0; k < table.size(); ++k) table[k] = float(k) * 0.25f;
    alignas(64) int32_t idx[N];
    for (int l = 0; l < N; ++l) idx[l] = int32_t(rng() % table.size()), want.push_back(table[idx[l]]);
    EXPECT_EQ(lanesOf(gather(table.data(), I32<N>::load(idx))), want);
    std::vector<float> ramp(N);
    for (int l = 0; l < N; ++l) ramp[l] = float(l);
    EXPECT_EQ(lanesOf(F::ramp()), ramp);
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
    using Fs = std::vector<float>;
    const float a[4] = {1e8f, 1.0f, -1e8f, 1.0f};
    // ((a0 + a1) + (a2 + a3)): 1e8 + 1 rounds to 1e8 and -1e8 + 1 to -1e8.
    EXPECT_EQ(sumLanes(F32<4>::loadu(a)), 0.0f);
    EXPECT_EQ(lanesOf(pairwiseAdd(F32<4>::loadu(a), F32<4>(2.0f))), (Fs{1e8f, -1e8f, 4, 4}));
    F32<4> r[4];
    for (int k = 0; k < 4; ++k) r[k] = F32<4>::of(4.0f * k, 4.0f * k + 1, 4.0f * k + 2, 4.0f * k + 3);
    transpose(r[0], r[1], r[2], r[3]);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(lanesOf(r[k]), (Fs{0.0f + k, 4.0f + k, 8.0f + k, 12.0f + k}));
    const float p[4] = {1, 2, 3, 4}, q[2] = {5, 6};
    // Pairs (p0 p1 q0 q1) and (p2 p3 p0 p1); their even lanes.
    EXPECT_EQ(lanesOf(evenLanes(loadTwoPairs(p, q), loadTwoPairs(p + 2, p))), (Fs{1, 5, 3, 1}));
    EXPECT_EQ(lanesOf(broadcastLane<2>(F32<4>::loadu(p))), (Fs{3, 3, 3, 3}));
    // 16-bit halves h0..h7 of a and g0..g7 of b: lane i of zipLow16 is (h_i, g_i), of zipHigh16 (h_{4+i}, g_{4+i}).
    const I32<4> a16 = I32<4>::of(0x00010000, 0x00030002, 0x00050004, 0x00070006);
    const I32<4> b16 = I32<4>::of(0x00110010, 0x00130012, 0x00150014, 0x00170016);
    EXPECT_EQ(lanesOf(zipLow16(a16, b16)), (std::vector<int32_t>{0x100000, 0x110001, 0x120002, 0x130003}));
    EXPECT_EQ(lanesOf(zipHigh16(a16, b16)), (std::vector<int32_t>{0x140004, 0x150005, 0x160006, 0x170007}));
#if QELR_SIMD_LANES == 8
    EXPECT_EQ(lanesOf(F64<4>::of(1.5, -2.0, 3.25, 4.0)), (std::vector<double>{1.5, -2.0, 3.25, 4.0}));
    // Eight lanes: each half as its own four-lane block.
    F32<8> w[4];
    alignas(32) float in[32];
    for (int j = 0; j < 32; ++j) in[j] = float(j);
    for (int k = 0; k < 4; ++k) w[k] = F32<8>::load(in + 8 * k);
    EXPECT_EQ(lanesOf(pairwiseAdd(w[0], w[1])), (Fs{1, 5, 17, 21, 9, 13, 25, 29}));  // rows 0..7 and 8..15
    transpose(w[0], w[1], w[2], w[3]);
    for (int k = 0; k < 4; ++k)
        EXPECT_EQ(lanesOf(w[k]),
                  (Fs{0.0f + k, 8.0f + k, 16.0f + k, 24.0f + k, 4.0f + k, 12.0f + k, 20.0f + k, 28.0f + k}));
#endif
    // Triples from four addresses, the last one ending the array.
    const float t[12] = {0, 1, 2, 10, 11, 12, 20, 21, 22, 30, 31, 32};
    F32<4> xyz[3];
    loadTriples(t + 9, t + 3, t, t + 6, xyz[0], xyz[1], xyz[2]);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(lanesOf(xyz[c]), (Fs{30.0f + c, 10.0f + c, 0.0f + c, 20.0f + c}));
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
