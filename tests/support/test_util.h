// Small helpers shared by the tests.
#pragma once

#include <cstdint>
#include <cstring>

namespace qelr_test {

inline uint32_t bitsOf(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

inline float floatOf(uint32_t u) {
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

// Restores the team size of the library's parallel regions when it leaves
// scope, so a test that changes it does not leak the change.
class ThreadCountGuard {
 public:
    ThreadCountGuard();
    ~ThreadCountGuard();

 private:
    int saved_;
};

}  // namespace qelr_test

#include <qelcore.h>

inline qelr_test::ThreadCountGuard::ThreadCountGuard() : saved_(ownGetNumThreads()) {}
inline qelr_test::ThreadCountGuard::~ThreadCountGuard() { qelSetNumThreads(saved_); }
