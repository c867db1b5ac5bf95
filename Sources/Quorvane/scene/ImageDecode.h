#pragma once
// Decoding of embedded model images (PNG, JPEG and the other formats stb_image
// reads) to 8-bit RGBA, resampling for the 2048-pixel cap, and data-URI base64.
#include "scene/LoadedModel.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace qv {

// The largest side a model texture may keep after loading.
inline constexpr int kMaxTextureSide = 2048;

// Decodes the first image in `bytes` to RGBA8 at its stored size. Nothing when
// the bytes are not an image the decoder knows, are corrupt, or declare more
// than `maxPixels` pixels.
std::optional<RGBA8Image> decodeImageRGBA8(std::span<const uint8_t> bytes, int64_t maxPixels);

// The size an image of w x h is resampled to so that its longer side is at
// most `maxSide`: max(1, floor(w * maxSide / longer)) by the same for h.
struct ImageSize {
    int width = 0;
    int height = 0;
};
ImageSize cappedSize(int width, int height, int maxSide = kMaxTextureSide);

// Resamples a straight-alpha sRGB image to w x h by averaging each output
// pixel's footprint in linear light, colour weighted by alpha.
RGBA8Image resampleRGBA8(const RGBA8Image& image, int width, int height);

// Standard base64 (RFC 4648, padding optional). Nothing on a character outside the alphabet.
std::optional<std::vector<uint8_t>> decodeBase64(std::string_view text);

} // namespace qv
