#pragma once
// Host side of the edge-avoiding a-trous denoiser: owns the working buffers
// and runs prep, five filter passes, finish and the detail restore over the
// path tracer's sums and guides with oneTBB.
#include "shaders/Atrous.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace qv {

struct AtrousGuidePlanes;
struct AtrousColourPlanes;
struct AtrousRestorePlanes;

// Tunables of the filter and restore. Defaults unless the QV_ switches hold
// the accepted number of numbers:
//   QV_ATROUS_SIGMAS  4 numbers, or 3 (the coherence sigma stays 0.03)
//   QV_ATROUS_CHROMA  3 numbers
//   QV_DN_CREASE      3 numbers (coherence threshold, coherence window, k)
//   QV_DN_RESTORE     1 number; 0 or less turns the restore off
struct AtrousSettings {
    float4 sigmas{4.0f, 64.0f, 0.02f, 0.03f};
    float4 chroma{0.5f, 0.05f, 2.0f, 0.0f};
    float4 crease{0.98f, 0.08f, 4.0f, 0.0f};
    std::optional<float> restoreK; // none = k of 2.0 after this filter

    // The switches of this process, read once.
    static const AtrousSettings& fromEnvironment();
    // The same rules applied to given values (nullptr = unset).
    static AtrousSettings fromValues(const char* sigmas, const char* chroma, const char* crease, const char* restore);

    bool restoreEnabled() const { return !restoreK || *restoreK > 0; }
    float restoreStrength() const { return restoreK ? *restoreK : 2.0f; }
};

class AtrousDenoiser {
public:
    explicit AtrousDenoiser(const AtrousSettings& settings = AtrousSettings::fromEnvironment());
    ~AtrousDenoiser();
    AtrousDenoiser(const AtrousDenoiser&) = delete;
    AtrousDenoiser& operator=(const AtrousDenoiser&) = delete;

    const AtrousSettings& settings() const { return settings_; }

    // Allocates the six working buffers for width x height pixels unless the
    // current ones are large enough; false when an allocation fails.
    bool ensureBuffers(uint32_t width, uint32_t height);

    // The whole denoise: the filter, then the restore when the frame has at
    // least 4 samples per pixel and the restore is on. false (and no output)
    // when the buffers cannot be allocated. The inputs are W x H sum records.
    bool denoise(const float4* accum, const float4* guideA, const float4* guideB, uint32_t width, uint32_t height,
                 uint32_t samplesPerPixel);

    // Prep, five passes and finish; the result is in output().
    bool filter(const float4* accum, const float4* guideA, const float4* guideB, uint32_t width, uint32_t height);
    // Residual, crease and restore over output(), after filter() on the same inputs.
    void restore(float k, const float4* accum, const float4* guideB);

    // The denoised radiance of the last run, W x H records with w = 1.
    const float4* output() const { return out_.data(); }
    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }

private:
    GPUDenoiseParams params(uint32_t step, uint32_t iteration) const;

    AtrousSettings settings_;
    uint32_t width_ = 0, height_ = 0;
    std::vector<float4> colourA_, colourB_, guide_, albedo_, out_, noise_;
    // Structure-of-arrays scratch of the vectorised filter pass.
    std::unique_ptr<AtrousGuidePlanes> guidePlanes_;
    std::unique_ptr<AtrousColourPlanes> colourPlanes_;
    // Structure-of-arrays scratch of the vectorised restore.
    std::unique_ptr<AtrousRestorePlanes> restorePlanes_;
};

} // namespace qv
