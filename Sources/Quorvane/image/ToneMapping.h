#pragma once
// Host side of the display transform: building the tone record from the
// render settings, the metadata of a raw dump, and running the per-pixel
// kernels over a frame with oneTBB.
#include "pathtracer/RenderSettings.h"
#include "shaders/ToneMap.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv {

using ToneParams = GPUTone;

// The (lookPower, lookSaturation) pairs of the AgX looks.
struct AgxLook {
    float power;
    float saturation;
};
inline constexpr AgxLook kAgxLookBase{1.0f, 1.0f};
inline constexpr AgxLook kAgxLookMedium{1.12f, 1.1f};
inline constexpr AgxLook kAgxLookPunchy{1.35f, 1.4f};

// EV100 of a render: the override when set, else the preset's EV100 minus the
// camera's exposure, then minus the exposure compensation (+ = brighter).
float exposureValue(const RenderSettings& settings, float presetEV100);

// The scene luminance that maps to 1.0 before the operator: 1.2 x 2^EV100 (cd/m2).
float whiteLuminance(float ev100);

// The tone record. gain.rgb = 1 / whiteLuminance(ev100) x white-balance gains.
ToneParams makeToneParams(const RenderSettings& settings, float ev100, float3 whiteBalanceGains, uint32_t width,
                          uint32_t height);

// What a raw dump's sidecar records about the transform: "format", "width",
// "height", "spp", "gain", "saturation", "look_power", "look_saturation",
// "operator", "ev100", "white_luminance" and "white_balance".
nlohmann::json toneMetadata(const ToneParams& params, float ev100, uint32_t samplesPerPixel,
                            const std::string& whiteBalanceDescription);

// src holds W x H sum records (rgb sum, w = samples); returns W x H x 4 RGBA
// bytes, row-major, top row first, alpha 255.
std::vector<uint8_t> toneMapToRGBA(const float4* src, const ToneParams& params);

// (r, g, b, 1) floats in 0 to 1 per pixel.
std::vector<float4> toneMapToFloat(const float4* src, const ToneParams& params);

// (r, g, b, confidence) per pixel; accum is the raw accumulation even when src
// is the denoised image.
std::vector<float4> toneMapWithConfidence(const float4* src, const float4* guideB, const float4* accum,
                                          const ToneParams& params, const GPUConfidence& confidence);

// The relative-error range of the confidence, (0.04, 0.16) unless QV_CONF
// holds exactly two numbers "a,b". Read once per process.
float2 confidenceRange();
// The same rule applied to a given value (nullptr = unset).
float2 confidenceRangeFrom(const char* value);

GPUConfidence makeConfidenceParams(bool denoisedShown, float whiteLuminanceValue);

} // namespace qv
