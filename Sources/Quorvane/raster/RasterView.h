#pragma once
#include "scene/EnumTable.h"

namespace qv {

// What the realtime raster shows: the full frame or one of its terms alone.
enum class RasterView { full, ao, irradiance, direct, ambient };

inline constexpr std::array<EnumName<RasterView>, 7> kRasterViewNames{{
    {RasterView::full, "full"},
    {RasterView::ao, "ao"},
    {RasterView::irradiance, "irradiance"},
    {RasterView::direct, "direct"},
    {RasterView::ambient, "ambient"},
    {RasterView::irradiance, "probes"},
    {RasterView::ambient, "indirect"}}};

inline std::string_view toString(RasterView v) { return enumToName(kRasterViewNames, v); }

} // namespace qv
