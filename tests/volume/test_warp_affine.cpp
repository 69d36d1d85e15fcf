// Affine warp: statuses and their order, screening of singular transforms,
// and every mode and type against a literal scalar reference.
#include <gtest/gtest.h>
#include <qelr.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "planar_volume.h"
#include "test_util.h"

using qelr_test::PlanarVolume;

namespace {

using Coeffs = double[3][4];

// --- literal reference -------------------------------------------------------

double kernelAt(int mode, double d) {
    if (d >= 2.0) return 0.0;
    const bool n = d < 1.0;
    switch (mode) {
        case 4:
            return n ? ((0.5 * d - 1) * d - 0.5) * d + 1
                     : ((-0.16666666666666666 * d + 1) * d - 1.8333333333333333) * d + 1;
        case 5:
            return n ? ((0.5 * d - 1) * d) * d + 0.6666666666666666
                     : ((-0.16666666666666666 * d + 1) * d) * d + (1.3333333333333333 - d - d);
        case 6:
            return n ? (1.5 * d - 2.5) * (d * d) + 1 : ((-0.5 * d + 2.5) * d - 4) * d + 2;
        default:
            return n ? (0.95 * d - 1.7) * (d * d) + 0.8333333333333334
                     : ((-0.38333333333333336 * d + 2) * d - 3.4) * d + 1.8666666666666667;
    }
}

float tableWeight(int mode, float d) {
    auto entry = [&](int k) {
        return k <= 200 ? static_cast<float>(kernelAt(mode, k / 100.0)) : 0.f;
    };
    const float x = std::fmin(d, 2.0f) * 100.0f;
    const int k = static_cast<int>(x);
    const float r = x - static_cast<float>(k);
    return entry(k) + (entry(k + 1) - entry(k)) * r;
}

void inverse(const Coeffs c, double d[3][4]) {
    double cof[3][3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            const int i1 = (i + 1) % 3, i2 = (i + 2) % 3, j1 = (j + 1) % 3, j2 = (j + 2) % 3;
            cof[i][j] = c[i1][j1] * c[i2][j2] - c[i1][j2] * c[i2][j1];
        }
    }
    const double det = c[0][0] * cof[0][0] - c[0][1] * -cof[0][1] + c[0][2] * cof[0][2];
    const double r = 1.0 / det;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) d[i][j] = cof[j][i] * r;
    for (int i = 0; i < 3; ++i)
        d[i][3] = -(d[i][0] * c[0][3] + d[i][1] * c[1][3] + d[i][2] * c[2][3]);
}

struct Reference {
    std::vector<double> value;
    std::vector<char> written;
    int mode;  // after degrading
};

