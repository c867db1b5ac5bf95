#pragma once
// Small vector value types shared by the kernels and the host. Their layouts
// are the kernel record layouts: float3 is three packed floats (12 bytes,
// 4-byte aligned), float4 and uint4 are 16 bytes and 16-byte aligned.
#include "shaders/KernelPortability.h"

#include <cmath>
#include <cstdint>

namespace qv {

struct float2 {
    float x = 0, y = 0;
};

struct float3 {
    float x = 0, y = 0, z = 0;
    QV_KERNEL float& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    QV_KERNEL float operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
};
using packed_float3 = float3;

struct alignas(16) float4 {
    float x = 0, y = 0, z = 0, w = 0;
};

struct uint2 {
    uint32_t x = 0, y = 0;
};

struct alignas(16) uint4 {
    uint32_t x = 0, y = 0, z = 0, w = 0;
};

static_assert(sizeof(float2) == 8 && sizeof(float3) == 12 && alignof(float3) == 4);
static_assert(sizeof(float4) == 16 && alignof(float4) == 16);
static_assert(sizeof(uint2) == 8 && sizeof(uint4) == 16 && alignof(uint4) == 16);

QV_KERNEL float3 make_float3(float x, float y, float z) { return float3{x, y, z}; }
QV_KERNEL float4 make_float4(float3 v, float w) { return float4{v.x, v.y, v.z, w}; }
QV_KERNEL float3 xyz(float4 v) { return float3{v.x, v.y, v.z}; }

QV_KERNEL float3 operator+(float3 a, float3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
QV_KERNEL float3 operator-(float3 a, float3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
QV_KERNEL float3 operator-(float3 a) { return {-a.x, -a.y, -a.z}; }
QV_KERNEL float3 operator*(float3 a, float3 b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }
QV_KERNEL float3 operator*(float3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
QV_KERNEL float3 operator*(float s, float3 a) { return {a.x * s, a.y * s, a.z * s}; }
QV_KERNEL float3 operator/(float3 a, float s) { return {a.x / s, a.y / s, a.z / s}; }
QV_KERNEL float3 operator/(float3 a, float3 b) { return {a.x / b.x, a.y / b.y, a.z / b.z}; }
QV_KERNEL float3& operator+=(float3& a, float3 b) { return a = a + b; }
QV_KERNEL float3& operator-=(float3& a, float3 b) { return a = a - b; }
QV_KERNEL float3& operator*=(float3& a, float3 b) { return a = a * b; }
QV_KERNEL float3& operator*=(float3& a, float s) { return a = a * s; }
QV_KERNEL bool operator==(float3 a, float3 b) { return a.x == b.x && a.y == b.y && a.z == b.z; }
QV_KERNEL bool operator!=(float3 a, float3 b) { return !(a == b); }
QV_KERNEL bool operator==(float4 a, float4 b) { return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w; }
QV_KERNEL bool operator!=(float4 a, float4 b) { return !(a == b); }
QV_KERNEL bool operator==(uint4 a, uint4 b) { return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w; }
QV_KERNEL bool operator!=(uint4 a, uint4 b) { return !(a == b); }

QV_KERNEL float dot(float3 a, float3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
QV_KERNEL float3 cross(float3 a, float3 b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
QV_KERNEL float length(float3 a) { return std::sqrt(dot(a, a)); }
QV_KERNEL float3 normalize(float3 a) {
    float l = length(a);
    return l > 0 ? a / l : float3{};
}
QV_KERNEL float3 min(float3 a, float3 b) {
    return {std::fmin(a.x, b.x), std::fmin(a.y, b.y), std::fmin(a.z, b.z)};
}
QV_KERNEL float3 max(float3 a, float3 b) {
    return {std::fmax(a.x, b.x), std::fmax(a.y, b.y), std::fmax(a.z, b.z)};
}
QV_KERNEL bool isFinite(float3 a) { return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z); }

// float4 and float2 arithmetic, component by component, for records that carry
// colours or table entries in 4- and 2-vectors.
QV_KERNEL float4 make_float4(float x, float y, float z, float w) { return float4{x, y, z, w}; }
QV_KERNEL float2 make_float2(float x, float y) { return float2{x, y}; }
QV_KERNEL float4 operator+(float4 a, float4 b) { return {a.x + b.x, a.y + b.y, a.z + b.z, a.w + b.w}; }
QV_KERNEL float4 operator-(float4 a, float4 b) { return {a.x - b.x, a.y - b.y, a.z - b.z, a.w - b.w}; }
QV_KERNEL float4 operator*(float4 a, float4 b) { return {a.x * b.x, a.y * b.y, a.z * b.z, a.w * b.w}; }
QV_KERNEL float4 operator*(float4 a, float s) { return {a.x * s, a.y * s, a.z * s, a.w * s}; }
QV_KERNEL float4 operator*(float s, float4 a) { return a * s; }
QV_KERNEL float4 operator/(float4 a, float s) { return {a.x / s, a.y / s, a.z / s, a.w / s}; }
QV_KERNEL float4& operator+=(float4& a, float4 b) { return a = a + b; }
QV_KERNEL float4& operator*=(float4& a, float s) { return a = a * s; }
QV_KERNEL float2 operator+(float2 a, float2 b) { return {a.x + b.x, a.y + b.y}; }
QV_KERNEL float2 operator-(float2 a, float2 b) { return {a.x - b.x, a.y - b.y}; }
QV_KERNEL float2 operator*(float2 a, float s) { return {a.x * s, a.y * s}; }
QV_KERNEL float2 operator*(float s, float2 a) { return a * s; }
QV_KERNEL float2& operator+=(float2& a, float2 b) { return a = a + b; }

} // namespace qv
