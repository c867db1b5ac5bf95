// The scene contract: every warning of the lenient reader with its exact
// text and fallback, the failures, the generated defaults and the camera's
// field of view and look.
#include "scene/SceneDescription.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace qv {
namespace {

namespace fs = std::filesystem;

struct Loaded {
    SceneDescription scene;
    std::vector<std::string> lines;
};

Loaded parseScene(const std::string& text) {
    Loaded out;
    out.scene = SceneDescription::parse(text, "/house/scene.json",
                                        [&](std::string_view line) { out.lines.emplace_back(line); });
    return out;
}

// A camera entry that is valid apart from the extra members given.
std::string camera(const std::string& name, const std::string& extra = "") {
    return "{name: '" + name + "', eye: [0, 1.5, 0], target: [1, 1.5, 0]" + (extra.empty() ? "" : ", " + extra) +
           "}";
}

TEST(SceneDescriptionWarnings, EachCheckWarnsWithItsExactText) {
    const std::string site =
        "site ignored: it needs latitude (-90..90) and longitude (-180..180), and utc_offset_hours within 14";
    auto cam = [](const std::string& extra) { return "{cameras: [" + camera("A", extra) + "]}"; };
    const std::pair<std::string, std::string> cases[] = { // text, warning after "warning: scene.json: "
        {"{version: 2}", "version 2 (this renderer reads version 1)"},
        {"{north_deg: Infinity}", "north_deg is not finite - using 0"},
        {"{north_deg: 1e39}", "north_deg is not finite - using 0"},
        {"{lights: [{id: 'L1', position: 'x'}]}",
         "lights[0] (id L1) skipped: lights[0].position: expected array (found a string)"},
        {"{lights: [{kind: 'pendant'}]}", "lights[0] skipped: lights[0]: missing required field 'position'"},
        {"{lights: [3]}", "lights[0] skipped: lights[0]: expected object (found a number)"},
        {"{lights: [{id: 'a', position: [1, 'x', 3]}]}",
         "lights[0] (id a) skipped: lights[0].position[1]: expected number (found a string)"},
        {"{lights: [{position: null}]}", "lights[0] skipped: lights[0].position: missing array value"},
        {"{render_defaults: 5}", "render_defaults ignored: render_defaults: expected object (found a number)"},
        {"{render_defaults: {wb_kelvin_interior: 'warm'}}",
         "render_defaults ignored: render_defaults.wb_kelvin_interior: expected number (found a string)"},
        {"{render_defaults: {wb_kelvin_exterior_dusk: 999.5}}",
         "render_defaults.wb_kelvin_exterior_dusk 999.5 is outside 1000-25000 - ignored"},
        {"{render_defaults: {wb_kelvin_interior_night: 25001}}",
         "render_defaults.wb_kelvin_interior_night 25001.0 is outside 1000-25000 - ignored"},
        {"{cameras: [{name: 'A', eye: [0, 1, 0]}]}", "cameras[0] skipped: cameras[0]: missing required field 'target'"},
        {"{cameras: [{name: 7, eye: [0, 1, 0], target: [1, 1, 0]}]}",
         "cameras[0] skipped: cameras[0].name: expected string (found a number)"},
        {"{cameras: [{name: 'A', eye: [0, 1], target: [1, 1, 0]}]}",
         "cameras[0] (A) skipped: eye and target must be 3 finite numbers"},
        {"{cameras: [{name: 'A', eye: [0, 1, 0], target: [NaN, 1, 0]}]}",
         "cameras[0] (A) skipped: eye and target must be 3 finite numbers"},
        {"{cameras: [{name: 'A', eye: [0, 1, 0], target: [0, 1, 0.000001]}]}",
         "cameras[0] (A) skipped: eye and target coincide"},
        {cam("fov_deg: 0"), "cameras[0] (A) fov_deg 0.0 is outside 0.1-179.0 - using 70.0"},
        {cam("fov_deg: 179.5"), "cameras[0] (A) fov_deg 179.5 is outside 0.1-179.0 - using 70.0"},
        {cam("fov_deg: NaN"), "cameras[0] (A) fov_deg nan is outside 0.1-179.0 - using 70.0"},
        {cam("fov_axis: 'Diagonal'"), "cameras[0] (A) fov_axis 'Diagonal' is not vertical or horizontal - using vertical"},
        {cam("time: 'noon'"), "cameras[0] (A) time 'noon' is not day, dusk or night - ignored"},
        {cam("exposure_ev: -10.5"), "cameras[0] (A) exposure_ev -10.5 is outside -10..10 - ignored"},
        {cam("exposure_ev: Infinity"), "cameras[0] (A) exposure_ev inf is outside -10..10 - ignored"},
        {cam("wb_kelvin: 30000"), "cameras[0] (A) wb_kelvin 30000.0 is outside 1000-25000 - ignored"},
        {"{site: {latitude: 'north'}}", "site ignored: site.latitude: expected number (found a string)"},
        {"{site: []}", "site ignored: site: expected object (found an array)"},
        {"{site: {latitude: 95, longitude: 10}}", site},
        {"{site: {latitude: 45}}", site},
        {"{site: {latitude: 45, longitude: 10, utc_offset_hours: 14.5}}", site},
        {"{cameras: [" + camera("A") + "], default_camera: 'B'}", "default_camera 'B' is not among the cameras"},
        {"{cameras: [" + camera("A") + "], default_camera: 'a'}", "default_camera 'a' is not among the cameras"},
    };
    for (const auto& [text, warning] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parseScene(text).lines, std::vector<std::string>{"warning: scene.json: " + warning});
    }
}