// The warp of the rules, element by element; a source of depth 1 is sampled
// as a plane (its modes degrade by width and height only).
template <class T>
Reference referenceWarp(const PlanarVolume<T>& s, QelBox3D sb, QelBox3D db, const Coeffs c,
                        int mode) {
    sb.width = std::min(sb.width, s.width - sb.x);
    sb.height = std::min(sb.height, s.height - sb.y);
    sb.depth = std::min(sb.depth, s.depth - sb.z);
    const bool plane = s.depth == 1;
    const int minExtent =
        plane ? std::min(s.width, s.height) : std::min({s.width, s.height, s.depth});
    if (mode >= 4 && minExtent < 4) mode = 2;
    if (minExtent < 2) mode = 1;
    const int lo[3] = {sb.x, sb.y, sb.z};
    const int hi[3] = {sb.x + sb.width - 1, sb.y + sb.height - 1, sb.z + sb.depth - 1};
    double d[3][4];
    inverse(c, d);
    Reference ref{std::vector<double>(size_t(db.width) * db.height * db.depth),
                  std::vector<char>(size_t(db.width) * db.height * db.depth), mode};
    auto src = [&](int x, int y, int z) { return static_cast<double>(s.at(x, y, z)); };
    size_t n = 0;
    for (int z = db.z; z < db.z + db.depth; ++z) {
        for (int y = db.y; y < db.y + db.height; ++y) {
            double p[3];
            for (int a = 0; a < 3; ++a) p[a] = d[a][0] * db.x + d[a][1] * y + d[a][2] * z + d[a][3];
            for (int x = 0; x < db.width; ++x, ++n) {
                bool in = true;
                for (int a = 0; a < 3; ++a) in = in && p[a] >= lo[a] && p[a] <= hi[a];
                ref.written[n] = in;
                if (in && mode == 1) {
                    ref.value[n] = src(int(std::nearbyint(p[0])), int(std::nearbyint(p[1])),
                                       int(std::nearbyint(p[2])));
                } else if (in && mode == 2) {
                    int i[3];
                    float f[3];
                    for (int a = 0; a < 3; ++a) {
                        i[a] = int(p[a]);
                        if (i[a] == hi[a] && i[a] > 0) --i[a];
                        f[a] = float(p[a] - i[a]);
                    }
                    if (plane) i[2] = 0;
                    float cz[2];
                    for (int k = 0; k < (plane ? 1 : 2); ++k) {
                        float cy[2];
                        for (int j = 0; j < 2; ++j) {
                            const float a = float(src(i[0], i[1] + j, i[2] + k));
                            const float b = float(src(i[0] + 1, i[1] + j, i[2] + k));
                            cy[j] = a * (1 - f[0]) + b * f[0];
                        }
                        cz[k] = cy[0] * (1 - f[1]) + cy[1] * f[1];
                    }
                    ref.value[n] = plane ? cz[0] : cz[0] * (1 - f[2]) + cz[1] * f[2];
                } else if (in) {
                    int idx[3][4];
                    double w[3][4];
                    for (int a = 0; a < 3; ++a) {
                        const int i = int(p[a]);
                        const float f = float(p[a] - i);
                        for (int t = 0; t < 4; ++t) {
                            idx[a][t] = std::clamp(i - 1 + t, lo[a], hi[a]);
                            w[a][t] = tableWeight(mode, std::fabs(-f + float(t - 1)));
                        }
                    }
                    double sum = 0;
                    for (int k = 0; k < (plane ? 1 : 4); ++k)
                        for (int j = 0; j < 4; ++j)
                            for (int i = 0; i < 4; ++i)
                                sum += (plane ? 1.0 : w[2][k]) * w[1][j] * w[0][i] *
                                       src(idx[0][i], idx[1][j], plane ? 0 : idx[2][k]);
                    ref.value[n] = sum;
                }
                for (int a = 0; a < 3; ++a) p[a] += d[a][0];
            }
        }
    }
    return ref;
}

template <class T>
QelStatus warp(const PlanarVolume<T>& s, QelBox3D sb, PlanarVolume<T>& dst, QelBox3D db,
               const Coeffs c, int mode) {
    const QelVolumeSize ss{s.width, s.height, s.depth};
    if constexpr (std::is_same_v<T, uint8_t>)
        return qelrWarpAffine_8u_C1PV(s.constPlanes.data(), ss, s.rowStep(), sb, dst.planes.data(),
                                      dst.rowStep(), db, c, mode);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return qelrWarpAffine_16u_C1PV(s.constPlanes.data(), ss, s.rowStep(), sb, dst.planes.data(),
                                       dst.rowStep(), db, c, mode);
    else
        return qelrWarpAffine_32f_C1PV(s.constPlanes.data(), ss, s.rowStep(), sb, dst.planes.data(),
                                       dst.rowStep(), db, c, mode);
}

