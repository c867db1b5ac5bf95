#include "cli/CameraResolve.h"

#include <cctype>
#include <cmath>

namespace qv {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

const CameraDef* findIgnoringCase(const SceneDescription& scene, std::string_view name) {
    for (const CameraDef& camera : scene.cameras)
        if (equalsIgnoringCase(camera.name, name)) return &camera;
    return nullptr;
}

CameraDef adhocCamera(const std::string& name, float3 eye) {
    CameraDef camera;
    camera.name = name;
    camera.eye = eye;
    camera.target = eye + float3{1, 0, 0};
    camera.fovDeg = CameraDef::kDefaultFovDeg;
    return camera;
}

} // namespace

CameraDef resolveCamera(const CLIOptions& options, const SceneDescription& scene) {
    CameraDef camera;
    if (options.eye) {
        const CameraDef* named = options.camera ? findIgnoringCase(scene, *options.camera) : nullptr;
        camera = named ? *named : adhocCamera(options.camera.value_or("adhoc"), *options.eye);
    } else if (options.camera) {
        const CameraDef* named = findIgnoringCase(scene, *options.camera);
        if (!named) {
            std::string available;
            for (const CameraDef& c : scene.cameras) available += (available.empty() ? "" : ", ") + c.name;
            throw CLIError("camera '" + *options.camera + "' not found; available: " + available);
        }
        camera = *named;
    } else if (const CameraDef* byDefault = scene.defaultCamera ? scene.camera(*scene.defaultCamera) : nullptr) {
        camera = *byDefault;
    } else if (!scene.cameras.empty()) {
        camera = scene.cameras.front();
    } else {
        camera = adhocCamera("adhoc", {0, 1.5f, 0});
    }

    if (options.target) camera.target = *options.target;
    if (options.fov) camera.fovDeg = *options.fov;
    if (options.fovAxis) camera.fovAxis = *options.fovAxis;

    const float3 d = camera.target - camera.eye;
    const double separation = std::sqrt(double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z);
    if (!(separation >= 1e-5)) throw CLIError("camera eye and target coincide");
    return camera;
}

} // namespace qv
