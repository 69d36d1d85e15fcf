// Ray casting throughput: a 1024 x 1024 camera traced in 64 x 64 packs, nearest
// hit for the primary rays and any hit for shadow rays towards a point light,
// on one thread, the SSE3 and AVX2 variants of the library side by side in one
// process. Embree 3 (when installed) traces the same rays in the same run:
// rtcIntersect1, rtcIntersect4 on the rows of 4 x 4 tiles, rtcIntersect8 on
// 4 x 2 blocks, rtcOccluded1 and rtcOccluded8. The shadow rays run for three
// light positions chosen so that about 5 %, 30 % and over 60 % of them are
// blocked, on packets and on unaligned planes (the one-ray path), with the
// share of blocked rays that the cached occluder finishes and the share of
// tiles split by octant. Nearest-hit rows: packets (aligned planes), the
// one-ray path (a pack of one row) and unaligned planes (every plane one
// float off a 16-byte boundary). Prints medians of the calling thread's
// processor time over interleaved rounds, the ratios to the peers, and the
// agreement of the hits.
#include <omp.h>
#include <qelr.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "core/dispatch.h"
#include "mesh.h"
#include "mesh_io.h"
#include "scene_gen.h"

#ifdef QELR_BENCH_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using qelr::frame::Isa;

constexpr int kImage = 1024;
constexpr int kPack = 64;
constexpr int kPacksPerSide = kImage / kPack;
constexpr int kPacks = kPacksPerSide * kPacksPerSide;
constexpr int kPackRays = kPack * kPack;
constexpr size_t kRays = size_t(kImage) * kImage;

