#pragma once
// Choosing the camera of a headless run from --camera, --eye, --target, --fov
// and --fov-axis and the scene's cameras.
#include "cli/CLIOptions.h"
#include "scene/SceneDescription.h"

namespace qv {

// 1. --camera N (without --eye): the first scene camera named N, ignoring case;
//    none is a CLIError listing the available names.
// 2. --eye: a scene camera named by --camera (ignoring case) wins and the eye
//    is not applied; otherwise an ad-hoc camera named by --camera, or "adhoc",
//    at that eye looking along +X with a 70 degree field of view.
// 3. Neither: the camera named exactly default_camera, else the first camera,
//    else an ad-hoc camera at (0, 1.5, 0) looking along +X.
// 4. --target, --fov and --fov-axis then replace the chosen camera's values.
// Throws CLIError "camera eye and target coincide" when they end up closer
// than 1e-5 m.
CameraDef resolveCamera(const CLIOptions& options, const SceneDescription& scene);

} // namespace qv
