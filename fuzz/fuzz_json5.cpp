// libFuzzer target for the JSON5 reader and the two readers built on it (the
// scene contract and camera paths). Any input must end in a value or a typed
// error, never a crash, a hang or a sanitizer report.
#include "scene/CameraPath.h"
#include "scene/Json5.h"
#include "scene/SceneDescription.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    nlohmann::json value;
    try {
        value = qv::parseJson5(text);
    } catch (const qv::Json5Error&) {
        return 0;
    }
    // Every string the reader produced is valid UTF-8: dumping must not throw.
    (void)value.dump();
    try {
        qv::SceneDescription::parse(text, "fuzz.json", [](std::string_view) {});
    } catch (const qv::SceneError&) {
    }
    try {
        qv::CameraPath path = qv::CameraPath::fromJSON(value, "fuzz.json");
        (void)path.at(path.frameTime(path.frameCount / 2));
    } catch (const qv::PathError&) {
    }
    return 0;
}
