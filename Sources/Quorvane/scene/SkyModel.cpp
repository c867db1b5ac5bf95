#include "scene/SkyModel.h"

#include "scene/ColorMath.h"
#include "scene/TextFormat.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <chrono>
#include <cmath>

namespace qv {

SkyParams makeSkyParams(float3 sunDir, float3 sunTOA, float mieG, float3 tint, float mieScale, float3 floorRadiance,
                        int64_t width, int64_t height) {
    if (width < 1 || width > 16384 || height < 2 || height > 8192)
        throw SkyError(strprintf("sky map size %lldx%lld is out of range (1 to 16384 by 2 to 8192)",
                                 static_cast<long long>(width), static_cast<long long>(height)));
    SkyParams p;
    p.sunDir = make_float4(normalize(sunDir), 0.0f);
    p.sunE = make_float4(sunTOA, mieG);
    p.tint = make_float4(tint, mieScale);
    p.floorRad = make_float4(floorRadiance, 0.0f);
    p.dims = uint4{uint32_t(width), uint32_t(height), SKY_VIEW_STEPS, SKY_LIGHT_STEPS};
    return p;
}

SkyParams makeSkyParams(const EnvironmentPreset& preset, float3 sunDir, int64_t width, int64_t height) {
    float3 sunTOA = ColorMath::kelvinToLinearSRGB(preset.sunTOAKelvin) * (preset.sunScale * kSunTOAIlluminanceLux);
    return makeSkyParams(sunDir, sunTOA, preset.mieG, preset.skyTint, preset.mieScale, preset.skyFloor, width, height);
}

SkyMap generateSkyMap(const SkyParams& P) {
    auto start = std::chrono::steady_clock::now();
    const uint32_t W = P.dims.x, H = P.dims.y;
    SkyMap sky;
    sky.width = W;
    sky.height = H;
    sky.env.resize(size_t(W) * H);

    std::vector<float4> lut(size_t(SKY_TLUT_MU) * SKY_TLUT_H);
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, SKY_TLUT_H), [&](const tbb::blocked_range<uint32_t>& r) {
        for (uint32_t j = r.begin(); j != r.end(); ++j)
            for (uint32_t i = 0; i < SKY_TLUT_MU; ++i) lut[size_t(j) * SKY_TLUT_MU + i] = skyTransmittanceLutTexel(P, i, j);
    });

    // Rows looking up are generated one by one; every row looking down shows
    // the same horizon, so the horizon is generated once and darkened per row.
    std::vector<float3> horizon(W);
    uint32_t firstDown = H;
    for (uint32_t y = 0; y < H; ++y)
        if (skyTexelDirection(0, y, W, H).y < 0.0f) {
            firstDown = y;
            break;
        }
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, firstDown + 1), [&](const tbb::blocked_range<uint32_t>& r) {
        SkyRowSteps row;
        for (uint32_t y = r.begin(); y != r.end(); ++y) {
            bool isHorizon = y == firstDown;
            float cosUp = isHorizon ? 0.0f : skyTexelDirection(0, y, W, H).y;
            skyRowSetup(P, cosUp, row);
            for (uint32_t x = 0; x < W; ++x) {
                float3 d = skyTexelDirection(x, isHorizon ? 0 : y, W, H);
                float3 v = isHorizon ? skyViewAboveHorizon(float3{d.x, -1.0f, d.z}) : d;
                if (isHorizon) horizon[x] = skyRadianceRow(P, row, lut.data(), v, 0.0f);
                else sky.env[size_t(y) * W + x] = make_float4(skyRadianceRow(P, row, lut.data(), v, d.y), 1.0f);
            }
        }
    });
    tbb::parallel_for(tbb::blocked_range<uint32_t>(firstDown, H), [&](const tbb::blocked_range<uint32_t>& r) {
        for (uint32_t y = r.begin(); y != r.end(); ++y) {
            float k = skyBelowHorizonFactor(skyTexelDirection(0, y, W, H).y);
            for (uint32_t x = 0; x < W; ++x) sky.env[size_t(y) * W + x] = make_float4(horizon[x] * k, 1.0f);
        }
    });
    sky.sunOut = skySunOut(P);
    sky.buildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return sky;
}

bool sunVisible(const SkyMap& sky, float3 sunDir) {
    float3 rgb = xyz(sky.sunOut);
    return sky.sunOut.w > 0.0f && luminance(rgb) > 0.0f && sunDir.y > -0.01f;
}

float3 computeSkyIrradiance(const SkyMap& sky) {
    if (sky.env.empty()) return {};
    const uint32_t W = sky.width, H = sky.height;
    const double dOmega = (2.0 * M_PI / W) * (M_PI / H);
    double r = 0, g = 0, b = 0;
    for (uint32_t y = 0; y < H / 2; ++y) {
        double theta = (y + 0.5) / H * M_PI;
        double k = std::cos(theta) * std::sin(theta) * dOmega;
        double rr = 0, gg = 0, bb = 0;
        for (uint32_t x = 0; x < W; ++x) {
            const float4& t = sky.env[size_t(y) * W + x];
            rr += t.x;
            gg += t.y;
            bb += t.z;
        }
        r += rr * k;
        g += gg * k;
        b += bb * k;
    }
    return float3{float(r), float(g), float(b)};
}

float zenithLuminance(const SkyMap& sky) {
    if (sky.env.empty()) return 0.0f;
    double sum = 0;
    for (uint32_t x = 0; x < sky.width; ++x) sum += luminance(xyz(sky.env[x]));
    return float(sum / sky.width);
}

} // namespace qv
