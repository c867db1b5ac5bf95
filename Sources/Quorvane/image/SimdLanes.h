#pragma once
// Fixed-width float vectors for the CPU image passes (GCC/Clang vector
// extensions): unaligned loads and stores, fast log2 and exp2 polynomials,
// and a dispatch that runs a pass compiled for the widest vector unit present
// (16 lanes with AVX-512, 8 with AVX2 and FMA, 8 on two SSE registers
// otherwise). Host code only: kernels stay per pixel in shaders/.
#include <bit>
#include <cstdint>
#include <cstring>

#define QV_ALWAYS_INLINE inline __attribute__((always_inline))

// Variants compiled for newer instruction sets, picked at run time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__)
#define QV_SIMD_X86_VARIANTS 1
#else
#define QV_SIMD_X86_VARIANTS 0
#endif

// The helpers are always inlined, so the vector ABI of their returns never
// shows; arguments pass by reference (by value draws a note on every use).
#pragma GCC diagnostic ignored "-Wpsabi"

namespace qv::simd {

typedef float Float8 __attribute__((vector_size(32)));
typedef float Float16 __attribute__((vector_size(64)));

// The widest lane count any variant uses: planes pad by multiples of it.
constexpr int kMaxLanes = 16;

template <class V>
constexpr int lanes = int(sizeof(V) / sizeof(float));

// The signed integer vector of a float vector's width (what a comparison yields).
template <class V>
using IntOf = decltype(V{} < V{});

template <class V>
QV_ALWAYS_INLINE V splat(float v) {
    return V{} + v;
}
template <class V>
QV_ALWAYS_INLINE V load(const float* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class V>
QV_ALWAYS_INLINE void store(float* p, const V& v) {
    std::memcpy(p, &v, sizeof v);
}
template <class V>
QV_ALWAYS_INLINE V vmax(const V& a, const V& b) {
    return a > b ? a : b;
}
template <class V>
QV_ALWAYS_INLINE V vmin(const V& a, const V& b) {
    return a < b ? a : b;
}
template <class V>
QV_ALWAYS_INLINE V vabs(const V& a) {
    return std::bit_cast<V>(std::bit_cast<IntOf<V>>(a) & 0x7fffffff);
}
// Lane offsets 0, 1, 2, ... as floats.
template <class V>
QV_ALWAYS_INLINE V iota() {
    V v;
    for (int l = 0; l < lanes<V>; ++l) v[l] = float(l);
    return v;
}

constexpr float kLog2e = 1.44269504088896341f;
constexpr float kLn2 = 0.69314718055994531f;

// log2 for x > 0 (normal floats): exponent plus a degree-9 polynomial for the
// natural log of the mantissa reduced to [sqrt(1/2), sqrt(2)); relative error
// about 1e-7.
template <class V>
QV_ALWAYS_INLINE V fastLog2(const V& x) {
    using I = IntOf<V>;
    I bits = std::bit_cast<I>(x);
    V e = __builtin_convertvector(((bits >> 23) & 0xff) - 127, V);
    V m = std::bit_cast<V>((bits & 0x007fffff) | 0x3f800000);
    auto high = m > 1.41421356f;
    m = high ? m * 0.5f : m;
    e = high ? e + 1.0f : e;
    V f = m - 1.0f;
    V z = f * f;
    // Estrin's scheme: shorter dependency chains than Horner's.
    V z2 = z * z;
    V q0 = f * -2.4999993993e-1f + 3.3333331174e-1f;
    V q1 = f * -1.6668057665e-1f + 2.0000714765e-1f;
    V q2 = f * -1.2420140846e-1f + 1.4249322787e-1f;
    V q3 = f * -1.1514610310e-1f + 1.1676998740e-1f;
    V p = (q0 + q1 * z) + (q2 + q3 * z) * z2 + 7.0376836292e-2f * (z2 * z2);
    V ln = f + (p * f * z - 0.5f * z);
    return ln * kLog2e + e;
}

// 2^t for t in [-126, 126] (clamped): integer part into the exponent, degree-6
// polynomial for e^(f ln 2), |f| <= 1/2; relative error about 1e-7.
template <class V>
QV_ALWAYS_INLINE V fastExp2(const V& exponent) {
    using I = IntOf<V>;
    const V t = vmin(vmax(exponent, splat<V>(-126.0f)), splat<V>(126.0f));
    I i = __builtin_convertvector(t + 127.5f, I) - 127; // floor(t + 1/2): the argument is positive
    V g = (t - __builtin_convertvector(i, V)) * kLn2;
    V g2 = g * g;
    V q0 = g * 1.6666665459e-1f + 5.0000001201e-1f;
    V q1 = g * 8.3334519073e-3f + 4.1665795894e-2f;
    V q2 = g * 1.9875691500e-4f + 1.3981999507e-3f;
    V p = (q0 + q1 * g2) + q2 * (g2 * g2);
    p = p * g2 + g + 1.0f;
    return p * std::bit_cast<V>((i + 127) << 23);
}

#if QV_SIMD_X86_VARIANTS
template <class Pass>
__attribute__((target("arch=x86-64-v4"))) void runAvx512(const Pass& pass) {
    pass.template run<Float16>();
}
template <class Pass>
__attribute__((target("arch=x86-64-v3"))) void runAvx2(const Pass& pass) {
    pass.template run<Float8>();
}
#endif

// Calls pass.run<V>() (an always-inline member template) compiled for the
// widest vector unit of this processor.
template <class Pass>
void runWidest(const Pass& pass) {
#if QV_SIMD_X86_VARIANTS
    static const int level = __builtin_cpu_supports("x86-64-v4") ? 2 : (__builtin_cpu_supports("x86-64-v3") ? 1 : 0);
    if (level == 2) return runAvx512(pass);
    if (level == 1) return runAvx2(pass);
#endif
    pass.template run<Float8>();
}

} // namespace qv::simd
