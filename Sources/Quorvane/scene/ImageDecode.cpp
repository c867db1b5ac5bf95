#include "scene/ImageDecode.h"

#include <stb_image.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>

namespace qv {

std::optional<RGBA8Image> decodeImageRGBA8(std::span<const uint8_t> bytes, int64_t maxPixels) {
    if (bytes.empty() || bytes.size() > size_t(INT_MAX)) return std::nullopt;
    const auto* data = reinterpret_cast<const stbi_uc*>(bytes.data());
    const int length = int(bytes.size());
    // Check the declared size first so a forged header cannot ask for gigabytes.
    int w = 0, h = 0, channels = 0;
    if (!stbi_info_from_memory(data, length, &w, &h, &channels)) return std::nullopt;
    if (w < 1 || h < 1 || int64_t(w) * int64_t(h) > maxPixels) return std::nullopt;

    std::unique_ptr<stbi_uc, void (*)(void*)> pixels(stbi_load_from_memory(data, length, &w, &h, &channels, 4),
                                                     stbi_image_free);
    if (!pixels || w < 1 || h < 1) return std::nullopt;
    RGBA8Image image;
    image.width = w;
    image.height = h;
    image.pixels.assign(pixels.get(), pixels.get() + size_t(w) * size_t(h) * 4);
    return image;
}

ImageSize cappedSize(int width, int height, int maxSide) {
    const int longer = std::max(width, height);
    if (longer <= maxSide) return {width, height};
    const double scale = double(maxSide) / double(longer);
    return {std::max(1, int(std::floor(double(width) * scale))), std::max(1, int(std::floor(double(height) * scale)))};
}

namespace {

struct SRGBTables {
    float toLinear[256];
    uint8_t toSRGB[16384]; // indexed by linear value x 16383, rounded
    SRGBTables() {
        for (int i = 0; i < 256; ++i) {
            const double c = i / 255.0;
            toLinear[i] = float(c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4));
        }
        for (int i = 0; i < 16384; ++i) {
            const double l = i / 16383.0;
            const double c = l <= 0.0031308 ? l * 12.92 : 1.055 * std::pow(l, 1.0 / 2.4) - 0.055;
            toSRGB[i] = uint8_t(std::lround(std::clamp(c, 0.0, 1.0) * 255.0));
        }
    }
    uint8_t encode(float linear) const {
        return toSRGB[size_t(std::lround(std::clamp(linear, 0.0f, 1.0f) * 16383.0f))];
    }
};

const SRGBTables& srgbTables() {
    static const SRGBTables tables;
    return tables;
}

// For each output sample along one axis, the source samples it covers and the
// fraction of its footprint each one takes (weights sum to 1): an area average.
struct Footprint {
    std::vector<uint32_t> first; // per output sample: offset into taps
    std::vector<uint32_t> source;
    std::vector<float> weight;
};

Footprint footprints(int sourceSize, int outputSize) {
    Footprint f;
    const double scale = double(sourceSize) / double(outputSize);
    for (int o = 0; o < outputSize; ++o) {
        f.first.push_back(uint32_t(f.source.size()));
        const double x0 = o * scale, x1 = (o + 1) * scale;
        const int s0 = int(std::floor(x0));
        const int s1 = std::min(sourceSize, int(std::ceil(x1)));
        for (int s = s0; s < s1; ++s) {
            const double overlap = std::min(x1, double(s + 1)) - std::max(x0, double(s));
            if (overlap > 0) {
                f.source.push_back(uint32_t(s));
                f.weight.push_back(float(overlap / scale));
            }
        }
    }
    f.first.push_back(uint32_t(f.source.size()));
    return f;
}

} // namespace

// An area average in linear light. Colour is weighted by alpha (plus a small
// floor, so fully transparent regions keep their own colour instead of going
// black) and alpha itself is averaged plainly.
RGBA8Image resampleRGBA8(const RGBA8Image& image, int width, int height) {
    constexpr float kAlphaFloor = 1e-4f;
    const SRGBTables& t = srgbTables();
    const Footprint fx = footprints(image.width, width);
    const Footprint fy = footprints(image.height, height);

    // Horizontal pass: every source row to `width` samples of (r, g, b) x (a + floor), a.
    std::vector<float> rows(size_t(image.height) * size_t(width) * 4);
    tbb::parallel_for(0, image.height, [&](int y) {
        const uint8_t* src = image.pixels.data() + size_t(y) * size_t(image.width) * 4;
        float* dst = rows.data() + size_t(y) * size_t(width) * 4;
        for (int x = 0; x < width; ++x) {
            float acc[4] = {0, 0, 0, 0};
            for (uint32_t k = fx.first[size_t(x)]; k < fx.first[size_t(x) + 1]; ++k) {
                const uint8_t* p = src + size_t(fx.source[k]) * 4;
                const float a = p[3] / 255.0f;
                const float w = fx.weight[k] * (a + kAlphaFloor);
                acc[0] += w * t.toLinear[p[0]];
                acc[1] += w * t.toLinear[p[1]];
                acc[2] += w * t.toLinear[p[2]];
                acc[3] += fx.weight[k] * a;
            }
            std::memcpy(dst + size_t(x) * 4, acc, sizeof acc);
        }
    });

    RGBA8Image out;
    out.width = width;
    out.height = height;
    out.pixels.resize(size_t(width) * size_t(height) * 4);
    tbb::parallel_for(0, height, [&](int y) {
        uint8_t* dst = out.pixels.data() + size_t(y) * size_t(width) * 4;
        for (int x = 0; x < width; ++x) {
            float acc[4] = {0, 0, 0, 0};
            for (uint32_t k = fy.first[size_t(y)]; k < fy.first[size_t(y) + 1]; ++k) {
                const float* p = rows.data() + (size_t(fy.source[k]) * size_t(width) + size_t(x)) * 4;
                for (int c = 0; c < 4; ++c) acc[c] += fy.weight[k] * p[c];
            }
            const float norm = 1.0f / (acc[3] + kAlphaFloor);
            dst[size_t(x) * 4 + 0] = t.encode(acc[0] * norm);
            dst[size_t(x) * 4 + 1] = t.encode(acc[1] * norm);
            dst[size_t(x) * 4 + 2] = t.encode(acc[2] * norm);
            dst[size_t(x) * 4 + 3] = uint8_t(std::lround(std::clamp(acc[3], 0.0f, 1.0f) * 255.0f));
        }
    });
    return out;
}

std::optional<std::vector<uint8_t>> decodeBase64(std::string_view text) {
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+') return 62;
        if (c == '/') return 63;
        return -1;
    };
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return std::nullopt;
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3 + 2);
    uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        const int v = value(c);
        if (v < 0) return std::nullopt;
        bits = (bits << 6) | uint32_t(v);
        if (++count == 4) {
            out.push_back(uint8_t(bits >> 16));
            out.push_back(uint8_t(bits >> 8));
            out.push_back(uint8_t(bits));
            bits = 0;
            count = 0;
        }
    }
    if (count == 2) out.push_back(uint8_t(bits >> 4));
    if (count == 3) {
        out.push_back(uint8_t(bits >> 10));
        out.push_back(uint8_t(bits >> 2));
    }
    return out;
}

} // namespace qv
