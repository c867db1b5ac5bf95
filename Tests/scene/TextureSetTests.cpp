// The texture array: its size rule, the linear-light mip chain, resampling
// and the build over a model's materials.
#include "scene/TextureSet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qv {
namespace {

RGBA8Image solid(int w, int h, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
    RGBA8Image img;
    img.width = w;
    img.height = h;
    for (int i = 0; i < w * h; ++i) img.pixels.insert(img.pixels.end(), {r, g, b, a});
    return img;
}

TEST(TextureSize, ArraySideIsAPowerOfTwoBetween64And2048) {
    const std::pair<int, int> table[] = {{1, 64}, {32, 64}, {64, 64}, {65, 128}, {1000, 1024},
                                         {1024, 1024}, {1025, 2048}, {2048, 2048}, {4000, 2048}};
    for (auto [side, size] : table) EXPECT_EQ(TextureMath::arraySizeFor(side), size) << side;
}

TEST(TextureTables, DecodeThenEncodeReturnsEveryByte) {
    const auto& toLinear = TextureMath::srgbToLinear();
    const auto& encode = TextureMath::encodeLUT();
    EXPECT_EQ(toLinear[0], 0.0f);
    EXPECT_EQ(toLinear[255], 1.0f);
    EXPECT_NEAR(toLinear[188], 0.5029f, 1e-4f);
    EXPECT_EQ(encode[0], 0);
    EXPECT_EQ(encode[16383], 255);
    // Without this a uniform texture would drift in colour down its mip chain.
    for (int i = 0; i < 256; ++i) {
        size_t index = static_cast<size_t>(std::floor(16383 * toLinear[static_cast<size_t>(i)] + 0.5f));
        EXPECT_EQ(encode[index], i) << i;
    }
}

TEST(TextureMips, BlockAverageIsInLinearLight) {
    // One channel with sRGB bytes 0, 0, 255, 255 averages to linear 0.5: byte 188, not 128.
    std::vector<uint8_t> level0 = {0, 10, 0, 255, 0, 10, 0, 254, 255, 10, 0, 1, 255, 10, 0, 0};
    auto chain = TextureMath::mipChain(2, level0);
    ASSERT_EQ(chain.size(), 2u);
    EXPECT_EQ(chain[0], level0);
    ASSERT_EQ(chain[1].size(), 4u);
    EXPECT_EQ(chain[1][0], 188);
    EXPECT_EQ(chain[1][1], 10) << "a uniform channel keeps its byte";
    EXPECT_EQ(chain[1][2], 0);
    EXPECT_EQ(chain[1][3], (255 + 254 + 1 + 0 + 2) / 4);
}

TEST(TextureMips, ChainRunsDownToOneTexelAndKeepsAUniformColour) {
    RGBA8Image img = solid(64, 64, 200, 37, 3, 77);
    auto chain = TextureMath::mipChain(64, img.pixels);
    ASSERT_EQ(chain.size(), 7u);
    for (size_t l = 0; l < chain.size(); ++l) {
        size_t side = size_t(64) >> l;
        ASSERT_EQ(chain[l].size(), side * side * 4) << l;
        for (size_t i = 0; i < chain[l].size(); i += 4)
            ASSERT_EQ(std::vector<uint8_t>(&chain[l][i], &chain[l][i] + 4), (std::vector<uint8_t>{200, 37, 3, 77})) << l;
    }
}

TEST(TextureResample, SameSizeIsExactAndUnusableInputGivesNothing) {
    RGBA8Image img = solid(3, 2, 1, 2, 3, 4);
    img.pixels[5] = 99;
    auto same = TextureMath::rgba8(img, 3, 2);
    ASSERT_TRUE(same.has_value());
    EXPECT_EQ(*same, img.pixels);
    EXPECT_FALSE(TextureMath::rgba8(img, 0, 4).has_value());
    RGBA8Image truncated = img;
    truncated.pixels.pop_back();
    EXPECT_FALSE(TextureMath::rgba8(truncated, 4, 4).has_value());
    EXPECT_FALSE(TextureMath::rgba8(RGBA8Image{}, 4, 4).has_value());
    EXPECT_EQ(TextureMath::resample(truncated, 4, 4).pixels.size(), 0u);
    RGBA8Image up = TextureMath::resample(img, 8, 8);
    EXPECT_EQ(up.width, 8);
    EXPECT_EQ(up.pixels.size(), 8u * 8u * 4u);
}

TEST(TextureResample, TransparentTexelsDoNotDarkenTheirNeighbours) {
    // Left half opaque red, right half transparent black.
    RGBA8Image img = solid(32, 32, 0, 0, 0, 0);
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 16; ++x) {
            uint8_t* p = &img.pixels[(static_cast<size_t>(y) * 32 + x) * 4];
            p[0] = 255, p[3] = 255;
        }
    auto out = TextureMath::rgba8(img, 64, 64);
    ASSERT_TRUE(out.has_value());
    int partial = 0;
    for (size_t i = 0; i < out->size(); i += 4) {
        uint8_t a = (*out)[i + 3];
        if (a < 8) continue; // colour of almost transparent texels is rounding noise
        if (a < 250) ++partial;
        EXPECT_GE((*out)[i], 250) << "texel " << i / 4 << " alpha " << int(a);
    }
    EXPECT_GT(partial, 0) << "the edge should have partly transparent texels";
}

