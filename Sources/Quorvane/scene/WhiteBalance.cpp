#include "scene/WhiteBalance.h"

#include "scene/SceneDescription.h"
#include "scene/TextFormat.h"

namespace qv {

std::string WhiteBalance::description(std::optional<float3> gains) const {
    switch (kind) {
    case Kind::kelvin:
        return strprintf("%.0f K", static_cast<double>(kelvinValue));
    case Kind::sky: {
        const float3 g = gains.value_or(float3{1.0f, 1.0f, 1.0f});
        return strprintf("sky (gains %.3f %.3f %.3f)", double(g.x), double(g.y), double(g.z));
    }
    case Kind::scene:
        if (!gains) return "auto (measured after rendering)";
        return strprintf("auto (gains %.3f %.3f %.3f)", double(gains->x), double(gains->y),
                         double(gains->z));
    }
    return {};
}

WhiteBalance whiteBalanceInForce(const std::optional<WhiteBalance>& overrideWB,
                                 const std::optional<WhiteBalance>& cameraWB, const WhiteBalance& presetWB) {
    if (overrideWB) return *overrideWB;
    if (cameraWB) return *cameraWB;
    return presetWB;
}

DefaultWhiteBalance defaultWhiteBalance(const CameraDef* camera, TimeOfDay time, bool interior,
                                        const RenderDefaults* renderDefaults) {
    // A camera's look belongs to its own time of day (or to every time when it names none).
    const bool lookApplies = camera && (!camera->time || *camera->time == time);
    if (camera && camera->wbKelvin && lookApplies)
        return {WhiteBalance::kelvin(*camera->wbKelvin), "camera wb_kelvin"};
    if (time == TimeOfDay::day) return {std::nullopt, "day preset"};

    const RenderDefaults rd = renderDefaults ? *renderDefaults : RenderDefaults{};
    const bool dusk = time == TimeOfDay::dusk;
    // The value for this time of day, else the value for any time.
    auto pick = [](std::optional<float> specific, std::optional<float> general) {
        return specific ? specific : general;
    };
    if (interior) {
        if (auto k = pick(dusk ? rd.wbKelvinInteriorDusk : rd.wbKelvinInteriorNight, rd.wbKelvinInterior))
            return {WhiteBalance::kelvin(*k), "render_defaults, interior"};
        // Warm lamplight indoors, a little warmer still at night.
        return {WhiteBalance::kelvin(dusk ? 3500.0f : 3300.0f), "interior default"};
    }
    if (auto k = pick(dusk ? rd.wbKelvinExteriorDusk : rd.wbKelvinExteriorNight, rd.wbKelvinExterior))
        return {WhiteBalance::kelvin(*k), "render_defaults, exterior"};
    return {std::nullopt, "exterior"};
}

} // namespace qv
