// Ray planes for the shading and ray tests: twelve float planes (four P3 packs)
// and two int planes starting `shift` elements past a 32-byte boundary (0: every
// vector path, 4: 16 bytes only, 1: the one-element paths), with guard elements.
#pragma once

#include <cstdint>
#include <cstring>

namespace qelr_test {

struct Planes {
    static constexpr int kMax = 72, kStride = 88;
    alignas(32) float f[12][kStride] = {};
    alignas(32) int32_t m[2][kStride] = {};
    int shift;
    float* packs[4][3];

    explicit Planes(int s) : shift(s) {
        for (int k = 0; k < 12; ++k) packs[k / 3][k % 3] = f[k] + s;
    }
    Planes(const Planes& o) : Planes(o.shift) {
        std::memcpy(f, o.f, sizeof f);
        std::memcpy(m, o.m, sizeof m);
    }
    Planes& operator=(const Planes&) = delete;
    float* p(int k) { return f[k] + shift; }
    int* mask(int k = 0) { return m[k] + shift; }
    float* const* pack(int k) { return packs[k]; }
    // Whether every plane holds the same bits from element `from` on.
    bool sameFrom(const Planes& o, int from) const {
        const size_t a = shift + from, b = o.shift + from, bytes = 4 * (80 - from);
        bool same = std::memcmp(&m[0][a], &o.m[0][b], bytes) == 0 &&
                    std::memcmp(&m[1][a], &o.m[1][b], bytes) == 0;
        for (int k = 0; k < 12; ++k) same = same && std::memcmp(&f[k][a], &o.f[k][b], bytes) == 0;
        return same;
    }
};

}  // namespace qelr_test
