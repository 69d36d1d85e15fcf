// What every harness shares: reading one call's arguments from the fuzzer's
// bytes, and buffers allocated at exactly their declared size so that the
// first byte past the end is outside the allocation (ASan reports any read or
// write there). Past the end of the input every read gives zeros.
#pragma once

#include <qelr.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
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
    // A count or size: mostly small, sometimes zero or negative (down to
    // INT32_MIN). Never large: the harness allocates what a count declares.
    int size(int small) {
        const uint8_t s = u8();
        switch (s >> 5) {
            case 0: return 0;
            case 1: return -int(s & 7) - 1;
            case 2: return INT32_MIN + (s & 1);
            default: return int(s % unsigned(small + 1));
        }
    }
    // A float: ordinary values mostly, and NaN, infinities, -0, denormals and
    // huge values.
    float f32() {
        static const float special[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f,
                                        std::numeric_limits<float>::quiet_NaN(),
                                        INFINITY, -INFINITY, 1e-40f, -1e-45f, 1e30f, -1e30f,
                                        FLT_MAX, -FLT_MAX, FLT_EPSILON, 2.0f};
        const uint8_t s = u8();
        if (s < 160) return float(int(s) - 80) / 16.0f;  // -5 .. 5 in steps of 1/16
        if (s < 224) return special[s & 15];
        uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
    double f64() {
        const uint8_t s = u8();
        if (s < 64) return double(int(s) - 16) / 8.0;
        if (s < 128) return double(f32());
        if (s < 192) return double(int(s) - 150) / 4.0 + 0.5;
        uint64_t bits = uint64_t(u32()) | (uint64_t(u32()) << 32);
        double d;
        std::memcpy(&d, &bits, 8);
        return d;
    }
    bool done() const { return p_ >= end_; }

private:
    const uint8_t* p_;
    const uint8_t* end_;
};

// Buffers of one call, released together. A buffer of n elements ends at the
// end of its allocation; `misalign` moves its start 4 bytes off the 16-byte
// boundary that malloc gives, so both the aligned and the unaligned paths run.
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
    // n floats read from the input.
    float* floats(Input& in, size_t n, bool misalign = false) {
        float* f = alloc<float>(n, misalign);
        for (size_t i = 0; i < n; ++i) f[i] = in.f32();
        return f;
    }
    // n ints in [lo, hi], from the input.
    int* ints(Input& in, size_t n, int lo, int hi) {
        int* v = alloc<int>(n);
        for (size_t i = 0; i < n; ++i) v[i] = in.range(lo, hi);
        return v;
    }
    // Three planes of n floats (or a P3 output pack), each allocated exactly.
    float** planes3(Input& in, size_t n, bool misalign, bool fill = true) {
        float** p = alloc<float*>(3);
        for (int c = 0; c < 3; ++c) p[c] = fill ? floats(in, n, misalign) : alloc<float>(n, misalign);
        return p;
    }
    // A mask plane: about one value in four negative.
    int* mask(Input& in, size_t n, int hi, bool misalign = false) {
        int* v = alloc<int>(n, misalign);
        for (size_t i = 0; i < n; ++i) {
            const uint8_t b = in.u8();
            v[i] = (b & 3) == 0 ? -1 - int(b >> 7) * INT32_MAX : int(b >> 2) % (hi + 1);
        }
        return v;
    }

private:
    std::vector<void*> blocks_;
};

// Checked pointer arguments, null now and then: when the top bit of the byte
// read is set, bit b nulls argument b; `any` tells whether one was nulled.
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
    float* vertices = nullptr;
    int* indices = nullptr;
    int nv = 0;
    int nt = 0;
};

inline Mesh readMesh(Input& in, Arena& a, int maxVertices, int maxTriangles) {
    Mesh m;
    m.nv = in.range(1, maxVertices);
    m.nt = in.range(0, maxTriangles);
    m.vertices = a.alloc<float>(3 * size_t(m.nv));
    // Vertices snap to a coarse grid often, so that coplanar, collinear and
    // repeated points are frequent.
    const bool grid = in.flag();
    for (int i = 0; i < 3 * m.nv; ++i) m.vertices[i] = grid ? float(in.range(-2, 2)) : in.f32();
    m.indices = a.alloc<int>(4 * size_t(m.nt));
    for (int t = 0; t < m.nt; ++t) {
        for (int c = 0; c < 3; ++c) m.indices[4 * t + c] = in.range(0, m.nv - 1);
        m.indices[4 * t + 3] = -1;  // not read
    }
    return m;
}

// A pointer moved by `bytes` without C++ pointer arithmetic (it may point
// outside the object: the library adds the offset back).
template <class T>
T* movedBy(T* p, int64_t bytes) {
    return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(bytes));
}

}  // namespace fuzz
