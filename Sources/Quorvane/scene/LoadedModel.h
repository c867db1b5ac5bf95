#pragma once
// A glTF binary model flattened into one vertex array, one triangle list, one
// material and one role per triangle, with its materials and decoded images.
// Model space: metres, +Y up; positions and normals are world space.
#include "shaders/VecMath.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv {

// An 8-bit RGBA bitmap, rows top to bottom, 4 bytes per pixel.
struct RGBA8Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;
};

struct ModelTexture {
    std::string name;       // the image's name, else "image<N>"
    RGBA8Image image;       // at most 2048 pixels on the longer side
    int sourceWidth = 0;    // as stored in the file, before any downscale
    int sourceHeight = 0;
    int wrapS = 10497;      // glTF wrap codes: 10497 repeat, 33071 clamp, 33648 mirrored repeat
    int wrapT = 10497;
};

struct ModelMaterial {
    std::string name;
    float baseColor[4] = {1, 1, 1, 1}; // linear RGBA
    float metallic = 1;
    float roughness = 1;
    float3 emissive{};                 // emissiveFactor x emissiveStrength
    std::string alphaMode = "OPAQUE";
    float alphaCutoff = 0.5f;
    bool doubleSided = false;
    float transmission = 0;
    float ior = 1.5f;
    std::optional<int> baseColorTexture; // glTF texture index
    int baseColorTexCoord = 0;
    float transmissionRoughness = 0;   // extras.transmission_roughness, in [0, 1]
};

struct LoadedModel {
    std::vector<float3> positions;
    std::vector<float3> normals;       // (0,0,0) where the primitive had no usable normal
    std::vector<float2> uvs;           // (0,0) where none
    std::vector<std::optional<ModelTexture>> textures; // one per glTF texture
    std::vector<std::string> warnings;
    std::vector<uint32_t> indices;     // three per triangle
    std::vector<uint32_t> triMaterial; // per triangle, into materials
    std::vector<uint16_t> triRole;     // per triangle, into roleNames
    std::vector<std::string> roleNames{""}; // entry 0: no role
    std::vector<ModelMaterial> materials;
    float3 boundsMin{}, boundsMax{};
    float3 coreBoundsMin{}, coreBoundsMax{}; // without the triangles of role "site"
    int64_t droppedTriangles = 0;

    size_t triangleCount() const { return indices.size() / 3; }

    // Whether some triangle lies more than 5 cm above the point, directly over it.
    bool isUnderRoof(float3 point) const;
    // Per-axis median of the triangle corners: a centre that far outliers cannot move.
    float3 robustCentre() const;
};

} // namespace qv
