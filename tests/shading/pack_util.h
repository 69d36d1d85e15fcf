// Ray-pack buffers for the shading tests: planes placed on a 16-byte boundary
// or one element past it, so a test picks the four-rays path or the one-ray
// path of the functions under test.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace qelr_test {

enum class Path { kFour, kMisaligned };

template <typename T>
class Plane {
 public:
    Plane(int n, Path path) : raw_(n + 8) {
        const uintptr_t base = (reinterpret_cast<uintptr_t>(raw_.data()) + 15) & ~uintptr_t(15);
        p_ = reinterpret_cast<T*>(base) + (path == Path::kFour ? 0 : 1);
    }
    Plane(const std::vector<T>& values, Path path) : Plane(int(values.size()), path) {
        std::memcpy(p_, values.data(), values.size() * sizeof(T));
    }
    T* data() { return p_; }
    T& operator[](int i) { return p_[i]; }

 private:
    std::vector<T> raw_;
    T* p_;
};

// Three float planes, for the P3 arguments.
class Pack {
 public:
    Pack(const std::array<std::vector<float>, 3>& v, Path path)
        : planes_{Plane<float>(v[0], path), Plane<float>(v[1], path), Plane<float>(v[2], path)} {
        for (int c = 0; c < 3; ++c) ptr_[c] = planes_[c].data();
    }
    float* const* p3() { return ptr_; }
    float at(int c, int i) const { return ptr_[c][i]; }

 private:
    std::array<Plane<float>, 3> planes_;
    float* ptr_[3];
};

using Values = std::vector<float>;
using Values3 = std::array<Values, 3>;

inline Values randomValues(std::mt19937& rng, int n, float lo = -2.0f, float hi = 2.0f) {
    std::uniform_real_distribution<float> d(lo, hi);
    Values v(n);
    for (auto& x : v) x = d(rng);
    return v;
}

inline Values3 randomValues3(std::mt19937& rng, int n) {
    return {randomValues(rng, n), randomValues(rng, n), randomValues(rng, n)};
}

// Masks with hits (0, 7) and misses (-1, -9), about one ray in four missing.
inline std::vector<int> randomMask(std::mt19937& rng, int n) {
    std::vector<int> m(n);
    static constexpr int kValues[8] = {0, 7, 3, 0, -1, 12, 2, -9};
    for (auto& x : m) x = kValues[rng() % 8];
    return m;
}

}  // namespace qelr_test
