#pragma once
// The bundled house and one view of it, as the render benchmarks take them
// from the command line: [camera] [day|dusk|night] [spp] [WxH].
#include "scene/GLBLoader.h"
#include "scene/LogSink.h"
#include "scene/SceneDescription.h"
#include "scene/TimeOfDay.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace qv::bench {

struct BenchView {
    std::string cameraName = "Living";
    std::string timeName = "night";
    int spp = 16;
    int width = 1280, height = 720;

    TimeOfDay time() const {
        return timeName == "day" ? TimeOfDay::day : timeName == "dusk" ? TimeOfDay::dusk : TimeOfDay::night;
    }
    double paths() const { return double(spp) * double(width) * double(height); }
};

inline BenchView parseView(int argc, char** argv, int defaultSpp) {
    BenchView v;
    v.spp = defaultSpp;
    if (argc > 1) v.cameraName = argv[1];
    if (argc > 2) v.timeName = argv[2];
    if (argc > 3) v.spp = std::atoi(argv[3]);
    if (argc > 4) std::sscanf(argv[4], "%dx%d", &v.width, &v.height);
    return v;
}

struct BundledHouse {
    LoadedModel model;
    SceneDescription scene;
};

inline BundledHouse loadBundledHouse(const LogSink& log) {
    const std::string root = QV_SOURCE_DIR;
    return BundledHouse{GLBLoader::load(root + "/Resources/house.glb"),
                        SceneDescription::load(root + "/Resources/sample_scene.json", log)};
}

// The view's camera, or null (with a message) when the scene has none of that name.
inline const CameraDef* viewCamera(const BundledHouse& house, const BenchView& view) {
    const CameraDef* camera = house.scene.camera(view.cameraName);
    if (!camera) std::fprintf(stderr, "no camera %s\n", view.cameraName.c_str());
    return camera;
}

} // namespace qv::bench
