#pragma once
// A fly-through camera path (path.json): timed keyframes of eye, target and
// field of view, optional timed white-balance/exposure keys, a frame rate and a
// time of day. Eye and target each follow a centripetal Catmull-Rom spline
// through their keyframes; the distance travelled along a spline is a
// monotone cubic (PCHIP) of time that passes every keyframe exactly at its
// t_s and starts and ends at rest, so speed is smooth and never reverses.
#include <nlohmann/json.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

// An invalid, unreadable or unparseable path file; what() is the whole sentence.
class PathError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    std::string description() const { return what(); }
};

using PathPoint = std::array<double, 3>; // model metres

// A spline through points at given times, reparameterised by arc length.
class Curve {
public:
    static constexpr int kTableSteps = 512;
    using Table = std::array<double, kTableSteps + 1>;

    Curve() = default;
    // points.size() == times.size() >= 2, times strictly increasing.
    Curve(const std::vector<PathPoint>& points, const std::vector<double>& times);

    // The point at time t (held at the ends outside the keyframe times).
    PathPoint at(double t) const;
    // Arc length travelled by time t: the PCHIP interpolant of L over T.
    double lengthAt(double t) const;

    // Fritsch-Butland slopes with zero end slopes (start and stop at rest).
    static std::vector<double> pchipSlopes(const std::vector<double>& x, const std::vector<double>& y);
    // The centripetal Catmull-Rom point between p1 and p2 at u in [0, 1]
    // (Barry-Goldman pyramid).
    static PathPoint segment(const PathPoint& p0, const PathPoint& p1, const PathPoint& p2, const PathPoint& p3,
                             double u);

    std::vector<PathPoint> ext;   // the points with one reflected point added at each end
    std::vector<double> T;        // keyframe times, seconds
    std::vector<double> L;        // cumulative arc length at each keyframe, L[0] = 0, metres
    std::vector<double> m;        // PCHIP slopes of L over T, metres per second
    std::vector<Table> tables;    // per segment: cumulative arc length at u = j / 512

private:
    size_t segmentIndex(double t) const;
};

struct CameraPathSample {
    PathPoint eye{};
    PathPoint target{};
    double fovDeg = 70;                 // degrees on the path's axis
    std::optional<int> wbKelvin;        // K
    std::optional<double> exposureEV;   // stops
};

struct CameraPath {
    struct Key {
        double t = 0;                   // seconds
        PathPoint eye{};
        PathPoint target{};
        double fovDeg = 70;             // degrees
        std::string label;
    };
    struct LookKey {
        double t = 0;                   // seconds
        double wbKelvin = 0;            // K; NaN when the key carries no white balance
        double exposureEV = 0;          // stops
    };

    std::string name;
    double fps = 30;
    double duration = 0;                // seconds
    int64_t frameCount = 0;
    std::optional<std::string> timeOfDay;
    bool fovAxisHorizontal = false;
    std::vector<Key> keys;
    std::vector<LookKey> look;
    Curve eyeCurve;
    Curve targetCurve;

    static constexpr double kDefaultFps = 30;
    static constexpr double kDefaultFovDeg = 70;
    // A path longer than this many frames is refused rather than rendered for ever.
    static constexpr double kMaxFrames = 10'000'000;

    // Reads and validates a file. Throws PathError.
    static CameraPath load(const std::string& path);
    // The same from an already parsed value; `name` is the file's name for messages and the default path name.
    static CameraPath fromJSON(const nlohmann::json& json, const std::string& name);

    CameraPathSample at(double t) const;
    // The time shown by frame i: i / fps seconds.
    double frameTime(int64_t frame) const { return static_cast<double>(frame) / fps; }

    // Piecewise-linear interpolation; NaN for an empty list, ends held.
    static double interp(double t, const std::vector<double>& xs, const std::vector<double>& ys);
};

} // namespace qv
