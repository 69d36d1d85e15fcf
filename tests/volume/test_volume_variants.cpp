// Every volume export against itself: the SSE3 and AVX2 variants, with 1, 3
// and 4 threads, must return the same status and write the same bytes, on
// random volumes with odd extents, unaligned rows, boxes reaching past the
// volume, coordinates on and beyond the box faces, NaN and infinities.
//
// With QELR_VOLUME_DIGEST set, a digest of every case is printed, so the
// outputs of two builds can be compared case by case.
#include <gtest/gtest.h>
#include <qelcore.h>
#include <qelr.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "core/dispatch.h"
#include "planar_volume.h"
#include "test_util.h"

namespace {

using qelr::frame::Isa;
using qelr_test::PlanarVolume;

template <class T>
struct Fns;
#define QELR_VOLUME_FNS(T, s)                                                              \
    template <>                                                                            \
    struct Fns<T> {                                                                        \
        static auto resizeV(Isa i) { return QELR_VARIANT(i, qelrResize_##s##_C1V); }       \
        static auto resizePV(Isa i) { return QELR_VARIANT(i, qelrResize_##s##_C1PV); }     \
        static auto remap(Isa i) { return QELR_VARIANT(i, qelrRemap_##s##_C1PV); }         \
        static auto warp(Isa i) { return QELR_VARIANT(i, qelrWarpAffine_##s##_C1PV); }     \
    };
QELR_VOLUME_FNS(uint8_t, 8u)
QELR_VOLUME_FNS(uint16_t, 16u)
QELR_VOLUME_FNS(float, 32f)
#undef QELR_VOLUME_FNS

struct Outcome {
    int status;
    std::vector<uint8_t> bytes;
};

template <class T>
Outcome runOf(int status, const PlanarVolume<T>& out) {
    Outcome r{status, std::vector<uint8_t>(out.data.size() * sizeof(T))};
    std::memcpy(r.bytes.data(), out.data.data(), r.bytes.size());
    return r;
}

// Runs `call(isa)` for every variant and thread count (one thread only for
// the size queries, whose answers scale with the team); all must agree.
template <class Call>
void expectSameEverywhere(const std::string& name, Call&& call, bool query = false) {
    qelr_test::ThreadCountGuard guard;
    Outcome ref{};
    bool first = true;
    for (Isa isa : qelr::frame::kIsas) {
        if (!qelr::frame::isaRuns(isa)) continue;
        for (int threads : {1, 3, 4}) {
            if (query && threads > 1) break;
            qelSetNumThreads(threads);
            const Outcome r = call(isa);
            if (first) {
                ref = r;
                first = false;
                continue;
            }
            EXPECT_EQ(r.status, ref.status) << name << " " << isaName(isa) << " x" << threads;
            EXPECT_TRUE(r.bytes == ref.bytes) << name << " " << isaName(isa) << " x" << threads;
        }
    }
    if (std::getenv("QELR_VOLUME_DIGEST")) {
        uint64_t h = 1469598103934665603ull ^ static_cast<uint32_t>(ref.status);
        for (uint8_t b : ref.bytes) h = (h ^ b) * 1099511628211ull;
        std::printf("digest %s %016llx\n", name.c_str(), static_cast<unsigned long long>(h));
    }
}

// Random elements; float volumes also get NaN and both infinities.
template <class T>
PlanarVolume<T> randomVolume(int w, int h, int d, uint32_t seed) {
    PlanarVolume<T> v(w, h, d);
    std::mt19937 rng(seed);
    constexpr bool isFloat = std::is_floating_point_v<T>;
    v.randomize(rng, isFloat ? -1000.0 : 0.0, isFloat ? 1000.0 : std::numeric_limits<T>::max() + 1.0);
    if constexpr (isFloat) {
        v.data[5] = std::numeric_limits<float>::quiet_NaN();
        v.data[v.data.size() / 2] = std::numeric_limits<float>::infinity();
        v.data[v.data.size() - 7] = -std::numeric_limits<float>::infinity();
    }
    return v;
}

const char* typeName(uint8_t) { return "8u"; }
const char* typeName(uint16_t) { return "16u"; }
const char* typeName(float) { return "32f"; }

constexpr int kModes[] = {1, 2, 4, 5, 6, 7};

// ---------------------------------------------------------------------------

struct ResizeGeometry {
    QelVolumeSize src;
    QelBox3D srcBox, dstBox;
    double scale[3], shift[3];
};

const ResizeGeometry kResizeGeometries[] = {
    {{13, 11, 9}, {0, 0, 0, 13, 11, 9}, {0, 0, 0, 40, 40, 40}, {1.7, 2.3, 1.9}, {0.3, -0.6, 0.25}},
    {{23, 19, 17}, {2, 1, 3, 30, 30, 30}, {1, 2, 0, 30, 30, 30}, {0.45, 0.6, 0.7}, {0.5, 0, -1}},
    {{3, 2, 5}, {0, 0, 0, 3, 2, 5}, {0, 0, 0, 9, 7, 11}, {2.5, 3.0, 1.3}, {0, 0.4, 0}},
    {{31, 9, 6}, {0, 0, 0, 31, 9, 6}, {3, 0, 0, 33, 20, 16}, {1.0, 2.0, 3.0}, {0, 0, 0}},
};

template <class T>
void resizeCases() {
    for (size_t g = 0; g < std::size(kResizeGeometries); ++g) {
        const ResizeGeometry& G = kResizeGeometries[g];
        const auto src = randomVolume<T>(G.src.width, G.src.height, G.src.depth, 11 + g);
        for (int mode : kModes) {
            for (bool planar : {false, true}) {
                const std::string name = std::string("resize_") + typeName(T()) +
                                         (planar ? "_PV" : "_V") + "_g" + std::to_string(g) +
                                         "_m" + std::to_string(mode);
                expectSameEverywhere(name, [&](Isa isa) {
                    const QelBox3D& b = G.dstBox;
                    auto dst = randomVolume<T>(b.x + b.width, b.y + b.height, b.z + b.depth, 99);
                    int size = 0;
                    EXPECT_EQ(QELR_VARIANT(isa, qelrResizeGetBufSize)(G.srcBox, b, 1, mode, &size),
                              qelOk);
                    std::vector<uint8_t> buffer(size + 1);
                    uint8_t* work = buffer.data() + 1;  // not aligned
                    int st;
                    if (planar) {
                        st = Fns<T>::resizePV(isa)(
                            src.constPlanes.data(), G.src, src.rowStep(), G.srcBox,
                            dst.planes.data(), dst.rowStep(), b, G.scale[0], G.scale[1],
                            G.scale[2], G.shift[0], G.shift[1], G.shift[2], mode, work);
                    } else {
                        st = Fns<T>::resizeV(isa)(
                            src.data.data(), G.src, src.rowStep(), src.rowStep() * G.src.height,
                            G.srcBox, dst.data.data(), dst.rowStep(), dst.rowStep() * dst.height,
                            b, G.scale[0], G.scale[1], G.scale[2], G.shift[0], G.shift[1],
                            G.shift[2], mode, work);
                    }
                    return runOf(st, dst);
                });
            }
        }
    }
}

TEST(VolumeVariants, Resize) {
    resizeCases<uint8_t>();
    resizeCases<uint16_t>();
    resizeCases<float>();
}

// ---------------------------------------------------------------------------

// Maps over a destination of `dst` voxels: random positions around the box,
// with exact faces, points just beyond them, NaN and infinities.
struct Maps {
    PlanarVolume<float> x, y, z;
    Maps(QelVolumeSize dst, const QelBox3D& box, uint32_t seed)
        : x(dst.width, dst.height, dst.depth),
          y(dst.width, dst.height, dst.depth),
          z(dst.width, dst.height, dst.depth) {
        std::mt19937 rng(seed);
        PlanarVolume<float>* maps[3] = {&x, &y, &z};
        const int lo[3] = {box.x, box.y, box.z};
        const int hi[3] = {box.x + box.width - 1, box.y + box.height - 1, box.z + box.depth - 1};
        const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                                  std::numeric_limits<float>::infinity(), -0.0f, 0.0f, 0.5f, 2.5f};
        for (int a = 0; a < 3; ++a) {
            std::uniform_real_distribution<float> u(lo[a] - 1.5f, hi[a] + 1.5f);
            for (float& v : maps[a]->data) {
                const uint32_t pick = rng() % 16;
                v = pick == 0   ? static_cast<float>(lo[a])
                    : pick == 1 ? static_cast<float>(hi[a])
                    : pick == 2 ? static_cast<float>(hi[a]) + 0.001f
                    : pick == 3 ? specials[rng() % std::size(specials)]
                                : u(rng);
            }
        }
    }
};

template <class T>
void remapCases() {
    struct Geometry {
        QelVolumeSize src;
        QelBox3D box;
        QelVolumeSize dst;
    };
    const Geometry geometries[] = {
        {{14, 13, 12}, {1, 2, 0, 12, 20, 11}, {19, 17, 16}},
        {{9, 8, 1}, {1, 0, 0, 8, 8, 1}, {11, 5, 3}},  // one plane: the plane path
        {{3, 5, 6}, {0, 0, 0, 3, 5, 6}, {7, 5, 3}},   // thin: cubic degrades
        {{6, 1, 5}, {0, 0, 0, 6, 1, 5}, {5, 4, 2}},
    };
    for (size_t g = 0; g < std::size(geometries); ++g) {
        const Geometry& G = geometries[g];
        const auto src = randomVolume<T>(G.src.width, G.src.height, G.src.depth, 21 + g);
        const Maps maps(G.dst, G.box, 31 + g);
        for (int mode : kModes) {
            const std::string name = std::string("remap_") + typeName(T()) + "_g" +
                                     std::to_string(g) + "_m" + std::to_string(mode);
            expectSameEverywhere(name, [&](Isa isa) {
                auto dst = randomVolume<T>(G.dst.width, G.dst.height, G.dst.depth, 98);
                const int st = Fns<T>::remap(isa)(
                    src.constPlanes.data(), G.src, src.rowStep(), G.box, maps.x.constPlanes.data(),
                    maps.y.constPlanes.data(), maps.z.constPlanes.data(), maps.x.rowStep(),
                    dst.planes.data(), dst.rowStep(), G.dst, mode);
                return runOf(st, dst);
            });
        }
    }
}

TEST(VolumeVariants, Remap) {
    remapCases<uint8_t>();
    remapCases<uint16_t>();
    remapCases<float>();
}

// ---------------------------------------------------------------------------

template <class T>
void warpCases() {
    struct Geometry {
        QelVolumeSize src;
        QelBox3D srcBox, dstBox;
        double c[3][4];
    };
    const Geometry geometries[] = {
        // Rotation about an oblique axis with scaling and translation.
        {{15, 14, 13},
         {1, 1, 1, 13, 12, 11},
         {0, 1, 0, 19, 16, 18},
         {{0.9, -0.3, 0.1, 2.5}, {0.35, 1.1, -0.2, -1.25}, {0.05, 0.25, 1.2, 0.5}}},
        // Identity: every position on a grid point, the last ones on the faces.
        {{9, 7, 6}, {0, 0, 0, 9, 7, 6}, {0, 0, 0, 9, 7, 6}, {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}},
        // Mirror in x, half-voxel shifts.
        {{12, 10, 8}, {2, 0, 1, 20, 9, 30}, {0, 0, 0, 17, 16, 16}, {{-1, 0, 0, 13.5}, {0, 1.5, 0, 0.5}, {0, 0, 2, -0.5}}},
        // One plane deep: the single-plane path.
        {{12, 10, 1}, {0, 0, 0, 12, 10, 1}, {0, 0, 0, 14, 12, 2}, {{1.1, 0.2, 0, -0.5}, {-0.1, 0.9, 0, 0.7}, {0, 0, 1, 0}}},
    };
    for (size_t g = 0; g < std::size(geometries); ++g) {
        const Geometry& G = geometries[g];
        const auto src = randomVolume<T>(G.src.width, G.src.height, G.src.depth, 41 + g);
        for (int mode : kModes) {
            const std::string name = std::string("warp_") + typeName(T()) + "_g" +
                                     std::to_string(g) + "_m" + std::to_string(mode);
            expectSameEverywhere(name, [&](Isa isa) {
                const QelBox3D& b = G.dstBox;
                auto dst = randomVolume<T>(b.x + b.width, b.y + b.height, b.z + b.depth, 97);
                const int st = Fns<T>::warp(isa)(src.constPlanes.data(), G.src, src.rowStep(),
                                                 G.srcBox, dst.planes.data(), dst.rowStep(), b, G.c,
                                                 mode);
                return runOf(st, dst);
            });
        }
    }
}

TEST(VolumeVariants, Warp) {
    warpCases<uint8_t>();
    warpCases<uint16_t>();
    warpCases<float>();
}

// ---------------------------------------------------------------------------

TEST(VolumeVariants, Filter) {
    struct Case {
        QelVolumeSize roi, kernel;
        QelOffset3D anchor;
        int divisor;
        int32_t kernelRange;  // values in [-range, range]
    };
    const Case cases[] = {
        {{19, 17, 16}, {3, 3, 3}, {1, 1, 1}, 1, 9},
        {{21, 16, 17}, {5, 2, 2}, {2, 0, 1}, 8, 100000},  // products beyond 16 bits
        {{13, 5, 3}, {4, 3, 1}, {3, 2, 0}, 7, 300},
        {{9, 4, 2}, {1, 1, 1}, {0, 0, 0}, -1, 1},
        {{33, 3, 2}, {7, 1, 2}, {0, 0, 1}, -3, 40000},
    };
    for (size_t c = 0; c < std::size(cases); ++c) {
        const Case& C = cases[c];
        const int mx = C.kernel.width, my = C.kernel.height, mz = C.kernel.depth;
        PlanarVolume<int16_t> src(C.roi.width + 2 * mx, C.roi.height + 2 * my, C.roi.depth + 2 * mz);
        std::mt19937 rng(51 + c);
        src.randomize(rng, -32768, 32768);
        std::vector<int32_t> kernel(mx * my * mz);
        std::uniform_int_distribution<int32_t> k(-C.kernelRange, C.kernelRange);
        for (auto& v : kernel) v = k(rng);
        // Plane pointers and row offset of the voxel under destination (0, 0, 0).
        std::vector<const int16_t*> planes;
        for (int z = 0; z < src.depth; ++z) planes.push_back(src.planes[z] + my * src.rowElems + mx);
        expectSameEverywhere("filter_" + std::to_string(c), [&](Isa isa) {
            PlanarVolume<int16_t> dst(C.roi.width, C.roi.height, C.roi.depth, int16_t(-7));
            int size = 0;
            EXPECT_EQ(QELR_VARIANT(isa, qelrFilterGetBufSize)(C.roi, C.kernel, 1, &size), qelOk);
            std::vector<uint8_t> buffer(size + 3);
            const int st = QELR_VARIANT(isa, qelrFilter_16s_C1PV)(
                planes.data() + mz, src.rowStep(), dst.planes.data(), dst.rowStep(), C.roi,
                kernel.data(), C.kernel, C.anchor, C.divisor, buffer.data() + 3);
            return runOf(st, dst);
        });
    }
}

// The queries: the same answers from both variants, also on refusals.
TEST(VolumeVariants, Queries) {
    const QelBox3D boxes[] = {{0, 0, 0, 10, 10, 10}, {1, 0, 0, 3, 1, 1}, {0, 0, 0, 1, 1, 1},
                              {-1, 0, 0, 4, 4, 4}, {5, 6, 7, 300, 2, 9}};
    for (int mode : {1, 2, 3, 4, 7, 8}) {
        for (const QelBox3D& b : boxes) {
            const std::string name = "queries_m" + std::to_string(mode) + "_" + std::to_string(&b - boxes);
            expectSameEverywhere(name, [&](Isa isa) {
                QelBox3D out{9, 9, 9, 9, 9, 9};
                int sizes[3] = {-1, -1, -1};
                Outcome r{QELR_VARIANT(isa, qelrGetResizeCuboid)(b, &out, 0.25, 2.0, 1.5, -0.5, 0.5, 0,
                                                             mode), {}};
                r.status = r.status * 1000 + QELR_VARIANT(isa, qelrResizeGetBufSize)(b, b, 1, mode, &sizes[0]);
                r.status = r.status * 1000 + QELR_VARIANT(isa, qelrWarpAffineGetBufSize)(b, b, 1, mode, &sizes[1]);
                r.status = r.status * 1000 + QELR_VARIANT(isa, qelrFilterGetBufSize)(
                                                 {b.width, b.height, b.depth}, {3, 3, mode}, 1, &sizes[2]);
                r.bytes.resize(sizeof out + sizeof sizes);
                std::memcpy(r.bytes.data(), &out, sizeof out);
                std::memcpy(r.bytes.data() + sizeof out, sizes, sizeof sizes);
                return r;
            }, true);
        }
    }
}

}  // namespace
