// What every harness shares: one call's arguments read from the fuzzer's bytes (zeros past the end), and buffers
// allocated at exactly their declared size, so that ASan reports any access past their end.
#pragma once

#include <qelr.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <limits>
#include <vector>

namespace fuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

    uint8_t u8() { return p_ < end_ ? *p_++ : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= uint32_t(u8()) << (8 * i);
        return v;
    }
    bool flag() { return u8() & 1; }
    // An integer in [lo, hi].
    int range(int lo, int hi) { return lo + int(u8() % unsigned(hi - lo + 1)); }
    // A count: mostly small, sometimes zero or negative (down to INT32_MIN); never large, as it is allocated.
    int size(int small) {
        const uint8_t s = u8();
        switch (s >> 5) {
            case 0: return 0;
            case 1: return -int(s & 7) - 1;
            case 2: return INT32_MIN + (s & 1);
            default: return int(s % unsigned(small + 1));
        }
    }
    // A float: ordinary values mostly, and NaN, infinities, -0, denormals and huge values.
    float f32() {
        static const float special[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f,
                                        std::numeric_limits<float>::quiet_NaN(),
                                        INFINITY, -INFINITY, 1e-40f, -1e-45f, 1e30f, -1e30f,
                                        FLT_MAX, -FLT_MAX, FLT_EPSILON, 2.0f};
        const uint8_t s = u8();
        if (s < 160) return float(int(s) - 80) / 16.0f;  // -5 .. 5 in steps of 1/16
        if (s < 224) return special[s & 15];
        return std::bit_cast<float>(u32());
    }
    double f64() {
        const uint8_t s = u8();
        if (s < 64) return double(int(s) - 16) / 8.0;
        if (s < 128) return double(f32());
        if (s < 192) return double(int(s) - 150) / 4.0 + 0.5;
        return std::bit_cast<double>(uint64_t(u32()) | (uint64_t(u32()) << 32));
    }
    // A vector length: a multiple of 4 (the packet paths) or a count.
    int length() { return flag() ? 4 * range(0, 4) : size(13); }

private:
    const uint8_t* p_;
    const uint8_t* end_;
};

// Buffers of one call, released together. `misalign` moves a start 4 bytes off the 16-byte boundary that malloc
// gives, so that both the aligned and the unaligned paths run.
class Arena {
public:
    ~Arena() {
        for (void* p : blocks_) std::free(p);
    }
    template <class T>
    T* alloc(size_t n, bool misalign = false) {
        const size_t off = misalign ? 4 : 0;
        auto* base = static_cast<uint8_t*>(std::malloc(n * sizeof(T) + off + (n == 0 && !off)));
        blocks_.push_back(base);
        return reinterpret_cast<T*>(base + off);
    }
    // n values from gen().
    template <class T, class G>
    T* fill(size_t n, bool misalign, G gen) {
        T* v = alloc<T>(n, misalign);
        for (size_t i = 0; i < n; ++i) v[i] = gen();
        return v;
    }
    float* floats(Input& in, size_t n, bool misalign = false) {
        return fill<float>(n, misalign, [&] { return in.f32(); });
    }
    // Three planes of n floats (or a P3 output pack), each allocated exactly.
    float** planes3(Input& in, size_t n, bool misalign, bool read = true) {
        float** p = alloc<float*>(3);
        for (int c = 0; c < 3; ++c) p[c] = read ? floats(in, n, misalign) : alloc<float>(n, misalign);
        return p;
    }
    // A mask plane: about one value in four negative.
    int* mask(Input& in, size_t n, int hi, bool misalign = false) {
        return fill<int>(n, misalign, [&] {
            const uint8_t b = in.u8();
            return (b & 3) == 0 ? -1 - int(b >> 7) * INT32_MAX : int(b >> 2) % (hi + 1);
        });
    }

private:
    std::vector<void*> blocks_;
};

// Checked pointer arguments, null now and then: with the top bit of its byte set, bit b nulls argument b.
struct Nulls {
    explicit Nulls(Input& in) : bits(in.u8()) {}
    template <class T>
    T* operator()(int bit, T* p) {
        if (!((bits >> bit) & (bits >> 7) & 1)) return p;
        any = true;
        return nullptr;
    }
    uint8_t bits;
    bool any = false;
};

// A triangle mesh read from the input: nv vertices, nt index groups of four.
struct Mesh {
    float* vertices;
    int* indices;
    int nv, nt;
};

inline Mesh readMesh(Input& in, Arena& a, int maxVertices, int maxTriangles) {
    const int nv = in.range(1, maxVertices), nt = in.range(0, maxTriangles);
    // Vertices snap to a coarse grid often, so that coplanar, collinear and repeated points are frequent.
    const bool grid = in.flag();
    float* v = a.fill<float>(3 * size_t(nv), false, [&] { return grid ? float(in.range(-2, 2)) : in.f32(); });
    int k = 0;  // the fourth index of a group is not read
    return {v, a.fill<int>(4 * size_t(nt), false, [&] { return ++k % 4 == 0 ? -1 : in.range(0, nv - 1); }), nv, nt};
}

// A pointer moved by `bytes` outside its object (the library adds the offset back), without pointer arithmetic.
template <class T>
T* movedBy(T* p, int64_t bytes) {
    return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(bytes));
}

}  // namespace fuzz