TEST(SceneDescriptionWarnings, FallbacksAreApplied) {
    Loaded a = parseScene("{version: 3, north_deg: -Infinity, cameras: [" +
                          camera("A", "fov_deg: 0, fov_axis: 'x', time: 'noon', exposure_ev: 11, wb_kelvin: 10") +
                          "], render_defaults: {wb_kelvin_interior: 50, wb_kelvin_exterior: 6000}}");
    EXPECT_EQ(a.lines.size(), 8u);
    EXPECT_EQ(a.scene.version, 3); // read as version 1 anyway
    EXPECT_EQ(a.scene.northDeg, 0.0f);
    ASSERT_EQ(a.scene.cameras.size(), 1u);
    const CameraDef& c = a.scene.cameras[0];
    EXPECT_EQ(c.fovDeg, 70.0f);
    EXPECT_EQ(c.fovAxis, "vertical");
    EXPECT_FALSE(c.time.has_value());
    EXPECT_FALSE(c.exposureEV.has_value());
    EXPECT_FALSE(c.wbKelvin.has_value());
    ASSERT_TRUE(a.scene.renderDefaults.has_value());
    EXPECT_FALSE(a.scene.renderDefaults->wbKelvinInterior.has_value());
    EXPECT_EQ(a.scene.renderDefaults->wbKelvinExterior, 6000.0f);
}

TEST(SceneDescriptionWarnings, ProblemsAreReportedInTableOrder) {
    Loaded a = parseScene(
        "{site: {latitude: 99, longitude: 0}, default_camera: 'Z', cameras: [" + camera("A", "time: 'x'") +
        "], render_defaults: 1, lights: [{}], north_deg: NaN, version: 0}");
    const std::string p = "warning: scene.json";
    const std::vector<std::string> expected = {
        p + ": version 0 (this renderer reads version 1)",
        p + ": north_deg is not finite - using 0",
        p + ": lights[0] skipped: lights[0]: missing required field 'position'",
        p + ": render_defaults ignored: render_defaults: expected object (found a number)",
        p + ": cameras[0] (A) time 'x' is not day, dusk or night - ignored",
        p + ": site ignored: it needs latitude (-90..90) and longitude (-180..180), and utc_offset_hours within 14",
        p + ": default_camera 'Z' is not among the cameras",
    };
    EXPECT_EQ(a.lines, expected);
}

