// libFuzzer target for the GLB loader: any byte string must either load or
// fail with one of the loader's errors, never crash, hang or run out of memory.
#include "scene/GLBLoader.h"

#include <cstddef>
#include <cstdint>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Limits small enough that every input finishes quickly within the fuzzer's
    // memory ceiling; the checks they exercise are the same as the defaults'.
    qv::GLBLimits limits;
    limits.maxVertices = 1 << 20;
    limits.maxIndices = 3 << 20;
    limits.maxNodeVisits = 1 << 16;
    limits.maxImagePixels = 1 << 22;
    limits.maxTextureBytes = 1 << 26;
    try {
        const qv::LoadedModel model =
            qv::GLBLoader::loadBytes(std::span<const uint8_t>(data, size), [](std::string_view) {}, limits);
        // The invariants every consumer relies on.
        if (model.normals.size() != model.positions.size() || model.uvs.size() != model.positions.size() ||
            model.indices.size() % 3 != 0 || model.triMaterial.size() * 3 != model.indices.size() ||
            model.triRole.size() * 3 != model.indices.size())
            __builtin_trap();
        for (uint32_t i : model.indices)
            if (i >= model.positions.size()) __builtin_trap();
        for (uint32_t m : model.triMaterial)
            if (m >= model.materials.size()) __builtin_trap();
        for (uint16_t r : model.triRole)
            if (r >= model.roleNames.size()) __builtin_trap();
        (void)model.isUnderRoof(model.robustCentre());
    } catch (const qv::GLBError&) {
    } catch (const qv::GLBJSONError&) {
    }
    return 0;
}
