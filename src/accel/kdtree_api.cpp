// qelrKDTreeBuildAlloc and qelrKDTreeFree: argument checks, the single-leaf
// tree, and the hand-over to the cost-driven builder.
#include <climits>
#include <cmath>
#include <cstring>

#include "accel/kdtree_build.h"
#include "core/impl.h"
#include "core/memory.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

// Budgets below 32 MB are refused before any work; the test is made on the
// budget shifted by 19 in 32 bits.
constexpr uint32_t kMinBudgetHalfBytes = 0x1000000u;

QelStatus buildSingleLeaf(KDTreeNode** outTree, int triangleCount, int* outTreeSize) {
    const int64_t bytes = 16 + 4 * static_cast<int64_t>(triangleCount);
    if (bytes / 8 + 1 > INT32_MAX / 8) return qelErrNoMemory;
    auto* words = static_cast<int32_t*>(core::allocInt64(static_cast<int32_t>(bytes / 8 + 1)));
    if (words == nullptr) return qelErrNoMemory;
    words[0] = static_cast<int32_t>(0xFFFFFFF0u);  // leaf, list 16 bytes after the node
    words[1] = triangleCount;
    words[2] = 0;
    words[3] = 0;
    for (int i = 0; i < triangleCount; ++i) words[4 + i] = i;
    *outTree = reinterpret_cast<KDTreeNode*>(words);
    *outTreeSize = static_cast<int>(bytes);
    return qelOk;
}

}  // namespace

QelStatus qelrKDTreeBuildAlloc(KDTreeNode** outTree, const float* vertices,
                               const int* triangleIndices, int vertexCount, int triangleCount,
                               int* outTreeSize, const KDTreeBuildParams* params) {
    if (outTree == nullptr || vertices == nullptr || triangleIndices == nullptr ||
        outTreeSize == nullptr)
        return qelErrNullPointer;
    if (vertexCount < 0 || triangleCount < 0) return qelErrSize;
    if (params == nullptr) return qelErrNullPointer;

    switch (params->algorithm) {
        case qelKdSingleLeaf:
            if (params->depthLimit > accel::kMaxDepthLimit) return qelErrParamRange;
            return buildSingleLeaf(outTree, triangleCount, outTreeSize);
        case qelKdCostDriven: {
            if (params->depthLimit > accel::kMaxDepthLimit) return qelErrParamRange;
            // Written so that a NaN quality is refused too.
            if (!(params->quality >= 0.0f && params->quality <= 1.0f)) return qelErrParamRange;
            if ((params->memoryBudgetMb << 19) < kMinBudgetHalfBytes) return qelErrNoMemory;
            const accel::CostDrivenInput in = {vertices,
                                               triangleIndices,
                                               vertexCount,
                                               triangleCount,
                                               params->depthLimit,
                                               params->quality,
                                               params->memoryBudgetMb << 20,
                                               accel::kOutputBlockBytes};
            // passThrough is reserved: the builder takes no options from it.
            return accel::buildCostDriven(in, outTree, outTreeSize);
        }
        default:
            return qelErrUnknownAlgorithm;
    }
}

QelStatus qelrKDTreeFree(KDTreeNode* tree) {
    core::freeMemory(tree);
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