// Every destination element against the reference: written elements match
// (exactly for nearest and linear, for cubic exactly away from rounding ties
// for 8u/16u and within a float tolerance for 32f), all others are unchanged.
template <class T>
void expectMatchesReference(const PlanarVolume<T>& dst, const PlanarVolume<T>& before, QelBox3D db,
                            const Reference& ref, double maxValue) {
    const double tol = 3e-5 * maxValue;
    size_t mismatches = 0;
    for (int z = 0; z < dst.depth; ++z)
        for (int y = 0; y < dst.height; ++y)
            for (int x = 0; x < dst.width; ++x) {
                const bool inBox = x >= db.x && x < db.x + db.width && y >= db.y &&
                                   y < db.y + db.height && z >= db.z && z < db.z + db.depth;
                const size_t n =
                    inBox ? (size_t(z - db.z) * db.height + (y - db.y)) * db.width + (x - db.x) : 0;
                const T got = dst.at(x, y, z);
                if (!inBox || !ref.written[n]) {
                    mismatches += std::memcmp(&got, &before.at(x, y, z), sizeof(T)) != 0;
                    continue;
                }
                const double v = ref.value[n];
                if (std::is_floating_point_v<T>) {
                    mismatches += ref.mode <= 2 ? float(v) != float(got) : std::fabs(got - v) > tol;
                } else if (ref.mode <= 2 || std::fabs(v - std::floor(v) - 0.5) > tol) {
                    const double r =
                        std::clamp(std::nearbyint(v), 0.0, double(std::numeric_limits<T>::max()));
                    mismatches += double(got) != r;
                }
            }
    EXPECT_EQ(mismatches, 0u);
}

// A rotation about all three axes with a scale and a shift, centred on the
// volume.
void rotation(Coeffs c, double angle, double scale, double cx, double cy, double cz) {
    const double ca = std::cos(angle), sa = std::sin(angle), cb = std::cos(0.7 * angle),
                 sb = std::sin(0.7 * angle);
    const double r[3][3] = {{ca * cb, -sa, ca * sb}, {sa * cb, ca, sa * sb}, {-sb, 0, cb}};
    const double ctr[3] = {cx, cy, cz};
    for (int i = 0; i < 3; ++i) {
        c[i][3] = ctr[i] + 0.3 * (i + 1);
        for (int j = 0; j < 3; ++j) {
            c[i][j] = scale * r[i][j];
            c[i][3] -= c[i][j] * ctr[j];
        }
    }
}

constexpr Coeffs kIdentity = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
constexpr int kModes[] = {1, 2, 4, 5, 6, 7};

template <class T>
double maxOf() {
    return std::is_same_v<T, uint8_t> ? 255 : std::is_same_v<T, uint16_t> ? 4095 : 1000;
}

template <class T>
class WarpTyped : public ::testing::Test {};
using ElementTypes = ::testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(WarpTyped, ElementTypes);

TYPED_TEST(WarpTyped, MatchesReferenceForEveryMode) {
    using T = TypeParam;
    std::mt19937 rng(7);
    PlanarVolume<T> src(13, 11, 9);
    src.randomize(rng, 0, maxOf<T>() + (std::is_floating_point_v<T> ? 0 : 0.999));
    const QelBox3D sb{1, 2, 1, 11, 20, 7};  // height reaches past the volume: trimmed
    const QelBox3D db{1, 1, 2, 14, 12, 9};
    Coeffs c;
    rotation(c, 0.5, 1.1, 6.5, 6, 4.5);
    for (int mode : kModes) {
        SCOPED_TRACE(mode);
        PlanarVolume<T> dst(16, 14, 12, T(77));
        const PlanarVolume<T> before = dst;
        ASSERT_EQ(warp(src, sb, dst, db, c, mode), qelOk);
        expectMatchesReference(dst, before, db, referenceWarp(src, sb, db, c, mode), maxOf<T>());
    }
}

