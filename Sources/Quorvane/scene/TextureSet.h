#pragma once
// Every base-colour texture of a model in one square texture array with a
// full mip chain, so that a material needs only a layer number and two wrap
// modes and one sampler serves all textures. Texels are 8-bit sRGB-encoded
// RGBA with straight alpha; mips are averaged in linear light.
#include "scene/LoadedModel.h"
#include "scene/LogSink.h"
#include "shaders/VecMath.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace qv {

// The texel storage of the array. Layer L, level l starts at byte
// L * layerBytes + levelOffset[l]; level l is levelSize(l) texels square,
// rows top to bottom, 4 bytes per texel.
struct TextureArray {
    int size = 1;                     // texels per side of level 0
    int layers = 1;
    int levels = 1;                   // log2(size) + 1
    size_t layerBytes = 4;            // all levels of one layer
    std::vector<size_t> levelOffset{0};
    std::vector<uint8_t> texels;      // layers * layerBytes

    int levelSize(int level) const { return size >> level > 1 ? size >> level : 1; }
    const uint8_t* level(int layer, int lvl) const {
        return texels.data() + static_cast<size_t>(layer) * layerBytes + levelOffset[static_cast<size_t>(lvl)];
    }
    uint8_t* level(int layer, int lvl) {
        return texels.data() + static_cast<size_t>(layer) * layerBytes + levelOffset[static_cast<size_t>(lvl)];
    }
};

struct TextureSet {
    TextureArray array;
    std::map<int, int> layerOfTexture;    // glTF texture index -> layer
    std::map<int, float2> wrapOfTexture;  // glTF texture index -> (wrap S, wrap T): 0 repeat, 1 clamp, 2 mirror
    int size = 1;                         // texels per side
    int64_t bytes = 4;                    // all levels of all layers

    // The array for every texture a material uses. Returns the placeholder
    // when no material has a usable texture or the array cannot be allocated
    // (with a warning). Images are converted one task per image.
    static TextureSet build(const LoadedModel& model, const LogSink& log);
    // One white 1 x 1 layer and empty maps.
    static TextureSet placeholder();

    // The largest array side; larger images are scaled down to it.
    static constexpr int kMaxSize = 2048;
    // The smallest array side.
    static constexpr int kMinSize = 64;
};

// glTF wrap code -> the wrap mode stored in materials: 33648 -> 2 (mirrored
// repeat), 33071 -> 1 (clamp to edge), anything else -> 0 (repeat).
float wrapModeOfGLTF(int code);

namespace TextureMath {

// For v = i / 255: the sRGB decoding of v.
const std::array<float, 256>& srgbToLinear();
// For x = i / 16383: the sRGB encoding of x as a rounded byte.
const std::array<uint8_t, 16384>& encodeLUT();

// The image resampled to w x h RGBA 8-bit sRGB with straight alpha (weights
// applied in linear light with alpha weighting, so transparent texels never
// bleed their colour). Nothing when the image or the size is unusable.
std::optional<std::vector<uint8_t>> rgba8(const RGBA8Image& image, int w, int h);

// The same as an image; an empty image when the input is unusable.
RGBA8Image resample(const RGBA8Image& image, int w, int h);

// The mip levels of a square size x size RGBA image (level 0 is the input),
// each a 2 x 2 box average in linear light, down to 1 x 1.
std::vector<std::vector<uint8_t>> mipChain(int size, std::vector<uint8_t> level0);

// Side of the array for images whose largest side is `largestSide`.
int arraySizeFor(int largestSide);

} // namespace TextureMath

} // namespace qv
