#pragma once
// Every parameter of a render that the command line or the viewer sets and the
// path tracer reads. The renderer keeps a copy; changing a field means handing
// it a new copy and rebuilding whatever depends on that field.
#include "image/ToneMapper.h"
#include "pathtracer/NEEMode.h"
#include "pathtracer/Projection.h"
#include "scene/Cutaway.h"
#include "scene/WhiteBalance.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qv {

struct RenderSettings {
    int64_t width = 1280;               // pixels
    int64_t height = 720;               // pixels
    uint32_t maxDepth = 10;             // scattering vertices per path
    uint32_t rrDepth = 3;               // Russian roulette from this depth on
    float clampMultiple = 10;           // firefly clamp, multiples of the white luminance (0 = off)
    float regularizeRoughness = 0.2f;   // minimum roughness after the first rough bounce
    bool noCaustics = true;             // drop emitters seen through glass after a rough bounce
    bool hideRoof = false;              // the no-roof cut-away
    float emissiveNits = 1000;          // cd/m2 of a glTF emissive factor times strength of 1
    float lightScale = 1;               // multiplier of every scene lamp
    bool sceneLights = true;            // use the scene contract's lamps
    ToneMapper toneMapper = ToneMapper::agx;
    float exposureCompensation = 0;     // stops relative to the preset (+ = brighter)
    float cameraExposureEV = 0;         // the camera's exposure_ev, stops
    std::optional<float> ev100Override; // absolute EV100
    std::optional<WhiteBalance> whiteBalanceOverride;
    std::optional<WhiteBalance> cameraWhiteBalance;
    float saturation = 1;
    float lookPower = 1.12f;            // the "medium" look
    float lookSaturation = 1.1f;
    uint32_t seed = 0;
    int64_t skyWidth = 1024;            // sky table texels
    int64_t skyHeight = 512;
    bool debugNoLightNEE = false;
    bool debugNoSkyNEE = false;
    bool debugNeeOnly = false;
    bool debugAlbedo = false;
    bool debugNeeStats = false;
    NEEMode neeMode = NEEMode::cell;
    uint32_t risCandidates = 8;
    float lightGridCell = 0.25f;        // metres
    int64_t lightGridRays = 32;         // bake sample points per cell
    float lightGridEps = 0.1f;          // defensive light-tree probability
    float lightGridVisFloor = 0.2f;     // visibility floor of the cell weights
    float lightGridOffset = 0.03f;      // cell lookup offset, metres
    float emissiveRoulette = 0.1f;      // emissive NEE probability in cells that never saw one
    std::optional<float> clipAbove;     // section cut height, metres
    std::vector<std::string> hideMaterials;
    bool emissiveOneSided = false;
    std::set<std::string> disabledRooms;
    float textureFootprint = 0.75f;     // pixels (0 = finest mip)
    bool mfxViewNormals = false;
    bool mfxNoSplit = false;
    Cutaway cutaway = Cutaway::whole;
    Projection projection = Projection::perspective;
};

} // namespace qv
