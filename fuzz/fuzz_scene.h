// A scene from a fuzzed mesh (records, box, KD-tree) and one intersection call on it with fuzzed rays.
#pragma once

#include <sanitizer/lsan_interface.h>

#include <mutex>

#include "fuzz_input.h"

// The memory service, replaced here for libqelr: blocks of 1 MB and more (the KD builder's 16 MB output blocks) are
// kept for reuse, as ASan poisons a whole block on each allocation and release (about 100 runs a second otherwise).
namespace fuzz {

struct BigBlock {
    void* p;
    int length;
    bool inUse;
};
inline std::mutex bigMutex;
inline std::vector<BigBlock> bigBlocks;

extern "C" void* qelMalloc(int length) {
    if (length <= 0) return nullptr;
    const bool big = length >= (1 << 20);
    std::lock_guard<std::mutex> lock(bigMutex);
    for (auto& b : bigBlocks)
        if (!b.inUse && b.length == length) {
            b.inUse = true;
            return b.p;
        }
    void* p = nullptr;
    if (posix_memalign(&p, 64, size_t(length)) != 0) return nullptr;
    if (big) {
        bigBlocks.push_back({p, length, true});
        __lsan_ignore_object(p);  // kept on purpose, not a leak of the library
    }
    return p;
}

extern "C" void qelFree(void* p) {
    std::lock_guard<std::mutex> lock(bigMutex);
    for (auto& b : bigBlocks)
        if (b.p == p) {
            b.inUse = false;
            return;
        }
    std::free(p);
}

struct Scene {
    QelTraceScene ctx{};
    KDTreeNode* tree = nullptr;
    ~Scene() { qelrKDTreeFree(tree); }
};

// Records and box of the mesh, then a tree with fuzzed build parameters; false when the build is refused.
inline bool buildScene(Input& in, Arena& a, const Mesh& m, Scene& s, int maxDepth = 52) {
    auto* accel = a.alloc<TriangleAccel>(size_t(m.nt));
    if (qelrTriangleAccelInit(accel, m.vertices, m.indices, m.nt) != qelOk) abort();
    float* box = a.alloc<float>(6);
    if (qelrSetBoundBox_32f(m.vertices, m.nv, box) != qelOk) abort();
    KDTreeBuildParams params{};
    params.algorithm = in.flag() ? qelKdCostDriven : qelKdSingleLeaf;
    params.depthLimit = uint32_t(in.range(0, maxDepth));
    params.quality = in.flag() ? float(in.range(0, 4)) / 4.0f : in.f32();
    params.memoryBudgetMb = uint32_t(in.range(30, 40));
    int treeSize = -1;
    const QelStatus st = qelrKDTreeBuildAlloc(&s.tree, m.vertices, m.indices, m.nv, m.nt, &treeSize, &params);
    if (st != qelOk) {
        // A refused build leaves the outputs alone and gives a documented status.
        if (s.tree != nullptr || treeSize != -1) abort();
        if (st != qelErrParamRange && st != qelErrNoMemory && st != qelErrMemoryBudget) abort();
        return false;
    }
    if (s.tree == nullptr || treeSize < 16 || treeSize % 4 != 0) abort();
    s.ctx = {box, accel, s.tree};
    return true;
}

// One call of an intersection function on the scene with rays from the input.
inline void traceRays(Input& in, Arena& a, const Scene& s, int triangleCount) {
    const int fn = in.range(0, 3);
    const bool misalign = in.u8() < 64;
    // Multiples of 4 take the packet paths.
    const int w = in.flag() ? 4 * in.range(0, 2) : in.range(-1, 9);
    const int h = in.flag() ? 4 * in.range(0, 2) : in.range(-1, 6);
    const int layers = fn == 3 ? in.range(0, 4) : 1;
    const size_t n = (w > 0 && h > 0) ? size_t(w) * h : 0;
    const size_t nl = n * size_t(layers > 0 ? layers : 0);
    float origin[3] = {in.f32(), in.f32(), in.f32()};
    float** dirs = a.planes3(in, n, misalign);
    const bool far = in.flag();
    float* dist = a.fill<float>(nl, misalign, [&] { return far ? FLT_MAX : in.f32(); });
    float* uv[2] = {a.alloc<float>(nl, misalign), a.alloc<float>(nl, misalign)};
    int* index = a.fill<int>(nl, misalign, [] { return -1; });
    const QelSize2D size{w, h};
    const QelLayeredSize ls{w, h, layers};
    QelStatus st = qelOk;
    switch (fn) {
        case 0:
            st = qelrIntersectEyeSO_32f(origin, dirs, dist, uv, index, &s.ctx, size);
            break;
        case 1:
            st = qelrIntersectMO_32f(a.planes3(in, n, misalign), dirs, dist, uv, index, &s.ctx, size);
            break;
        case 2: {
            int* mask = a.mask(in, n, 1, misalign);
            st = qelrIntersectAnySO_32f(origin, dirs, index, mask, size, &s.ctx);
            for (size_t i = 0; i < n; ++i)
                if (index[i] >= 0 && mask[i] != -1) abort();
            break;
        }
        case 3:
            st = qelrIntersectMultipleSO_32f(origin, dirs, dist, uv, index, &ls, &s.ctx);
            break;
    }
    if (st != qelOk) abort();
    // Every reported hit names a triangle of the scene.
    for (size_t i = 0; i < nl; ++i)
        if (index[i] < -1 || index[i] >= triangleCount) abort();
}

}  // namespace fuzz
