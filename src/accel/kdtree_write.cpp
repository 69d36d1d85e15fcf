// Streaming of the cost-driven tree into budgeted output blocks, and the
// final write of the tree into one block.
//
// While the builder works, each finished node becomes a record in a stream of
// 32-bit words that fills blocks of kOutputBlockBytes:
//   inner node:   slot, -1 - axis, split position bits, slot of the child pair
//   inline leaf:  slot, kInlineTag, word 0, word 1
//   other leaf:   slot, count, count triangle indices
// Slots are given out in pairs as nodes split, so the node area of the final
// tree is simply the slots in order; the leaf lists follow it in record order.
#include <climits>
#include <cstring>

#include "accel/kdtree_build.h"
#include "core/memory.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

namespace {
constexpr int32_t kInlineTag = -8;
constexpr uint32_t kSign = 0x80000000u;
constexpr uint32_t kIndexLimit = 0x20000000u;  // indices that fit word 1's 29 bits

int32_t asInt(uint32_t u) { return static_cast<int32_t>(u); }
}  // namespace

bool encodeInlineLeaf(const int32_t* tris, int32_t count, int32_t& word0, int32_t& word1) {
    if (count < 1 || count > 3) return false;
    for (int32_t i = 0; i < count; ++i)
        if (tris[i] < 0) return false;
    if (count == 1) {
        word0 = asInt(static_cast<uint32_t>(tris[0]) | kSign);
        word1 = asInt(kSign | 1u);
        return true;
    }
    if (count == 2) {
        uint32_t a = static_cast<uint32_t>(tris[0]);
        uint32_t b = static_cast<uint32_t>(tris[1]);
        if (a >= kIndexLimit && b >= kIndexLimit) return false;
        if (a >= kIndexLimit) {  // the index in word 1 must fit 29 bits
            const uint32_t t = a;
            a = b;
            b = t;
        }
        word0 = asInt(b | kSign);
        word1 = asInt(a << 2 | kSign | 2u);
        return true;
    }
    if (count == 3) {
        uint32_t v[3] = {static_cast<uint32_t>(tris[0]), static_cast<uint32_t>(tris[1]),
                         static_cast<uint32_t>(tris[2])};
        for (int i = 1; i < 3; ++i)  // sort three values
            for (int j = i; j > 0 && v[j] < v[j - 1]; --j) {
                const uint32_t t = v[j];
                v[j] = v[j - 1];
                v[j - 1] = t;
            }
        const uint32_t lo = v[0], mid = v[1], hi = v[2];
        if (mid >= kIndexLimit || mid - lo >= 32768u || hi - mid >= 65536u) return false;
        word0 = asInt(kSign | (mid - lo) << 16 | (hi - mid));
        word1 = asInt(mid << 2 | kSign | 3u);
        return true;
    }
    return false;
}

struct TreeStream::Block {
    Block* next;
    int32_t used;  // words of payload written
    int32_t pad[7];
    int32_t* words() {
        return reinterpret_cast<int32_t*>(reinterpret_cast<char*>(this) + kOutputBlockHeaderBytes);
    }
};
static_assert(sizeof(void*) + 4 + 28 <= kOutputBlockHeaderBytes);

TreeStream::TreeStream(uint32_t budgetBytes, uint32_t blockBytes)
    : remainingBudget_(budgetBytes),
      blockBytes_(blockBytes),
      blockWords_(static_cast<int32_t>((blockBytes - kOutputBlockHeaderBytes) / 4)) {}

TreeStream::~TreeStream() {
    for (Block* b = first_; b != nullptr;) {
        Block* next = b->next;
        core::freeMemory(b);
        b = next;
    }
}

int32_t TreeStream::newPair() {
    const int32_t slot = nodeSlots_;
    nodeSlots_ += 2;
    return slot;
}

QelStatus TreeStream::put(int32_t word) {
    if (last_ == nullptr || last_->used == blockWords_) {
        if (status_ != qelOk) return status_;
        // The budget is checked before each block is charged.
        if (remainingBudget_ < blockBytes_) return status_ = qelErrMemoryBudget;
        remainingBudget_ -= blockBytes_;
        Block* b = static_cast<Block*>(core::allocBytes(static_cast<int32_t>(blockBytes_)));
        if (b == nullptr) return status_ = qelErrNoMemory;
        b->next = nullptr;
        b->used = 0;
        if (last_ == nullptr)
            first_ = b;
        else
            last_->next = b;
        last_ = b;
    }
    last_->words()[last_->used++] = word;
    return qelOk;
}

