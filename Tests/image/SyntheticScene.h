#pragma once
// A procedural "rendered" frame for denoiser tests and benchmarks: a wall
// above a floor (a normal and depth discontinuity along a horizontal line),
// dark grout stripes and an albedo step on the wall (albedo discontinuities),
// lit by a smooth irradiance field. Each pixel takes samples at jittered
// sub-pixel positions, so pixels on an edge mix both sides as a path tracer's
// would; every radiance sample carries multiplicative noise of known variance.
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace qv::test {

struct SceneHit {
    float3 albedo;
    float3 normal;
    float depth;       // m
    float3 irradiance; // smooth lighting, so radiance = albedo x irradiance
};

struct SyntheticScene {
    uint32_t width = 0, height = 0;

    // The scene at continuous image coordinates (pixels, y down).
    SceneHit hit(float px, float py) const {
        float u = px / float(width), v = py / float(height);
        SceneHit h;
        if (v < 0.55f) { // wall
            h.normal = {0, 0, 1};
            h.depth = 4.0f;
            bool grout = std::fmod(px, 16.0f) < 1.5f;
            h.albedo = grout ? float3{0.05f, 0.05f, 0.05f} : (u < 0.6f ? float3{0.8f, 0.7f, 0.6f} : float3{0.2f, 0.3f, 0.6f});
        } else { // floor, receding in depth toward the horizon line
            h.normal = {0, 1, 0};
            h.depth = 1.5f + 2.0f * (1.0f - v);
            h.albedo = float3{0.5f, 0.35f, 0.2f};
        }
        float light = 20.0f + 60.0f * std::exp(-((u - 0.3f) * (u - 0.3f) + (v - 0.4f) * (v - 0.4f)) * 8.0f);
        h.irradiance = float3{light, light * 0.95f, light * 0.85f};
        return h;
    }

    float3 radiance(float px, float py) const {
        SceneHit h = hit(px, py);
        return h.albedo * h.irradiance;
    }

    // The converged image: each pixel's radiance integrated over a fine grid.
    std::vector<float3> reference() const {
        std::vector<float3> ref(size_t(width) * height);
        const int n = 16;
        for (uint32_t y = 0; y < height; ++y)
            for (uint32_t x = 0; x < width; ++x) {
                float3 s{};
                for (int j = 0; j < n; ++j)
                    for (int i = 0; i < n; ++i) s += radiance(x + (i + 0.5f) / n, y + (j + 0.5f) / n);
                ref[size_t(y) * width + x] = s / float(n * n);
            }
        return ref;
    }

    // Whether a pixel lies within `radius` pixels of an albedo or normal edge.
    bool nearEdge(uint32_t x, uint32_t y, int radius) const {
        SceneHit c = hit(x + 0.5f, y + 0.5f);
        for (int dy = -radius; dy <= radius; ++dy)
            for (int dx = -radius; dx <= radius; ++dx) {
                SceneHit o = hit(x + 0.5f + float(dx), y + 0.5f + float(dy));
                if (o.albedo != c.albedo || o.normal != c.normal) return true;
            }
        return false;
    }
};

// The path tracer's per-pixel sums for `spp` samples of the scene.
struct SampledFrame {
    std::vector<float4> accum, guideA, guideB;
};

// Each sample: radiance x X with X uniform on [0, 2) (mean 1, variance 1/3),
// at a uniformly jittered position in the pixel.
inline SampledFrame sampleScene(const SyntheticScene& scene, uint32_t spp, uint32_t seed) {
    SampledFrame f;
    size_t count = size_t(scene.width) * scene.height;
    f.accum.assign(count, {});
    f.guideA.assign(count, {});
    f.guideB.assign(count, {});
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> uni(0.0f, 1.0f);
    for (uint32_t y = 0; y < scene.height; ++y)
        for (uint32_t x = 0; x < scene.width; ++x) {
            size_t i = size_t(y) * scene.width + x;
            for (uint32_t s = 0; s < spp; ++s) {
                SceneHit h = scene.hit(x + uni(rng), y + uni(rng));
                float3 L = h.albedo * h.irradiance * (2.0f * uni(rng));
                float lum = 0.2126f * L.x + 0.7152f * L.y + 0.0722f * L.z;
                f.accum[i] = float4{f.accum[i].x + L.x, f.accum[i].y + L.y, f.accum[i].z + L.z, f.accum[i].w + 1};
                f.guideA[i] = float4{f.guideA[i].x + h.albedo.x, f.guideA[i].y + h.albedo.y,
                                     f.guideA[i].z + h.albedo.z, f.guideA[i].w + h.depth};
                f.guideB[i] = float4{f.guideB[i].x + h.normal.x, f.guideB[i].y + h.normal.y,
                                     f.guideB[i].z + h.normal.z, f.guideB[i].w + lum * lum};
            }
        }
    return f;
}

} // namespace qv::test
