#include "image/ToneMapping.h"

#include "scene/EnvSwitches.h"

#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>

#include <cmath>
#include <cstdlib>

namespace qv {

namespace {

// Runs body(x, y) over every pixel in tiles of 64 x 16.
template <class Body>
void forEachPixel(uint32_t width, uint32_t height, const Body& body) {
    tbb::parallel_for(tbb::blocked_range2d<uint32_t>(0, height, 16, 0, width, 64),
                      [&](const tbb::blocked_range2d<uint32_t>& r) {
                          for (uint32_t y = r.rows().begin(); y != r.rows().end(); ++y)
                              for (uint32_t x = r.cols().begin(); x != r.cols().end(); ++x) body(x, y);
                      });
}

} // namespace

float exposureValue(const RenderSettings& settings, float presetEV100) {
    float ev = settings.ev100Override ? *settings.ev100Override : presetEV100 - settings.cameraExposureEV;
    return ev - settings.exposureCompensation;
}

float whiteLuminance(float ev100) { return 1.2f * std::exp2(ev100); }

ToneParams makeToneParams(const RenderSettings& settings, float ev100, float3 whiteBalanceGains, uint32_t width,
                          uint32_t height) {
    float exposureGain = 1.0f / whiteLuminance(ev100);
    ToneParams p;
    p.gain = make_float4(whiteBalanceGains * exposureGain, 0.0f);
    p.look = float4{settings.saturation, settings.lookPower, settings.lookSaturation, 0.0f};
    uint32_t op = settings.toneMapper == ToneMapper::agx ? TONE_AGX
                  : settings.toneMapper == ToneMapper::aces ? TONE_ACES
                                                            : TONE_CLAMP;
    p.opts = uint4{op, width, height, 0};
    return p;
}

nlohmann::json toneMetadata(const ToneParams& params, float ev100, uint32_t samplesPerPixel,
                            const std::string& whiteBalanceDescription) {
    ToneMapper op = params.opts.x == TONE_AGX ? ToneMapper::agx
                    : params.opts.x == TONE_ACES ? ToneMapper::aces
                                                 : ToneMapper::clamp;
    nlohmann::json j;
    j["format"] = "QVDP";
    j["width"] = params.opts.y;
    j["height"] = params.opts.z;
    j["spp"] = samplesPerPixel;
    j["gain"] = {params.gain.x, params.gain.y, params.gain.z};
    j["saturation"] = params.look.x;
    j["look_power"] = params.look.y;
    j["look_saturation"] = params.look.z;
    j["operator"] = std::string(toString(op));
    j["ev100"] = ev100;
    j["white_luminance"] = whiteLuminance(ev100);
    j["white_balance"] = whiteBalanceDescription;
    return j;
}

std::vector<uint8_t> toneMapToRGBA(const float4* src, const ToneParams& params) {
    std::vector<uint8_t> out(size_t(params.opts.y) * params.opts.z * 4);
    forEachPixel(params.opts.y, params.opts.z, [&](uint32_t x, uint32_t y) { tonemap(src, out.data(), params, x, y); });
    return out;
}

std::vector<float4> toneMapToFloat(const float4* src, const ToneParams& params) {
    std::vector<float4> out(size_t(params.opts.y) * params.opts.z);
    forEachPixel(params.opts.y, params.opts.z,
                 [&](uint32_t x, uint32_t y) { tonemapTexture(src, out.data(), params, x, y); });
    return out;
}

std::vector<float4> toneMapWithConfidence(const float4* src, const float4* guideB, const float4* accum,
                                          const ToneParams& params, const GPUConfidence& confidence) {
    std::vector<float4> out(size_t(params.opts.y) * params.opts.z);
    forEachPixel(params.opts.y, params.opts.z, [&](uint32_t x, uint32_t y) {
        tonemapConfidence(src, guideB, params, accum, confidence, out.data(), x, y);
    });
    return out;
}

float2 confidenceRangeFrom(const char* value) {
    float2 range{0.04f, 0.16f};
    if (!value) return range;
    auto numbers = EnvSwitches::parseNumberList(value);
    if (numbers && numbers->size() == 2) range = float2{float((*numbers)[0]), float((*numbers)[1])};
    return range;
}

float2 confidenceRange() {
    static const std::optional<std::string> text = EnvSwitches::process().text("QV_CONF");
    static const float2 range = confidenceRangeFrom(text ? text->c_str() : nullptr);
    return range;
}

GPUConfidence makeConfidenceParams(bool denoisedShown, float whiteLuminanceValue) {
    float2 r = confidenceRange();
    return GPUConfidence{float4{denoisedShown ? 1.0f : 0.0f, r.x, r.y, whiteLuminanceValue}};
}

} // namespace qv
