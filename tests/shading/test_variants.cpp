// Shading, normals, eye rays, hit points, records, box: same status and bytes on both variants, 1, 3, 4 threads,
// planes aligned to 32, 16, 4 bytes; nothing written past the run or on a failed check; paths equal where the rule is.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <string>

#include "core/dispatch.h"
#include "ray_planes.h"
#include "test_util.h"

namespace {

using qelr::frame::Isa;
using qelr_test::Planes;

struct Nulls {  // argument i as given, or null when it is the one left out
    int k = -1;
    template <class P>
    P operator()(int i, P p) const {
        return i == k ? nullptr : p;
    }
};

struct Row {
    const char* name;
    int pointers, checked;  // leading pointer arguments; bit i: pointer i is checked
    bool samePaths;         // aligned and misaligned planes give the same bits
    bool fixedOutput;       // writes a fixed-size output, even for no elements
    std::function<QelStatus(Isa, Planes&, int, Nulls)> call;
};

const float kPoint[3] = {0.25f, -1.5f, 2.0f}, kStepX[3] = {0.01f, -0.002f, 0.0f},
            kStepY[3] = {0.0f, 0.013f, -0.004f};

// clang-format off
#define ROW(name, pointers, checked, same, fixed, call) \
    {name, pointers, checked, same, fixed, [](Isa isa, Planes& r, int n, Nulls z) { return call; }}
#define V(f) QELR_VARIANT(isa, f)
const Row kRows[] = {
    ROW("Dot", 4, 15, true, false, V(qelrDot_32f_P3C1M)(z(0, r.pack(0)), z(1, r.pack(1)), z(2, r.mask()), z(3, r.p(6)), n)),
    ROW("DotChangeNorm", 4, 15, true, false, V(qelrDotChangeNorm_32f_IM)(z(0, r.pack(0)), z(1, r.mask()), z(2, r.pack(1)), z(3, r.p(6)), n)),
    ROW("DistAttenuation", 4, 14, true, false, V(qelrDistAttenuationSO_32f_M)(z(0, kPoint), z(1, r.pack(0)), z(2, r.mask()), z(3, r.p(6)), n)),
    ROW("CastShadow", 7, 126, false, false, V(qelrCastShadowSO_32f)(z(0, kPoint), z(1, r.p(9)), z(2, r.pack(0)), z(3, r.pack(1)), z(4, r.mask()), z(5, r.p(10)), z(6, r.pack(2)), n)),
    ROW("CastReflection", 4, 15, true, false, V(qelrCastReflectionRay_32f)(z(0, r.pack(0)), z(1, r.mask()), z(2, r.pack(1)), z(3, r.pack(2)), n)),
    ROW("MulC1", 3, 0, true, false, V(qelrMul_32f_C1IM)(z(0, r.p(0)), z(1, r.mask()), z(2, r.p(1)), n)),
    ROW("MulP3", 3, 7, true, false, V(qelrMul_32f_C1P3IM)(z(0, r.p(0)), z(1, r.mask()), z(2, r.pack(1)), n)),
    ROW("Div", 3, 5, true, false, V(qelrDiv_32f_C1IM)(z(0, r.p(0)), z(1, r.mask()), z(2, r.p(1)), n)),
    ROW("AddMulMul", 5, 30, true, false, V(qelrAddMulMul_32f_AC1P3IM)(z(0, kPoint), z(1, r.p(0)), z(2, r.pack(1)), z(3, r.mask()), z(4, r.pack(2)), n)),
    ROW("TriangleNormal", 3, 7, true, false, V(qelrTriangleNormal_32f)(z(0, r.p(0)), z(1, r.mask(1)), z(2, r.p(3)), n / 4)),
    ROW("SurfFlatNormal", 2, 3, true, false, V(qelrSurfFlatNormal_32f)(z(0, r.p(0)), z(1, r.mask()), r.pack(1), n)),
    ROW("SurfSmoothNormal", 5, 31, false, false, V(qelrSurfSmoothNormal_32f)(z(0, r.p(0)), z(1, r.mask(1)), z(2, r.mask()), z(3, r.pack(1)), z(4, r.pack(2)), n, n % 8 == 4 ? 4 : 3)),
    ROW("CastEye", 4, 8, false, false, V(qelrCastEye_32f)(z(0, kPoint), z(1, kStepX), z(2, kStepY), 16, 8, {2, 1}, z(3, r.pack(0)), {n / 2, 2})),
    ROW("HitPointS0", 5, 30, false, false, V(qelrHitPoint3DEpsS0_32f_M)(z(0, kPoint), z(1, r.pack(0)), z(2, r.p(3)), z(3, r.mask()), z(4, r.pack(2)), n, 0.999f)),
    ROW("HitPointM0", 5, 31, false, false, V(qelrHitPoint3DEpsM0_32f_M)(z(0, r.pack(1)), z(1, r.pack(0)), z(2, r.p(9)), z(3, r.mask()), z(4, r.pack(2)), n, 0.999f)),
    ROW("TriangleAccelInit", 3, 0, true, false, V(qelrTriangleAccelInit)(z(0, reinterpret_cast<TriangleAccel*>(r.p(3))), z(1, r.p(0)), z(2, r.mask(1)), n / 10)),
    // The box is not checked and is written even for no vertices.
    ROW("SetBoundBox", 1, 1, true, true, V(qelrSetBoundBox_32f)(z(0, r.p(0)), n / 3, r.p(6))),
};
#undef V
#undef ROW
// clang-format on

void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

// Random planes with specials, element i the same whatever the shift; int plane 0: hits in groups of four (one
// triangle, several with misses, all misses), plane 1: indices of the first kMax / 3 vertices.
Planes randomPlanes(int shift, uint32_t seed) {
    Planes r(shift);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    const float specials[] = {0.0f, -0.0f, INFINITY, -INFINITY, NAN, 1e-40f, 1.0f, 0.001f};
    const int last = Planes::kStride - shift, maxT = Planes::kMax / 4;
    for (auto& plane : r.f)
        for (int i = 0; i < Planes::kStride; ++i) {
            const float x = rng() % 9 == 0 ? specials[rng() % 8] : u(rng);
            if (i < last) plane[shift + i] = x;
        }
    for (int i = 0; i < last; ++i) {
        const int kind = i / 4 % 3, t = i / 4 % maxT;
        r.mask()[i] = kind == 0 ? t : kind == 1 ? int(rng() % (maxT + 3)) - 3 : -1 - i % 4;
        r.mask(1)[i] = int(rng() % (Planes::kMax / 3));
    }
    return r;
}

class Variants : public ::testing::TestWithParam<Row> {};

TEST_P(Variants, SameBitsEverywhereAndChecksInOrder) {
    if (!qelr::frame::isaRuns(Isa::avx2)) GTEST_SKIP() << "no AVX2 on this processor";
    const Row& row = GetParam();
    qelr_test::ThreadCountGuard guard;
    for (uint32_t seed : {1u, 2u}) {
        for (int n : {64, 56, 60, 62, 4, 1, 0, -3}) {
            std::optional<Planes> aligned;
            for (int shift : {0, 4, 1}) {
                SCOPED_TRACE(testing::Message() << "n " << n << ", shift " << shift);
                const Planes base = randomPlanes(shift, seed);
                Planes first(base);
                qelSetNumThreads(1);
                const QelStatus status = row.call(Isa::sse3, first, n, {});
                for (int run = 0; run < 6; ++run) {  // each variant on 1, 3 and 4 threads
                    qelSetNumThreads(run % 3 == 0 ? 1 : run % 3 + 2);
                    Planes r(base);
                    EXPECT_EQ(row.call(qelr::frame::kIsas[run / 3], r, n, {}), status) << run;
                    EXPECT_TRUE(r.sameFrom(first, 0)) << run;
                }
                EXPECT_TRUE(row.fixedOutput || first.sameFrom(base, n > 0 ? n : 0)) << "past";
                if (!aligned) aligned.emplace(first);
                EXPECT_TRUE(!row.samePaths || first.sameFrom(*aligned, 0)) << "paths differ";
            }
        }
    }
    // A checked pointer left out: -8 and nothing written, with rays or none. An unchecked one with no rays: unread.
    const Planes base = randomPlanes(0, 3);
    for (int k = 0; k < row.pointers; ++k) {
        const bool checked = row.checked >> k & 1;
        for (int run = 0; run < 4; ++run) {  // each variant with 64 rays and none
            const int n = run % 2 == 0 && checked ? 64 : 0;
            Planes r(base);
            EXPECT_EQ(row.call(qelr::frame::kIsas[run / 2], r, n, {k}),
                      checked ? qelErrNullPointer : qelOk)
                << "pointer " << k;
            EXPECT_TRUE(r.sameFrom(base, 0) || row.fixedOutput) << "pointer " << k;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Exports, Variants, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
