// libqelcore: memory, team size and processor features for libqelr and its
// callers.
#include "qelcore.h"

#include <cpuid.h>
#include <omp.h>

#include <atomic>
#include <cstdlib>

namespace {

constexpr size_t kAlignment = 64;

// 0 until qelSetNumThreads is called: then the default applies.
std::atomic<int> g_numThreads{0};

uint64_t readCpuFeatures() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return 0;
    uint64_t mask = 0;
    auto set = [&mask](bool present, uint64_t bit) {
        if (present) mask |= bit;
    };
    set(edx & bit_MMX, QEL_CPU_MMX);
    set(edx & bit_SSE, QEL_CPU_SSE);
    set(edx & bit_SSE2, QEL_CPU_SSE2);
    set(ecx & bit_SSE3, QEL_CPU_SSE3);
    set(ecx & bit_SSSE3, QEL_CPU_SSSE3);
    set(ecx & bit_MOVBE, QEL_CPU_MOVBE);
    set(ecx & bit_SSE4_1, QEL_CPU_SSE41);
    set(ecx & bit_SSE4_2, QEL_CPU_SSE42);
    set(ecx & bit_AES, QEL_CPU_AES);
    set(ecx & bit_PCLMUL, QEL_CPU_CLMUL);
    set(ecx & bit_POPCNT, QEL_CPU_POPCNT);

    // The AVX family counts only when the OS saves the YMM state.
    bool osYmm = false;
    if ((ecx & bit_OSXSAVE) != 0) {
        unsigned lo = 0, hi = 0;
        __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
        osYmm = (lo & 0x6) == 0x6;
    }
    if (osYmm) {
        set(ecx & bit_AVX, QEL_CPU_AVX);
        set(ecx & bit_F16C, QEL_CPU_F16C);
        set(ecx & bit_FMA, QEL_CPU_FMA);
    }
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0) {
        set(ebx & bit_BMI, QEL_CPU_BMI1);
        set(ebx & bit_BMI2, QEL_CPU_BMI2);
        if (osYmm) set(ebx & bit_AVX2, QEL_CPU_AVX2);
        if (osYmm) set(ebx & bit_AVX512F, QEL_CPU_AVX512F);
    }
    return mask;
}

}  // namespace

extern "C" {

void* qelMalloc(int length) {
    if (length <= 0) return nullptr;
    const size_t rounded = (static_cast<size_t>(length) + kAlignment - 1) & ~(kAlignment - 1);
    return std::aligned_alloc(kAlignment, rounded);
}

void qelFree(void* ptr) { std::free(ptr); }

int ownGetNumThreads(void) {
    const int requested = g_numThreads.load(std::memory_order_relaxed);
    if (requested > 0) return requested;
    const int procs = omp_get_num_procs();
    return procs > 0 ? procs : 1;
}

QelStatus qelSetNumThreads(int numThreads) {
    if (numThreads < 1) return -6;  // qelErrSize
    g_numThreads.store(numThreads, std::memory_order_relaxed);
    return 0;
}

uint64_t qelGetEnabledCpuFeatures(void) {
    static const uint64_t features = readCpuFeatures();
    return features;
}

}  // extern "C"
