/*
 * qelcore: the core services that libqelr builds on, usable by applications too.
 *
 * - qelMalloc / qelFree: 64-byte aligned memory; everything libqelr allocates
 *   (the KD-tree, build scratch) comes from here and goes back here.
 * - ownGetNumThreads / qelSetNumThreads: the team size of libqelr's OpenMP
 *   parallel regions.
 * - qelGetEnabledCpuFeatures: the processor features, read with CPUID.
 *
 * The header compiles as C99 and as C++.
 */
#ifndef QELCORE_H
#define QELCORE_H

#include <stdint.h>

#if defined(_WIN32)
#define QELCORE_API
#elif defined(QELCORE_BUILDING)
#define QELCORE_API __attribute__((visibility("default")))
#else
#define QELCORE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifndef QEL_STATUS_DEFINED
#define QEL_STATUS_DEFINED
/* Status of every call: 0 success, negative error (nothing written),
 * positive warning. The values are listed in qelr.h. */
typedef int32_t QelStatus;
#endif

/* Bits of the mask returned by qelGetEnabledCpuFeatures. A bit is set when the
 * processor has the feature and, for the AVX family, the operating system
 * saves the wide registers. */
#define QEL_CPU_MMX ((uint64_t)1 << 0)
#define QEL_CPU_SSE ((uint64_t)1 << 1)
#define QEL_CPU_SSE2 ((uint64_t)1 << 2)
#define QEL_CPU_SSE3 ((uint64_t)1 << 3)
#define QEL_CPU_SSSE3 ((uint64_t)1 << 4)
#define QEL_CPU_MOVBE ((uint64_t)1 << 5)
#define QEL_CPU_SSE41 ((uint64_t)1 << 6)
#define QEL_CPU_SSE42 ((uint64_t)1 << 7)
#define QEL_CPU_AVX ((uint64_t)1 << 8)
#define QEL_CPU_AES ((uint64_t)1 << 9)
#define QEL_CPU_CLMUL ((uint64_t)1 << 10)
#define QEL_CPU_F16C ((uint64_t)1 << 11)
#define QEL_CPU_FMA ((uint64_t)1 << 12)
#define QEL_CPU_AVX2 ((uint64_t)1 << 13)
#define QEL_CPU_POPCNT ((uint64_t)1 << 14)
#define QEL_CPU_BMI1 ((uint64_t)1 << 15)
#define QEL_CPU_BMI2 ((uint64_t)1 << 16)
#define QEL_CPU_AVX512F ((uint64_t)1 << 17)

/* Allocates `length` bytes aligned to 64 bytes. Returns NULL when length is
 * not above 0 or the memory cannot be had. Release with qelFree. */
QELCORE_API void* qelMalloc(int length);

/* Releases memory from qelMalloc; NULL is accepted and ignored. */
QELCORE_API void qelFree(void* ptr);

/* Team size of libqelr's parallel regions: the value of the last successful
 * qelSetNumThreads, else the number of processors the OpenMP runtime offers. */
QELCORE_API int ownGetNumThreads(void);

/* Sets the team size that ownGetNumThreads reports from now on. Values above
 * the number of processors are accepted. Returns 0, or -6 (qelErrSize) when
 * numThreads is below 1 (the setting is then unchanged). */
QELCORE_API QelStatus qelSetNumThreads(int numThreads);

/* Mask of QEL_CPU_* bits for the processor the call runs on. */
QELCORE_API uint64_t qelGetEnabledCpuFeatures(void);

#ifdef __cplusplus
}
#endif

#endif /* QELCORE_H */
