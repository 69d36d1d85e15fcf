/**
 * @file qelcore.h
 * @brief qelcore: the core services that libqelr builds on, usable by
 *        applications too.
 *
 * - qelMalloc() / qelFree(): 64-byte aligned memory; everything libqelr
 *   allocates (the KD-tree of qelrKDTreeBuildAlloc(), build scratch, the
 *   working memory of the single-plane affine warp) comes from here and goes
 *   back here.
 * - ownGetNumThreads() / qelSetNumThreads(): the team size of libqelr's
 *   OpenMP parallel regions.
 * - qelGetEnabledCpuFeatures(): the processor features, read with CPUID.
 *
 * Link with `-lqelcore` (libqelr links it for you). The header compiles as
 * C99 and as C++.
 */
#ifndef QELCORE_H
#define QELCORE_H

#include <stdint.h>

/** @cond QELR_INTERNAL */
#if defined(_WIN32)
#define QELCORE_API
#elif defined(QELCORE_BUILDING)
#define QELCORE_API __attribute__((visibility("default")))
#else
#define QELCORE_API
#endif
/** @endcond */

#ifdef __cplusplus
extern "C" {
#endif

#ifndef QEL_STATUS_DEFINED
/** @cond QELR_INTERNAL */
#define QEL_STATUS_DEFINED
/** @endcond */
/**
 * @brief Status of every call: 0 (#qelOk) success, a negative value an error
 *        (no output is written), a positive value a warning (the call
 *        finished; each function says what it wrote).
 *
 * The values and their names are listed in qelr.h.
 */
typedef int32_t QelStatus;
#endif

/**
 * @name Processor feature bits
 * Bits of the mask returned by qelGetEnabledCpuFeatures(). A bit is set when
 * the processor has the feature and, for the AVX family, the operating system
 * saves the wide registers.
 * @{
 */
#define QEL_CPU_MMX ((uint64_t)1 << 0)      /**< MMX */
#define QEL_CPU_SSE ((uint64_t)1 << 1)      /**< SSE */
#define QEL_CPU_SSE2 ((uint64_t)1 << 2)     /**< SSE2 */
#define QEL_CPU_SSE3 ((uint64_t)1 << 3)     /**< SSE3 (the library's baseline) */
#define QEL_CPU_SSSE3 ((uint64_t)1 << 4)    /**< Supplemental SSE3 */
#define QEL_CPU_MOVBE ((uint64_t)1 << 5)    /**< MOVBE instruction */
#define QEL_CPU_SSE41 ((uint64_t)1 << 6)    /**< SSE4.1 */
#define QEL_CPU_SSE42 ((uint64_t)1 << 7)    /**< SSE4.2 */
#define QEL_CPU_AVX ((uint64_t)1 << 8)      /**< AVX, with the registers saved by the OS */
#define QEL_CPU_AES ((uint64_t)1 << 9)      /**< AES instructions */
#define QEL_CPU_CLMUL ((uint64_t)1 << 10)   /**< carry-less multiplication */
#define QEL_CPU_F16C ((uint64_t)1 << 11)    /**< half-precision conversions */
#define QEL_CPU_FMA ((uint64_t)1 << 12)     /**< fused multiply-add (never used by libqelr) */
#define QEL_CPU_AVX2 ((uint64_t)1 << 13)    /**< AVX2, with the registers saved by the OS */
#define QEL_CPU_POPCNT ((uint64_t)1 << 14)  /**< POPCNT instruction */
#define QEL_CPU_BMI1 ((uint64_t)1 << 15)    /**< bit manipulation set 1 */
#define QEL_CPU_BMI2 ((uint64_t)1 << 16)    /**< bit manipulation set 2 */
#define QEL_CPU_AVX512F ((uint64_t)1 << 17) /**< AVX-512 foundation, with the registers saved by the OS */
/** @} */

/**
 * @brief Allocates `length` bytes aligned to 64 bytes.
 *
 * @param length number of bytes; values not above 0 are refused.
 * @return the memory, or NULL when `length` is not above 0 or the memory
 *         cannot be had. Release it with qelFree().
 *
 * Thread-safe. Memory from here is 64-byte aligned, so every plane carved
 * from it at multiples of 16 bytes selects the vector paths of the ray and
 * shading functions of qelr.h.
 */
QELCORE_API void* qelMalloc(int length);

/**
 * @brief Releases memory obtained from qelMalloc().
 * @param ptr what qelMalloc() returned; NULL is accepted and ignored.
 */
QELCORE_API void qelFree(void* ptr);

/**
 * @brief Team size of libqelr's parallel regions.
 *
 * @return the value of the last successful qelSetNumThreads(), else the
 *         number of processors the OpenMP runtime offers.
 *
 * The buffer-size queries of the volume functions multiply their per-thread
 * size by this value, so a buffer sized before a larger team size is set is
 * too small afterwards: query the size again after qelSetNumThreads().
 */
QELCORE_API int ownGetNumThreads(void);

/**
 * @brief Sets the team size that ownGetNumThreads() reports from now on.
 *
 * @param numThreads the team size, at least 1; values above the number of
 *        processors are accepted.
 * @retval 0 (#qelOk) the setting is changed.
 * @retval -6 (#qelErrSize) `numThreads` is below 1; the setting is unchanged.
 *
 * The setting is process-wide. Results of the library do not depend on it:
 * every function gives the same bytes for any team size.
 */
QELCORE_API QelStatus qelSetNumThreads(int numThreads);

/**
 * @brief Processor features of the processor the call runs on.
 * @return a mask of QEL_CPU_* bits. libqelr reads it once when it is loaded
 *         and then uses its AVX2 kernels when #QEL_CPU_AVX2 is set (their
 *         results are the same bytes as those of the SSE3 kernels).
 */
QELCORE_API uint64_t qelGetEnabledCpuFeatures(void);

#ifdef __cplusplus
}
#endif

#endif /* QELCORE_H */