// 64-byte aligned float or int storage.
template <class T>
struct Buffer {
    T* p = nullptr;
    explicit Buffer(size_t n) {
        p = static_cast<T*>(std::aligned_alloc(64, ((n * sizeof(T) + 63) / 64) * 64));
    }
    ~Buffer() { std::free(p); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
};

struct Vec {
    float x, y, z;
};
Vec sub(Vec a, Vec b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec scale(Vec a, float s) { return {a.x * s, a.y * s, a.z * s}; }
Vec cross(Vec a, Vec b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
Vec normalize(Vec a) { return scale(a, 1.0f / std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z)); }

struct Camera {
    Vec eye, corner, stepX, stepY;
};

Camera lookAt(Vec eye, Vec target, float fovDegrees) {
    const Vec f = normalize(sub(target, eye));
    const Vec r = normalize(cross({0, 1, 0}, f));
    const Vec u = cross(f, r);
    const float h = std::tan(fovDegrees * 3.14159265f / 360.0f);
    const Vec sx = scale(r, 2.0f * h / kImage), sy = scale(u, -2.0f * h / kImage);
    Camera c{eye, {}, sx, sy};
    c.corner = {f.x - r.x * h + u.x * h, f.y - r.y * h + u.y * h, f.z - r.z * h + u.z * h};
    return c;
}

double threadSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// Timed runs interleaved round by round, so that the load of a shared
// machine falls on all contenders alike; medians per contender of the wall
// time and, for one-thread runs, of the calling thread's processor time
// (which time slices taken by other processes do not inflate).
class Timer {
 public:
    int add(std::function<void()> f) {
        runs_.push_back(std::move(f));
        wall_.emplace_back();
        cpu_.emplace_back();
        return static_cast<int>(runs_.size()) - 1;
    }
    void run(int rounds) {
        for (int r = 0; r < rounds; ++r)
            for (size_t k = 0; k < runs_.size(); ++k) {
                const double c0 = threadSeconds();
                const auto t0 = std::chrono::steady_clock::now();
                runs_[k]();
                wall_[k].push_back(
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
                cpu_[k].push_back(threadSeconds() - c0);
            }
        for (auto& t : wall_) std::sort(t.begin(), t.end());
        for (auto& t : cpu_) std::sort(t.begin(), t.end());
    }
    double median(int k) const { return wall_[k][wall_[k].size() / 2]; }
    double cpuMedian(int k) const { return cpu_[k][cpu_[k].size() / 2]; }

 private:
    std::vector<std::function<void()>> runs_;
    std::vector<std::vector<double>> wall_, cpu_;
};

// Runs body(pack) for every pack, on `threads` threads (1: plain loop).
template <class F>
void forPacks(int threads, F&& body) {
    if (threads == 1) {
        for (int p = 0; p < kPacks; ++p) body(p);
        return;
    }
#pragma omp parallel for num_threads(threads) schedule(dynamic, 1)
    for (int p = 0; p < kPacks; ++p) body(p);
}

struct Frame {
    // Pack p holds plane elements [p * 4096, (p + 1) * 4096); the planes of
    // the unaligned copies start one float past a 16-byte boundary.
    Buffer<float> dx{kRays}, dy{kRays}, dz{kRays}, dist{kRays}, u{kRays}, v{kRays};
    Buffer<int> index{kRays}, mask{kRays}, shadowIndex{kRays};
    Buffer<float> sx{kRays}, sy{kRays}, sz{kRays};
    Buffer<float> ux{kRays + 1}, uy{kRays + 1}, uz{kRays + 1}, udist{kRays + 1}, uu{kRays + 1},
        uv{kRays + 1};
    Buffer<int> uindex{kRays + 1};
};

// The share of blocked shadow rays aimed at for each light.
constexpr double kOccludedTargets[3] = {0.05, 0.30, 0.65};

void run(const std::string& name, const qelr_example::Mesh& mesh, const Camera& cam, int reps) {
    const int nt = mesh.triangleCount(), nv = mesh.vertexCount();
    std::vector<TriangleAccel> rec(nt);
    qelrTriangleAccelInit(rec.data(), mesh.vertices.data(), mesh.indices.data(), nt);
    float box[6];
    qelrSetBoundBox_32f(mesh.vertices.data(), nv, box);
    KDTreeNode* tree = nullptr;
    int treeSize = 0;
    const KDTreeBuildParams params = {qelKdCostDriven, 50, 1.0f, 4095, 0};
    const auto b0 = std::chrono::steady_clock::now();
    if (qelrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.indices.data(), nv, nt, &treeSize,
                             &params) != qelOk) {
        std::printf("%s: tree build failed\n", name.c_str());
        return;
    }
    const double buildSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - b0).count();
    const QelTraceScene scene{box, rec.data(), tree};
    std::printf("\n== %s: %d triangles, tree %.1f MB built in %.2f s\n", name.c_str(), nt,
                treeSize / 1048576.0, buildSeconds);

    Frame fr;
    const float origin[3] = {cam.eye.x, cam.eye.y, cam.eye.z};
    const float corner[3] = {cam.corner.x, cam.corner.y, cam.corner.z};
    const float stepX[3] = {cam.stepX.x, cam.stepX.y, cam.stepX.z};
    const float stepY[3] = {cam.stepY.x, cam.stepY.y, cam.stepY.z};
    for (int p = 0; p < kPacks; ++p) {
        const size_t at = size_t(p) * kPackRays;
        float* const d[3] = {fr.dx.p + at, fr.dy.p + at, fr.dz.p + at};
        qelrCastEye_32f(corner, stepX, stepY, kPack, kPack, {p % kPacksPerSide, p / kPacksPerSide},
                        d, {kPack, kPack});
    }
    std::memcpy(fr.ux.p + 1, fr.dx.p, kRays * sizeof(float));
    std::memcpy(fr.uy.p + 1, fr.dy.p, kRays * sizeof(float));
    std::memcpy(fr.uz.p + 1, fr.dz.p, kRays * sizeof(float));
    // height 1: a pack of one row (the one-ray path); unaligned: the shifted
    // planes (the one-ray path too, at the pack's own shape).
    auto nearestPack = [&](Isa isa, int p, int height, bool unaligned) {
        const size_t at = size_t(p) * kPackRays + (unaligned ? 1 : 0);
        Buffer<float>&dist = unaligned ? fr.udist : fr.dist, &u = unaligned ? fr.uu : fr.u,
        &v = unaligned ? fr.uv : fr.v;
        const float* const d[3] = {(unaligned ? fr.ux : fr.dx).p + at,
                                   (unaligned ? fr.uy : fr.dy).p + at,
                                   (unaligned ? fr.uz : fr.dz).p + at};
        float* const uv[2] = {u.p + at, v.p + at};
        std::fill(dist.p + at, dist.p + at + kPackRays, 1e30f);
        QELR_VARIANT(isa, qelrIntersectEyeSO_32f)
        (origin, d, dist.p + at, uv, (unaligned ? fr.uindex : fr.index).p + at, &scene,
         {kPackRays / height, height});
    };
    auto indices = [&](bool unaligned) {
        const int* x = unaligned ? fr.uindex.p + 1 : fr.index.p;
        return std::vector<int>(x, x + kRays);
    };
    forPacks(1, [&](int p) { nearestPack(Isa::sse3, p, 1, false); });
    const std::vector<int> oneRayIndex = indices(false);
    forPacks(1, [&](int p) { nearestPack(Isa::sse3, p, kPack, true); });
    const bool unalignedSame = indices(true) == oneRayIndex;
    forPacks(1, [&](int p) { nearestPack(Isa::avx2, p, kPack, false); });
    const std::vector<int> avx2Index = indices(false);
    forPacks(1, [&](int p) { nearestPack(Isa::sse3, p, kPack, false); });
    const std::vector<int> primary = indices(false);
    size_t hits = 0, pathAgree = 0;
    for (size_t i = 0; i < kRays; ++i) {
        hits += primary[i] >= 0;
        pathAgree += primary[i] == oneRayIndex[i];
    }
    std::printf("primary rays: %zu of %zu hit; packet and one-ray paths agree on %.4f %% of rays; "
                "unaligned %s one-ray, avx2 %s sse3\n",
                hits, kRays, 100.0 * pathAgree / kRays, unalignedSame ? "==" : "!=",
                avx2Index == primary ? "==" : "!=");

    // The hit points pulled 0.1 % toward the eye: the targets of the shadow rays.
    std::vector<float> pts[3];
    for (auto& p : pts) p.resize(kRays);
    for (int p = 0; p < kPacks; ++p) {
        const size_t at = size_t(p) * kPackRays;
        const float* const d[3] = {fr.dx.p + at, fr.dy.p + at, fr.dz.p + at};
        float* const out[3] = {pts[0].data() + at, pts[1].data() + at, pts[2].data() + at};
        qelrHitPoint3DEpsS0_32f_M(origin, d, fr.dist.p + at, primary.data() + at, out, kPackRays,
                                  0.999f);
    }
    Vec light{};
    auto aimAt = [&](Vec l) {
        light = l;
        for (size_t i = 0; i < kRays; ++i) {
            fr.sx.p[i] = pts[0][i] - l.x;
            fr.sy.p[i] = pts[1][i] - l.y;
            fr.sz.p[i] = pts[2][i] - l.z;
        }
    };
    auto shadowPack = [&](Isa isa, int p) {
        const size_t at = size_t(p) * kPackRays;
        const float* const d[3] = {fr.sx.p + at, fr.sy.p + at, fr.sz.p + at};
        std::memcpy(fr.mask.p + at, primary.data() + at, kPackRays * sizeof(int));
        const float lightO[3] = {light.x, light.y, light.z};
        QELR_VARIANT(isa, qelrIntersectAnySO_32f)
        (lightO, d, fr.shadowIndex.p + at, fr.mask.p + at, {kPack, kPack}, &scene);
    };
    // The same shadow rays on planes one float off a 16-byte boundary: the
    // one-ray path.
    std::vector<float> usx(kRays + 1), usy(kRays + 1), usz(kRays + 1);
    std::vector<int> umask(kRays + 1), uindex(kRays + 1);
    auto shadowPackUnaligned = [&](Isa isa, int p) {
        const size_t at = size_t(p) * kPackRays + 1;
        const float* const d[3] = {usx.data() + at, usy.data() + at, usz.data() + at};
        std::memcpy(umask.data() + at, primary.data() + at - 1, kPackRays * sizeof(int));
        const float lightO[3] = {light.x, light.y, light.z};
        QELR_VARIANT(isa, qelrIntersectAnySO_32f)
        (lightO, d, uindex.data() + at, umask.data() + at, {kPack, kPack}, &scene);
    };
    // Where the packets' time goes: the share of blocked rays that the cached
    // occluder of their pack finishes, and the share of tiles whose remaining
    // rays span several octants (traced row by row and octant by octant).
    auto packetProfile = [&](double& byOccluder, double& splitTiles) {
        size_t blocked = 0, cached = 0, tiles = 0, split = 0;
        for (int p = 0; p < kPacks; ++p) {
            const size_t at = size_t(p) * kPackRays;
            int occluder = -1;
            for (int i = 0; i < 4; ++i)
                if (primary[at + 3 * kPack + i] >= 0) {
                    occluder = fr.shadowIndex.p[at + 3 * kPack + i];
                    break;
                }
            for (int i = 0; i < kPackRays; ++i) {
                blocked += primary[at + i] >= 0 && fr.mask.p[at + i] < 0;
                cached += occluder >= 0 && primary[at + i] >= 0 && fr.shadowIndex.p[at + i] == occluder;
            }
            for (int ty = 0; ty < kPack; ty += 4)
                for (int tx = 0; tx < kPack; tx += 4) {
                    int codes = 0;
                    for (int k = 0; k < 16; ++k) {
                        const size_t i = at + size_t(ty + k / 4) * kPack + tx + k % 4;
                        if (primary[i] < 0 || (occluder >= 0 && fr.shadowIndex.p[i] == occluder))
                            continue;
                        codes |= 1 << ((fr.sx.p[i] < 0) | (fr.sy.p[i] < 0) << 1 | (fr.sz.p[i] < 0) << 2);
                    }
                    tiles += codes != 0;
                    split += codes != 0 && (codes & (codes - 1)) != 0;
                }
        }
        byOccluder = blocked ? double(cached) / blocked : 0.0;
        splitTiles = tiles ? double(split) / tiles : 0.0;
    };
    auto occludedShare = [&] {
        size_t occluded = 0;
        for (size_t i = 0; i < kRays; ++i) occluded += primary[i] >= 0 && fr.mask.p[i] < 0;
        return hits ? double(occluded) / hits : 0.0;
    };
    // Candidate lights around and above the scene's box; for each target
    // share, the candidate that comes closest.
    const Vec c{0.5f * (box[0] + box[3]), 0.5f * (box[1] + box[4]), 0.5f * (box[2] + box[5])};
    const float e = std::max({box[3] - box[0], box[4] - box[1], box[5] - box[2]});
    Vec chosen[3];
    double best[3] = {9, 9, 9}, share[3] = {};
    for (float h : {1.2f, 0.8f, 0.5f, 0.35f, 0.25f, 0.15f, 0.08f, 0.02f, -0.1f})
        for (float a : {0.6f, 2.4f, 4.2f})
            for (float r : {0.1f, 0.5f, 0.9f}) {
                const Vec l{c.x + r * e * std::cos(a), c.y + h * e, c.z + r * e * std::sin(a)};
                aimAt(l);
                forPacks(1, [&](int p) { shadowPack(Isa::sse3, p); });
                const double s = occludedShare();
                for (int k = 0; k < 3; ++k)
                    if (std::fabs(s - kOccludedTargets[k]) < best[k]) {
                        best[k] = std::fabs(s - kOccludedTargets[k]);
                        chosen[k] = l;
                        share[k] = s;
                    }
            }

    const bool avx2 = qelr::frame::isaRuns(Isa::avx2);
    const std::vector<Isa> isas = avx2 ? std::vector<Isa>{Isa::sse3, Isa::avx2}
                                       : std::vector<Isa>{Isa::sse3};
#ifdef QELR_BENCH_HAVE_EMBREE
    RTCDevice dev = rtcNewDevice(nullptr);
    RTCScene es = rtcNewScene(dev);
    RTCGeometry g = rtcNewGeometry(dev, RTC_GEOMETRY_TYPE_TRIANGLE);
    float* vb = static_cast<float*>(rtcSetNewGeometryBuffer(
        g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), nv));
    unsigned* ib = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), nt));
    std::memcpy(vb, mesh.vertices.data(), sizeof(float) * 3 * nv);
    for (int t = 0; t < nt; ++t)
        for (int k = 0; k < 3; ++k) ib[3 * t + k] = unsigned(mesh.indices[4 * t + k]);
    rtcCommitGeometry(g);
    rtcAttachGeometry(es, g);
    rtcReleaseGeometry(g);
    rtcCommitScene(es);
    std::vector<int> eIndex(kRays);
    std::vector<unsigned char> eOccluded(kRays);
    auto embree1 = [&](int p) {
        RTCIntersectContext ctx;
        rtcInitIntersectContext(&ctx);
        const size_t at = size_t(p) * kPackRays;
        for (int i = 0; i < kPackRays; ++i) {
            RTCRayHit rh;
            rh.ray.org_x = cam.eye.x, rh.ray.org_y = cam.eye.y, rh.ray.org_z = cam.eye.z;
            rh.ray.dir_x = fr.dx.p[at + i], rh.ray.dir_y = fr.dy.p[at + i],
            rh.ray.dir_z = fr.dz.p[at + i];
            rh.ray.tnear = 0.0f, rh.ray.tfar = 1e30f, rh.ray.time = 0.0f;
            rh.ray.mask = ~0u, rh.ray.id = 0, rh.ray.flags = 0;
            rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(es, &ctx, &rh);
            eIndex[at + i] = rh.hit.geomID == RTC_INVALID_GEOMETRY_ID ? -1 : int(rh.hit.primID);
        }
    };
    // Packets of `W` rays: rows of 4 (W = 4) or 4 x 2 blocks (W = 8).
    auto embreePackets = [&](int p, auto width) {
        constexpr int W = decltype(width)::value;
        using RayHitW = std::conditional_t<W == 4, RTCRayHit4, RTCRayHit8>;
        RTCIntersectContext ctx;
        rtcInitIntersectContext(&ctx);
        ctx.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
        const size_t at = size_t(p) * kPackRays;
        alignas(32) int valid[W];
        for (int k = 0; k < W; ++k) valid[k] = -1;
        for (int y = 0; y < kPack; y += W / 4)
            for (int x = 0; x < kPack; x += 4) {
                alignas(32) RayHitW rh;
                size_t ids[W];
                for (int k = 0; k < W; ++k) {
                    const size_t i = at + size_t(y + k / 4) * kPack + x + k % 4;
                    ids[k] = i;
                    rh.ray.org_x[k] = cam.eye.x, rh.ray.org_y[k] = cam.eye.y,
                    rh.ray.org_z[k] = cam.eye.z;
                    rh.ray.dir_x[k] = fr.dx.p[i], rh.ray.dir_y[k] = fr.dy.p[i],
                    rh.ray.dir_z[k] = fr.dz.p[i];
                    rh.ray.tnear[k] = 0.0f, rh.ray.tfar[k] = 1e30f, rh.ray.time[k] = 0.0f;
                    rh.ray.mask[k] = ~0u, rh.ray.id[k] = 0, rh.ray.flags[k] = 0;
                    rh.hit.geomID[k] = RTC_INVALID_GEOMETRY_ID;
                }
                if constexpr (W == 4) {
                    rtcIntersect4(valid, es, &ctx, &rh);
                } else {
                    rtcIntersect8(valid, es, &ctx, &rh);
                }
                for (int k = 0; k < W; ++k)
                    eIndex[ids[k]] =
                        rh.hit.geomID[k] == RTC_INVALID_GEOMETRY_ID ? -1 : int(rh.hit.primID[k]);
            }
    };
    auto embree4 = [&](int p) { embreePackets(p, std::integral_constant<int, 4>{}); };
    auto embree8 = [&](int p) { embreePackets(p, std::integral_constant<int, 8>{}); };
    auto embreeShadow1 = [&](int p) {
        RTCIntersectContext ctx;
        rtcInitIntersectContext(&ctx);
        const size_t at = size_t(p) * kPackRays;
        for (int i = 0; i < kPackRays; ++i) {
            if (primary[at + i] < 0) continue;
            RTCRay r;
            r.org_x = light.x, r.org_y = light.y, r.org_z = light.z;
            r.dir_x = fr.sx.p[at + i], r.dir_y = fr.sy.p[at + i], r.dir_z = fr.sz.p[at + i];
            r.tnear = 0.0f, r.tfar = 1.0f, r.time = 0.0f, r.mask = ~0u, r.id = 0, r.flags = 0;
            rtcOccluded1(es, &ctx, &r);
            eOccluded[at + i] = r.tfar < 0.0f;
        }
    };
    // 4 x 2 blocks, the lanes without a primary hit invalid.
    auto embreeShadow8 = [&](int p) {
        RTCIntersectContext ctx;
        rtcInitIntersectContext(&ctx);
        ctx.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
        const size_t at = size_t(p) * kPackRays;
        for (int y = 0; y < kPack; y += 2)
            for (int x = 0; x < kPack; x += 4) {
                alignas(32) RTCRay8 r;
                alignas(32) int valid[8];
                size_t ids[8];
                for (int k = 0; k < 8; ++k) {
                    const size_t i = at + size_t(y + k / 4) * kPack + x + k % 4;
                    ids[k] = i;
                    valid[k] = primary[i] >= 0 ? -1 : 0;
                    r.org_x[k] = light.x, r.org_y[k] = light.y, r.org_z[k] = light.z;
                    r.dir_x[k] = fr.sx.p[i], r.dir_y[k] = fr.sy.p[i], r.dir_z[k] = fr.sz.p[i];
                    r.tnear[k] = 0.0f, r.tfar[k] = 1.0f, r.time[k] = 0.0f;
                    r.mask[k] = ~0u, r.id[k] = 0, r.flags[k] = 0;
                }
                rtcOccluded8(valid, es, &ctx, &r);
                for (int k = 0; k < 8; ++k)
                    if (valid[k]) eOccluded[ids[k]] = r.tfar[k] < 0.0f;
            }
    };
    forPacks(1, embree1);
    size_t agree1 = 0;
    for (size_t i = 0; i < kRays; ++i) agree1 += eIndex[i] == primary[i];
    std::printf("agreement with rtcIntersect1 on the hit triangle: %.4f %%\n", 100.0 * agree1 / kRays);
