// Cost-driven KD-tree build: time, size and shape of the tree for procedural
// scenes of 10k to 1M triangles and for a real mesh, side by side with
// Embree's high-quality single-thread BVH build of the same triangles.
//
// Usage: bench_kdtree [repetitions] [largest scene in triangles]
// Times are medians over the repetitions.
#include <qelr.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mesh_io.h"
#include "scene_gen.h"

#ifdef QELR_BENCH_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using qelr_example::Mesh;
using Clock = std::chrono::steady_clock;

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
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
        const int32_t w0 = it.node->word0, w1 = it.node->word1;
        if (w0 >= 0) {
            ++s.inner;
            const auto* child = reinterpret_cast<const KDTreeNode*>(
                reinterpret_cast<const char*>(it.node) + (w0 & ~7));
            stack.push_back({child, it.depth + 1});
            stack.push_back({child + 1, it.depth + 1});
            continue;
        }
        ++s.leaves;
        const long count = w1 < 0 ? (w1 & 3) : w1;
        s.refs += count;
        s.emptyLeaves += count == 0;
    }
    return s;
}

struct Result {
    double seconds;
    TreeStats stats;
};

Result buildOurs(const Mesh& m, int reps) {
    const KDTreeBuildParams params = {qelKdCostDriven, 50, 1.0f, 4095, 0};
    std::vector<double> times;
    TreeStats stats;
    for (int r = 0; r < reps; ++r) {
        KDTreeNode* tree = nullptr;
        int size = 0;
        const auto t0 = Clock::now();
        const QelStatus st =
            qelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.indices.data(), m.vertexCount(),
                                 m.triangleCount(), &size, &params);
        times.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
        if (st != qelOk) {
            std::fprintf(stderr, "build failed: %d\n", st);
            std::exit(1);
        }
        if (r == 0) stats = walk(tree, size);
        qelrKDTreeFree(tree);
    }
    return {median(times), stats};
}

#ifdef QELR_BENCH_HAVE_EMBREE
double buildEmbree(RTCDevice device, const Mesh& m, int reps) {
    std::vector<double> times;
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
        const auto t0 = Clock::now();
        rtcCommitScene(scene);
        times.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
        rtcReleaseScene(scene);
    }
    return median(times);
}
#endif

}  // namespace

int main(int argc, char** argv) {
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
    for (int n : {10000, 100000, 250000, 1000000})
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

    std::printf("%-22s %9s %10s %10s %9s %9s %8s %6s %10s %10s %7s %9s\n", "scene", "tris",
                "build s", "bytes", "inner", "leaves", "meanLeaf", "depth", "embree s", "ratio",
                "n*logn", "");
    double base = 0.0;
    for (const Case& c : cases) {
        const int n = c.mesh.triangleCount();
        const int r = n >= 1000000 ? std::max(1, reps / 2) : reps;
        const Result ours = buildOurs(c.mesh, r);
        double embree = 0.0;
#ifdef QELR_BENCH_HAVE_EMBREE
        embree = buildEmbree(device, c.mesh, r);
#endif
        const double perNLogN = ours.seconds / (n * std::log2(static_cast<double>(n)));
        if (base == 0.0) base = perNLogN;
        const TreeStats& s = ours.stats;
        const long nonEmpty = s.leaves - s.emptyLeaves;
        std::printf("%-22s %9d %10.4f %10d %9ld %9ld %8.2f %6d %10.4f %10.2f %7.2f\n",
                    c.name.c_str(), n, ours.seconds, s.bytes, s.inner, s.leaves,
                    nonEmpty ? static_cast<double>(s.refs) / nonEmpty : 0.0, s.maxDepth, embree,
                    embree > 0 ? ours.seconds / embree : 0.0, perNLogN / base);
    }
    std::printf(
        "ratio = our build / Embree build (high quality, threads=1); n*logn = time/(n log n) "
        "relative to the first row; meanLeaf over non-empty leaves\n");
#ifdef QELR_BENCH_HAVE_EMBREE
    rtcReleaseDevice(device);
#endif
    return 0;
}
