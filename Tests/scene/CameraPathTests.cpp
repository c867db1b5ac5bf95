// Camera paths: the validation sentences, frame counts, and the motion
// invariants (keyframes hit at their times, at rest at the ends, never
// backing up, continuous speed).
#include "scene/CameraPath.h"

#include "scene/Json5.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

namespace qv {
namespace {

CameraPath fromText(const std::string& text) { return CameraPath::fromJSON(parseJson5(text), "tour.json"); }

std::string key(double t, const std::string& eye = "[0, 1.5, 0]", const std::string& extra = "") {
    return "{t_s: " + std::to_string(t) + ", eye: " + eye + ", target: [0, 1.5, -5]" +
           (extra.empty() ? "" : ", " + extra) + "}";
}

// A path file with the given keyframes (and other members before them).
std::string pathText(const std::string& keyframes, const std::string& members = "") {
    return "{" + members + "keyframes: [" + keyframes + "]}";
}

TEST(CameraPathErrors, EachProblemHasItsSentence) {
    const std::string two = key(0) + ", " + key(2, "[1, 1.5, 0]"), k0 = key(0) + ", ", k1 = ", " + key(1);
    const std::string few = "needs a \"keyframes\" array with at least 2 entries";
    const std::string noT = "keyframe 0 has no numeric t_s", xyz = "keyframe 1 needs eye and target as [x, y, z]";
    const std::string usable = " is not a usable length in seconds";
    const std::pair<std::string, std::string> cases[] = { // text, message after "tour.json: "
        {"[]", "not a JSON object"},
        {"{}", few},
        {pathText(key(0)), few},
        {"{keyframes: {}}", few},
        {pathText(k0 + "5"), few},
        {pathText(k0 + "{eye: [1, 1, 1], target: [0, 0, 0]}"), "keyframe 1 has no numeric t_s"},
        {pathText("{t_s: '0', eye: [1, 1, 1], target: [0, 0, 0]}" + k1), noT},
        {pathText("{t_s: Infinity, eye: [1, 1, 1], target: [0, 0, 0]}" + k1), noT},
        {pathText(k0 + "{t_s: 1, eye: [1, 1], target: [0, 0, 0]}"), xyz},
        {pathText(k0 + "{t_s: 1, eye: [1, 1, 1, 1], target: [0, 0, 0]}"), xyz},
        {pathText(k0 + "{t_s: 1, eye: [1, 1, 1], target: [0, NaN, 0]}"), xyz},
        {pathText(key(0, "[0, 1.5, 0]", "fov_deg: 0.05") + k1), "keyframe 0 fov 0.05 is outside 0.1-179 degrees"},
        {pathText(key(0, "[0, 1.5, 0]", "fov_v_deg: 179") + k1), "keyframe 0 fov 179.0 is outside 0.1-179 degrees"},
        {pathText(key(0, "[0, 1.5, 0]", "fov_v_deg: 0.1") + k1), "keyframe 0 fov 0.1 is outside 0.1-179 degrees"},
        {pathText(key(2.5) + ", " + key(2.5)), "keyframe 1 t_s 2.5 is not after the previous one (2.5)"},
        {pathText(key(3) + ", " + key(1.25)), "keyframe 1 t_s 1.25 is not after the previous one (3.0)"},
        {pathText(two, "fps: 0, "), "fps 0.0 is outside 1-240"},
        {pathText(two, "fps: 241, "), "fps 241.0 is outside 1-240"},
        {pathText(two, "fps: -30, "), "fps -30.0 is outside 1-240"},
        {pathText(two, "fps: NaN, "), "fps nan is outside 1-240"},
        {pathText(two, "duration_s: -1, "), "duration_s -1.0" + usable},
        {pathText(two, "duration_s: 1e300, "), "duration_s 1e+300" + usable},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text);
        try {
            fromText(text);
            ADD_FAILURE() << "accepted";
        } catch (const PathError& e) {
            EXPECT_EQ(e.description(), "tour.json: " + message);
        }
    }
}

TEST(CameraPathReading, DefaultsAndOptions) {
    CameraPath a = fromText(pathText(key(1) + ", " + key(3.5, "[2, 1.5, 0]")));
    EXPECT_EQ(a.name, "tour.json");
    EXPECT_EQ(a.fps, 30.0);
    EXPECT_EQ(a.duration, 2.5);
    EXPECT_EQ(a.frameCount, 76);
    EXPECT_FALSE(a.timeOfDay);
    EXPECT_FALSE(a.fovAxisHorizontal);
    EXPECT_EQ(a.keys[0].fovDeg, 70.0);
    EXPECT_TRUE(a.look.empty());

    CameraPath b = fromText("{name: 'Walk', fps: 240, duration_s: 1.25, time_of_day: 'dusk', fov_axis: 'HORIZONTAL', "
                            "keyframes: [" + key(0, "[0, 1.5, 0]", "fov_v_deg: 50, fov_deg: 80, label: 'door'") + ", " +
                            key(1, "[1, 1.5, 0]", "fov_deg: 80") + "]}");
    EXPECT_EQ(b.name, "Walk");
    EXPECT_EQ(b.fps, 240.0);
    EXPECT_EQ(b.frameCount, 301);
    EXPECT_EQ(b.timeOfDay, "dusk");
    EXPECT_TRUE(b.fovAxisHorizontal);
    EXPECT_EQ(b.keys[0].fovDeg, 50.0); // fov_v_deg wins over fov_deg
    EXPECT_EQ(b.keys[0].label, "door");
    EXPECT_EQ(b.keys[1].fovDeg, 80.0);
}

TEST(CameraPathReading, FrameCountRoundsHalvesAwayFromZero) {
    struct Case {
        double fps, duration;
        int64_t frames;
    };
    const Case cases[] = {{2, 1.25, 4}, {30, 10, 301}, {1, 0.5, 2}, {1, 0.49, 1}, {24, 0, 1}};
    for (const Case& c : cases) {
        CameraPath p = fromText(pathText(key(0) + ", " + key(1, "[1, 1.5, 0]"), "fps: " + std::to_string(c.fps) +
                                             ", duration_s: " + std::to_string(c.duration) + ", "));
        EXPECT_EQ(p.frameCount, c.frames) << c.fps << " x " << c.duration;
    }
}

double distance(const PathPoint& a, const PathPoint& b) {
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) + (a[2] - b[2]) * (a[2] - b[2]));
}

