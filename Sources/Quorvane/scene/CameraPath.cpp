#include "scene/CameraPath.h"

#include "scene/BoundedFileRead.h"
#include "scene/Json5.h"
#include "scene/SceneDescription.h"
#include "scene/TextFormat.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <filesystem>
#include <limits>

namespace qv {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

PathPoint operator-(const PathPoint& a, const PathPoint& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }

double length(const PathPoint& v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

// (wa a + wb b) / denominator, the step of every pyramid level.
PathPoint blend(double wa, const PathPoint& a, double wb, const PathPoint& b, double denominator) {
    return {(wa * a[0] + wb * b[0]) / denominator, (wa * a[1] + wb * b[1]) / denominator,
            (wa * a[2] + wb * b[2]) / denominator};
}

// A JSON number of any kind as a double.
std::optional<double> number(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    return it->get<double>();
}

std::optional<std::string> text(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

// Exactly three finite numbers.
std::optional<PathPoint> point3(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_array() || it->size() != 3) return std::nullopt;
    PathPoint p{};
    for (size_t i = 0; i < 3; ++i) {
        const nlohmann::json& v = (*it)[i];
        if (!v.is_number()) return std::nullopt;
        p[i] = v.get<double>();
        if (!std::isfinite(p[i])) return std::nullopt;
    }
    return p;
}

} // namespace

// ---------------------------------------------------------------------------
// Curve

Curve::Curve(const std::vector<PathPoint>& points, const std::vector<double>& times) : T(times) {
    const size_t n = points.size();
    auto reflect = [](const PathPoint& a, const PathPoint& b) {
        return PathPoint{2 * a[0] - b[0], 2 * a[1] - b[1], 2 * a[2] - b[2]};
    };
    ext.reserve(n + 2);
    ext.push_back(reflect(points[0], points[1]));
    ext.insert(ext.end(), points.begin(), points.end());
    ext.push_back(reflect(points[n - 1], points[n - 2]));

    tables.resize(n - 1);
    L.assign(n, 0.0);
    for (size_t k = 0; k + 1 < n; ++k) {
        Table& table = tables[k];
        table[0] = 0;
        PathPoint previous = segment(ext[k], ext[k + 1], ext[k + 2], ext[k + 3], 0.0);
        for (int j = 1; j <= kTableSteps; ++j) {
            PathPoint p = segment(ext[k], ext[k + 1], ext[k + 2], ext[k + 3], double(j) / kTableSteps);
            table[j] = table[j - 1] + length(p - previous);
            previous = p;
        }
        L[k + 1] = L[k] + table[kTableSteps];
    }
    m = pchipSlopes(T, L);
}

PathPoint Curve::segment(const PathPoint& p0, const PathPoint& p1, const PathPoint& p2, const PathPoint& p3,
                         double u) {
    // Centripetal knots: spacing is the square root of the chord length.
    const double d01 = std::max(std::sqrt(length(p1 - p0)), 0.0001);
    const double d12 = std::max(std::sqrt(length(p2 - p1)), 0.0001);
    const double d23 = std::max(std::sqrt(length(p3 - p2)), 0.0001);
    const double t0 = 0, t1 = d01, t2 = t1 + d12, t3 = t2 + d23;
    const double t = t1 + u * (t2 - t1);
    const PathPoint a1 = blend(t1 - t, p0, t - t0, p1, t1 - t0);
    const PathPoint a2 = blend(t2 - t, p1, t - t1, p2, t2 - t1);
    const PathPoint a3 = blend(t3 - t, p2, t - t2, p3, t3 - t2);
    const PathPoint b1 = blend(t2 - t, a1, t - t0, a2, t2 - t0);
    const PathPoint b2 = blend(t3 - t, a2, t - t1, a3, t3 - t1);
    return blend(t2 - t, b1, t - t1, b2, t2 - t1);
}

std::vector<double> Curve::pchipSlopes(const std::vector<double>& x, const std::vector<double>& y) {
    const size_t n = x.size();
    std::vector<double> slopes(n, 0.0);
    if (n < 3) return slopes;
    for (size_t k = 1; k + 1 < n; ++k) {
        const double hPrev = x[k] - x[k - 1], h = x[k + 1] - x[k];
        const double dPrev = (y[k] - y[k - 1]) / hPrev, d = (y[k + 1] - y[k]) / h;
        if (dPrev * d <= 0) continue;
        const double w1 = 2 * h + hPrev, w2 = h + 2 * hPrev;
        slopes[k] = (w1 + w2) / (w1 / dPrev + w2 / d);
    }
    return slopes;
}

size_t Curve::segmentIndex(double t) const {
    const size_t n = T.size();
    size_t firstGreater = static_cast<size_t>(std::upper_bound(T.begin(), T.end(), t) - T.begin());
    size_t k = firstGreater == 0 ? 0 : firstGreater - 1;
    return std::min(k, n - 2);
}

double Curve::lengthAt(double t) const {
    t = std::clamp(t, T.front(), T.back());
    const size_t k = segmentIndex(t);
    const double h = T[k + 1] - T[k];
    const double s = (t - T[k]) / h, s2 = s * s, s3 = s2 * s;
    return (2 * s3 - 3 * s2 + 1) * L[k] + h * (s3 - 2 * s2 + s) * m[k] + (3 * s2 - 2 * s3) * L[k + 1] +
           h * (s3 - s2) * m[k + 1];
}

PathPoint Curve::at(double t) const {
    const double tc = std::clamp(t, T.front(), T.back());
    const size_t k = segmentIndex(tc);
    const Table& table = tables[k];
    const double segmentLength = table[kTableSteps];
    const double d = std::clamp(lengthAt(tc) - L[k], 0.0, segmentLength);
    double u = 0;
    if (segmentLength > 1e-9) {
        int lo = 0, hi = kTableSteps;
        while (hi - lo > 1) {
            int mid = (lo + hi) / 2;
            if (table[mid] <= d) lo = mid;
            else hi = mid;
        }
        const double step = table[lo + 1] - table[lo];
        const double fraction = step > 0 ? (d - table[lo]) / step : 1.0;
        u = (lo + fraction) * (1.0 / kTableSteps);
    }
    return segment(ext[k], ext[k + 1], ext[k + 2], ext[k + 3], u);
}

// ---------------------------------------------------------------------------
// CameraPath

double CameraPath::interp(double t, const std::vector<double>& xs, const std::vector<double>& ys) {
    if (xs.empty()) return kNaN;
    if (t <= xs.front()) return ys.front();
    if (t >= xs.back()) return ys.back();
    for (size_t i = 0; i + 1 < xs.size(); ++i) {
        if (xs[i] < t && t <= xs[i + 1]) {
            const double span = xs[i + 1] - xs[i];
            if (span <= 0) return ys[i + 1];
            const double w = (t - xs[i]) / span;
            return ys[i] + (ys[i + 1] - ys[i]) * w;
        }
    }
    return ys.back();
}

CameraPath CameraPath::load(const std::string& path) {
    std::string bytes;
    try {
        bytes = readFileBounded(path, kMaxContractFileBytes);
    } catch (const FileReadError& error) {
        throw PathError("could not read " + path + ": " + error.what());
    }
    nlohmann::json json;
    try {
        json = parseJson5(bytes);
    } catch (const Json5Error& error) {
        throw PathError("could not parse " + path + ": " + error.what());
    }
    return fromJSON(json, std::filesystem::path(path).filename().string());
}

CameraPath CameraPath::fromJSON(const nlohmann::json& json, const std::string& name) {
    auto invalid = [&](const std::string& message) { return PathError(name + ": " + message); };
    if (!json.is_object()) throw invalid("not a JSON object");

    auto frames = json.find("keyframes");
    bool usable = frames != json.end() && frames->is_array() && frames->size() >= 2 &&
                  std::all_of(frames->begin(), frames->end(), [](const nlohmann::json& k) { return k.is_object(); });
    if (!usable) throw invalid("needs a \"keyframes\" array with at least 2 entries");

    CameraPath path;
    for (size_t i = 0; i < frames->size(); ++i) {
        const nlohmann::json& frame = (*frames)[i];
        const std::string index = std::to_string(i);
        Key key;
        std::optional<double> t = number(frame, "t_s");
        if (!t || !std::isfinite(*t)) throw invalid("keyframe " + index + " has no numeric t_s");
        key.t = *t;
        std::optional<PathPoint> eye = point3(frame, "eye"), target = point3(frame, "target");
        if (!eye || !target) throw invalid("keyframe " + index + " needs eye and target as [x, y, z]");
        key.eye = *eye;
        key.target = *target;
        std::optional<double> fov = number(frame, "fov_v_deg");
        if (!fov) fov = number(frame, "fov_deg");
        if (fov && !(*fov > 0.1 && *fov < 179.0))
            throw invalid("keyframe " + index + " fov " + formatDouble(*fov) + " is outside 0.1-179 degrees");
        key.fovDeg = fov.value_or(kDefaultFovDeg);
        if (i > 0 && !(key.t > path.keys.back().t))
            throw invalid("keyframe " + index + " t_s " + formatDouble(key.t) + " is not after the previous one (" +
                          formatDouble(path.keys.back().t) + ")");
        key.label = text(frame, "label").value_or("");
        path.keys.push_back(std::move(key));
    }

    path.fps = number(json, "fps").value_or(kDefaultFps);
    if (!(path.fps > 0 && path.fps <= 240)) throw invalid("fps " + formatDouble(path.fps) + " is outside 1-240");

    path.name = text(json, "name").value_or(name);
    path.duration = number(json, "duration_s").value_or(path.keys.back().t - path.keys.front().t);
    if (!(path.duration >= 0 && path.fps * path.duration <= kMaxFrames))
        throw invalid("duration_s " + formatDouble(path.duration) + " is not a usable length in seconds");
    path.frameCount = static_cast<int64_t>(std::llround(path.fps * path.duration)) + 1;
    path.timeOfDay = text(json, "time_of_day");
    if (auto axis = text(json, "fov_axis")) {
        std::string lower = *axis;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        path.fovAxisHorizontal = lower == "horizontal";
    }

    auto lookKeys = json.find("look_keys");
    if (lookKeys != json.end() && lookKeys->is_array()) {
        for (const nlohmann::json& entry : *lookKeys) {
            if (!entry.is_object()) continue;
            std::optional<double> t = number(entry, "t_s");
            if (!t) continue;
            path.look.push_back({*t, number(entry, "wb_kelvin").value_or(kNaN), number(entry, "exposure_ev").value_or(0)});
        }
        std::stable_sort(path.look.begin(), path.look.end(),
                         [](const LookKey& a, const LookKey& b) { return a.t < b.t; });
    }

    std::vector<double> times;
    std::vector<PathPoint> eyes, targets;
    for (const Key& key : path.keys) {
        times.push_back(key.t);
        eyes.push_back(key.eye);
        targets.push_back(key.target);
    }
    path.eyeCurve = Curve(eyes, times);
    path.targetCurve = Curve(targets, times);
    return path;
}

CameraPathSample CameraPath::at(double t) const {
    CameraPathSample sample;
    sample.eye = eyeCurve.at(t);
    sample.target = targetCurve.at(t);
    std::vector<double> times, fovs;
    for (const Key& key : keys) {
        times.push_back(key.t);
        fovs.push_back(key.fovDeg);
    }
    sample.fovDeg = interp(t, times, fovs);
    if (!look.empty()) {
        std::vector<double> lookTimes, kelvins, exposures;
        for (const LookKey& key : look) {
            lookTimes.push_back(key.t);
            kelvins.push_back(key.wbKelvin);
            exposures.push_back(key.exposureEV);
        }
        const double kelvin = interp(t, lookTimes, kelvins);
        if (std::isfinite(kelvin))
            sample.wbKelvin = static_cast<int>(std::clamp(std::trunc(kelvin), double(INT_MIN), double(INT_MAX)));
        sample.exposureEV = interp(t, lookTimes, exposures);
    }
    return sample;
}

} // namespace qv
