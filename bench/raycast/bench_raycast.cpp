// Ray casting throughput: a 1024 x 1024 camera traced in 64 x 64 packs, nearest
// hit for the primary rays and any hit for shadow rays towards a point light,
// on one thread and with an OpenMP loop over the packs on all cores. Embree 3
// (when installed) traces the same rays in the same run: rtcIntersect1,
// rtcIntersect4 on the rows of 4 x 4 tiles, rtcIntersect8 on 4 x 2 blocks, and
// rtcOccluded1. Prints medians of repeated runs, the ratios, and the fraction
// of rays on which both agree.
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

#include "mesh.h"
#include "mesh_io.h"
#include "scene_gen.h"

#ifdef QELR_BENCH_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

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
    // Pack p holds plane elements [p * 4096, (p + 1) * 4096).
    Buffer<float> dx{kRays}, dy{kRays}, dz{kRays}, dist{kRays}, u{kRays}, v{kRays};
    Buffer<int> index{kRays}, mask{kRays}, shadowIndex{kRays};
    Buffer<float> sx{kRays}, sy{kRays}, sz{kRays};
    size_t shadowRays = 0;
};

void run(const std::string& name, const qelr_example::Mesh& mesh, const Camera& cam, Vec light,
         int reps) {
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
    // Our outputs go to fr; primary (the reference copy of the nearest hits)
    // feeds the shadow rays.
    auto nearestPack = [&](int p, int height) {  // height 1: the one-ray path
        const size_t at = size_t(p) * kPackRays;
        const float* const d[3] = {fr.dx.p + at, fr.dy.p + at, fr.dz.p + at};
        float* const uv[2] = {fr.u.p + at, fr.v.p + at};
        std::fill(fr.dist.p + at, fr.dist.p + at + kPackRays, 1e30f);
        qelrIntersectEyeSO_32f(origin, d, fr.dist.p + at, uv, fr.index.p + at, &scene,
                               {kPackRays / height, height});
    };
    forPacks(1, [&](int p) { nearestPack(p, 1); });
    const std::vector<int> oneRayIndex(fr.index.p, fr.index.p + kRays);
    forPacks(1, [&](int p) { nearestPack(p, kPack); });
    const std::vector<int> primary(fr.index.p, fr.index.p + kRays);
    size_t hits = 0, pathAgree = 0;
    for (size_t i = 0; i < kRays; ++i) {
        hits += primary[i] >= 0;
        pathAgree += primary[i] == oneRayIndex[i];
    }

    // Shadow rays: from the light to each hit point pulled 0.1 % toward the eye.
    for (int p = 0; p < kPacks; ++p) {
        const size_t at = size_t(p) * kPackRays;
        const float* const d[3] = {fr.dx.p + at, fr.dy.p + at, fr.dz.p + at};
        float* const pts[3] = {fr.sx.p + at, fr.sy.p + at, fr.sz.p + at};
        qelrHitPoint3DEpsS0_32f_M(origin, d, fr.dist.p + at, primary.data() + at, pts, kPackRays,
                                  0.999f);
    }
    for (size_t i = 0; i < kRays; ++i) {
        fr.sx.p[i] -= light.x;
        fr.sy.p[i] -= light.y;
        fr.sz.p[i] -= light.z;
    }
    fr.shadowRays = hits;
    const float lightO[3] = {light.x, light.y, light.z};
    auto shadowPack = [&](int p) {
        const size_t at = size_t(p) * kPackRays;
        const float* const d[3] = {fr.sx.p + at, fr.sy.p + at, fr.sz.p + at};
        std::memcpy(fr.mask.p + at, primary.data() + at, kPackRays * sizeof(int));
        qelrIntersectAnySO_32f(lightO, d, fr.shadowIndex.p + at, fr.mask.p + at, {kPack, kPack},
                               &scene);
    };
    forPacks(1, shadowPack);
    size_t occluded = 0;
    for (size_t i = 0; i < kRays; ++i) occluded += primary[i] >= 0 && fr.mask.p[i] < 0;
    const std::vector<int> ourMask(fr.mask.p, fr.mask.p + kRays);

    const int cores = omp_get_num_procs();
    Timer timer;
    const int tOneRay = timer.add([&] { forPacks(1, [&](int p) { nearestPack(p, 1); }); });
    const int t1 = timer.add([&] { forPacks(1, [&](int p) { nearestPack(p, kPack); }); });
    const int t2 = timer.add([&] { forPacks(2, [&](int p) { nearestPack(p, kPack); }); });
    const int tn = timer.add([&] { forPacks(cores, [&](int p) { nearestPack(p, kPack); }); });
    const int s1 = timer.add([&] { forPacks(1, shadowPack); });
    const int s2 = timer.add([&] { forPacks(2, shadowPack); });
    const int sn = timer.add([&] { forPacks(cores, shadowPack); });

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
    auto embreeShadow = [&](int p) {
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
    auto agreement = [&] {
        size_t n = 0;
        for (size_t i = 0; i < kRays; ++i) n += eIndex[i] == primary[i];
        return 100.0 * n / kRays;
    };
    forPacks(1, embree1);
    const double agree1 = agreement();
    forPacks(1, embree4);
    const double agree4 = agreement();
    forPacks(1, embreeShadow);
    size_t shadowAgree = 0;
    for (size_t i = 0; i < kRays; ++i)
        if (primary[i] >= 0) shadowAgree += (ourMask[i] < 0) == (eOccluded[i] != 0);
    const int e1 = timer.add([&] { forPacks(1, embree1); });
    const int e4 = timer.add([&] { forPacks(1, embree4); });
    const int e8 = timer.add([&] { forPacks(1, embree8); });
    const int e4n = timer.add([&] { forPacks(cores, embree4); });
    const int eo1 = timer.add([&] { forPacks(1, embreeShadow); });
    const int eon = timer.add([&] { forPacks(cores, embreeShadow); });
#endif
    timer.run(reps);

    const double mr = kRays / 1e6, ms = fr.shadowRays / 1e6;
    auto rate = [&](const char* what, double rays, int k) {
        std::printf("  %-46s %8.2f %8.2f\n", what, rays / timer.cpuMedian(k),
                    rays / timer.median(k));
    };
    auto scaled = [&](const char* what, double rays, int k, int base, int threads) {
        std::printf("  %-46s %8s %8.2f  (x%.2f over 1 thread by wall time, %d threads)\n", what, "",
                    rays / timer.median(k), timer.median(base) / timer.median(k), threads);
    };
    std::printf("primary rays: %zu of %zu hit; packet and one-ray paths agree on %.4f %% of rays\n",
                hits, kRays, 100.0 * pathAgree / kRays);
    std::printf("shadow rays: %zu traced, %zu occluded\n", fr.shadowRays, occluded);
    std::printf("median Mrays/s over %d interleaved rounds, by thread time and by wall time:\n",
                reps);
    rate("qelr nearest, one-ray path, 1 thread", mr, tOneRay);
    rate("qelr nearest, packets, 1 thread", mr, t1);
    scaled("qelr nearest, packets, 2 threads", mr, t2, t1, 2);
    scaled("qelr nearest, packets, all cores", mr, tn, t1, cores);
    rate("qelr shadow (any hit), 1 thread", ms, s1);
    scaled("qelr shadow (any hit), 2 threads", ms, s2, s1, 2);
    scaled("qelr shadow (any hit), all cores", ms, sn, s1, cores);
#ifdef QELR_BENCH_HAVE_EMBREE
    rate("Embree rtcIntersect1, 1 thread", mr, e1);
    rate("Embree rtcIntersect4 (rows of 4), 1 thread", mr, e4);
    rate("Embree rtcIntersect8 (4 x 2 blocks), 1 thread", mr, e8);
    scaled("Embree rtcIntersect4, all cores", mr, e4n, e4, cores);
    rate("Embree rtcOccluded1, 1 thread", ms, eo1);
    scaled("Embree rtcOccluded1, all cores", ms, eon, eo1, cores);
    auto ratio = [&](const char* what, int ours, int theirs) {
        std::printf("  %-46s %8.2f %8.2f\n", what, timer.cpuMedian(theirs) / timer.cpuMedian(ours),
                    timer.median(theirs) / timer.median(ours));
    };
    std::printf(
        "speed ratios qelr / Embree (target >= 1.0 on 1 thread), by thread time and by wall "
        "time:\n");
    ratio("nearest packets / rtcIntersect4, 1 thread", t1, e4);
    ratio("nearest packets / rtcIntersect8, 1 thread", t1, e8);
    ratio("nearest packets / rtcIntersect1, 1 thread", t1, e1);
    ratio("nearest one-ray / rtcIntersect1, 1 thread", tOneRay, e1);
    ratio("shadow any-hit / rtcOccluded1, 1 thread", s1, eo1);
    auto wallRatio = [&](const char* what, int ours, int theirs) {
        std::printf("  %-46s %8s %8.2f\n", what, "", timer.median(theirs) / timer.median(ours));
    };
    wallRatio("nearest packets / rtcIntersect4, all cores", tn, e4n);
    wallRatio("shadow any-hit / rtcOccluded1, all cores", sn, eon);
    std::printf(
        "agreement with Embree: hit triangle %.4f %% (rtcIntersect1), %.4f %% (rtcIntersect4); "
        "occlusion %.4f %% of shadow rays\n",
        agree1, agree4, fr.shadowRays ? 100.0 * shadowAgree / fr.shadowRays : 100.0);
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
        run("procedural scene", m, lookAt({0, 28, -72}, {0, 0, 5}, 60.0f), {30, 90, -40}, reps);
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
        lookAt({c.x + 0.9f * e, c.y + 0.25f * e, c.z - 0.3f * e}, c, 50.0f),
        {c.x + 0.3f * e, c.y + 1.2f * e, c.z - 0.6f * e}, reps);
    return 0;
}