TEST(CameraPathMotion, TwoKeyframesStartAndStopAtRest) {
    CameraPath p = fromText(pathText(key(0) + ", " + key(10, "[10, 1.5, 0]"), "fps: 30, "));
    ASSERT_EQ(p.frameCount, 301);
    std::vector<double> step;
    for (int64_t i = 1; i < p.frameCount; ++i)
        step.push_back(distance(p.at(p.frameTime(i)).eye, p.at(p.frameTime(i - 1)).eye));
    // The PCHIP with zero end slopes is 3s^2 - 2s^3 of the 10 m: the first frame moves about 3 (1/300)^2 x 10 m.
    EXPECT_LT(step.front(), 1e-3);
    EXPECT_LT(step.back(), 1e-3);
    const size_t fastest = static_cast<size_t>(std::max_element(step.begin(), step.end()) - step.begin());
    EXPECT_NEAR(double(fastest), 149.5, 1.0);
    EXPECT_NEAR(distance(p.at(0).eye, {0, 1.5, 0}), 0.0, 1e-9);
    EXPECT_NEAR(distance(p.at(10).eye, {10, 1.5, 0}), 0.0, 1e-9);
    EXPECT_NEAR(p.at(5).eye[0], 5.0, 1e-6);
}

TEST(CameraPathMotion, PassesEachKeyframeAtItsTimeAndNeverBacksUp) {
    // Equal spacing in space, unequal in time.
    CameraPath p = fromText(pathText(key(0) + ", " + key(1, "[4, 1.5, 0]") + ", " + key(6, "[8, 1.5, 0]")));
    EXPECT_NEAR(p.at(1.0).eye[0], 4.0, 1e-9);
    double previousX = -1;
    double previousSpeed = 0;
    const double dt = 1.0 / 1000;
    for (int i = 0; i <= 6000; ++i) {
        const double t = i * dt;
        const double x = p.at(t).eye[0];
        EXPECT_GE(x, previousX - 1e-12) << t;
        const double speed = (x - previousX) / dt;
        // A continuous speed changes by a small amount per millisecond (a jump would be metres per second).
        if (i > 1) {
            EXPECT_LT(std::fabs(speed - previousSpeed), 0.05) << t;
        }
        previousSpeed = speed;
        previousX = x;
    }
}