#endif

    // Nearest-hit rows.
    {
        Timer timer;
        std::vector<int> packets, oneRay, unaligned;
        for (Isa isa : isas) {
            packets.push_back(timer.add([&, isa] { forPacks(1, [&](int p) { nearestPack(isa, p, kPack, false); }); }));
            oneRay.push_back(timer.add([&, isa] { forPacks(1, [&](int p) { nearestPack(isa, p, 1, false); }); }));
            unaligned.push_back(timer.add([&, isa] { forPacks(1, [&](int p) { nearestPack(isa, p, kPack, true); }); }));
        }
#ifdef QELR_BENCH_HAVE_EMBREE
        const int e1 = timer.add([&] { forPacks(1, embree1); });
        const int e4 = timer.add([&] { forPacks(1, embree4); });
        const int e8 = timer.add([&] { forPacks(1, embree8); });
#endif
        timer.run(reps);
        const double mr = kRays / 1e6;
        std::printf("nearest hit, Mrays/s (median thread time over %d rounds), 1 thread:\n", reps);
        std::printf("  %-34s %8s %8s", "", "sse3", "avx2");
#ifdef QELR_BENCH_HAVE_EMBREE
        std::printf(" %8s %8s %8s   %s", "Intersect1", "Intersect4", "Intersect8", "ratios sse3, avx2 to the peer");
#endif
        std::printf("\n");
        auto row = [&](const char* what, const std::vector<int>& ks, int peer) {
            std::printf("  %-34s", what);
            for (int k : ks) std::printf(" %8.2f", mr / timer.cpuMedian(k));
            if (ks.size() == 1) std::printf(" %8s", "-");
#ifdef QELR_BENCH_HAVE_EMBREE
            std::printf(" %8.2f %10.2f %10.2f  ", mr / timer.cpuMedian(e1), mr / timer.cpuMedian(e4),
                        mr / timer.cpuMedian(e8));
            const int peerK = peer == 1 ? e1 : peer == 4 ? e4 : e8;
            for (int k : ks) std::printf(" %5.2f", timer.cpuMedian(peerK) / timer.cpuMedian(k));
            std::printf(" (vs rtcIntersect%d)", peer);
#else
            (void)peer;
#endif
            std::printf("\n");
        };
        row("packets (aligned, 64 x 64)", packets, 8);
        row("one-ray path (4096 x 1)", oneRay, 1);
        row("unaligned planes (64 x 64)", unaligned, 1);
    }

    // Shadow rows: one per light.
    std::printf("shadow rays (any hit), Mrays/s, 1 thread:\n");
    std::printf("  %-34s %8s %8s", "", "sse3", "avx2");
