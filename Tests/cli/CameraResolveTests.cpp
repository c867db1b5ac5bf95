// Choosing the headless camera from the options and the scene.
#include "cli/CameraResolve.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

CameraDef cam(const std::string& name, float3 eye, float3 target, std::optional<float> fov = std::nullopt) {
    CameraDef c;
    c.name = name;
    c.eye = eye;
    c.target = target;
    c.fovDeg = fov;
    return c;
}

SceneDescription twoCameras(std::optional<std::string> defaultCamera) {
    SceneDescription s;
    s.cameras = {cam("Exterior", {10, 1.6f, 10}, {0, 1.5f, 0}, 50.0f), cam("Kitchen", {2, 1.6f, 3}, {4, 1.2f, 3})};
    s.defaultCamera = std::move(defaultCamera);
    return s;
}

struct Case {
    const char* what;
    std::optional<std::string> camera;
    std::optional<float3> eye;
    std::optional<std::string> defaultCamera;
    std::string name;
    float3 expectedEye;
    float3 expectedTarget;
    float fov;
};

TEST(CameraResolve, ChoosesByTheRules) {
    const Case cases[] = {
        {"by name ignoring case", "exterior", std::nullopt, std::nullopt, "Exterior", {10, 1.6f, 10}, {0, 1.5f, 0}, 50},
        {"default camera", std::nullopt, std::nullopt, "Kitchen", "Kitchen", {2, 1.6f, 3}, {4, 1.2f, 3}, 70},
        {"default camera needs exact case", std::nullopt, std::nullopt, "kitchen", "Exterior", {10, 1.6f, 10},
         {0, 1.5f, 0}, 50},
        {"missing default falls to the first", std::nullopt, std::nullopt, "Nowhere", "Exterior", {10, 1.6f, 10},
         {0, 1.5f, 0}, 50},
        {"eye alone is ad hoc", std::nullopt, float3{1, 2, 3}, "Kitchen", "adhoc", {1, 2, 3}, {2, 2, 3}, 70},
        {"eye with a new name", "Balcony", float3{1, 2, 3}, std::nullopt, "Balcony", {1, 2, 3}, {2, 2, 3}, 70},
        {"a scene camera wins over the eye", "KITCHEN", float3{1, 2, 3}, std::nullopt, "Kitchen", {2, 1.6f, 3},
         {4, 1.2f, 3}, 70},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CLIOptions o;
        o.camera = c.camera;
        o.eye = c.eye;
        CameraDef r = resolveCamera(o, twoCameras(c.defaultCamera));
        EXPECT_EQ(r.name, c.name);
        EXPECT_EQ(r.eye, c.expectedEye);
        EXPECT_EQ(r.target, c.expectedTarget);
        EXPECT_EQ(r.fovAngleDeg(), c.fov);
    }
}

TEST(CameraResolve, EmptySceneGetsTheStandardAdhocCamera) {
    CameraDef r = resolveCamera(CLIOptions{}, SceneDescription{});
    EXPECT_EQ(r.name, "adhoc");
    EXPECT_EQ(r.eye, (float3{0, 1.5f, 0}));
    EXPECT_EQ(r.target, (float3{1, 1.5f, 0}));
    EXPECT_EQ(r.fovDeg, 70.0f);
}

TEST(CameraResolve, OverridesApplyToWhicheverCameraWasChosen) {
    CLIOptions o;
    o.camera = "kitchen";
    o.target = float3{0, 0, 0};
    o.fov = 40.0f;
    o.fovAxis = "horizontal";
    CameraDef r = resolveCamera(o, twoCameras(std::nullopt));
    EXPECT_EQ(r.name, "Kitchen");
    EXPECT_EQ(r.eye, (float3{2, 1.6f, 3}));
    EXPECT_EQ(r.target, (float3{0, 0, 0}));
    EXPECT_EQ(r.fovDeg, 40.0f);
    EXPECT_TRUE(r.fovIsHorizontal());
}

TEST(CameraResolve, Errors) {
    CLIOptions unknown;
    unknown.camera = "nosuch";
    try {
        resolveCamera(unknown, twoCameras(std::nullopt));
        ADD_FAILURE();
    } catch (const CLIError& e) {
        EXPECT_EQ(e.description(), "camera 'nosuch' not found; available: Exterior, Kitchen");
    }
    try {
        resolveCamera(unknown, SceneDescription{});
        ADD_FAILURE();
    } catch (const CLIError& e) {
        EXPECT_EQ(e.description(), "camera 'nosuch' not found; available: ");
    }
    CLIOptions coincide;
    coincide.eye = float3{1, 1, 1};
    coincide.target = float3{1, 1, 1};
    try {
        resolveCamera(coincide, SceneDescription{});
        ADD_FAILURE();
    } catch (const CLIError& e) {
        EXPECT_EQ(e.description(), "camera eye and target coincide");
    }
    CLIOptions onto;
    onto.camera = "Kitchen";
    onto.target = float3{2, 1.6f, 3};
    EXPECT_THROW(resolveCamera(onto, twoCameras(std::nullopt)), CLIError);
}

} // namespace
} // namespace qv