TEST(SceneDescriptionWarnings, OneBadEntryCostsOnlyThatEntry) {
    Loaded a = parseScene(R"({
        // A JSON5 file with comments and trailing commas.
        cameras: [
            {name: 'Good', eye: [0, 1.5, 0], target: [1, 1.5, 0], time: 'DUSK', exposure_ev: 1.5,},
            {name: 'Short', eye: [0, 1.5], target: [1, 1.5, 0]},
            {name: 'Also good', eye: [5, 1.5, 5], target: [0, 1, 0], fov_axis: 'H'},
        ],
        lights: [
            {id: 'p1', kind: 'pendant', position: [0, 2.5, 0], lumens: 800},
            {id: 'bad', kind: 'pendant'},
            {id: 'off', position: [1, 2, 1], enabled: false},
        ],
    })");
    ASSERT_EQ(a.lines.size(), 2u);
    EXPECT_EQ(a.lines[0], "warning: scene.json: lights[1] (id bad) skipped: lights[1]: missing required field 'position'");
    EXPECT_EQ(a.lines[1], "warning: scene.json: cameras[1] (Short) skipped: eye and target must be 3 finite numbers");
    ASSERT_EQ(a.scene.cameras.size(), 2u);
    EXPECT_EQ(a.scene.cameras[0].name, "Good");
    EXPECT_EQ(a.scene.cameras[0].time, TimeOfDay::dusk);
    EXPECT_EQ(a.scene.cameras[1].name, "Also good");
    EXPECT_TRUE(a.scene.cameras[1].fovIsHorizontal());
    ASSERT_EQ(a.scene.lights.size(), 2u);
    EXPECT_EQ(a.scene.lights[0].lumens, 800.0f);
    ASSERT_EQ(a.scene.lightList().size(), 1u);
    EXPECT_EQ(a.scene.lightList()[0].id, "p1");
}

TEST(SceneDescriptionRecords, FullFileReadsOneToOne) {
    Loaded a = parseScene(R"({
        "version": 1, "north_deg": 12.5, "default_camera": "Kitchen",
        "lights": [{"id": "s1", "room": "kitchen", "kind": "strip", "position": [0, 2, 0], "end": [1, 2, 0],
                    "direction": [0, -1, 0], "lumens_per_m": 500, "kelvin": 3000, "radius": 0.01,
                    "cone_deg": 120, "width": 0.02, "enabled": true}],
        "cameras": [{"name": "Kitchen", "eye": [1, 1.6, 2, 99], "target": [3, 1.2, 2], "fov_deg": 60,
                     "fov_axis": "horizontal", "time": "night", "exposure_ev": -1, "wb_kelvin": 2700,
                     "unknown_key": "ignored"}],
        "render_defaults": {"wb_kelvin_interior": 3200, "wb_kelvin_exterior_night": 4100},
        "site": {"latitude": -33.86, "longitude": 151.21, "utc_offset_hours": 10}
    })");
    EXPECT_TRUE(a.lines.empty());
    const SceneDescription& s = a.scene;
    EXPECT_EQ(s.version, 1);
    EXPECT_EQ(s.northDeg, 12.5f);
    EXPECT_EQ(s.defaultCamera, "Kitchen");
    ASSERT_EQ(s.lights.size(), 1u);
    const LightDef& l = s.lights[0];
    EXPECT_EQ(l.room, "kitchen");
    EXPECT_EQ(l.kind, "strip");
    EXPECT_EQ(l.end, (std::vector<float>{1, 2, 0}));
    EXPECT_EQ(l.lumensPerM, 500.0f);
    EXPECT_EQ(l.width, 0.02f);
    EXPECT_EQ(l.enabled, true);
    ASSERT_EQ(s.cameras.size(), 1u);
    const CameraDef& c = s.cameras[0];
    EXPECT_EQ(c.eye, (float3{1, 1.6f, 2})); // only the first three numbers are used
    EXPECT_EQ(c.time, TimeOfDay::night);
    EXPECT_EQ(c.wbKelvin, 2700.0f);
    ASSERT_TRUE(s.renderDefaults);
    EXPECT_EQ(s.renderDefaults->wbKelvinInterior, 3200.0f);
    EXPECT_EQ(s.renderDefaults->wbKelvinExteriorNight, 4100.0f);
    ASSERT_TRUE(s.site);
    EXPECT_DOUBLE_EQ(s.site->latitude, -33.86);
    EXPECT_DOUBLE_EQ(s.site->longitude, 151.21);
    EXPECT_EQ(s.site->utcOffsetHours, 10.0);
}