struct TexturedModel {
    LoadedModel model;
    void addTexture(std::string name, RGBA8Image image, int wrapS = 10497, int wrapT = 10497) {
        ModelTexture t;
        t.name = std::move(name);
        t.sourceWidth = image.width;
        t.sourceHeight = image.height;
        t.image = std::move(image);
        t.wrapS = wrapS;
        t.wrapT = wrapT;
        model.textures.push_back(std::move(t));
    }
    void addMaterial(std::optional<int> texture) {
        ModelMaterial m;
        m.baseColorTexture = texture;
        model.materials.push_back(m);
    }
};

std::vector<std::string> collect(const LoadedModel& model, TextureSet& out) {
    std::vector<std::string> lines;
    out = TextureSet::build(model, [&](std::string_view line) { lines.emplace_back(line); });
    return lines;
}

TEST(TextureBuild, LayersFollowSortedTextureIndicesWithWrapModesAndSize) {
    TexturedModel m;
    m.addTexture("wide", solid(300, 200, 10, 20, 30, 255), 33648, 33071);
    m.model.textures.push_back(std::nullopt); // failed to decode
    m.addTexture("big", solid(1000, 1000, 200, 100, 50, 255));
    m.addTexture("unused", solid(4, 4, 0, 0, 0, 255));
    for (int t : {2, 0, 1, -1, 2, 17}) m.addMaterial(t < 0 ? std::nullopt : std::optional(t));
    TextureSet set;
    EXPECT_TRUE(collect(m.model, set).empty());
    EXPECT_EQ(set.size, 1024);
    EXPECT_EQ(set.array.levels, 11);
    EXPECT_EQ(set.array.layers, 2);
    ASSERT_EQ(set.layerOfTexture.size(), 2u);
    EXPECT_EQ(set.layerOfTexture.at(0), 0);
    EXPECT_EQ(set.layerOfTexture.at(2), 1);
    EXPECT_EQ(set.wrapOfTexture.at(0).x, 2.0f);
    EXPECT_EQ(set.wrapOfTexture.at(0).y, 1.0f);
    EXPECT_EQ(set.wrapOfTexture.at(2).x, 0.0f);
    // A full chain is 4/3 of level 0 minus a third of the last texel.
    int64_t layerBytes = 0;
    for (int l = 0; l < 11; ++l) layerBytes += int64_t(4) << (2 * (10 - l));
    EXPECT_EQ(set.bytes, 2 * layerBytes);
    EXPECT_EQ(set.array.texels.size(), static_cast<size_t>(2 * layerBytes));
    // Uniform images stay uniform at every level of their layer.
    const uint8_t* top = set.array.level(1, 10);
    EXPECT_EQ(std::vector<uint8_t>(top, top + 4), (std::vector<uint8_t>{200, 100, 50, 255}));
    EXPECT_EQ(set.array.level(0, 3)[2], 30);
}

TEST(TextureBuild, SmallTexturesGiveTheMinimumArrayAndNoneThePlaceholder) {
    TexturedModel small;
    small.addTexture("tiny", solid(32, 32, 1, 2, 3, 4));
    small.addMaterial(0);
    TextureSet set;
    collect(small.model, set);
    EXPECT_EQ(set.size, 64);
    EXPECT_EQ(set.array.levels, 7);
    EXPECT_EQ(set.layerOfTexture.at(0), 0);

    TexturedModel none;
    none.model.textures.push_back(std::nullopt);
    none.addMaterial(0);
    none.addMaterial(std::nullopt);
    EXPECT_TRUE(collect(none.model, set).empty());
    EXPECT_EQ(set.size, 1);
    EXPECT_EQ(set.bytes, 4);
    EXPECT_EQ(set.array.layers, 1);
    EXPECT_EQ(set.array.texels.size(), 4u);
    EXPECT_TRUE(set.layerOfTexture.empty());
    EXPECT_TRUE(set.wrapOfTexture.empty());
}

TEST(TextureBuild, AnImageThatCannotBeConvertedIsDrawnWhiteWithAWarning) {
    TexturedModel m;
    RGBA8Image broken = solid(16, 16, 0, 0, 0, 255);
    broken.pixels.resize(10);
    m.addTexture("good", solid(16, 16, 9, 9, 9, 255));
    m.addTexture("cracked", broken);
    m.addMaterial(1);
    m.addMaterial(0);
    TextureSet set;
    std::vector<std::string> lines = collect(m.model, set);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "warning: texture 1 (cracked) could not be converted - drawn white");
    EXPECT_EQ(set.layerOfTexture.count(1), 0u);
    EXPECT_EQ(set.layerOfTexture.at(0), 0);
    EXPECT_EQ(set.array.layers, 2);
    EXPECT_EQ(set.bytes, 4 * (4096 + 1024 + 256 + 64 + 16 + 4 + 1)) << "one layer's chain only";
}

TEST(TextureBuild, WrapCodes) {
    for (auto [code, mode] : {std::pair{10497, 0.0f}, {33071, 1.0f}, {33648, 2.0f}, {12345, 0.0f}})
        EXPECT_EQ(wrapModeOfGLTF(code), mode) << code;
}

} // namespace
} // namespace qv