TYPED_TEST(WarpTyped, LongRowsMatchTheRowByRowWalk) {
    // Rows longer than the walk's segments and bands of rows: each row must
    // still accumulate its positions exactly as one pass along it would.
    using T = TypeParam;
    std::mt19937 rng(13);
    PlanarVolume<T> src(40, 12, 6);
    src.randomize(rng, 0, maxOf<T>());
    const QelBox3D sb{0, 0, 0, 40, 12, 6};
    const QelBox3D db{3, 0, 0, 75, 11, 3};
    const Coeffs c = {{1.7, 0.1, 0.05, 2}, {-0.03, 0.9, 0.2, 0.5}, {0.01, -0.1, 1.1, 0.7}};
    for (int mode : {1, 2, 6}) {
        SCOPED_TRACE(mode);
        PlanarVolume<T> dst(80, 11, 3, T(9));
        const PlanarVolume<T> before = dst;
        ASSERT_EQ(warp(src, sb, dst, db, c, mode), qelOk);
        expectMatchesReference(dst, before, db, referenceWarp(src, sb, db, c, mode), maxOf<T>());
    }
}

TYPED_TEST(WarpTyped, SinglePlaneSourceIsWarpedInThePlane) {
    using T = TypeParam;
    std::mt19937 rng(3);
    PlanarVolume<T> src(12, 10, 1);
    src.randomize(rng, 0, maxOf<T>());
    const QelBox3D sb{0, 1, 0, 12, 9, 1};
    Coeffs c;
    rotation(c, 0.4, 0.9, 6, 5, 0);
    c[0][2] = c[1][2] = c[2][0] = c[2][1] = 0;  // keeps z: the plane stays at z = 0
    c[2][2] = 1;
    c[2][3] = 0;
    const QelBox3D db{0, 0, 0, 14, 12, 2};  // plane 1 maps to z = 1: not written
    for (int mode : kModes) {
        SCOPED_TRACE(mode);
        PlanarVolume<T> dst(14, 12, 2, T(5));
        const PlanarVolume<T> before = dst;
        ASSERT_EQ(warp(src, sb, dst, db, c, mode), qelOk);
        const Reference ref = referenceWarp(src, sb, db, c, mode);
        EXPECT_EQ(ref.mode, mode);  // a 12 x 10 plane supports every mode
        expectMatchesReference(dst, before, db, ref, maxOf<T>());
    }
}

TYPED_TEST(WarpTyped, IdentityCopiesForInterpolatingModes) {
    using T = TypeParam;
    std::mt19937 rng(5);
    PlanarVolume<T> src(7, 6, 5);
    src.randomize(rng, 1, maxOf<T>());
    const QelBox3D box{0, 0, 0, 7, 6, 5};
    for (int mode : kModes) {
        SCOPED_TRACE(mode);
        PlanarVolume<T> dst(7, 6, 5, T(0));
        ASSERT_EQ(warp(src, box, dst, box, kIdentity, mode), qelOk);
        double maxDiff = 0;
        for (int z = 0; z < 5; ++z)
            for (int y = 0; y < 6; ++y)
                for (int x = 0; x < 7; ++x)
                    maxDiff = std::max(
                        maxDiff, std::fabs(double(dst.at(x, y, z)) - double(src.at(x, y, z))));
        if (mode == 5 || mode == 7) {
            EXPECT_GT(maxDiff, 1.0);  // the smoothing kernels do not reproduce the source
        } else if (std::is_floating_point_v<T>) {
            EXPECT_LE(maxDiff, 1e-6 * maxOf<T>());  // Lagrange leaves 2^-53 at distance 1
        } else {
            EXPECT_EQ(maxDiff, 0.0);
        }
    }
}

TEST(WarpAffine, DeterministicAcrossThreadCounts) {
    qelr_test::ThreadCountGuard guard;
    std::mt19937 rng(11);
    PlanarVolume<float> src(20, 18, 17);
    src.randomize(rng, 0, 100);
    const QelBox3D sb{0, 0, 0, 20, 18, 17};
    const QelBox3D db{0, 0, 0, 18, 17, 19};  // 19 planes: a remainder for 2, 3 and 4 threads
    Coeffs c;
    rotation(c, 0.3, 1.0, 9, 9, 8);
    for (int mode : {1, 2, 6}) {
        std::vector<float> first;
        for (int threads : {1, 2, 3, 4}) {
            qelSetNumThreads(threads);
            PlanarVolume<float> dst(18, 17, 19, -1.0f);
            ASSERT_EQ(warp(src, sb, dst, db, c, mode), qelOk);
            if (first.empty())
                first = dst.data;
            else
                EXPECT_EQ(std::memcmp(first.data(), dst.data.data(), first.size() * 4), 0)
                    << "mode " << mode << " threads " << threads;
        }
    }
}

