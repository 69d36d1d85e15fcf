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
#include <sys/mman.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "accel/kd_node.h"
#include "accel/kdtree_build.h"
#include "core/memory.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

namespace {
constexpr int32_t kInlineTag = -8;

// Asks the system to back the 2 MB-aligned part of a region with large pages
// where it can (a hint: nothing changes when it declines). The output blocks and the tree are written once, front to
// back, and with small pages the first touch of each page can cost more
// than writing it.
void adviseLargePages(void* p, size_t bytes) {
#ifdef MADV_HUGEPAGE
    constexpr uintptr_t kLarge = uintptr_t{2} << 20;
    const uintptr_t at = reinterpret_cast<uintptr_t>(p);
    const uintptr_t begin = (at + kLarge - 1) & ~(kLarge - 1);
    const uintptr_t end = (at + bytes) & ~(kLarge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}
}  // namespace

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

QelStatus TreeStream::newBlock() {
    if (status_ != qelOk) return status_;
    // The budget is checked before each block is charged.
    if (remainingBudget_ < blockBytes_) return status_ = qelErrMemoryBudget;
    remainingBudget_ -= blockBytes_;
    Block* b = static_cast<Block*>(core::allocBytes(static_cast<int32_t>(blockBytes_)));
    if (b == nullptr) return status_ = qelErrNoMemory;
    adviseLargePages(b, blockBytes_);
    b->next = nullptr;
    b->used = 0;
    if (last_ == nullptr)
        first_ = b;
    else
        last_->next = b;
    last_ = b;
    return qelOk;
}

inline QelStatus TreeStream::room(int32_t*& at, int32_t& free) {
    if (last_ == nullptr || last_->used == blockWords_) {
        const QelStatus st = newBlock();
        if (st != qelOk) return st;
    }
    at = last_->words() + last_->used;
    free = blockWords_ - last_->used;
    return qelOk;
}

inline QelStatus TreeStream::put(int32_t word) {
    if (last_ != nullptr && last_->used < blockWords_) {
        last_->words()[last_->used++] = word;
        return qelOk;
    }
    const QelStatus st = newBlock();
    if (st != qelOk) return st;
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
    kdnode::Words w{0, 0};
    listed = !kdnode::inlineLeaf(tris, count, w);
    QelStatus st = put(slot);
    if (listed) {
        if (st == qelOk) st = put(count);
        listWords_ += count;
        return st;
    }
    if (st == qelOk) st = put(kInlineTag);
    if (st == qelOk) st = put(w.w0);
    if (st == qelOk) st = put(w.w1);
    return st;
}

QelStatus TreeStream::leaf(int32_t slot, const int32_t* tris, int32_t count) {
    bool listed = false;
    QelStatus st = beginLeaf(slot, tris, count, listed);
    for (int32_t i = 0; listed && st == qelOk && i < count; ++i) st = put(tris[i]);
    return st;
}

QelStatus TreeStream::leafFromRefs(int32_t slot, const TriRef* refs, int32_t count) {
    return leafFromRefs(slot, refs, count, nullptr, 0);
}

QelStatus TreeStream::leafFromRefs(int32_t slot, const TriRef* refs, int32_t count,
                                   const int32_t* extra, int32_t extraCount) {
    // The merged list, one triangle at a time.
    int32_t i = 0, j = 0;
    auto next = [&]() {
        if (j == extraCount || (i < count && refs[i].tri < extra[j])) return refs[i++].tri;
        return extra[j++];
    };
    const int32_t total = count + extraCount;
    int32_t few[3] = {0, 0, 0};
    for (int32_t k = 0; k < total && k < 3; ++k) few[k] = next();
    i = j = 0;
    bool listed = false;
    QelStatus st = beginLeaf(slot, few, total, listed);
    // The list goes straight into the blocks, a block's free words at a time.
    for (int32_t left = listed ? total : 0; st == qelOk && left > 0;) {
        int32_t* at;
        int32_t free;
        st = room(at, free);
        if (st != qelOk) break;
        const int32_t m = left < free ? left : free;
        if (j == extraCount) {
            for (int32_t k = 0; k < m; ++k) at[k] = refs[i + k].tri;
            i += m;
        } else if (i == count) {
            std::memcpy(at, extra + j, static_cast<size_t>(m) * 4);
            j += m;
        } else {
            for (int32_t k = 0; k < m; ++k) at[k] = next();
        }
        last_->used += m;
        left -= m;
    }
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
    adviseLargePages(tree, static_cast<size_t>(elements) * 8);
    // Every slot but the one after the root is written below, and so is every
    // list word: only that slot and the padding at the end are cleared.
    std::memset(tree + 2, 0, 8);
    std::memset(reinterpret_cast<char*>(tree) + total, 0,
                static_cast<size_t>(static_cast<int64_t>(elements) * 8 - total));

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
        auto* node = reinterpret_cast<KDTreeNode*>(tree) + slot;
        if (kind == kInlineTag) {
            const int32_t w0 = next();
            kdnode::store(node, {w0, next()});
        } else if (kind < 0) {  // inner node
            const int32_t axis = -1 - kind;
            const int32_t position = next();
            const int32_t childSlot = next();
            float split;
            std::memcpy(&split, &position, 4);
            kdnode::store(node, kdnode::innerNode(axis, (childSlot - slot) * 8, split));
        } else if (kind == 0) {
            kdnode::store(node, kdnode::emptyLeaf());
        } else {
            kdnode::store(node, kdnode::listedLeaf(
                                    static_cast<int32_t>(listByte - 8 * static_cast<int64_t>(slot)),
                                    kind));
            int32_t* list = tree + listByte / 4;
            for (int32_t left = kind; left > 0;) {  // a block's share of the list at a time
                more();
                const int32_t m = left < block->used - pos ? left : block->used - pos;
                std::memcpy(list, block->words() + pos, static_cast<size_t>(m) * 4);
                list += m;
                pos += m;
                left -= m;
            }
            listByte += 4 * static_cast<int64_t>(kind);
        }
    }
    *outTree = reinterpret_cast<KDTreeNode*>(tree);
    *outTreeSize = static_cast<int>(total);
    return qelOk;
}

}  // namespace qelr::QELR_ISA::accel
