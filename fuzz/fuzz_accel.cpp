// Accelerator records, scene box and KD-tree build from fuzzed meshes and parameters, then traversals of the tree.
#include "fuzz_scene.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    Arena a;
    switch (in.range(0, 4)) {
        case 0: {  // record size
            int r = -1;
            const bool null = in.flag();
            const QelStatus st = qelrTriangleAccelGetSize(null ? nullptr : &r);
            if (null ? st != qelErrNullPointer : (st != qelOk || r != 40)) abort();
            break;
        }
        case 1: {  // records of any count (below 1 writes nothing)
            const Mesh m = readMesh(in, a, 12, 12);
            const int count = in.flag() ? m.nt : in.size(0);  // never above the mesh's
            auto* rec = a.alloc<TriangleAccel>(count > 0 ? size_t(count) : 0);
            if (qelrTriangleAccelInit(rec, m.vertices, m.indices, count) != qelOk) abort();
            for (int t = 0; t < count; ++t)  // the axis word is 0 or names three distinct axes
                if (rec[t].axes != 0 && ((rec[t].axes & 0x3Fu) == 0 || (rec[t].axes & 0x7FFFFFC0u) != 0))
                    abort();
            break;
        }
        case 2: {  // scene box; vertexCount below 1 still writes the (inverted) box
            const Mesh m = readMesh(in, a, 16, 0);
            const int count = in.flag() ? m.nv : in.size(0);  // never above the mesh's
            const bool null = in.u8() < 32;
            float* box = a.alloc<float>(6);
            const QelStatus st = qelrSetBoundBox_32f(null ? nullptr : m.vertices, count, box);
            if (st != (null ? qelErrNullPointer : qelOk)) abort();
            break;
        }
        case 3: {  // the build's checks: null pointers, counts, parameters
            const Mesh m = readMesh(in, a, 8, 8);
            Nulls pick(in);
            KDTreeBuildParams params{};
            const uint32_t algs[] = {qelKdSingleLeaf, qelKdCostDriven, 0, in.u32()};
            params.algorithm = algs[in.range(0, 3)];
            params.depthLimit = in.flag() ? in.u32() : uint32_t(in.range(0, 52));
            params.quality = in.f32();
            params.memoryBudgetMb = in.flag() ? in.u32() : uint32_t(in.range(0, 40));
            params.passThrough = in.u32();
            const int nv = in.flag() ? m.nv : in.size(0), nt = in.flag() ? m.nt : in.size(0);
            KDTreeNode* tree = nullptr;
            int treeSize = -1;
            // Only the mesh's counts or counts below 1 (refused before anything is read) are passed.
            if ((nv > 0 && nv != m.nv) || (nt > 0 && nt != m.nt)) break;
            const QelStatus st = qelrKDTreeBuildAlloc(pick(0, &tree), pick(1, m.vertices), pick(2, m.indices),
                                                      nv, nt, pick(3, &treeSize), pick(4, &params));
            // A built tree is whole; a refused build leaves the outputs alone.
            if (st == qelOk ? (tree == nullptr || treeSize < 16) : (tree != nullptr || treeSize != -1)) abort();
            qelrKDTreeFree(tree);
            break;
        }
        default: {  // build, then trace; large meshes reach the team-scored nodes of 76 and more triangles and
            // the sort of more than 320 events (at a small depth limit: deep trees of overlapping coplanar triangles
            // are slow, a known fault of its own)
            const bool large = in.u8() < 16;
            const Mesh m = readMesh(in, a, large ? 96 : 24, large ? 200 : 32);
            Scene s;
            if (!buildScene(in, a, m, s, large ? 10 : 52)) break;
            for (int k = in.range(1, 3); k > 0; --k) traceRays(in, a, s, m.nt);
            break;
        }
    }
    return 0;
}
