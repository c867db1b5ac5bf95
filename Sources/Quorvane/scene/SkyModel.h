#pragma once
// The sky map and the sun after the atmosphere, generated on the host's
// threads by the single-scattering sky kernel (shaders/Sky.h) whenever the
// environment changes.
#include "scene/EnvironmentPreset.h"
#include "shaders/Sky.h"
#include "shaders/VecMath.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

class SkyError : public std::runtime_error {
public:
    explicit SkyError(const std::string& sentence) : std::runtime_error(sentence) {}
};

// Top-of-atmosphere illuminance of a sun of luminance-1 colour and scale 1 (lux).
inline constexpr float kSunTOAIlluminanceLux = 128000.0f;

struct SkyMap {
    uint32_t width = 0, height = 0;
    std::vector<float4> env; // width x height radiance texels (cd/m2 per channel, w = 1), row-major
    float4 sunOut{};         // rgb sun illuminance at the ground (lux per channel), w = 1; zero when set
    double buildSeconds = 0; // wall time of generateSkyMap
};

// The sky kernel's parameters from plain inputs: sunDir a unit vector toward
// the sun in model space, sunTOA its top-of-atmosphere illuminance (lux per
// channel), the preset's Mie anisotropy, sky tint, Mie density scale and sky
// radiance floor (cd/m2). Throws SkyError for a map size outside 1..16384 by 2..8192.
SkyParams makeSkyParams(float3 sunDir, float3 sunTOA, float mieG, float3 tint, float mieScale, float3 floorRadiance,
                        int64_t width, int64_t height);

// The same for a preset: the sun's colour is the preset's sunTOAKelvin at
// luminance 1, times sunScale x 128000 lux.
SkyParams makeSkyParams(const EnvironmentPreset& preset, float3 sunDir, int64_t width, int64_t height);

// Runs the sky kernel over the whole map (oneTBB, rows in parallel).
SkyMap generateSkyMap(const SkyParams& params);

// The sun counts as visible when light survives the atmosphere and it stands
// no more than a hair below the horizon.
bool sunVisible(const SkyMap& sky, float3 sunDir);

// Cosine-weighted integral of the upper hemisphere of the map: the sky's
// irradiance on a horizontal surface (lux per channel); zero for an empty map.
float3 computeSkyIrradiance(const SkyMap& sky);

// Mean luminance of the map's first row, the texels nearest the zenith (cd/m2);
// zero for an empty map.
float zenithLuminance(const SkyMap& sky);

} // namespace qv
