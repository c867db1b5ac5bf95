// Materials, their extensions and extras, embedded images and the warnings for
// textures that cannot be used.
#include "GLBTestUtil.h"
#include "scene/ImageDecode.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qv::test {
namespace {

using Json = nlohmann::json;

// An image size and the size it is capped to.
struct CapCase {
    int w, h, expectW, expectH;
};

TEST(GLBMaterials, FieldsExtensionsAndExtras) {
    GLBWriter w;
    for (const Json& material : std::vector<Json>{
        {{"name", "Glass"},
         {"pbrMetallicRoughness", {{"baseColorFactor", {0.5, 0.25, 1, 0.1}}, {"metallicFactor", 0}, {"roughnessFactor", 0.05}}},
         {"emissiveFactor", {1, 0.5, 0}},
         {"alphaMode", "BLEND"},
         {"alphaCutoff", 0.7},
         {"doubleSided", true},
         {"extensions",
          {{"KHR_materials_emissive_strength", {{"emissiveStrength", 40}}},
           {"KHR_materials_transmission", {{"transmissionFactor", 0.9}}},
           {"KHR_materials_ior", {{"ior", 1.33}}}}},
         {"extras", {{"transmission_roughness", 0.4}}}},
        Json::object(),
        {{"emissiveFactor", {2, 3, 4}}, {"extensions", {{"KHR_materials_emissive_strength", Json::object()}}}},
        {{"pbrMetallicRoughness", {{"baseColorFactor", {0.5, 0.5, 0.5}}}}, {"emissiveFactor", {1, 1, 1, 1}}},
        {{"pbrMetallicRoughness", {{"baseColorFactor", {0.5, "x", 0.5, 0.5}}}}, {"emissiveFactor", {1, "y", 1}}},
        {{"extras", {{"transmission_roughness", 7}}}, {"extensions", {{"KHR_materials_transmission", {{"transmissionFactor", 2}}}}}},
        {{"extras", {{"transmission_roughness", -1}}}, {"extensions", {{"KHR_materials_ior", {{"ior", 0.5}}}}}},
        {{"name", 12}, {"metallicFactor", 0}, {"doubleSided", 1}, {"alphaCutoff", "0.2"}},
    })
        w.addMaterial(material);
    const LoadedModel m = loadWritten(w).model;
    ASSERT_EQ(m.materials.size(), 9u);

    const ModelMaterial& glass = m.materials[0];
    EXPECT_EQ(glass.name, "Glass");
    EXPECT_EQ(std::vector<float>(std::begin(glass.baseColor), std::end(glass.baseColor)),
              (std::vector<float>{0.5f, 0.25f, 1.0f, 0.1f}));
    EXPECT_EQ(glass.metallic, 0.0f);
    EXPECT_EQ(glass.roughness, 0.05f);
    EXPECT_EQ(glass.emissive, (float3{40, 20, 0}));
    EXPECT_EQ(glass.alphaMode, "BLEND");
    EXPECT_EQ(glass.alphaCutoff, 0.7f);
    EXPECT_TRUE(glass.doubleSided);
    EXPECT_EQ(glass.transmission, 0.9f);
    EXPECT_EQ(glass.ior, 1.33f);
    EXPECT_EQ(glass.transmissionRoughness, 0.4f);
    EXPECT_FALSE(glass.baseColorTexture);

    const ModelMaterial& plain = m.materials[1];
    EXPECT_EQ(plain.name, "material1");
    for (float c : plain.baseColor) EXPECT_EQ(c, 1.0f);
    EXPECT_EQ(plain.metallic, 1.0f);
    EXPECT_EQ(plain.roughness, 1.0f);
    EXPECT_EQ(plain.emissive, (float3{}));
    EXPECT_EQ(plain.alphaMode, "OPAQUE");
    EXPECT_EQ(plain.alphaCutoff, 0.5f);
    EXPECT_FALSE(plain.doubleSided);
    EXPECT_EQ(plain.transmission, 0.0f);
    EXPECT_EQ(plain.ior, 1.5f);
    EXPECT_EQ(plain.transmissionRoughness, 0.0f);

    EXPECT_EQ(m.materials[2].emissive, (float3{2, 3, 4})) << "strength defaults to 1";
    EXPECT_EQ(m.materials[3].baseColor[0], 1.0f) << "a 3-element base colour is ignored";
    EXPECT_EQ(m.materials[3].emissive, (float3{})) << "a 4-element emissive factor is ignored";
    EXPECT_EQ(m.materials[4].baseColor[1], 1.0f) << "a non-number base colour element reads 1";
    EXPECT_EQ(m.materials[4].baseColor[3], 0.5f);
    EXPECT_EQ(m.materials[4].emissive, (float3{1, 0, 1})) << "a non-number emissive element reads 0";
    EXPECT_EQ(m.materials[5].transmissionRoughness, 1.0f);
    EXPECT_EQ(m.materials[5].transmission, 2.0f) << "taken as written";
    EXPECT_EQ(m.materials[6].transmissionRoughness, 0.0f);
    EXPECT_EQ(m.materials[6].ior, 0.5f) << "taken as written";
    EXPECT_EQ(m.materials[7].name, "material7") << "a name that is not a string";
    EXPECT_EQ(m.materials[7].metallic, 1.0f) << "metallicFactor belongs inside pbrMetallicRoughness";
    EXPECT_FALSE(m.materials[7].doubleSided);
    EXPECT_EQ(m.materials[7].alphaCutoff, 0.5f);

    const ModelMaterial& fallback = m.materials[8];
    EXPECT_EQ(fallback.name, "__default");
    EXPECT_EQ(fallback.baseColor[0], 0.8f);
    EXPECT_EQ(fallback.baseColor[3], 1.0f);
    EXPECT_EQ(fallback.metallic, 0.0f);
    EXPECT_EQ(fallback.roughness, 0.9f);
    EXPECT_EQ(fallback.emissive, (float3{}));
    EXPECT_EQ(fallback.alphaMode, "OPAQUE");
    EXPECT_TRUE(fallback.doubleSided);
    EXPECT_EQ(fallback.ior, 1.5f);
}

TEST(GLBMaterials, MaterialsThatAreNotAllObjectsReadAsNone) {
    GLBWriter w;
    w.json["materials"] = Json::array({Json{{"name", "A"}}, 3});
    const LoadedModel m = loadWritten(w).model;
    ASSERT_EQ(m.materials.size(), 1u);
    EXPECT_EQ(m.materials[0].name, "__default");
}

// A model with one red 4 x 2 PNG (image 0) behind texture 0, a material
// "Tiles" using it, and one triangle of that material with TEXCOORD_0.
struct TexturedFile {
    GLBWriter w;
    int positions = -1;
    TexturedFile() {
        w.addImage(encodePNG(4, 2, solidRGBA(4, 2, 255, 0, 0)), "image/png", "tiles.png");
        w.addTexture({{"source", 0}});
        w.addMaterial({{"name", "Tiles"}, {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", 0}}}}}});
        positions = w.addPositions(unitTriangle());
    }
    Json primitiveWithUV(const std::vector<float2>& uv) {
        Json p = GLBWriter::primitive(positions, -1, 0);
        p["attributes"]["TEXCOORD_0"] = w.addUVs(uv);
        return p;
    }
};

TEST(GLBTextures, EmbeddedImagesDecodeIntoTextures) {
    TexturedFile f;
    f.w.addSampler({{"wrapS", 33071}, {"wrapT", 33648}});
    f.w.addTexture({{"source", 0}, {"sampler", 0}});
    f.w.addMesh({f.primitiveWithUV({{0, 0}, {1, 0}, {NAN, 1}})});
    const LoadedModel m = loadWritten(f.w).model;
    EXPECT_TRUE(m.warnings.empty()) << m.warnings.front();
    ASSERT_EQ(m.textures.size(), 2u);
    ASSERT_TRUE(m.textures[0]);
    const ModelTexture& t = *m.textures[0];
    EXPECT_EQ(t.name, "tiles.png");
    EXPECT_EQ(std::tuple(t.image.width, t.image.height, t.sourceWidth, t.sourceHeight), std::tuple(4, 2, 4, 2));
    ASSERT_EQ(t.image.pixels.size(), 32u);
    EXPECT_EQ(std::vector<uint8_t>(t.image.pixels.begin(), t.image.pixels.begin() + 4),
              (std::vector<uint8_t>{255, 0, 0, 255}));
    EXPECT_EQ(std::pair(t.wrapS, t.wrapT), std::pair(10497, 10497));
    EXPECT_EQ(std::pair(m.textures[1]->wrapS, m.textures[1]->wrapT), std::pair(33071, 33648));
    EXPECT_EQ(m.materials[0].baseColorTexture, 0);
    EXPECT_EQ(m.triMaterial, (std::vector<uint32_t>{0}));
    ASSERT_EQ(m.uvs.size(), 3u);
    EXPECT_EQ(m.uvs[1].x, 1.0f);
    EXPECT_EQ(m.uvs[2].x, 0.0f) << "a non-finite pair reads (0,0)";
    EXPECT_EQ(m.uvs[2].y, 0.0f);
}

TEST(GLBTextures, DataURIImagesAndDefaultNames) {
    // One opaque green RGBA pixel as a PNG.
    const std::string b64 =
        "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR4nGNg+M/wHwAEAQH/cetH5QAAAABJRU5ErkJggg==";
    GLBWriter w;
    w.json["images"] = Json::array({Json{{"uri", "data:image/png;base64," + b64}}});
    w.addTexture({{"source", 0}});
    const LoadedModel m = loadWritten(w).model;
    ASSERT_TRUE(m.textures.at(0));
    EXPECT_EQ(m.textures[0]->name, "image0");
    EXPECT_EQ(m.textures[0]->image.pixels[1], 255);
}

TEST(GLBTextures, LargeImagesAreCappedAt2048) {
    for (const CapCase c : {CapCase{4096, 1024, 2048, 512}, {5000, 3, 2048, 1}, {2048, 16, 2048, 16}, {7, 2049, 6, 2048}}) {
        GLBWriter w;
        w.addImage(encodePNG(c.w, c.h, solidRGBA(c.w, c.h, 10, 20, 30, 255)));
        w.addTexture({{"source", 0}});
        const LoadedModel m = loadWritten(w).model;
        ASSERT_TRUE(m.textures.at(0)) << c.w;
        const ModelTexture& t = *m.textures[0];
        EXPECT_EQ(std::pair(t.image.width, t.image.height), std::pair(c.expectW, c.expectH));
        EXPECT_EQ(std::pair(t.sourceWidth, t.sourceHeight), std::pair(c.w, c.h));
        ASSERT_EQ(t.image.pixels.size(), size_t(c.expectW) * size_t(c.expectH) * 4);
        // A flat colour survives resampling unchanged.
        for (size_t i : {size_t(0), t.image.pixels.size() - 4})
            EXPECT_EQ(std::vector<uint8_t>(&t.image.pixels[i], &t.image.pixels[i] + 4),
                      (std::vector<uint8_t>{10, 20, 30, 255}));
    }
}

TEST(GLBTextures, UnusableImagesTexturesAndMaterialsAreWarnings) {
    GLBWriter w;
    w.addImage({0x89, 'P', 'N', 'G', 1, 2, 3, 4}, "image/png");             // image 0: corrupt
    w.json["images"].push_back({{"uri", "walls.jpg"}});                     // image 1: external
    w.json["images"].push_back({{"bufferView", 0}, {"name", "x"}});         // image 2: corrupt, no type
    w.json["images"].push_back({{"uri", "data:image/png;base64,@@@@"}});    // image 3: bad base64
    w.addImage(encodePNG(2, 2, solidRGBA(2, 2, 1, 2, 3)));                  // image 4: fine
    w.json["images"].push_back({{"bufferView", 0}, {"mimeType", "image/ktx2"}});
    w.json["bufferViews"].push_back({{"buffer", 0}, {"byteOffset", 1 << 20}, {"byteLength", 4}});
    w.json["images"].push_back({{"bufferView", 2}});                        // image 6: view past BIN
    w.addTexture({{"source", 0}});                                          // texture 0: undecodable image
    w.addTexture({{"extensions", {{"KHR_texture_basisu", {{"source", 5}}}}}}); // texture 1: no source
    w.addTexture({{"source", 4}});                                          // texture 2: fine
    w.addTexture({{"source", 42}});                                         // texture 3: no such image
    w.addMaterial({{"name", "Bad"}, {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", 0}}}}}});
    w.addMaterial({{"name", "Good"}, {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", 2}}}}}});
    w.addMaterial({{"name", "Gone"}, {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", 9}}}}}});
    w.addMaterial({{"name", "Neg"}, {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", -1}}}}}});
    const LoadedModel m = loadWritten(w).model;
    EXPECT_EQ(m.warnings,
              (std::vector<std::string>{
                  "texture image 0: could not decode (image/png)",
                  "texture image 1: no embedded data (external image files are not supported)",
                  "texture image 2: could not decode (unknown type)",
                  "texture image 3: no embedded data (external image files are not supported)",
                  "texture image 5: could not decode (image/ktx2)",
                  "texture image 6: no embedded data (external image files are not supported)",
                  "texture 1: no source image (extensions such as KHR_texture_basisu are not supported)",
                  "material 'Bad': baseColorTexture 0 is missing or could not be decoded - using baseColorFactor only",
                  "material 'Gone': baseColorTexture 9 is missing or could not be decoded - using baseColorFactor only",
                  "material 'Neg': baseColorTexture -1 is missing or could not be decoded - using baseColorFactor only",
              }));
    ASSERT_EQ(m.textures.size(), 4u);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(m.textures[i].has_value(), i == 2) << "texture " << i;
    EXPECT_FALSE(m.materials[0].baseColorTexture);
    EXPECT_EQ(m.materials[1].baseColorTexture, 2);
    EXPECT_FALSE(m.materials[2].baseColorTexture);
}

TEST(GLBTextures, ATexturedMaterialWithoutCoordinatesGetsOneUntexturedCopy) {
    TexturedFile f;
    Json noUV = GLBWriter::primitive(f.positions, -1, 0);
    Json shortUV = f.primitiveWithUV({{0, 0}, {1, 0}}); // 2 coordinates for 3 vertices
    f.w.addMesh(Json{{"primitives", {noUV, noUV}}});
    f.w.addMesh(Json{{"primitives", {shortUV, f.primitiveWithUV({{0, 0}, {1, 0}, {0, 1}})}}});
    const LoadedModel m = loadWritten(f.w).model;
    EXPECT_EQ(m.warnings, (std::vector<std::string>{"material 'Tiles' is textured but a primitive of mesh 0 has no "
                                                    "usable TEXCOORD_0 - drawn untextured"}));
    ASSERT_EQ(m.materials.size(), 3u);
    EXPECT_EQ(m.materials[2].name, "Tiles");
    EXPECT_FALSE(m.materials[2].baseColorTexture);
    EXPECT_EQ(m.materials[0].baseColorTexture, 0);
    EXPECT_EQ(m.triMaterial, (std::vector<uint32_t>{2, 2, 2, 0}));
}

TEST(GLBTextures, TexCoordSetAndIntegerCoordinates) {
    TexturedFile f;
    f.w.json["materials"][0]["pbrMetallicRoughness"]["baseColorTexture"]["texCoord"] = 1;
    Json p = GLBWriter::primitive(f.positions, -1, 0);
    const uint16_t uv[] = {0, 0, 3, 0, 0, 65535};
    p["attributes"]["TEXCOORD_1"] = f.w.addAccessor(f.w.addView(uv, sizeof uv), 5123, 3, "VEC2");
    Json normalised = GLBWriter::primitive(f.positions, -1, 0);
    normalised["attributes"]["TEXCOORD_1"] = f.w.addAccessor(f.w.addView(uv, sizeof uv), 5123, 3, "VEC2", true);
    f.w.addMesh(Json{{"primitives", {p, normalised}}});
    const LoadedModel m = loadWritten(f.w).model;
    EXPECT_TRUE(m.warnings.empty());
    ASSERT_EQ(m.uvs.size(), 6u);
    EXPECT_EQ(m.uvs[1].x, 3.0f) << "unnormalised integers read as their values";
    EXPECT_EQ(m.uvs[2].y, 65535.0f);
    EXPECT_EQ(m.uvs[5].y, 1.0f) << "normalised integers divide by 65535";
}

TEST(ImageResample, AveragesInLinearLightWeightedByAlpha) {
    struct Case {
        const char* name;
        std::vector<uint8_t> twoPixels; // 2 x 1, RGBA
        std::vector<uint8_t> expect;    // 1 x 1
    };
    const Case cases[] = {
        // (1 + 0) / 2 = 0.5 linear is sRGB 0.7354, code 188 (not 128: the average is in linear light).
        {"red and blue", {255, 0, 0, 255, 0, 0, 255, 255}, {188, 0, 188, 255}},
        {"white and a transparent black", {255, 255, 255, 255, 0, 0, 0, 0}, {255, 255, 255, 128}},
        {"two transparent texels keep their colour", {255, 0, 0, 0, 255, 0, 0, 0}, {255, 0, 0, 0}},
        {"equal pixels", {10, 20, 30, 40, 10, 20, 30, 40}, {10, 20, 30, 40}},
    };
    for (const Case& c : cases) {
        const RGBA8Image out = resampleRGBA8(RGBA8Image{2, 1, c.twoPixels}, 1, 1);
        EXPECT_EQ(out.pixels, c.expect) << c.name;
    }
}

TEST(ImageResample, CappedSizeKeepsTheAspectRatio) {
    for (const CapCase c : {CapCase{4096, 1024, 2048, 512}, {2048, 2048, 2048, 2048}, {100000, 1, 2048, 1},
                            {3000, 2999, 2048, 2047}, {1, 1, 1, 1}}) {
        const ImageSize s = cappedSize(c.w, c.h);
        EXPECT_EQ(std::pair(s.width, s.height), std::pair(c.expectW, c.expectH)) << c.w << "x" << c.h;
    }
}

TEST(Base64, DecodesWithOrWithoutPaddingAndRejectsForeignCharacters) {
    const std::pair<const char*, const char*> cases[] = {
        {"aGVsbG8=", "hello"}, {"aGVsbG8", "hello"}, {"aGk=", "hi"}, {"", ""}, {"aGV sbG8=", "<none>"}, {"a", "<none>"},
    };
    for (const auto& [encoded, decoded] : cases) {
        const auto bytes = decodeBase64(encoded);
        EXPECT_EQ(bytes ? std::string(bytes->begin(), bytes->end()) : "<none>", decoded) << encoded;
    }
}

} // namespace
} // namespace qv::test
