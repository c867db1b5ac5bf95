#pragma once
// The parsed JSON of a GLB with its BIN chunk and the top-level arrays, each
// already read as an array of objects.
#include "scene/GLBJsonRead.h"

#include <cstdint>
#include <span>

namespace qv::glb {

struct Document {
    explicit Document(const Json& doc, std::span<const uint8_t> binChunk)
        : json(doc), bin(binChunk), accessors(topArray(doc, "accessors")), bufferViews(topArray(doc, "bufferViews")),
          meshes(topArray(doc, "meshes")), nodes(topArray(doc, "nodes")), materials(topArray(doc, "materials")),
          scenes(topArray(doc, "scenes")), textures(topArray(doc, "textures")), images(topArray(doc, "images")),
          samplers(topArray(doc, "samplers")) {}

    const Json& json;
    std::span<const uint8_t> bin;
    const Json& accessors;
    const Json& bufferViews;
    const Json& meshes;
    const Json& nodes;
    const Json& materials;
    const Json& scenes;
    const Json& textures;
    const Json& images;
    const Json& samplers;
};

} // namespace qv::glb
