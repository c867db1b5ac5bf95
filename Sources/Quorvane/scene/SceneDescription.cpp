#include "scene/SceneDescription.h"

#include "scene/BoundedFileRead.h"
#include "scene/DefaultSearch.h"
#include "scene/Json5.h"
#include "scene/TextFormat.h"

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <limits>

namespace qv {

namespace fs = std::filesystem;

namespace {

constexpr double kPi = 3.14159265358979323846;

std::string lowercase(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// ---------------------------------------------------------------------------
// A typed reader over nlohmann values that reports failures the way a
// Decodable decoder does: a coding path from the root, then what went wrong.

struct DecodeFailure {
    std::string description;
};

// "lights[2].position" from ".lights[2].position"; the message follows a colon when there is a path.
std::string describe(const std::string& path, const std::string& message) {
    std::string p = (!path.empty() && path[0] == '.') ? path.substr(1) : path;
    return p.empty() ? message : p + ": " + message;
}

std::string childPath(const std::string& path, const std::string& key) { return path + "." + key; }
std::string childPath(const std::string& path, size_t index) { return path + "[" + std::to_string(index) + "]"; }

std::string foundText(const nlohmann::json& v) {
    switch (v.type()) {
    case nlohmann::json::value_t::object: return "found an object";
    case nlohmann::json::value_t::array: return "found an array";
    case nlohmann::json::value_t::string: return "found a string";
    case nlohmann::json::value_t::boolean: return "found a bool";
    case nlohmann::json::value_t::null: return "found null";
    default: return "found a number";
    }
}

[[noreturn]] void wrongType(const std::string& path, const char* expected, const std::string& detail) {
    throw DecodeFailure{describe(path, std::string("expected ") + expected + " (" + detail + ")")};
}

[[noreturn]] void nullValue(const std::string& path, const char* type) {
    throw DecodeFailure{describe(path, std::string("missing ") + type + " value")};
}

// A JSON number narrowed to single precision; magnitudes beyond its range become +/-infinity.
float toFloat(double d) {
    if (std::isnan(d)) return std::numeric_limits<float>::quiet_NaN();
    if (d > static_cast<double>(FLT_MAX)) return std::numeric_limits<float>::infinity();
    if (d < -static_cast<double>(FLT_MAX)) return -std::numeric_limits<float>::infinity();
    return static_cast<float>(d);
}

double readDouble(const nlohmann::json& v, const std::string& path) {
    if (v.is_null()) nullValue(path, "number");
    if (!v.is_number()) wrongType(path, "number", foundText(v));
    return v.get<double>();
}

float readFloat(const nlohmann::json& v, const std::string& path) { return toFloat(readDouble(v, path)); }

int readInt(const nlohmann::json& v, const std::string& path) {
    if (v.is_null()) nullValue(path, "integer");
    if (!v.is_number()) wrongType(path, "integer", foundText(v));
    if (v.is_number_integer() && !v.is_number_unsigned()) {
        int64_t i = v.get<int64_t>();
        if (i >= std::numeric_limits<int>::min() && i <= std::numeric_limits<int>::max()) return static_cast<int>(i);
    } else if (v.is_number_unsigned()) {
        uint64_t u = v.get<uint64_t>();
        if (u <= static_cast<uint64_t>(std::numeric_limits<int>::max())) return static_cast<int>(u);
    } else {
        double d = v.get<double>();
        if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) <= std::numeric_limits<int>::max())
            return static_cast<int>(d);
    }
    wrongType(path, "integer", "the number " + formatDouble(v.get<double>()) + " does not fit");
}

std::string readString(const nlohmann::json& v, const std::string& path) {
    if (v.is_null()) nullValue(path, "string");
    if (!v.is_string()) wrongType(path, "string", foundText(v));
    return v.get<std::string>();
}

bool readBool(const nlohmann::json& v, const std::string& path) {
    if (v.is_null()) nullValue(path, "bool");
    if (!v.is_boolean()) wrongType(path, "bool", foundText(v));
    return v.get<bool>();
}

std::vector<float> readFloatArray(const nlohmann::json& v, const std::string& path) {
    if (v.is_null()) nullValue(path, "array");
    if (!v.is_array()) wrongType(path, "array", foundText(v));
    std::vector<float> out;
    out.reserve(v.size());
    for (size_t i = 0; i < v.size(); ++i) out.push_back(readFloat(v[i], childPath(path, i)));
    return out;
}

void requireObject(const nlohmann::json& v, const std::string& path) {
    if (v.is_null()) nullValue(path, "object");
    if (!v.is_object()) wrongType(path, "object", foundText(v));
}

// Optional members: absent or null mean "not given".
const nlohmann::json* member(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

template <class Read>
auto optionalMember(const nlohmann::json& object, const char* key, const std::string& path, Read read)
    -> std::optional<decltype(read(object, path))> {
    if (const nlohmann::json* v = member(object, key)) return read(*v, childPath(path, key));
    return std::nullopt;
}

template <class Read>
auto requiredMember(const nlohmann::json& object, const char* key, const std::string& path, Read read)
    -> decltype(read(object, path)) {
    auto it = object.find(key);
    if (it == object.end()) throw DecodeFailure{describe(path, std::string("missing required field '") + key + "'")};
    return read(*it, childPath(path, key));
}

// ---------------------------------------------------------------------------
// The records, decoded field by field in declaration order.

CameraDef decodeCamera(const nlohmann::json& v, const std::string& path, std::vector<float>& eye,
                       std::vector<float>& target, std::optional<std::string>& time) {
    requireObject(v, path);
    CameraDef c;
    c.name = requiredMember(v, "name", path, readString);
    eye = requiredMember(v, "eye", path, readFloatArray);
    target = requiredMember(v, "target", path, readFloatArray);
    c.fovDeg = optionalMember(v, "fov_deg", path, readFloat);
    c.fovAxis = optionalMember(v, "fov_axis", path, readString);
    time = optionalMember(v, "time", path, readString);
    c.exposureEV = optionalMember(v, "exposure_ev", path, readFloat);
    c.wbKelvin = optionalMember(v, "wb_kelvin", path, readFloat);
    return c;
}

LightDef decodeLight(const nlohmann::json& v, const std::string& path) {
    requireObject(v, path);
    LightDef l;
    l.id = optionalMember(v, "id", path, readString);
    l.room = optionalMember(v, "room", path, readString);
    l.kind = optionalMember(v, "kind", path, readString);
    l.position = requiredMember(v, "position", path, readFloatArray);
    l.end = optionalMember(v, "end", path, readFloatArray);
    l.direction = optionalMember(v, "direction", path, readFloatArray);
    l.lumens = optionalMember(v, "lumens", path, readFloat);
    l.lumensPerM = optionalMember(v, "lumens_per_m", path, readFloat);
    l.kelvin = optionalMember(v, "kelvin", path, readFloat);
    l.radius = optionalMember(v, "radius", path, readFloat);
    l.coneDeg = optionalMember(v, "cone_deg", path, readFloat);
    l.width = optionalMember(v, "width", path, readFloat);
    l.enabled = optionalMember(v, "enabled", path, readBool);
    return l;
}

struct RenderDefaultKey {
    const char* key;
    std::optional<float> RenderDefaults::*field;
};

constexpr RenderDefaultKey kRenderDefaultKeys[] = {
    {"wb_kelvin_interior", &RenderDefaults::wbKelvinInterior},
    {"wb_kelvin_interior_dusk", &RenderDefaults::wbKelvinInteriorDusk},
    {"wb_kelvin_interior_night", &RenderDefaults::wbKelvinInteriorNight},
    {"wb_kelvin_exterior", &RenderDefaults::wbKelvinExterior},
    {"wb_kelvin_exterior_dusk", &RenderDefaults::wbKelvinExteriorDusk},
    {"wb_kelvin_exterior_night", &RenderDefaults::wbKelvinExteriorNight},
};

RenderDefaults decodeRenderDefaults(const nlohmann::json& v, const std::string& path) {
    requireObject(v, path);
    RenderDefaults r;
    for (const auto& entry : kRenderDefaultKeys) r.*entry.field = optionalMember(v, entry.key, path, readFloat);
    return r;
}

struct RawSite {
    std::optional<double> latitude, longitude, utcOffsetHours;
};

RawSite decodeSite(const nlohmann::json& v, const std::string& path) {
    requireObject(v, path);
    RawSite s;
    s.latitude = optionalMember(v, "latitude", path, readDouble);
    s.longitude = optionalMember(v, "longitude", path, readDouble);
    s.utcOffsetHours = optionalMember(v, "utc_offset_hours", path, readDouble);
    return s;
}

bool kelvinInRange(float k) { return k >= 1000.0f && k <= 25000.0f; }

std::optional<TimeOfDay> timeFromName(const std::string& name) {
    return enumFromName(kTimeOfDayNames, lowercase(name));
}

bool finite3(const std::vector<float>& v) {
    return v.size() >= 3 && std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

double distance(float3 a, float3 b) {
    double dx = double(a.x) - b.x, dy = double(a.y) - b.y, dz = double(a.z) - b.z;
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

} // namespace

// ---------------------------------------------------------------------------
// CameraDef

bool CameraDef::fovIsHorizontal() const { return fovAxis && lowercase(*fovAxis).rfind("h", 0) == 0; }

float CameraDef::verticalFovDeg(float aspect) const {
    float angle = fovAngleDeg();
    if (!fovIsHorizontal()) return angle;
    double half = double(angle) * kPi / 360.0;
    return static_cast<float>(2.0 * std::atan(std::tan(half) / std::max(double(aspect), 1e-6)) * 180.0 / kPi);
}

float CameraDef::horizontalFovDeg(float aspect) const {
    float angle = fovAngleDeg();
    if (fovIsHorizontal()) return angle;
    double half = double(angle) * kPi / 360.0;
    return static_cast<float>(2.0 * std::atan(double(aspect) * std::tan(half)) * 180.0 / kPi);
}

bool CameraDef::lookApplies(TimeOfDay t) const { return !time || *time == t; }

float CameraDef::lookExposureEV(TimeOfDay t) const { return lookApplies(t) ? exposureEV.value_or(0.0f) : 0.0f; }

std::optional<float> CameraDef::lookWbKelvin(TimeOfDay t) const {
    return lookApplies(t) ? wbKelvin : std::nullopt;
}

// ---------------------------------------------------------------------------
// SceneDescription

SceneDescription SceneDescription::load(const std::string& path, const LogSink& log) {
    std::string bytes;
    try {
        bytes = readFileBounded(path, kMaxContractFileBytes);
    } catch (const FileReadError& error) {
        throw SceneError("could not read " + path + ": " + error.what());
    }
    return parse(bytes, path, log);
}

SceneDescription SceneDescription::parse(std::string_view text, const std::string& path, const LogSink& log) {
    nlohmann::json root;
    try {
        root = parseJson5(text);
    } catch (const Json5Error& error) {
        throw SceneError("could not parse " + path + ": " + error.what());
    }

    const std::string fileName = fs::path(path).filename().string();
    auto warn = [&](const std::string& message) {
        if (log) log("warning: " + fileName + message);
    };

    // The top level and its own keys must decode; elements are read one by one below.
    SceneDescription scene;
    const nlohmann::json* lights = nullptr;
    const nlohmann::json* cameras = nullptr;
    const nlohmann::json* renderDefaults = nullptr;
    const nlohmann::json* site = nullptr;
    try {
        requireObject(root, "");
        scene.version = optionalMember(root, "version", "", readInt);
        lights = member(root, "lights");
        if (lights && !lights->is_array()) wrongType(".lights", "array", foundText(*lights));
        cameras = member(root, "cameras");
        if (cameras && !cameras->is_array()) wrongType(".cameras", "array", foundText(*cameras));
        scene.defaultCamera = optionalMember(root, "default_camera", "", readString);
        scene.northDeg = optionalMember(root, "north_deg", "", readFloat);
        renderDefaults = member(root, "render_defaults");
        site = member(root, "site");
    } catch (const DecodeFailure& failure) {
        throw SceneError("could not parse " + path + ": " + failure.description);
    }

    if (scene.version && *scene.version != 1)
        warn(": version " + std::to_string(*scene.version) + " (this renderer reads version 1)");
    if (scene.northDeg && !std::isfinite(*scene.northDeg)) {
        warn(": north_deg is not finite - using 0");
        scene.northDeg = 0.0f;
    }

    if (lights) {
        for (size_t i = 0; i < lights->size(); ++i) {
            const nlohmann::json& element = (*lights)[i];
            std::string label;
            if (element.is_object()) {
                auto id = element.find("id");
                if (id != element.end() && id->is_string()) label = " (id " + id->get<std::string>() + ")";
            }
            try {
                scene.lights.push_back(decodeLight(element, childPath(".lights", i)));
            } catch (const DecodeFailure& failure) {
                warn(": lights[" + std::to_string(i) + "]" + label + " skipped: " + failure.description);
            }
        }
    }

    if (renderDefaults) {
        try {
            RenderDefaults defaults = decodeRenderDefaults(*renderDefaults, ".render_defaults");
            for (const auto& entry : kRenderDefaultKeys) {
                std::optional<float>& value = defaults.*entry.field;
                if (value && !kelvinInRange(*value)) {
                    warn(std::string(": render_defaults.") + entry.key + " " + formatFloat(*value) +
                         " is outside 1000-25000 - ignored");
                    value.reset();
                }
            }
            scene.renderDefaults = defaults;
        } catch (const DecodeFailure& failure) {
            warn(": render_defaults ignored: " + failure.description);
        }
    }

    if (cameras) {
        for (size_t i = 0; i < cameras->size(); ++i) {
            const nlohmann::json& element = (*cameras)[i];
            const std::string index = std::to_string(i);
            std::string label;
            if (element.is_object()) {
                auto id = element.find("id");
                if (id != element.end() && id->is_string()) label = " (id " + id->get<std::string>() + ")";
            }
            CameraDef camera;
            std::vector<float> eye, target;
            std::optional<std::string> time;
            try {
                camera = decodeCamera(element, childPath(".cameras", i), eye, target, time);
            } catch (const DecodeFailure& failure) {
                warn(": cameras[" + index + "]" + label + " skipped: " + failure.description);
                continue;
            }
            const std::string prefix = ": cameras[" + index + "] (" + camera.name + ")";
            if (!finite3(eye) || !finite3(target)) {
                warn(prefix + " skipped: eye and target must be 3 finite numbers");
                continue;
            }
            camera.eye = {eye[0], eye[1], eye[2]};
            camera.target = {target[0], target[1], target[2]};
            if (distance(camera.eye, camera.target) < 1e-5) {
                warn(prefix + " skipped: eye and target coincide");
                continue;
            }
            if (camera.fovDeg && !(*camera.fovDeg >= 0.1f && *camera.fovDeg <= 179.0f)) {
                warn(prefix + " fov_deg " + formatFloat(*camera.fovDeg) + " is outside 0.1-179.0 - using 70.0");
                camera.fovDeg = CameraDef::kDefaultFovDeg;
            }
            if (camera.fovAxis) {
                std::string axis = lowercase(*camera.fovAxis);
                if (axis != "vertical" && axis != "horizontal" && axis != "v" && axis != "h") {
                    warn(prefix + " fov_axis '" + *camera.fovAxis + "' is not vertical or horizontal - using vertical");
                    camera.fovAxis = "vertical";
                }
            }
            if (time) {
                camera.time = timeFromName(*time);
                if (!camera.time) warn(prefix + " time '" + *time + "' is not day, dusk or night - ignored");
            }
            if (camera.exposureEV && !(std::fabs(*camera.exposureEV) <= 10.0f)) {
                warn(prefix + " exposure_ev " + formatFloat(*camera.exposureEV) + " is outside -10..10 - ignored");
                camera.exposureEV.reset();
            }
            if (camera.wbKelvin && !kelvinInRange(*camera.wbKelvin)) {
                warn(prefix + " wb_kelvin " + formatFloat(*camera.wbKelvin) + " is outside 1000-25000 - ignored");
                camera.wbKelvin.reset();
            }
            scene.cameras.push_back(std::move(camera));
        }
    }

    if (site) {
        try {
            RawSite raw = decodeSite(*site, ".site");
            bool usable = raw.latitude && raw.longitude && std::isfinite(*raw.latitude) &&
                          std::isfinite(*raw.longitude) && std::fabs(*raw.latitude) <= 90.0 &&
                          std::fabs(*raw.longitude) <= 180.0 &&
                          (!raw.utcOffsetHours || std::fabs(*raw.utcOffsetHours) <= 14.0);
            if (usable) {
                scene.site = SiteDef{*raw.latitude, *raw.longitude, raw.utcOffsetHours};
            } else {
                warn(": site ignored: it needs latitude (-90..90) and longitude (-180..180), and utc_offset_hours "
                     "within 14");
            }
        } catch (const DecodeFailure& failure) {
            warn(": site ignored: " + failure.description);
        }
    }

    if (scene.defaultCamera && !scene.camera(*scene.defaultCamera))
        warn(": default_camera '" + *scene.defaultCamera + "' is not among the cameras");

    return scene;
}

SceneDescription SceneDescription::defaults(const LoadedModel& model) {
    const float3 lo = model.boundsMin, hi = model.boundsMax;
    const float cx = (lo.x + hi.x) / 2, cz = (lo.z + hi.z) / 2;
    const float d = 1.1f * std::max(hi.x - lo.x, hi.z - lo.z) + 4.0f;

    SceneDescription scene;
    scene.version = 1;
    scene.northDeg = 0.0f;
    scene.defaultCamera = "Exterior";

    CameraDef exterior;
    exterior.name = "Exterior";
    exterior.eye = {cx + 0.7f * d, 1.6f, cz + 0.9f * d};
    exterior.target = {cx, std::max(1.5f, 0.6f * (lo.y + hi.y) / 2), cz};
    exterior.fovDeg = 50.0f;

    CameraDef centre;
    centre.name = "Centre";
    centre.eye = {cx, 1.5f, cz};
    centre.target = {cx + 3.0f, 1.4f, cz};
    centre.fovDeg = 65.0f;

    scene.cameras = {exterior, centre};
    return scene;
}

std::vector<LightDef> SceneDescription::lightList() const {
    std::vector<LightDef> out;
    for (const LightDef& light : lights)
        if (light.enabled.value_or(true)) out.push_back(light);
    return out;
}

const CameraDef* SceneDescription::camera(std::string_view name) const {
    for (const CameraDef& c : cameras)
        if (c.name == name) return &c;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Finding the scene

ResolvedScene resolveSceneSource(const std::optional<std::string>& explicitPath, const std::string& modelPath,
                                 const LoadedModel& model, const LogSink& log) {
    return resolveSceneSource(explicitPath, modelPath, model, log, processSearchLocations());
}

ResolvedScene resolveSceneSource(const std::optional<std::string>& explicitPath, const std::string& modelPath,
                                 const LoadedModel& model, const LogSink& log, const SearchLocations& locations) {
    auto say = [&](const std::string& line) {
        if (log) log(line);
    };
    auto loaded = [&](const std::string& path) {
        ResolvedScene resolved{SceneDescription::load(path, log), path};
        say("scene: " + path + "  (" + std::to_string(resolved.scene.lightList().size()) + " lights, " +
            std::to_string(resolved.scene.cameras.size()) + " cameras)");
        return resolved;
    };

    if (explicitPath) {
        std::error_code ec;
        if (!fs::exists(*explicitPath, ec)) throw SceneError("scene file not found: " + *explicitPath);
        return loaded(*explicitPath);
    }

    const std::vector<std::string> candidates = sceneCandidates(modelPath, locations);
    for (size_t i = 0; i < candidates.size(); ++i) {
        std::error_code ec;
        if (!fs::exists(candidates[i], ec)) continue;
        if (i > 0) say("scene: " + candidates[0] + " not found - using the sample scene");
        return loaded(candidates[i]);
    }
    say("scene: no scene.json found - using auto-generated defaults");
    return ResolvedScene{SceneDescription::defaults(model), std::nullopt};
}

} // namespace qv