TEST(SceneDescriptionRecords, NullOrMissingMeansAbsentForOptionalKeys) {
    Loaded a = parseScene("{version: null, north_deg: null, site: {latitude: 45, longitude: 10}, cameras: [" +
                          camera("A", "fov_deg: null") + "]}");
    EXPECT_TRUE(a.lines.empty());
    EXPECT_FALSE(a.scene.version);
    EXPECT_FALSE(a.scene.northDeg);
    EXPECT_FALSE(a.scene.cameras.at(0).fovDeg);
    ASSERT_TRUE(a.scene.site);
    EXPECT_FALSE(a.scene.site->utcOffsetHours.has_value()); // no offset: no time zone
}

TEST(SceneDescriptionFailures, TopLevelProblemsFailTheFile) {
    const std::pair<const char*, const char*> cases[] = { // text, message after the file name
        {"{north_deg: 'east'}", "north_deg: expected number (found a string)"},
        {"{version: 1.5}", "version: expected integer (the number 1.5 does not fit)"},
        {"{version: '1'}", "version: expected integer (found a string)"}, {"null", "missing object value"},
        {"{lights: {}}", "lights: expected array (found an object)"}, {"[1, 2]", "expected object (found an array)"},
        {"{cameras: 'none'}", "cameras: expected array (found a string)"},
        {"{default_camera: 1}", "default_camera: expected string (found a number)"},
        {"{cameras: [}", "unexpected character '}' where a value was expected at line 1, column 12"},
        {"{\n  a: 1,\n  b: \xFF\n}", "invalid UTF-8 byte 0xFF at line 3, column 6"},
    };
    for (const auto& [text, message] : cases) {
        try {
            parseScene(text);
            ADD_FAILURE() << "accepted " << text;
        } catch (const SceneError& e) {
            EXPECT_EQ(e.description(), "could not parse /house/scene.json: " + std::string(message));
        }
    }
}

class SceneFiles : public testing_support::ScratchDirTest {
protected:
    SceneFiles() : ScratchDirTest("qv_scene_") {}
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(dir / name, std::ios::binary) << text;
        return (dir / name).string();
    }
};

std::string loadError(const std::string& path) {
    try {
        SceneDescription::load(path, {});
    } catch (const SceneError& e) {
        return e.description();
    }
    return "(loaded)";
}

TEST_F(SceneFiles, UnreadableFilesFailWithTheSystemsReason) {
    const std::string missing = (dir / "missing.json").string(), big = (dir / "big.json").string();
    // A sparse file just above the cap: refused from its size, no 64 MB is read.
    std::ofstream(big).put(' ');
    fs::resize_file(big, kMaxContractFileBytes + 1);
    EXPECT_EQ(loadError(missing), "could not read " + missing + ": No such file or directory");
    EXPECT_EQ(loadError(dir.string()), "could not read " + dir.string() + ": Is a directory");
    EXPECT_EQ(loadError(big), "could not read " + big + ": the file is larger than 64 MB");
}

TEST_F(SceneFiles, BinaryGarbageFailsToParse) {
    std::string garbage;
    for (int i = 0; i < 1000; ++i) garbage += static_cast<char>((i * 7919) & 0xFF);
    const std::string path = write("garbage.json", garbage);
    EXPECT_NE(loadError(path), "(loaded)");
}

TEST_F(SceneFiles, WarningsNameTheFilesLastComponent) {
    const std::string path = write("my scene.json", "{version: 2}");
    std::vector<std::string> lines;
    SceneDescription::load(path, [&](std::string_view l) { lines.emplace_back(l); });
    EXPECT_EQ(lines, std::vector<std::string>{"warning: my scene.json: version 2 (this renderer reads version 1)"});
}

LoadedModel boxModel(float3 lo, float3 hi) {
    LoadedModel model;
    model.boundsMin = lo;
    model.boundsMax = hi;
    model.coreBoundsMin = lo;
    model.coreBoundsMax = hi;
    return model;
}

