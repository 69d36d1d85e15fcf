// The instruction set a translation unit is compiled for.
//
// Every kernel source of the library is compiled once per instruction set
// (SSE3, the baseline, and AVX2); the load-time dispatcher fills the entry
// table with the best variant the processor offers. The target is taken from
// the compiler's own flags (-msse3 or -mavx2), never from a separate switch,
// so the code and the instructions it was compiled for cannot disagree.
//
// Code compiled per target lives in an inline namespace named after the
// target, written `namespace qelr::QELR_ISA::family { ... }`. Within a
// translation unit the names read as `qelr::family::...`; in the object file
// they carry the target (`qelr::avx2::family::...`), so the linker never
// merges an AVX2 copy of an inline function or template with the SSE3 copy of
// the same name.
#pragma once

#if defined(__AVX2__)
#define QELR_ISA_NAME avx2
#define QELR_SIMD_LANES 8
#elif defined(__SSE3__)
#define QELR_ISA_NAME sse3
#define QELR_SIMD_LANES 4
#else
#error "qelr kernels need at least SSE3 (-msse3)"
#endif

#define QELR_ISA inline QELR_ISA_NAME

// The operations of the vector layer are always inlined: a call per lane
// operation would cost more than the operation.
#define QELR_INLINE inline __attribute__((always_inline))
