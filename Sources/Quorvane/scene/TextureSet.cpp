#include "scene/TextureSet.h"

#include <stb_image_resize.h> // Debian's libstb carries the implementation

#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <set>
#include <string>

namespace qv {

float wrapModeOfGLTF(int code) {
    if (code == 33648) return 2;
    if (code == 33071) return 1;
    return 0;
}

namespace TextureMath {

const std::array<float, 256>& srgbToLinear() {
    static const std::array<float, 256> table = [] {
        std::array<float, 256> t{};
        for (int i = 0; i < 256; ++i) {
            double v = i / 255.0;
            t[static_cast<size_t>(i)] =
                static_cast<float>(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
        }
        return t;
    }();
    return table;
}

const std::array<uint8_t, 16384>& encodeLUT() {
    static const std::array<uint8_t, 16384> table = [] {
        std::array<uint8_t, 16384> t{};
        for (int i = 0; i < 16384; ++i) {
            double x = i / 16383.0;
            double e = x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1 / 2.4) - 0.055;
            double b = std::floor(255 * e + 0.5);
            t[static_cast<size_t>(i)] = static_cast<uint8_t>(std::clamp(b, 0.0, 255.0));
        }
        return t;
    }();
    return table;
}

std::optional<std::vector<uint8_t>> rgba8(const RGBA8Image& image, int w, int h) {
    if (w <= 0 || h <= 0 || image.width <= 0 || image.height <= 0) return std::nullopt;
    const size_t inBytes = static_cast<size_t>(image.width) * static_cast<size_t>(image.height) * 4;
    if (image.pixels.size() != inBytes) return std::nullopt;
    if (w == image.width && h == image.height) return image.pixels;
    std::vector<uint8_t> out(static_cast<size_t>(w) * static_cast<size_t>(h) * 4);
    // Alpha channel 3: stb weights colour by alpha in linear light and divides
    // it out again, so the result has straight alpha without dark fringes.
    int ok = stbir_resize_uint8_srgb_edgemode(image.pixels.data(), image.width, image.height, 0, out.data(), w, h, 0,
                                              4, 3, 0, STBIR_EDGE_CLAMP);
    if (!ok) return std::nullopt;
    return out;
}

RGBA8Image resample(const RGBA8Image& image, int w, int h) {
    RGBA8Image out;
    if (auto pixels = rgba8(image, w, h)) {
        out.width = w;
        out.height = h;
        out.pixels = std::move(*pixels);
    }
    return out;
}

std::vector<std::vector<uint8_t>> mipChain(int size, std::vector<uint8_t> level0) {
    const auto& toLinear = srgbToLinear();
    const auto& encode = encodeLUT();
    std::vector<std::vector<uint8_t>> levels;
    levels.push_back(std::move(level0));
    int s = size;
    while (s > 1) {
        const int n = std::max(s / 2, 1);
        const std::vector<uint8_t>& in = levels.back();
        std::vector<uint8_t> out(static_cast<size_t>(n) * static_cast<size_t>(n) * 4);
        for (int y = 0; y < n; ++y) {
            for (int x = 0; x < n; ++x) {
                // The 2 x 2 block; a side of 1 repeats its only row or column.
                const int x0 = std::min(2 * x, s - 1), x1 = std::min(2 * x + 1, s - 1);
                const int y0 = std::min(2 * y, s - 1), y1 = std::min(2 * y + 1, s - 1);
                const uint8_t* p[4] = {&in[(static_cast<size_t>(y0) * s + x0) * 4],
                                       &in[(static_cast<size_t>(y0) * s + x1) * 4],
                                       &in[(static_cast<size_t>(y1) * s + x0) * 4],
                                       &in[(static_cast<size_t>(y1) * s + x1) * 4]};
                uint8_t* o = &out[(static_cast<size_t>(y) * n + x) * 4];
                for (int c = 0; c < 3; ++c) {
                    float sum = toLinear[p[0][c]] + toLinear[p[1][c]] + toLinear[p[2][c]] + toLinear[p[3][c]];
                    float lin = std::clamp(sum * 0.25f, 0.0f, 1.0f);
                    o[c] = encode[static_cast<size_t>(std::floor(16383 * lin + 0.5f))];
                }
                o[3] = static_cast<uint8_t>((p[0][3] + p[1][3] + p[2][3] + p[3][3] + 2) / 4);
            }
        }
        levels.push_back(std::move(out));
        s = n;
    }
    return levels;
}

int arraySizeFor(int largestSide) {
    const int side = std::min(largestSide, TextureSet::kMaxSize);
    int size = TextureSet::kMinSize;
    while (size < side) size *= 2;
    return size;
}

} // namespace TextureMath

TextureSet TextureSet::placeholder() {
    TextureSet set;
    set.array.texels = {255, 255, 255, 255};
    return set;
}

TextureSet TextureSet::build(const LoadedModel& model, const LogSink& log) {
    std::set<int> used;
    for (const ModelMaterial& m : model.materials)
        if (m.baseColorTexture) used.insert(*m.baseColorTexture);

    struct Kept {
        int index;
        const ModelTexture* texture;
    };
    std::vector<Kept> kept;
    int largest = 0;
    for (int index : used) {
        if (index < 0 || static_cast<size_t>(index) >= model.textures.size() || !model.textures[index]) continue;
        const ModelTexture& t = *model.textures[static_cast<size_t>(index)];
        kept.push_back({index, &t});
        largest = std::max({largest, t.image.width, t.image.height});
    }
    if (kept.empty()) return placeholder();

    TextureSet set;
    const int size = TextureMath::arraySizeFor(largest);
    TextureArray& array = set.array;
    array.size = size;
    array.layers = static_cast<int>(kept.size());
    array.levels = static_cast<int>(std::log2(size)) + 1;
    array.levelOffset.assign(static_cast<size_t>(array.levels), 0);
    size_t offset = 0;
    for (int l = 0; l < array.levels; ++l) {
        array.levelOffset[static_cast<size_t>(l)] = offset;
        const size_t side = static_cast<size_t>(array.levelSize(l));
        offset += side * side * 4;
    }
    array.layerBytes = offset;
    try {
        array.texels.assign(array.layerBytes * kept.size(), 0);
    } catch (const std::bad_alloc&) {
        if (log)
            log("warning: could not allocate the texture array (" + std::to_string(size) + " x " +
                std::to_string(size) + " px) - textures off");
        return placeholder();
    }

    // One task per image, each writing only its own slot.
    std::vector<std::vector<std::vector<uint8_t>>> chains(kept.size());
    tbb::parallel_for(size_t(0), kept.size(), [&](size_t i) {
        try {
            if (auto pixels = TextureMath::rgba8(kept[i].texture->image, size, size))
                chains[i] = TextureMath::mipChain(size, std::move(*pixels));
        } catch (const std::bad_alloc&) {
            chains[i].clear(); // reported below as a failed conversion
        }
    });

    set.size = size;
    set.bytes = 0;
    for (size_t layer = 0; layer < kept.size(); ++layer) {
        const Kept& k = kept[layer];
        if (chains[layer].size() != static_cast<size_t>(array.levels)) {
            if (log)
                log("warning: texture " + std::to_string(k.index) + " (" + k.texture->name +
                    ") could not be converted - drawn white");
            continue;
        }
        for (int l = 0; l < array.levels; ++l) {
            const std::vector<uint8_t>& level = chains[layer][static_cast<size_t>(l)];
            std::copy(level.begin(), level.end(), array.level(static_cast<int>(layer), l));
            set.bytes += static_cast<int64_t>(level.size());
        }
        set.layerOfTexture[k.index] = static_cast<int>(layer);
        set.wrapOfTexture[k.index] = float2{wrapModeOfGLTF(k.texture->wrapS), wrapModeOfGLTF(k.texture->wrapT)};
    }
    return set;
}

} // namespace qv
