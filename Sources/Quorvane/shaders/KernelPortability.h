#pragma once
// The one portability layer of the kernel source. Every kernel header includes
// this and marks its functions QV_KERNEL, so the same text compiles as plain
// C++ for the CPU backend and, later, as device code for a GPU compiler.
#if defined(__CUDACC__)
#define QV_KERNEL __host__ __device__ inline
#else
#define QV_KERNEL inline
#endif

// A hint to start loading the cache line at an address that a dependent load
// will soon need; no effect on results.
#if defined(__CUDACC__)
#define QV_PREFETCH(address) ((void)(address))
#else
#define QV_PREFETCH(address) __builtin_prefetch(address)
#endif
