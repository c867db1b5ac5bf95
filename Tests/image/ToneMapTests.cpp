#include "image/ToneMapping.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qv {
namespace {

// A tone record with unit gain, so a pixel's mean colour is its value
// relative to white.
ToneParams unitTone(uint32_t op, float saturation = 1.0f, AgxLook look = kAgxLookBase) {
    return ToneParams{float4{1, 1, 1, 0}, float4{saturation, look.power, look.saturation, 0}, uint4{op, 1, 1, 0}};
}

float3 encodeGrey(float v, uint32_t op) { return toneMapColour(float4{v, v, v, 1}, unitTone(op)); }

std::array<uint8_t, 4> bytesOf(float4 sum, const ToneParams& p) {
    std::vector<uint8_t> rgba = toneMapToRGBA(&sum, p);
    return {rgba[0], rgba[1], rgba[2], rgba[3]};
}

const uint32_t kOperators[] = {TONE_AGX, TONE_ACES, TONE_CLAMP};

TEST(ToneCurves, MapKnownInputsToKnownDisplayValues) {
    struct Case {
        uint32_t op;
        float input;   // relative to white
        float encoded; // sRGB-encoded output
        float tolerance;
    };
    const Case cases[] = {
        // AgX's sigmoid puts scene mid grey at display 0.5 before the 2.2 power.
        {TONE_AGX, 0.18f, 0.5025f, 0.003f},
        // Saturated white: the contrast polynomial ends at 0.99858, which encodes to 0.9986 (byte 255).
        {TONE_AGX, 1e6f, 0.99858f, 0.0005f},
        // Fitted ACES: 0.18 -> 0.0480 linear -> 0.2427 encoded.
        {TONE_ACES, 0.18f, 0.2427f, 0.002f},
        {TONE_ACES, 1e6f, 1.0f, 1e-6f},
        {TONE_ACES, 0.0f, 0.0f, 0.0f},
        {TONE_CLAMP, 0.0f, 0.0f, 0.0f},
        {TONE_CLAMP, 0.0031308f, 0.0404500f, 1e-5f},
        {TONE_CLAMP, 0.5f, 0.7353570f, 1e-5f},
        {TONE_CLAMP, 1.0f, 1.0f, 1e-6f},
        {TONE_CLAMP, 7.0f, 1.0f, 1e-6f},
    };
    for (const Case& c : cases) {
        float3 out = encodeGrey(c.input, c.op);
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(out[ch], c.encoded, c.tolerance) << "op " << c.op << " in " << c.input;
    }
}

TEST(ToneCurves, AreMonotonicOverTwentyStopsOfGrey) {
    // (Tinted inputs need not be monotonic per channel: the operators' output
    // matrices mix channels with negative weights.)
    for (uint32_t op : kOperators)
        for (float3 tint : {float3{1, 1, 1}}) {
            float3 previous{-1, -1, -1};
            for (float stops = -20.0f; stops <= 12.0f; stops += 0.05f) {
                float v = std::exp2(stops);
                float3 out = toneMapColour(float4{tint.x * v, tint.y * v, tint.z * v, 1}, unitTone(op));
                for (int ch = 0; ch < 3; ++ch) {
                    EXPECT_GE(out[ch], previous[ch]) << "op " << op << " at " << stops << " stops, channel " << ch;
                    EXPECT_GE(out[ch], 0.0f);
                    EXPECT_LE(out[ch], 1.0f);
                }
                previous = out;
            }
        }
}

TEST(ToneCurves, BlackAndEmptyPixels) {
    for (uint32_t op : kOperators) {
        auto empty = bytesOf(float4{5, 5, 5, 0}, unitTone(op));
        EXPECT_EQ(empty, (std::array<uint8_t, 4>{0, 0, 0, 255})) << "op " << op;
        float3 black = encodeGrey(0.0f, op);
        for (int ch = 0; ch < 3; ++ch) {
            EXPECT_GE(black[ch], 0.0f);
            EXPECT_LT(black[ch], 0.5f / 255.0f) << "op " << op;
        }
    }
}

TEST(ToneCurves, NegativeColourIsClampedBeforeTheOperator) {
    for (uint32_t op : kOperators) {
        float3 negative = toneMapColour(float4{-3, 0.2f, 0.2f, 1}, unitTone(op));
        float3 zeroed = toneMapColour(float4{0, 0.2f, 0.2f, 1}, unitTone(op));
        // Saturation 1 leaves c unchanged (up to rounding) except the clamp of red to 0.
        for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(negative[ch], zeroed[ch], 1e-6f) << "op " << op;
    }
}

TEST(ToneCurves, ZeroSaturationGivesGreyOfTheLuminance) {
    const float4 colour{0.9f, 0.2f, 0.05f, 1};
    float l = 0.2126f * 0.9f + 0.7152f * 0.2f + 0.0722f * 0.05f;
    for (uint32_t op : kOperators) {
        float3 out = toneMapColour(colour, unitTone(op, 0.0f));
        float3 grey = encodeGrey(l, op);
        for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(out[ch], grey[ch], 2e-6f) << "op " << op;
    }
}

TEST(ToneCurves, PunchyLookHasMoreContrastThanBase) {
    // Around mid grey the look power steepens the curve.
    auto slope = [](AgxLook look) {
        ToneParams p = unitTone(TONE_AGX, 1.0f, look);
        return toneMapColour(float4{0.36f, 0.36f, 0.36f, 1}, p).x - toneMapColour(float4{0.09f, 0.09f, 0.09f, 1}, p).x;
    };
    EXPECT_GT(slope(kAgxLookPunchy), slope(kAgxLookBase));
}

TEST(ToneBytes, RoundHalfUpAndFullScale) {
    EXPECT_EQ(encodedToByte(0.5f / 255.0f), 1);
    EXPECT_EQ(encodedToByte(0.49f / 255.0f), 0);
    EXPECT_EQ(encodedToByte(1.0f), 255);
    EXPECT_EQ(encodedToByte(0.0f), 0);
    // Clamp of 0.5 x white: sRGB 0.735357 -> 187.99 + 0.5 -> 188.
    EXPECT_EQ(bytesOf(float4{1, 1, 1, 2}, unitTone(TONE_CLAMP))[0], 188);
}

TEST(ToneBytes, ImageIsRowMajorTopRowFirst) {
    // 2 x 2: only the top-right pixel is white.
    std::vector<float4> src{{0, 0, 0, 1}, {9, 9, 9, 1}, {0, 0, 0, 1}, {0, 0, 0, 1}};
    ToneParams p = unitTone(TONE_CLAMP);
    p.opts.y = 2;
    p.opts.z = 2;
    std::vector<uint8_t> rgba = toneMapToRGBA(src.data(), p);
    ASSERT_EQ(rgba.size(), 16u);
    EXPECT_EQ(rgba[4], 255);
    EXPECT_EQ(rgba[0], 0);
    EXPECT_EQ(rgba[8], 0);
    for (size_t i = 3; i < 16; i += 4) EXPECT_EQ(rgba[i], 255);
}

TEST(ToneParamsBuild, ExposureValueRules) {
    RenderSettings s;
    EXPECT_FLOAT_EQ(exposureValue(s, 12.0f), 12.0f);
    s.cameraExposureEV = 1.5f;
    s.exposureCompensation = 0.5f;
    EXPECT_FLOAT_EQ(exposureValue(s, 12.0f), 10.0f);
    s.ev100Override = 3.0f; // replaces preset and camera, compensation still applies
    EXPECT_FLOAT_EQ(exposureValue(s, 12.0f), 2.5f);
    EXPECT_FLOAT_EQ(whiteLuminance(0.0f), 1.2f);
    EXPECT_FLOAT_EQ(whiteLuminance(10.0f), 1228.8f);
}

TEST(ToneParamsBuild, GainIsExposureTimesWhiteBalance) {
    RenderSettings s;
    s.toneMapper = ToneMapper::aces;
    ToneParams p = makeToneParams(s, 4.0f, float3{1.0f, 0.5f, 2.0f}, 640, 480);
    float g = 1.0f / (1.2f * 16.0f);
    EXPECT_FLOAT_EQ(p.gain.x, g);
    EXPECT_FLOAT_EQ(p.gain.y, 0.5f * g);
    EXPECT_FLOAT_EQ(p.gain.z, 2.0f * g);
    EXPECT_EQ(p.opts.x, TONE_ACES);
    EXPECT_EQ(p.opts.y, 640u);
    EXPECT_EQ(p.opts.z, 480u);
    EXPECT_FLOAT_EQ(p.look.y, 1.12f); // medium look by default
    EXPECT_FLOAT_EQ(p.look.z, 1.1f);
    // White maps to 1.0 before the operator.
    ToneParams c = makeToneParams(RenderSettings{.toneMapper = ToneMapper::clamp}, 4.0f, float3{1, 1, 1}, 1, 1);
    float white = whiteLuminance(4.0f);
    EXPECT_NEAR(toneMapColour(float4{white, white, white, 1}, c).x, 1.0f, 1e-6f);
}

TEST(ToneParamsBuild, MetadataKeys) {
    RenderSettings s;
    ToneParams p = makeToneParams(s, 2.0f, float3{1, 1, 1}, 4, 2);
    nlohmann::json j = toneMetadata(p, 2.0f, 64, "sky (gains 1.000 1.000 1.000)");
    EXPECT_EQ(j["format"], "QVDP");
    EXPECT_EQ(j["operator"], "agx");
    EXPECT_EQ(j["width"], 4);
    EXPECT_EQ(j["height"], 2);
    EXPECT_EQ(j["spp"], 64);
    EXPECT_FLOAT_EQ(j["white_luminance"].get<float>(), 4.8f);
    EXPECT_EQ(j["white_balance"], "sky (gains 1.000 1.000 1.000)");
    for (const char* key : {"gain", "saturation", "look_power", "look_saturation", "ev100"})
        EXPECT_TRUE(j.contains(key)) << key;
}

TEST(Confidence, RangeFromEnvironmentText) {
    struct Case {
        const char* value;
        float a, b;
    };
    const Case cases[] = {{nullptr, 0.04f, 0.16f},  {"0.02,0.08", 0.02f, 0.08f}, {"0.02", 0.04f, 0.16f},
                          {"1,2,3", 0.04f, 0.16f},   {"a,b", 0.04f, 0.16f},      {" 0.1 , 0.3", 0.1f, 0.3f},
                          {"0.1,", 0.04f, 0.16f}};
    for (const Case& c : cases) {
        float2 r = confidenceRangeFrom(c.value);
        EXPECT_FLOAT_EQ(r.x, c.a) << (c.value ? c.value : "unset");
        EXPECT_FLOAT_EQ(r.y, c.b) << (c.value ? c.value : "unset");
    }
}

TEST(Confidence, NoSamplesMeansNoConfidenceAndConvergedMeansFull) {
    // 3 x 1 frame: pixel 0 has no samples, pixels 1 and 2 are noiseless.
    std::vector<float4> accum{{0, 0, 0, 0}, {4, 4, 4, 4}, {4, 4, 4, 4}};
    std::vector<float4> guideB{{0, 0, 0, 0}, {0, 0, 0, 4}, {0, 0, 0, 4}}; // sum of squared luminance: 4 x 1^2
    ToneParams p = unitTone(TONE_CLAMP);
    p.opts.y = 3;
    GPUConfidence c{float4{0, 0.04f, 0.16f, 1.0f}};
    std::vector<float4> out = toneMapWithConfidence(accum.data(), guideB.data(), accum.data(), p, c);
    EXPECT_EQ(out[0].w, 0.0f);
    EXPECT_EQ(out[1].w, 1.0f);
    EXPECT_EQ(out[2].w, 1.0f);
    // A frame with no samples anywhere: e = 1e10, confidence 0.
    std::vector<float4> none(3, float4{});
    out = toneMapWithConfidence(none.data(), none.data(), none.data(), p, c);
    for (const float4& o : out) EXPECT_EQ(o.w, 0.0f);
}

TEST(Confidence, RelativeErrorOfTheMeanSetsTheBlend) {
    // One pixel, n = 4 samples of luminance 0 and 2 (mean 1, sample variance 1):
    // variance of the mean 1/4, e = 0.5 / (1 + 0.004 w). Denoised shown: e / 3.
    std::vector<float4> accum{{4, 4, 4, 4}};
    std::vector<float4> guideB{{0, 0, 0, 8}};
    ToneParams p = unitTone(TONE_CLAMP);
    GPUConfidence c{float4{0, 0.1f, 1.0f, 0.0f}};
    float t = (0.5f - 0.1f) / 0.9f;
    float expected = 1.0f - t * t * (3 - 2 * t);
    EXPECT_NEAR(toneMapWithConfidence(accum.data(), guideB.data(), accum.data(), p, c)[0].w, expected, 1e-6f);
    c.c.x = 1;
    t = (0.5f / 3 - 0.1f) / 0.9f;
    expected = 1.0f - t * t * (3 - 2 * t);
    EXPECT_NEAR(toneMapWithConfidence(accum.data(), guideB.data(), accum.data(), p, c)[0].w, expected, 1e-6f);
}

} // namespace
} // namespace qv
