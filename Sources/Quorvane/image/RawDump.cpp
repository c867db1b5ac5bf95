#include "image/RawDump.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

namespace qv {

namespace fs = std::filesystem;

static_assert(std::endian::native == std::endian::little, "dumps are written in host byte order");

namespace {

constexpr size_t kHeaderBytes = 16;

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

void appendU32(std::vector<uint8_t>& out, uint32_t v) {
    uint8_t b[4];
    std::memcpy(b, &v, 4);
    out.insert(out.end(), b, b + 4);
}

void appendF32(std::vector<uint8_t>& out, float v) {
    uint8_t b[4];
    std::memcpy(b, &v, 4);
    out.insert(out.end(), b, b + 4);
}

std::vector<uint8_t> header(const char magic[4], uint32_t width, uint32_t height, uint32_t spp) {
    std::vector<uint8_t> out(magic, magic + 4);
    appendU32(out, width);
    appendU32(out, height);
    appendU32(out, spp);
    return out;
}

void writeWhole(const fs::path& path, const std::vector<uint8_t>& bytes, const char* what) {
    std::unique_ptr<FILE, FileCloser> f(std::fopen(path.c_str(), "wb"));
    if (!f) throw DumpError(std::string("could not open ") + path.string() + " to write the " + what);
    bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f.get()) == bytes.size();
    ok = std::fclose(f.release()) == 0 && ok;
    if (!ok) throw DumpError(std::string("could not write the ") + what + " to " + path.string());
}

std::vector<uint8_t> readWhole(const fs::path& path, const char* what) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw DumpError(std::string("could not open the ") + what + " " + path.string());
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

uint32_t u32At(const std::vector<uint8_t>& b, size_t offset) {
    uint32_t v;
    std::memcpy(&v, b.data() + offset, 4);
    return v;
}

float f32At(const std::vector<uint8_t>& b, size_t offset) {
    float v;
    std::memcpy(&v, b.data() + offset, 4);
    return v;
}

// Validates magic and size; returns (width, height, spp).
uint4 checkHeader(const std::vector<uint8_t>& b, const char magic[4], size_t floatsPerPixel, const fs::path& path,
                  const char* what) {
    if (b.size() < kHeaderBytes || std::memcmp(b.data(), magic, 4) != 0)
        throw DumpError(path.string() + " is not a " + what + " (bad header)");
    uint4 h{u32At(b, 4), u32At(b, 8), u32At(b, 12), 0};
    if (b.size() != kHeaderBytes + uint64_t(h.x) * h.y * floatsPerPixel * 4)
        throw DumpError(path.string() + " is not a " + what + " (its size does not match its header)");
    return h;
}

} // namespace

void RawDump::writeLinear(const fs::path& path, const float4* sums, uint32_t width, uint32_t height,
                          uint32_t samplesPerPixel) {
    std::vector<uint8_t> bytes = header("QVDP", width, height, samplesPerPixel);
    size_t count = size_t(width) * height;
    bytes.reserve(kHeaderBytes + count * 12);
    for (size_t i = 0; i < count; ++i) {
        float n = std::fmax(sums[i].w, 1e-30f);
        appendF32(bytes, sums[i].x / n);
        appendF32(bytes, sums[i].y / n);
        appendF32(bytes, sums[i].z / n);
    }
    writeWhole(path, bytes, "radiance dump");
}

LinearDump RawDump::readLinear(const fs::path& path) {
    std::vector<uint8_t> b = readWhole(path, "radiance dump");
    uint4 h = checkHeader(b, "QVDP", 3, path, "radiance dump");
    LinearDump d{h.x, h.y, h.z, {}};
    d.pixels.resize(size_t(h.x) * h.y);
    for (size_t i = 0; i < d.pixels.size(); ++i)
        for (int c = 0; c < 3; ++c) d.pixels[i][c] = f32At(b, kHeaderBytes + (i * 3 + size_t(c)) * 4);
    return d;
}

fs::path RawDump::sidecarPath(const fs::path& dumpPath) { return fs::path(dumpPath.string() + ".json"); }

nlohmann::json RawDump::makeSidecar(const nlohmann::json& toneMetadata, const DumpRunInfo& run) {
    nlohmann::json j = toneMetadata;
    if (run.denoiser) {
        j["denoiser"] = std::string(toString(*run.denoiser));
        j["denoise_seconds"] = run.denoiseSeconds;
        if (run.mfxShare) j["mfx_share"] = *run.mfxShare;
    }
    j["camera"] = run.camera;
    j["time"] = run.time;
    j["seed"] = run.seed;
    j["render_seconds"] = run.samplingSeconds + (run.denoiser ? run.denoiseSeconds : 0.0);
    j["spp_per_second"] = run.samplingSeconds > 0 ? double(run.samplesPerPixel) / run.samplingSeconds : 0.0;
    j["nan_samples"] = run.nanSamples;
    j["dropped_samples"] = run.droppedSamples;
    return j;
}

void RawDump::writeSidecar(const fs::path& dumpPath, const nlohmann::json& sidecar) {
    // nlohmann::json objects are ordered maps, so dump() writes the keys sorted.
    std::string text = sidecar.dump(2) + "\n";
    writeWhole(sidecarPath(dumpPath), std::vector<uint8_t>(text.begin(), text.end()), "dump sidecar");
}

nlohmann::json RawDump::readSidecar(const fs::path& dumpPath) {
    std::vector<uint8_t> b = readWhole(sidecarPath(dumpPath), "dump sidecar");
    nlohmann::json j = nlohmann::json::parse(b.begin(), b.end(), nullptr, false);
    if (j.is_discarded() || !j.is_object())
        throw DumpError(sidecarPath(dumpPath).string() + " is not a JSON object");
    return j;
}

void RawDump::writeGuides(const fs::path& path, const float4* accum, const float4* guideA, const float4* guideB,
                          uint32_t width, uint32_t height, uint32_t samplesPerPixel) {
    std::vector<uint8_t> bytes = header("QVDG", width, height, samplesPerPixel);
    size_t count = size_t(width) * height;
    bytes.reserve(kHeaderBytes + count * 32);
    for (size_t i = 0; i < count; ++i) {
        float n = std::fmax(accum[i].w, 1e-30f);
        for (const float4* g : {&guideA[i], &guideB[i]}) {
            appendF32(bytes, g->x / n);
            appendF32(bytes, g->y / n);
            appendF32(bytes, g->z / n);
            appendF32(bytes, g->w / n);
        }
    }
    writeWhole(path, bytes, "guide dump");
}

GuideDump RawDump::readGuides(const fs::path& path) {
    std::vector<uint8_t> b = readWhole(path, "guide dump");
    uint4 h = checkHeader(b, "QVDG", 8, path, "guide dump");
    GuideDump d{h.x, h.y, h.z, {}, {}};
    size_t count = size_t(h.x) * h.y;
    d.guideA.resize(count);
    d.guideB.resize(count);
    for (size_t i = 0; i < count; ++i) {
        size_t o = kHeaderBytes + i * 32;
        d.guideA[i] = float4{f32At(b, o), f32At(b, o + 4), f32At(b, o + 8), f32At(b, o + 12)};
        d.guideB[i] = float4{f32At(b, o + 16), f32At(b, o + 20), f32At(b, o + 24), f32At(b, o + 28)};
    }
    return d;
}

} // namespace qv