TEST(WarpAffine, InsideTestIsInclusiveInDouble) {
    PlanarVolume<uint8_t> src(8, 4, 4);
    for (size_t i = 0; i < src.data.size(); ++i) src.data[i] = uint8_t(i % 251 + 1);
    const QelBox3D sb{0, 0, 0, 8, 4, 4};
    const QelBox3D db{0, 0, 0, 16, 4, 4};
    for (double shift : {3.0, 3.0 - 1e-9}) {
        Coeffs c = {{1, 0, 0, shift}, {0, 1, 0, 0}, {0, 0, 1, 0}};  // X = x - shift
        for (int mode : {1, 2, 6}) {
            PlanarVolume<uint8_t> dst(16, 4, 4, 0);
            ASSERT_EQ(warp(src, sb, dst, db, c, mode), qelOk);
            // x = 10 maps to X = 7 (the last index) or 7 + 1e-9 (beyond it)
            EXPECT_EQ(dst.at(10, 1, 1), shift == 3.0 ? src.at(7, 1, 1) : 0) << mode;
            EXPECT_EQ(dst.at(11, 1, 1), 0);
            EXPECT_EQ(dst.at(3, 1, 1), src.at(0, 1, 1));
            EXPECT_EQ(dst.at(2, 1, 1), 0);
        }
    }
}

TEST(WarpAffine, ModesDegradeForSmallSources) {
    std::mt19937 rng(2);
    // x kept exactly (a one-wide source is hit), y and z rotated.
    const double ca = std::cos(0.2), sa = std::sin(0.2);
    const Coeffs c = {{1, 0, 0, 0}, {0, ca, -sa, 0.5}, {0, sa, ca, -0.2}};
    const QelBox3D db{0, 0, 0, 6, 6, 4};
    auto run = [&](const PlanarVolume<float>& s, int mode) {
        PlanarVolume<float> dst(6, 6, 4, -7.0f);
        EXPECT_EQ(warp(s, QelBox3D{0, 0, 0, 9, 9, 9}, dst, db, c, mode), qelOk);
        return dst.data;
    };
    PlanarVolume<float> deep3(6, 6, 3);  // 3 deep: cubic runs as linear
    deep3.randomize(rng, 0, 50);
    EXPECT_EQ(run(deep3, 6), run(deep3, 2));
    EXPECT_NE(run(deep3, 2), run(deep3, 1));
    PlanarVolume<float> wide1(1, 6, 4);  // 1 wide: linear runs as nearest
    wide1.randomize(rng, 0, 50);
    const std::vector<float> nearest = run(wide1, 1);
    EXPECT_NE(std::count(nearest.begin(), nearest.end(), -7.0f), ptrdiff_t(nearest.size()));
    EXPECT_EQ(run(wide1, 2), nearest);
    EXPECT_EQ(run(wide1, 4), nearest);
}