#ifdef QELR_BENCH_HAVE_EMBREE
    std::printf(" %8s %8s   %s", "Occluded1", "Occluded8", "ratios sse3, avx2 to Occluded1 | to Occluded8");
#endif
    std::printf("\n");
    for (int k = 0; k < 3; ++k) {
        aimAt(chosen[k]);
        std::memcpy(usx.data() + 1, fr.sx.p, kRays * sizeof(float));
        std::memcpy(usy.data() + 1, fr.sy.p, kRays * sizeof(float));
        std::memcpy(usz.data() + 1, fr.sz.p, kRays * sizeof(float));
        forPacks(1, [&](int p) { shadowPack(Isa::sse3, p); });
        forPacks(1, [&](int p) { shadowPackUnaligned(Isa::sse3, p); });
        const std::vector<int> ourMask(fr.mask.p, fr.mask.p + kRays);
        bool masksAgree = true;
        for (size_t i = 0; i < kRays; ++i) masksAgree = masksAgree && (ourMask[i] < 0) == (umask[i + 1] < 0);
        double byOccluder = 0, splitTiles = 0;
        packetProfile(byOccluder, splitTiles);
        Timer timer;
        std::vector<int> ours, oneRay;
        for (Isa isa : isas) ours.push_back(timer.add([&, isa] { forPacks(1, [&](int p) { shadowPack(isa, p); }); }));
        for (Isa isa : isas) oneRay.push_back(timer.add([&, isa] { forPacks(1, [&](int p) { shadowPackUnaligned(isa, p); }); }));
#ifdef QELR_BENCH_HAVE_EMBREE
        forPacks(1, embreeShadow1);
        size_t agree = 0;
        for (size_t i = 0; i < kRays; ++i)
            if (primary[i] >= 0) agree += (ourMask[i] < 0) == (eOccluded[i] != 0);
        const int o1 = timer.add([&] { forPacks(1, embreeShadow1); });
        const int o8 = timer.add([&] { forPacks(1, embreeShadow8); });
#endif
        timer.run(reps);
        const double ms = hits / 1e6;
        char what[64];
        std::snprintf(what, sizeof what, "light %d: %.1f %% blocked", k + 1, 100.0 * share[k]);
        std::printf("  %-34s", what);
        for (int t : ours) std::printf(" %8.2f", ms / timer.cpuMedian(t));
        if (ours.size() == 1) std::printf(" %8s", "-");
#ifdef QELR_BENCH_HAVE_EMBREE
        std::printf(" %8.2f %8.2f  ", ms / timer.cpuMedian(o1), ms / timer.cpuMedian(o8));
        for (int t : ours) std::printf(" %5.2f", timer.cpuMedian(o1) / timer.cpuMedian(t));
        std::printf(" |");
        for (int t : ours) std::printf(" %5.2f", timer.cpuMedian(o8) / timer.cpuMedian(t));
        std::printf("  (agree %.3f %%)", hits ? 100.0 * agree / hits : 100.0);
#endif
        std::printf("\n  %-34s", "  one-ray path (unaligned planes)");
        for (int t : oneRay) std::printf(" %8.2f", ms / timer.cpuMedian(t));
        if (oneRay.size() == 1) std::printf(" %8s", "-");
#ifdef QELR_BENCH_HAVE_EMBREE
        std::printf(" %8s %8s  ", "", "");
        for (int t : oneRay) std::printf(" %5.2f", timer.cpuMedian(o1) / timer.cpuMedian(t));
        std::printf(" |");
        for (int t : oneRay) std::printf(" %5.2f", timer.cpuMedian(o8) / timer.cpuMedian(t));
#endif
        std::printf("\n    blocked rays finished by the cached occluder %.1f %%, tiles split by "
                    "octant %.1f %%, occlusion same on both paths: %s\n",
                    100.0 * byOccluder, 100.0 * splitTiles, masksAgree ? "yes" : "no");
    }