TEST(CameraPathMotion, CurvesFollowArcLength) {
    // On a straight line the position along it is the PCHIP arc length.
    CameraPath line = fromText(pathText(key(0, "[0, 0, 0]") + ", " + key(2, "[3, 0, 0]") + ", " + key(3, "[7, 0, 0]")));
    EXPECT_NEAR(line.eyeCurve.L[1], 3.0, 1e-9);
    EXPECT_NEAR(line.eyeCurve.L[2], 7.0, 1e-9);
    for (double t : {0.3, 0.9, 1.7, 2.5}) EXPECT_NEAR(line.at(t).eye[0], line.eyeCurve.lengthAt(t), 1e-4) << t;

    // Round a corner: keyframes are still passed exactly, and the ends are held outside the keyframe times.
    CameraPath p = fromText(pathText(key(0, "[0, 0, 0]") + ", " + key(2, "[3, 0, 0]") + ", " + key(3, "[3, 0, 4]")));
    EXPECT_GT(p.eyeCurve.L[2], 7.0); // the curve is longer than the chords
    EXPECT_NEAR(distance(p.at(2).eye, {3, 0, 0}), 0.0, 1e-9);
    EXPECT_NEAR(distance(p.at(3).eye, {3, 0, 4}), 0.0, 1e-9);
    EXPECT_NEAR(distance(p.at(-5).eye, {0, 0, 0}), 0.0, 1e-12);
    EXPECT_NEAR(distance(p.at(99).eye, {3, 0, 4}), 0.0, 1e-9);
}

TEST(CameraPathMotion, CoincidentEyesStayPut) {
    CameraPath p = fromText(pathText(key(0, "[1, 1.5, 1]") + ", " + key(2, "[1, 1.5, 1]") + ", " + key(4, "[5, 1.5, 1]")));
    // The knot spacing floor (0.0001) leaves a residual of nanometres, nothing a camera shows.
    EXPECT_LT(p.eyeCurve.tables[0].back(), 1e-7);
    for (double t : {0.0, 0.5, 1.0, 1.5, 2.0}) {
        PathPoint e = p.at(t).eye;
        EXPECT_TRUE(std::isfinite(e[0]));
        EXPECT_NEAR(distance(e, {1, 1.5, 1}), 0.0, 1e-7) << t;
    }
}

