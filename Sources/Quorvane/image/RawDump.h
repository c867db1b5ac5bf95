#pragma once
// Numerical QA files: the raw linear radiance dump ("QVDP") with its JSON
// sidecar, and the guide-buffer dump ("QVDG"). Both are little-endian: a
// 16-byte header (magic, width, height, samples per pixel as uint32) and then
// float32 data per pixel, row-major from the top row.
#include "image/DenoiserKind.h"
#include "shaders/VecMath.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

// A dump that could not be written or read back; what() is the sentence.
class DumpError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The run facts a dump's sidecar records beside the tone metadata.
struct DumpRunInfo {
    std::optional<DenoiserKind> denoiser; // set only when the dump is of the denoised image
    double denoiseSeconds = 0;
    std::optional<double> mfxShare;       // hybrid denoiser only
    std::string camera;
    std::string time;                     // "day", "dusk" or "night"
    uint32_t seed = 0;
    double samplingSeconds = 0;
    uint32_t samplesPerPixel = 0;
    uint64_t nanSamples = 0;
    uint64_t droppedSamples = 0;
};

struct LinearDump {
    uint32_t width = 0, height = 0, samplesPerPixel = 0;
    std::vector<float3> pixels; // mean radiance (cd/m2), row-major from the top
};

struct GuideDump {
    uint32_t width = 0, height = 0, samplesPerPixel = 0;
    std::vector<float4> guideA, guideB; // per-sample means of the two guide buffers
};

class RawDump {
public:
    // Writes the mean radiance rgb / max(w, 1e-30) of each sum record, in one
    // piece, replacing any file at path.
    static void writeLinear(const std::filesystem::path& path, const float4* sums, uint32_t width, uint32_t height,
                            uint32_t samplesPerPixel);
    static LinearDump readLinear(const std::filesystem::path& path);

    // The sidecar's path: the dump's path with ".json" appended.
    static std::filesystem::path sidecarPath(const std::filesystem::path& dumpPath);
    // The tone metadata plus the run's facts as one object.
    static nlohmann::json makeSidecar(const nlohmann::json& toneMetadata, const DumpRunInfo& run);
    // Pretty-printed with the keys sorted.
    static void writeSidecar(const std::filesystem::path& dumpPath, const nlohmann::json& sidecar);
    static nlohmann::json readSidecar(const std::filesystem::path& dumpPath);

    // Both guide buffers divided by max(accum.w, 1e-30), 8 floats per pixel.
    static void writeGuides(const std::filesystem::path& path, const float4* accum, const float4* guideA,
                            const float4* guideB, uint32_t width, uint32_t height, uint32_t samplesPerPixel);
    static GuideDump readGuides(const std::filesystem::path& path);
};

} // namespace qv