#ifdef QELR_BENCH_HAVE_EMBREE
    rtcReleaseScene(es);
    rtcReleaseDevice(dev);
#endif
    qelrKDTreeFree(tree);
}

}  // namespace

int main(int argc, char** argv) {
    const int reps = argc > 1 ? std::atoi(argv[1]) : 5;
    {
        const qelr_example::Mesh m = qelr_example::makeProceduralScene(250000);
        run("procedural scene", m, lookAt({0, 28, -72}, {0, 0, 5}, 60.0f), reps);
    }
    const char* path = "/usr/share/assimp/models/PLY/Wuson.ply";
    qelr_example::Mesh raw;
    std::string error;
    if (!qelr_example::loadMesh(path, raw, error)) {
        std::printf("\n(real mesh skipped: %s)\n", error.c_str());
        return 0;
    }
    const qelr_example::Mesh m = qelr_example::subdivideToAtLeast(raw, 100000);
    float box[6];
    qelrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), box);
    const Vec c{0.5f * (box[0] + box[3]), 0.5f * (box[1] + box[4]), 0.5f * (box[2] + box[5])};
    const float e = std::max({box[3] - box[0], box[4] - box[1], box[5] - box[2]});
    run("Wuson.ply subdivided", m,
        lookAt({c.x + 0.9f * e, c.y + 0.25f * e, c.z - 0.3f * e}, c, 50.0f), reps);
    return 0;
}
