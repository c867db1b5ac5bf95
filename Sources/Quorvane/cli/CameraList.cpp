#include "cli/CameraList.h"

#include "scene/TextFormat.h"

namespace qv {

std::string cameraListLine(const CameraDef& camera, bool isDefault) {
    std::string line = camera.name + ": eye " + formatFloatList(camera.eye) + " target " +
                       formatFloatList(camera.target) + " fov " + formatFloat(camera.fovAngleDeg()) + " " +
                       camera.fovAxisName();
    if (isDefault) line += "  (default)";
    return line;
}

std::vector<std::string> cameraListLines(const SceneDescription& scene) {
    std::vector<std::string> lines;
    const CameraDef* byDefault = scene.defaultCamera ? scene.camera(*scene.defaultCamera) : nullptr;
    for (const CameraDef& camera : scene.cameras) lines.push_back(cameraListLine(camera, &camera == byDefault));
    return lines;
}

} // namespace qv
