#pragma once
// The tables with which the path tracer importance-samples the sky map: a row
// is picked by skyRowCdf, a column by that row's skyColCdf, then a point
// uniform in (theta, phi) within the texel. Texels are weighted by luminance
// times sin(theta) over the upper half only, so samples never go below the horizon.
#include "shaders/VecMath.h"

#include <cstdint>
#include <vector>

namespace qv {

struct SkyTables {
    std::vector<float> rowCdf; // H cumulative row probabilities, last exactly 1
    std::vector<float> colCdf; // H x W, per row the cumulative column probabilities, each row ending at 1
    std::vector<float> pdf;    // W x H, density per unit (theta, phi) area times sin(theta): the solid-angle
                               // density of a direction in texel i is pdf[i] / sin(theta)
    std::vector<uint32_t> rowGuide; // CDF_GUIDE_N + 1 search guides of rowCdf
    std::vector<uint32_t> colGuide; // H x (CDF_GUIDE_N + 1) search guides, one set per row of colCdf

    // Builds the tables from a W x H radiance map (rgb used, w ignored), sums in
    // double precision, rows in parallel (oneTBB). A black sky gives uniform
    // tables over the upper half.
    static SkyTables build(const float4* env, uint32_t width, uint32_t height);
};

} // namespace qv
