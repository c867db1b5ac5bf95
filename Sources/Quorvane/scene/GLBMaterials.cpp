#include "scene/GLBMaterials.h"

#include <algorithm>
#include <cmath>

namespace qv::glb {
namespace {

float numberOr(const Json& object, const char* key, float fallback) {
    auto v = numberMember(object, key);
    return v ? toFloat(*v) : fallback;
}

ModelMaterial readMaterial(const Json& m, size_t index) {
    ModelMaterial mat;
    mat.name = stringMember(m, "name").value_or("material" + std::to_string(index));

    if (const Json* pbr = objectMember(m, "pbrMetallicRoughness")) {
        if (const Json* f = arrayMember(*pbr, "baseColorFactor"); f && f->size() == 4)
            for (int i = 0; i < 4; ++i) {
                auto v = asNumber((*f)[size_t(i)]);
                mat.baseColor[i] = v ? toFloat(*v) : 1.0f;
            }
        mat.metallic = numberOr(*pbr, "metallicFactor", mat.metallic);
        mat.roughness = numberOr(*pbr, "roughnessFactor", mat.roughness);
        if (const Json* t = objectMember(*pbr, "baseColorTexture")) {
            if (auto texture = integerMember(*t, "index"))
                mat.baseColorTexture = int(std::clamp<int64_t>(*texture, INT32_MIN, INT32_MAX));
            mat.baseColorTexCoord = int(std::clamp<int64_t>(integerMember(*t, "texCoord").value_or(0), INT32_MIN, INT32_MAX));
        }
    }

    if (const Json* f = arrayMember(m, "emissiveFactor"); f && f->size() == 3)
        for (int i = 0; i < 3; ++i) {
            auto v = asNumber((*f)[size_t(i)]);
            mat.emissive[i] = v ? toFloat(*v) : 0.0f;
        }
    const Json* extensions = objectMember(m, "extensions");
    if (extensions) {
        if (const Json* e = objectMember(*extensions, "KHR_materials_emissive_strength"))
            mat.emissive *= numberOr(*e, "emissiveStrength", 1.0f);
        if (const Json* e = objectMember(*extensions, "KHR_materials_transmission"))
            mat.transmission = numberOr(*e, "transmissionFactor", 0.0f);
        if (const Json* e = objectMember(*extensions, "KHR_materials_ior")) mat.ior = numberOr(*e, "ior", 1.5f);
    }

    mat.alphaMode = stringMember(m, "alphaMode").value_or("OPAQUE");
    mat.alphaCutoff = numberOr(m, "alphaCutoff", 0.5f);
    mat.doubleSided = boolMember(m, "doubleSided").value_or(false);

    if (const Json* extras = objectMember(m, "extras")) {
        float r = numberOr(*extras, "transmission_roughness", 0.0f);
        mat.transmissionRoughness = std::isfinite(r) ? std::clamp(r, 0.0f, 1.0f) : 0.0f;
    }
    return mat;
}

} // namespace

ModelMaterial defaultMaterial() {
    ModelMaterial mat;
    mat.name = "__default";
    for (int i = 0; i < 3; ++i) mat.baseColor[i] = 0.8f;
    mat.baseColor[3] = 1.0f;
    mat.metallic = 0.0f;
    mat.roughness = 0.9f;
    mat.doubleSided = true;
    return mat;
}

std::vector<ModelMaterial> readMaterials(const Document& doc) {
    std::vector<ModelMaterial> out;
    out.reserve(doc.materials.size() + 1);
    for (size_t i = 0; i < doc.materials.size(); ++i) out.push_back(readMaterial(doc.materials[i], i));
    out.push_back(defaultMaterial());
    return out;
}

} // namespace qv::glb