QelStatus TreeStream::inner(int32_t slot, int axis, float position, int32_t childSlot) {
    int32_t bits;
    std::memcpy(&bits, &position, 4);
    QelStatus st = put(slot);
    if (st == qelOk) st = put(-1 - axis);
    if (st == qelOk) st = put(bits);
    if (st == qelOk) st = put(childSlot);
    return st;
}

QelStatus TreeStream::beginLeaf(int32_t slot, const int32_t* tris, int32_t count, bool& listed) {
    int32_t w0 = 0, w1 = 0;
    listed = !encodeInlineLeaf(tris, count, w0, w1);
    QelStatus st = put(slot);
    if (listed) {
        if (st == qelOk) st = put(count);
        listWords_ += count;
        return st;
    }
    if (st == qelOk) st = put(kInlineTag);
    if (st == qelOk) st = put(w0);
    if (st == qelOk) st = put(w1);
    return st;
}

QelStatus TreeStream::leaf(int32_t slot, const int32_t* tris, int32_t count) {
    bool listed = false;
    QelStatus st = beginLeaf(slot, tris, count, listed);
    for (int32_t i = 0; listed && st == qelOk && i < count; ++i) st = put(tris[i]);
    return st;
}

QelStatus TreeStream::leafFromRefs(int32_t slot, const TriRef* refs, int32_t count) {
    int32_t few[3] = {0, 0, 0};
    for (int32_t i = 0; i < count && i < 3; ++i) few[i] = refs[i].tri;
    bool listed = false;
    QelStatus st = beginLeaf(slot, few, count, listed);
    for (int32_t i = 0; listed && st == qelOk && i < count; ++i) st = put(refs[i].tri);
    return st;
}

QelStatus TreeStream::finish(KDTreeNode** outTree, int* outTreeSize) {
    if (status_ != qelOk) return status_;
    const int64_t nodeBytes = static_cast<int64_t>(nodeSlots_) * 8;
    const int64_t total = nodeBytes + listWords_ * 4;
    if (total / 8 + 1 > INT32_MAX / 8) return qelErrNoMemory;
    const int32_t elements = static_cast<int32_t>(total / 8 + 1);
    auto* tree = static_cast<int32_t*>(core::allocInt64(elements));
    if (tree == nullptr) return qelErrNoMemory;
    std::memset(tree, 0, static_cast<size_t>(elements) * 8);

    // Replays the records; the cursor walks the blocks word by word.
    Block* block = first_;
    int32_t pos = 0;
    auto next = [&]() -> int32_t {
        while (pos == block->used) {
            block = block->next;
            pos = 0;
        }
        return block->words()[pos++];
    };
    auto more = [&]() {
        while (block != nullptr && pos == block->used) {
            block = block->next;
            pos = 0;
        }
        return block != nullptr;
    };
    int64_t listByte = nodeBytes;
    while (more()) {
        const int32_t slot = next();
        const int32_t kind = next();
        int32_t* node = tree + 2 * static_cast<int64_t>(slot);
        if (kind == kInlineTag) {
            node[0] = next();
            node[1] = next();
        } else if (kind < 0) {  // inner node
            const int32_t axis = -1 - kind;
            node[1] = next();
            const int32_t childSlot = next();
            node[0] = (childSlot - slot) * 8 | axis;
        } else if (kind == 0) {  // empty leaf
            node[0] = INT32_MIN;
            node[1] = 0;
        } else {
            node[0] = static_cast<int32_t>(-(listByte - 8 * static_cast<int64_t>(slot)));
            node[1] = kind;
            int32_t* list = tree + listByte / 4;
            for (int32_t i = 0; i < kind; ++i) list[i] = next();
            listByte += 4 * static_cast<int64_t>(kind);
        }
    }
    *outTree = reinterpret_cast<KDTreeNode*>(tree);
    *outTreeSize = static_cast<int>(total);
    return qelOk;
}

}  // namespace qelr::QELR_ISA::accel
