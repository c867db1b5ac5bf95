#pragma once
// Embedded images and the textures that use them: decoding (one task per
// image), the 2048-pixel cap, and the warnings for images, textures and
// materials whose base-colour texture cannot be used.
#include "scene/GLBDocument.h"
#include "scene/GLBLoader.h"
#include "scene/LoadedModel.h"

namespace qv::glb {

// Fills model.textures and appends image and texture warnings; then clears the
// baseColorTexture of every file material in `model.materials` (all but the
// last, "__default") that names no usable texture, with a warning each.
void readImagesAndTextures(const Document& doc, LoadedModel& model, const GLBLimits& limits);

} // namespace qv::glb
