// Cost-driven KD-tree build: time, size and shape of the tree for procedural
// scenes of 10k to 1M triangles and for a real mesh, side by side with
// Embree's high-quality single-thread BVH build of the same triangles.
//
// Usage: bench_kdtree [repetitions] [largest scene in triangles, 1M by default; 4000000 adds 4M]
//        bench_kdtree coplanar [repetitions] [triangle size / 10, 1 by default]
// Times are medians over the repetitions. The build scores large nodes with
// one thread per axis; OMP_THREAD_LIMIT=1 gives the single-thread figures.
#include <qelr.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "accel/kd_node.h"
#include "mesh_io.h"
#include "scene_gen.h"

#ifdef QELR_BENCH_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using qelr_example::Mesh;
namespace kdnode = qelr::kdnode;
using Clock = std::chrono::steady_clock;

// Processor time of the whole process (all threads), in seconds: on a busy
// machine it tracks the work better than the wall clock.
double cpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + 1e-9 * ts.tv_nsec;
}

struct Timing {
    double wall, cpu;
};

Timing medians(const std::vector<double>& wall, const std::vector<double>& cpu);

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

Timing medians(const std::vector<double>& wall, const std::vector<double>& cpu) {
    return {median(wall), median(cpu)};
}

struct TreeStats {
    int bytes = 0;
    long inner = 0, leaves = 0, emptyLeaves = 0, refs = 0;
    int maxDepth = 0;
};

TreeStats walk(const KDTreeNode* tree, int bytes) {
    TreeStats s;
    s.bytes = bytes;
    struct Item {
        const KDTreeNode* node;
        int depth;
    };
    std::vector<Item> stack = {{tree, 0}};
    while (!stack.empty()) {
        const Item it = stack.back();
        stack.pop_back();
        s.maxDepth = std::max(s.maxDepth, it.depth);
        const kdnode::Words w = kdnode::load(it.node);
        if (!kdnode::isLeaf(w)) {
            ++s.inner;
            const auto* child = reinterpret_cast<const KDTreeNode*>(
                reinterpret_cast<const char*>(it.node) + kdnode::childOffset(w));
            stack.push_back({child, it.depth + 1});
            stack.push_back({child + 1, it.depth + 1});
            continue;
        }
        ++s.leaves;
        const long count = kdnode::leafCount(w);
        s.refs += count;
        s.emptyLeaves += count == 0;
    }
    return s;
}

struct Result {
    Timing time;
    TreeStats stats;
};

Result buildOurs(const Mesh& m, int reps) {
    const KDTreeBuildParams params = {qelKdCostDriven, 50, 1.0f, 4095, 0};
    std::vector<double> times, cpu;
    TreeStats stats;
    for (int r = 0; r < reps; ++r) {
        KDTreeNode* tree = nullptr;
        int size = 0;
        const double c0 = cpuSeconds();
        const auto t0 = Clock::now();
        const QelStatus st =
            qelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.indices.data(), m.vertexCount(),
                                 m.triangleCount(), &size, &params);
        times.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
        cpu.push_back(cpuSeconds() - c0);
        if (st != qelOk) {
            std::fprintf(stderr, "build failed: %d\n", st);
            std::exit(1);
        }
        if (r == 0) stats = walk(tree, size);
        qelrKDTreeFree(tree);
    }
    return {medians(times, cpu), stats};
}

#ifdef QELR_BENCH_HAVE_EMBREE
Timing buildEmbree(RTCDevice device, const Mesh& m, int reps) {
    std::vector<double> times, cpu;
    for (int r = 0; r < reps; ++r) {
        RTCScene scene = rtcNewScene(device);
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_HIGH);
        RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(geom, RTC_BUILD_QUALITY_HIGH);
        auto* v = static_cast<float*>(
            rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12,
                                    static_cast<size_t>(m.vertexCount())));
        std::memcpy(v, m.vertices.data(), m.vertices.size() * sizeof(float));
        auto* ix = static_cast<unsigned*>(
            rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12,
                                    static_cast<size_t>(m.triangleCount())));
        for (int t = 0; t < m.triangleCount(); ++t)
            for (int c = 0; c < 3; ++c) ix[3 * t + c] = static_cast<unsigned>(m.indices[4 * t + c]);
        rtcCommitGeometry(geom);
        rtcAttachGeometry(scene, geom);
        rtcReleaseGeometry(geom);
        const double c0 = cpuSeconds();
        const auto t0 = Clock::now();
        rtcCommitScene(scene);
        times.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
        cpu.push_back(cpuSeconds() - c0);
        rtcReleaseScene(scene);
    }
    return medians(times, cpu);
}
#endif

// Overlapping triangles in one axis-aligned plane (decals, doubled faces,
// 2-D meshes) at z = 1: random centres in [0, 10]^2, corners within
// 5 * spread of them (spread 1: every triangle overlaps most others).
Mesh coplanarScene(int n, uint32_t seed, float spread) {
    Mesh m;
    uint32_t state = seed;
    auto next = [&]() {
        state = state * 1664525u + 1013904223u;
        return static_cast<float>(state >> 8) * (10.0f / 16777216.0f);
    };
    for (int t = 0; t < n; ++t) {
        const float cx = next(), cy = next();
        for (int c = 0; c < 3; ++c) {
            m.vertices.insert(m.vertices.end(),
                              {cx + spread * (next() - 5.0f), cy + spread * (next() - 5.0f), 1.0f});
            m.indices.push_back(3 * t + c);
        }
        m.indices.push_back(0);
    }
    return m;
}

