#pragma once
// The scene contract: the JSON (JSON5 accepted) file beside the model with the
// named cameras, the lamps, the site on Earth, the bearing of north and the
// white-balance defaults. Read forgivingly: a bad entry costs that entry and one
// "warning: " line; only an unreadable file or an unparseable top level fails.
#include "scene/LoadedModel.h"
#include "scene/LogSink.h"
#include "scene/TimeOfDay.h"
#include "shaders/VecMath.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

// An unreadable or unparseable scene file; what() is the whole sentence.
class SceneError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    std::string description() const { return what(); }
};

// A named viewpoint. A kept camera always has a finite eye and target at
// least 1e-5 m apart, and its optional fields hold valid values only.
struct CameraDef {
    std::string name;
    float3 eye{};                        // model metres
    float3 target{};                     // a point looked at
    std::optional<float> fovDeg;         // degrees on the fovAxis axis; 70 when absent
    std::optional<std::string> fovAxis;  // "vertical", "horizontal", "v" or "h" (any case)
    std::optional<TimeOfDay> time;       // the time of day this viewpoint is meant for
    std::optional<float> exposureEV;     // stops, applied only at `time`
    std::optional<float> wbKelvin;       // K, applied only at `time`

    static constexpr float kDefaultFovDeg = 70.0f;

    // The stated angle, 70 degrees when absent.
    float fovAngleDeg() const { return fovDeg.value_or(kDefaultFovDeg); }
    // Whether the lower-cased fov_axis begins with "h".
    bool fovIsHorizontal() const;
    // "horizontal" or "vertical".
    std::string fovAxisName() const { return fovIsHorizontal() ? "horizontal" : "vertical"; }

    // Field of view on each axis for an image of aspect = width / height, degrees.
    float verticalFovDeg(float aspect) const;
    float horizontalFovDeg(float aspect) const;

    // The look (exposure_ev, wb_kelvin) applies when the camera names no time or names t.
    bool lookApplies(TimeOfDay t) const;
    // exposure_ev (0 when absent) where the look applies, else 0; stops.
    float lookExposureEV(TimeOfDay t) const;
    // wb_kelvin where the look applies, else absent.
    std::optional<float> lookWbKelvin(TimeOfDay t) const;
};

// A lamp as written in the file; range checks and repairs belong to the light build.
struct LightDef {
    std::optional<std::string> id;       // a label for messages
    std::optional<std::string> room;     // for per-room switching
    std::optional<std::string> kind;     // pendant, strip, wall, exterior, vanity; else a downlight
    std::vector<float> position;         // metres; required (may still be short or non-finite)
    std::optional<std::vector<float>> end;       // far end of a strip, metres
    std::optional<std::vector<float>> direction; // emitting direction; downward when absent
    std::optional<float> lumens;         // lm
    std::optional<float> lumensPerM;     // lm/m, strips
    std::optional<float> kelvin;         // K
    std::optional<float> radius;         // m
    std::optional<float> coneDeg;        // degrees
    std::optional<float> width;          // m, strips
    std::optional<bool> enabled;         // false removes the lamp
};

// White-balance defaults, kelvin; each kept value lies in 1000-25000.
struct RenderDefaults {
    std::optional<float> wbKelvinInterior;
    std::optional<float> wbKelvinInteriorDusk;
    std::optional<float> wbKelvinInteriorNight;
    std::optional<float> wbKelvinExterior;
    std::optional<float> wbKelvinExteriorDusk;
    std::optional<float> wbKelvinExteriorNight;
};

// Where the house stands. A kept site has both coordinates, finite and in range.
struct SiteDef {
    double latitude = 0;                 // degrees, north positive, |lat| <= 90
    double longitude = 0;                // degrees, east positive, |lon| <= 180
    std::optional<double> utcOffsetHours; // hours, |offset| <= 14; absent = no time zone given
};

struct SceneDescription {
    std::optional<int> version;
    std::vector<LightDef> lights;
    std::vector<CameraDef> cameras;
    std::optional<std::string> defaultCamera;
    std::optional<float> northDeg;       // bearing of true north in the model, degrees
    std::optional<RenderDefaults> renderDefaults;
    std::optional<SiteDef> site;

    // Reads a file. Warnings go to log as whole lines beginning "warning: ".
    // Throws SceneError "could not read <path>: ..." or "could not parse <path>: ...".
    static SceneDescription load(const std::string& path, const LogSink& log);

    // The same from text already in memory; `path` names the file in messages.
    static SceneDescription parse(std::string_view text, const std::string& path, const LogSink& log);

    // The scene generated for a model without any scene file: cameras
    // "Exterior" and "Centre" framed from the model's bounds, no lights.
    static SceneDescription defaults(const LoadedModel& model);

    // The lamps whose `enabled` is absent or true, in file order.
    std::vector<LightDef> lightList() const;

    // The kept camera with exactly this name, if any.
    const CameraDef* camera(std::string_view name) const;
};

struct SearchLocations; // scene/DefaultSearch.h

// A scene with the file it came from (none for generated defaults).
struct ResolvedScene {
    SceneDescription scene;
    std::optional<std::string> source;
};

// Finds and loads the scene for a model: the file the user named (which must
// exist), else scene.json beside the model, else a sample scene, else generated
// defaults. Logs which one was used. Throws SceneError.
ResolvedScene resolveSceneSource(const std::optional<std::string>& explicitPath, const std::string& modelPath,
                                 const LoadedModel& model, const LogSink& log);
// The same with explicit places to look (tests, or a caller that computed them).
ResolvedScene resolveSceneSource(const std::optional<std::string>& explicitPath, const std::string& modelPath,
                                 const LoadedModel& model, const LogSink& log, const SearchLocations& locations);

// The largest scene or path file read, in bytes; larger files fail as unreadable.
inline constexpr size_t kMaxContractFileBytes = 64u * 1024u * 1024u;

} // namespace qv
