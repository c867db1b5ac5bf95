#pragma once
// glTF metallic-roughness materials with KHR_materials_emissive_strength,
// KHR_materials_transmission, KHR_materials_ior and extras.transmission_roughness.
#include "scene/GLBDocument.h"
#include "scene/LoadedModel.h"

#include <vector>

namespace qv::glb {

// Every entry of `materials` in file order, then "__default" (whose index is
// the number of file materials).
std::vector<ModelMaterial> readMaterials(const Document& doc);

// The material drawn when a primitive names none or a material that does not exist.
ModelMaterial defaultMaterial();

} // namespace qv::glb