// The coplanar cases: build time, status and size at a depth limit, with
// and without a memory budget that stops the build.
void runCoplanar(int reps, float spread) {
    struct Case {
        int n;
        uint32_t depth, budgetMb;
    };
    std::printf("%-28s %8s %8s %10s %8s\n", "coplanar case", "wall s", "cpu s", "bytes", "status");
    for (const Case c : {Case{686, 16, 4095}, Case{686, 18, 4095}, Case{686, 20, 4095}, Case{686, 22, 4095},
                         Case{3000, 30, 256}}) {
        const Mesh m = coplanarScene(c.n, 7, spread);
        const KDTreeBuildParams params = {qelKdCostDriven, c.depth, 1.0f, c.budgetMb, 0};
        std::vector<double> wall, cpu;
        int size = 0;
        QelStatus st = qelOk;
        for (int r = 0; r < reps; ++r) {
            KDTreeNode* tree = nullptr;
            const double c0 = cpuSeconds();
            const auto t0 = Clock::now();
            st = qelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.indices.data(), m.vertexCount(),
                                      m.triangleCount(), &size, &params);
            wall.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
            cpu.push_back(cpuSeconds() - c0);
            if (st == qelOk) qelrKDTreeFree(tree);
        }
        const Timing t = medians(wall, cpu);
        char name[64];
        std::snprintf(name, sizeof name, "%d tris depth %u budget %u MB", c.n, c.depth, c.budgetMb);
        std::printf("%-28s %8.3f %8.3f %10d %8d\n", name, t.wall, t.cpu, st == qelOk ? size : 0, st);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc > 1 && std::strcmp(argv[1], "coplanar") == 0) {
        runCoplanar(argc > 2 ? std::max(1, std::atoi(argv[2])) : 3,
                    argc > 3 ? static_cast<float>(std::atof(argv[3])) : 1.0f);
        return 0;
    }
    const int reps = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const int largest = argc > 2 ? std::atoi(argv[2]) : 1000000;
#ifdef QELR_BENCH_HAVE_EMBREE
    RTCDevice device = rtcNewDevice("threads=1");
#endif
    struct Case {
        std::string name;
        Mesh mesh;
    };
    std::vector<Case> cases;
    for (int n : {10000, 100000, 250000, 1000000, 4000000})
        if (n <= largest)
            cases.push_back({"procedural " + std::to_string(n / 1000) + "k",
                             qelr_example::makeProceduralScene(n)});
    for (const char* path :
         {"/usr/share/assimp/models/PLY/Wuson.ply", "/usr/share/assimp/models/OBJ/spider.obj"}) {
        Mesh raw;
        std::string error;
        if (!qelr_example::loadMesh(path, raw, error)) continue;
        std::string name = path;
        name = name.substr(name.find_last_of('/') + 1) + " subdivided";
        cases.push_back({name, qelr_example::subdivideToAtLeast(raw, 100000)});
        break;
    }

    std::printf("%-22s %8s %8s %8s %9s %8s %8s %8s %5s %8s %8s %6s %6s %6s\n", "scene", "tris",
                "wall s", "cpu s", "bytes", "inner", "leaves", "meanLeaf", "depth", "emb wall",
                "emb cpu", "ratioW", "ratioC", "nlogn");
    double base = 0.0;
    for (const Case& c : cases) {
        const int n = c.mesh.triangleCount();
        const int r = n >= 4000000 ? 1 : n >= 1000000 ? std::max(1, reps / 2) : reps;
        const Result ours = buildOurs(c.mesh, r);
        Timing embree = {0.0, 0.0};
#ifdef QELR_BENCH_HAVE_EMBREE
        embree = buildEmbree(device, c.mesh, r);
#endif
        const double perNLogN = ours.time.cpu / (n * std::log2(static_cast<double>(n)));
        if (base == 0.0) base = perNLogN;
        const TreeStats& s = ours.stats;
        const long nonEmpty = s.leaves - s.emptyLeaves;
        std::printf("%-22s %8d %8.4f %8.4f %9d %8ld %8ld %8.2f %5d %8.4f %8.4f %6.2f %6.2f %6.2f\n",
                    c.name.c_str(), n, ours.time.wall, ours.time.cpu, s.bytes, s.inner, s.leaves,
                    nonEmpty ? static_cast<double>(s.refs) / nonEmpty : 0.0, s.maxDepth,
                    embree.wall, embree.cpu, embree.wall > 0 ? ours.time.wall / embree.wall : 0.0,
                    embree.cpu > 0 ? ours.time.cpu / embree.cpu : 0.0, perNLogN / base);
    }
    std::printf(
        "medians of %d runs (half as many at 1M); ratioW/ratioC = ours / Embree (high quality, "
        "threads=1) in "
        "wall / process CPU time;\nnlogn = CPU time / (n log2 n) relative to the first row; "
        "meanLeaf = "
        "triangle references per non-empty leaf\n",
        reps);
#ifdef QELR_BENCH_HAVE_EMBREE
    rtcReleaseDevice(device);
#endif
    return 0;
}