TEST(WarpAffine, StatusesInOrder) {
    PlanarVolume<uint8_t> src(4, 4, 4, 9), dst(4, 4, 4, 1);
    const QelVolumeSize ss{4, 4, 4};
    const QelBox3D box{0, 0, 0, 4, 4, 4};
    const int step = src.rowStep();
    auto call = [&](const uint8_t* const* s, QelVolumeSize size, QelBox3D sb, uint8_t* const* d,
                    QelBox3D db, const Coeffs c, int mode) {
        return qelrWarpAffine_8u_C1PV(s, size, step, sb, d, step, db, c, mode);
    };
    const uint8_t* const* s = src.constPlanes.data();
    uint8_t* const* d = dst.planes.data();
    const Coeffs zeroDiag = {{0, 1, 0, 0}, {1, 0, 0, 0}, {0, 0, 0, 1}};
    const Coeffs rows12 = {{1e6, 3, 1, 0}, {0, 2, 4, 0}, {0, 1, 2, 0}};  // row 2 = row 1 / 2
    const Coeffs detZero = {{1, 1, 0, 0}, {1, 1, 0, 0}, {0, 0, 1, 0}};   // passes the screening
    const QelBox3D outside{4, 0, 0, 2, 2, 2};

    EXPECT_EQ(call(nullptr, ss, box, d, box, kIdentity, 1), qelErrNullPointer);
    EXPECT_EQ(call(s, ss, box, nullptr, box, kIdentity, 1), qelErrNullPointer);
    EXPECT_EQ(call(s, QelVolumeSize{4, 0, 4}, box, d, box, zeroDiag, 3), qelErrSize);
    EXPECT_EQ(call(s, ss, QelBox3D{0, 0, -1, 1, 1, 1}, d, box, zeroDiag, 3), qelErrSize);
    EXPECT_EQ(call(s, ss, box, d, QelBox3D{0, 0, 0, 1, 0, 1}, zeroDiag, 3), qelErrSize);
    EXPECT_EQ(call(s, ss, box, d, box, zeroDiag, 3), qelErrSingularTransform);
    EXPECT_EQ(call(s, ss, box, d, box, rows12, 3), qelErrSingularTransform);
    EXPECT_EQ(call(s, ss, outside, d, box, kIdentity, 3), qelErrInterpolation);
    EXPECT_EQ(call(s, ss, box, d, box, detZero, 0), qelErrInterpolation);
    EXPECT_EQ(call(s, ss, outside, d, box, detZero, 1), qelWarnRegionOutsideVolume);
    EXPECT_EQ(call(s, ss, box, d, box, detZero, 1), qelErrSingularTransform);
    // Zeros on two of the three diagonal entries pass the screening.
    const Coeffs permute = {{1, 0, 0, 0}, {0, 0, 1, 0}, {0, 1, 0, 0}};
    EXPECT_EQ(call(s, ss, box, d, box, permute, 1), qelOk);
    for (auto v : dst.data) EXPECT_TRUE(v == 1 || v == 9);
    // Nothing was written by the failing calls: only the last call wrote 9s.
    PlanarVolume<uint8_t> fresh(4, 4, 4, 1);
    for (const Coeffs* bad : {&zeroDiag, &rows12, &detZero}) {
        call(s, ss, box, fresh.planes.data(), box, *bad, 1);
        call(s, ss, outside, fresh.planes.data(), box, kIdentity, 1);
    }
    for (auto v : fresh.data) EXPECT_EQ(v, 1);
}

TEST(WarpAffine, DependenceScreeningPairRules) {
    PlanarVolume<float> src(4, 4, 4, 1.f), dst(4, 4, 4, 0.f);
    const QelBox3D box{0, 0, 0, 4, 4, 4};
    auto status = [&](const Coeffs c) { return warp(src, box, dst, box, c, 1); };
    // Each pair (c11 c22, c12 c21), (c10 c22, c12 c20), (c10 c21, c11 c20)
    // matches; a relative 1e-10 is still a match, 1e-9 is not.
    const Coeffs near = {{5, 0, 0, 0}, {1, 2, 3, 0}, {2, 4, 6 * (1 + 5e-11), 0}};
    EXPECT_EQ(status(near), qelErrSingularTransform);
    const Coeffs apart = {{5, 0, 0, 0}, {1, 2, 3, 0}, {2, 4, 6 * (1 + 1e-9), 0}};
    EXPECT_EQ(status(apart), qelOk);
    // p tiny: the pair matches only when q is below 1e-10 as well.
    const Coeffs tinyP = {{1, 0, 0, 0}, {0, 1e-150, 1e-150, 0}, {0, 1e-51, 1e-60, 0}};
    EXPECT_EQ(status(tinyP), qelErrSingularTransform);  // p = 1e-210, q = 1e-201, then zeros
    const Coeffs tinyPbigQ = {{1, 0, 0, 0}, {0, 0, 1, 0}, {0, 1, 0, 0}};
    EXPECT_EQ(status(tinyPbigQ), qelOk);  // p = 0, q = 1: no match, a permutation
}

