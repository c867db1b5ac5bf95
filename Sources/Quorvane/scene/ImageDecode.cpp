#include "scene/ImageDecode.h"

#include <stb_image.h>
#include <stb_image_resize.h>

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

RGBA8Image resampleRGBA8(const RGBA8Image& image, int width, int height) {
    RGBA8Image out;
    out.width = width;
    out.height = height;
    out.pixels.resize(size_t(width) * size_t(height) * 4);
    // Alpha is channel 3 and not premultiplied: the resizer weights colour by
    // alpha while filtering, so transparent texels do not bleed their colour.
    int ok = stbir_resize_uint8_srgb(image.pixels.data(), image.width, image.height, image.width * 4,
                                     out.pixels.data(), width, height, width * 4, 4, 3, 0);
    if (!ok) {
        // Only an allocation failure gets here; a nearest-neighbour copy keeps the texture usable.
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const size_t sx = size_t(int64_t(x) * image.width / width);
                const size_t sy = size_t(int64_t(y) * image.height / height);
                std::memcpy(&out.pixels[(size_t(y) * size_t(width) + size_t(x)) * 4],
                            &image.pixels[(sy * size_t(image.width) + sx) * 4], 4);
            }
    }
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
