// Small helpers shared by the tests.
#pragma once

#include <qelcore.h>

#include <bit>
#include <cstdint>
#include <cstring>

namespace qelr_test {

inline uint32_t bitsOf(float f) { return std::bit_cast<uint32_t>(f); }
inline float floatOf(uint32_t u) { return std::bit_cast<float>(u); }

// Restores the team size of the library's parallel regions when it leaves scope, so a test that changes it does
// not leak the change.
class ThreadCountGuard {
 public:
    ~ThreadCountGuard() { qelSetNumThreads(saved_); }

 private:
    int saved_ = ownGetNumThreads();
};

}  // namespace qelr_test