TEST(SceneDescriptionDefaults, CamerasFramedFromTheBounds) {
    struct Case {
        float3 lo, hi;
        float3 exteriorEye, exteriorTarget, centreEye, centreTarget;
    };
    // d = 1.1 max(width, depth) + 4; target height max(1.5, 0.6 (min.y + max.y) / 2).
    const Case cases[] = {
        {{-5, 0, -3}, {5, 7, 3}, {0 + 0.7f * 15, 1.6f, 0 + 0.9f * 15}, {0, 2.1f, 0}, {0, 1.5f, 0}, {3, 1.4f, 0}},
        {{0, 0, 0}, {2, 2, 10}, {1 + 0.7f * 15, 1.6f, 5 + 0.9f * 15}, {1, 1.5f, 5}, {1, 1.5f, 5}, {4, 1.4f, 5}},
    };
    for (const Case& c : cases) {
        SceneDescription s = SceneDescription::defaults(boxModel(c.lo, c.hi));
        EXPECT_EQ(s.version, 1);
        EXPECT_TRUE(s.lights.empty());
        EXPECT_EQ(s.northDeg, 0.0f);
        EXPECT_FALSE(s.renderDefaults);
        EXPECT_FALSE(s.site);
        EXPECT_EQ(s.defaultCamera, "Exterior");
        ASSERT_EQ(s.cameras.size(), 2u);
        const CameraDef& e = s.cameras[0];
        const CameraDef& m = s.cameras[1];
        EXPECT_EQ(e.name, "Exterior");
        EXPECT_EQ(m.name, "Centre");
        EXPECT_EQ(e.fovDeg, 50.0f);
        EXPECT_EQ(m.fovDeg, 65.0f);
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(e.eye[i], c.exteriorEye[i], 1e-4f);
            EXPECT_NEAR(e.target[i], c.exteriorTarget[i], 1e-4f);
            EXPECT_NEAR(m.eye[i], c.centreEye[i], 1e-4f);
            EXPECT_NEAR(m.target[i], c.centreTarget[i], 1e-4f);
        }
    }
}

TEST(CameraDefFieldOfView, EitherAxis) {
    struct Case {
        std::optional<float> fov;
        std::optional<std::string> axis;
        float aspect;
        double vertical, horizontal;
    };
    const double tan30 = std::tan(30.0 * M_PI / 180.0);
    const double deg = 180.0 / M_PI;
    const Case cases[] = {
        {60.0f, "horizontal", 16.0f / 9.0f, 2 * std::atan(tan30 * 9 / 16) * deg, 60.0},   // about 36.0 degrees
        {60.0f, "H", 16.0f / 9.0f, 2 * std::atan(tan30 * 9 / 16) * deg, 60.0},
        {60.0f, "vertical", 2.0f, 60.0, 2 * std::atan(2 * tan30) * deg},
        {60.0f, std::nullopt, 1.0f, 60.0, 60.0},
        {std::nullopt, std::nullopt, 1.0f, 70.0, 70.0},
        {90.0f, "h", 0.0f, 2 * std::atan(1.0 / 1e-6) * deg, 90.0}, // a degenerate aspect is guarded
    };
    for (const Case& c : cases) {
        const CameraDef cam{.fovDeg = c.fov, .fovAxis = c.axis};
        EXPECT_NEAR(cam.verticalFovDeg(c.aspect), c.vertical, 1e-4);
        EXPECT_NEAR(cam.horizontalFovDeg(c.aspect), c.horizontal, 1e-4);
    }
    CameraDef h{.fovDeg = 60.0f, .fovAxis = "horizontal"};
    EXPECT_NEAR(h.verticalFovDeg(16.0f / 9.0f), 36.0, 0.05);
}

TEST(CameraDefLook, AppliesOnlyAtTheCamerasTime) {
    const CameraDef dusk{.time = TimeOfDay::dusk, .exposureEV = 1.5f, .wbKelvin = 4000.0f};
    EXPECT_EQ(dusk.lookExposureEV(TimeOfDay::dusk), 1.5f);
    EXPECT_EQ(dusk.lookExposureEV(TimeOfDay::day), 0.0f);
    EXPECT_EQ(dusk.lookWbKelvin(TimeOfDay::dusk), 4000.0f);
    EXPECT_FALSE(dusk.lookWbKelvin(TimeOfDay::night));
    const CameraDef any{.exposureEV = -2.0f};
    for (TimeOfDay t : {TimeOfDay::day, TimeOfDay::dusk, TimeOfDay::night}) {
        EXPECT_TRUE(any.lookApplies(t));
        EXPECT_EQ(any.lookExposureEV(t), -2.0f);
    }
    EXPECT_EQ(CameraDef{}.lookExposureEV(TimeOfDay::day), 0.0f);
}

} // namespace
} // namespace qv
