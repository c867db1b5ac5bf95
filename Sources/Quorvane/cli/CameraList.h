#pragma once
// The lines of --list-cameras: one per scene camera.
#include "scene/SceneDescription.h"

#include <string>
#include <vector>

namespace qv {

// "<name>: eye [x, y, z] target [x, y, z] fov <deg> <axis>", with "  (default)"
// appended for the default camera.
std::string cameraListLine(const CameraDef& camera, bool isDefault);

// One line per camera in scene order; the camera named exactly default_camera is marked.
std::vector<std::string> cameraListLines(const SceneDescription& scene);

} // namespace qv