TEST(CameraPathMotion, SegmentInterpolatesItsEndPoints) {
    const PathPoint p0{0, 0, 0}, p1{1, 2, 0}, p2{3, 2, 1}, p3{4, 0, 1};
    EXPECT_NEAR(distance(Curve::segment(p0, p1, p2, p3, 0), p1), 0.0, 1e-12);
    EXPECT_NEAR(distance(Curve::segment(p0, p1, p2, p3, 1), p2), 0.0, 1e-12);
    // Collinear, evenly spaced points give the straight line between p1 and p2.
    PathPoint mid = Curve::segment({0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, 0.5);
    EXPECT_NEAR(mid[0], 1.5, 1e-12);
}

TEST(CameraPathInterp, PchipIsMonotoneAndFlatAtExtrema) {
    const std::vector<double> x{0, 1, 2, 3, 4}, y{0, 1, 1, 3, 2};
    const std::vector<double> m = Curve::pchipSlopes(x, y);
    EXPECT_EQ(m[0], 0.0);
    EXPECT_EQ(m[4], 0.0);
    EXPECT_EQ(m[2], 0.0); // a flat neighbour
    EXPECT_EQ(m[3], 0.0); // a local maximum
    // Equal steps make the Fritsch-Butland slope the harmonic mean of the secants 1 and 2: 4/3.
    const std::vector<double> m2 = Curve::pchipSlopes({0, 1, 2}, {0, 1, 3});
    EXPECT_NEAR(m2[1], 4.0 / 3.0, 1e-12);
}

TEST(CameraPathInterp, PiecewiseLinear) {
    EXPECT_TRUE(std::isnan(CameraPath::interp(1, {}, {})));
    const std::vector<double> xs{0, 2, 2, 4}, ys{10, 20, 30, 40};
    // Clamped at the ends; at a repeated abscissa the first value holds.
    const std::pair<double, double> cases[] = {{-1, 10}, {1, 15}, {2, 20}, {3, 35}, {9, 40}};
    for (const auto& [x, y] : cases)
        EXPECT_EQ(CameraPath::interp(x, xs, ys), y) << x;
}

TEST(CameraPathLook, KeysBlendWhiteBalanceExposureAndFieldOfView) {
    const std::string frames = key(0) + ", " + key(4, "[4, 1.5, 0]");
    CameraPath p = fromText("{keyframes: [" + frames +
                            "], look_keys: [{t_s: 0, wb_kelvin: 3200, exposure_ev: 0}, {t_s: 4, wb_kelvin: 5600, "
                            "exposure_ev: 1}, {wb_kelvin: 9000}, 'junk']}");
    ASSERT_EQ(p.look.size(), 2u); // the key without t_s and the non-object are skipped
    CameraPathSample s = p.at(2);
    EXPECT_EQ(s.wbKelvin, 4400);
    ASSERT_TRUE(s.exposureEV);
    EXPECT_DOUBLE_EQ(*s.exposureEV, 0.5);

    CameraPath q = fromText("{look_keys: [{t_s: 0, wb_kelvin: 3000}, {t_s: 2}], keyframes: [" + frames + "]}");
    EXPECT_EQ(q.at(0).wbKelvin, 3000);
    EXPECT_FALSE(q.at(1).wbKelvin); // no white balance on one side switches it off
    EXPECT_EQ(q.at(1).exposureEV, 0.0);

    CameraPath none = fromText(pathText(frames));
    EXPECT_FALSE(none.at(1).wbKelvin);
    EXPECT_FALSE(none.at(1).exposureEV);

    CameraPath fov = fromText(pathText(key(0, "[0, 1.5, 0]", "fov_deg: 40") + ", " + key(2, "[1, 1.5, 0]", "fov_deg: 80")));
    EXPECT_DOUBLE_EQ(fov.at(1).fovDeg, 60.0);
    EXPECT_DOUBLE_EQ(fov.at(5).fovDeg, 80.0);
}

TEST(CameraPathFiles, ReadsJson5AndReportsFileProblems) {
    const auto dir = std::filesystem::temp_directory_path() / "qv_camera_path_test";
    std::filesystem::create_directories(dir);
    const auto good = dir / "walk.json";
    std::ofstream(good) << "// designer output\n{keyframes: [" << key(0) << ", " << key(1, "[1, 1.5, 0]") << ",],}";
    CameraPath p = CameraPath::load(good.string());
    EXPECT_EQ(p.name, "walk.json");
    EXPECT_EQ(p.frameCount, 31);

    const auto bad = dir / "bad.json";
    std::ofstream(bad) << "{keyframes: [\n  oops]}";
    const auto missing = dir / "missing.json";
    auto loadError = [](const std::filesystem::path& path) {
        try {
            CameraPath::load(path.string());
        } catch (const PathError& e) {
            return e.description();
        }
        return std::string("(loaded)");
    };
    EXPECT_EQ(loadError(bad), "could not parse " + bad.string() +
                                  ": unexpected identifier 'oops' where a value was expected at line 2, column 3");
    EXPECT_EQ(loadError(missing), "could not read " + missing.string() + ": No such file or directory");
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace qv