TEST(WarpAffine, SinglePlaneStatuses) {
    PlanarVolume<uint16_t> src(5, 5, 1, 3), dst(5, 5, 1, 1);
    const QelVolumeSize ss{5, 5, 1};
    const int step = src.rowStep();
    const QelBox3D box{0, 0, 0, 5, 5, 1};
    const Coeffs detZero = {{1, 1, 0, 0}, {1, 1, 0, 0}, {0, 0, 1, 0}};
    EXPECT_EQ(qelrWarpAffine_16u_C1PV(src.constPlanes.data(), ss, step, QelBox3D{0, 0, 1, 1, 1, 1},
                                      dst.planes.data(), step, box, kIdentity, 2),
              qelWarnRegionOutsideVolume);
    EXPECT_EQ(qelrWarpAffine_16u_C1PV(src.constPlanes.data(), ss, step, box, dst.planes.data(),
                                      step, box, detZero, 2),
              qelErrSingularTransform);
    EXPECT_EQ(qelrWarpAffine_16u_C1PV(src.constPlanes.data(), ss, step, box, dst.planes.data(),
                                      step, box, kIdentity, 3),
              qelErrInterpolation);
    // A row of working memory too large for a 32-bit byte count.
    EXPECT_EQ(qelrWarpAffine_16u_C1PV(src.constPlanes.data(), ss, step, box, dst.planes.data(),
                                      step, QelBox3D{0, 0, 0, 1 << 29, 1, 1}, kIdentity, 2),
              qelErrNoMemory);
    for (auto v : dst.data) EXPECT_EQ(v, 1);
    EXPECT_EQ(qelrWarpAffine_16u_C1PV(src.constPlanes.data(), ss, step, box, dst.planes.data(),
                                      step, box, kIdentity, 2),
              qelOk);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(dst.at(x, y, 0), 3);
}

TEST(WarpAffine, TransformMissingTheDestinationWritesNothing) {
    PlanarVolume<float> src(6, 6, 6, 2.f), dst(6, 6, 6, 0.5f);
    const QelBox3D box{0, 0, 0, 6, 6, 6};
    const Coeffs far = {{1, 0, 0, 100}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    EXPECT_EQ(warp(src, box, dst, box, far, 4), qelOk);
    for (auto v : dst.data) EXPECT_EQ(v, 0.5f);
}

TEST(WarpAffineGetBufSize, StatusesAndZeroSize) {
    const QelBox3D box{0, 0, 0, 2, 2, 2};
    int size = -1;
    EXPECT_EQ(qelrWarpAffineGetBufSize(box, box, 1, 1, nullptr), qelErrNullPointer);
    EXPECT_EQ(qelrWarpAffineGetBufSize(QelBox3D{0, 0, 0, 0, 1, 1}, box, 3, 3, &size), qelErrSize);
    EXPECT_EQ(qelrWarpAffineGetBufSize(box, QelBox3D{0, -1, 0, 1, 1, 1}, 1, 1, &size), qelErrSize);
    EXPECT_EQ(qelrWarpAffineGetBufSize(box, box, 3, 3, &size), qelErrChannels);
    EXPECT_EQ(qelrWarpAffineGetBufSize(box, box, 1, 3, &size), qelErrInterpolation);
    EXPECT_EQ(size, -1);
    for (int mode : kModes) {
        size = -1;
        EXPECT_EQ(qelrWarpAffineGetBufSize(box, box, 1, mode, &size), qelOk);
        EXPECT_EQ(size, 0);
    }
}

}  // namespace
