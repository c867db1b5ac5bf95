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
// On x86-64 the instruction is written out: GCC deletes a __builtin_prefetch
// whose address no other live code uses, which is exactly the case of a
// prefetch issued well ahead of the work that needs it.
#if defined(__CUDACC__)
#define QV_PREFETCH(address) ((void)(address))
#elif defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QV_PREFETCH(address) __asm__ volatile("prefetcht0 %0" : : "m"(*(const char*)(address)))
#else
#define QV_PREFETCH(address) __builtin_prefetch(address)
#endif
