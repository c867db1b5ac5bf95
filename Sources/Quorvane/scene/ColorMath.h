#pragma once
// Colour temperature mathematics for white balance and lamp colours. Colours
// are scene-linear Rec. 709 / sRGB primaries; luminance is
// 0.2126 r + 0.7152 g + 0.0722 b.
#include "shaders/VecMath.h"

namespace qv::ColorMath {

struct Chromaticity {
    double x = 0, y = 0; // CIE 1931
};

// Temperatures outside the span of the Planckian-locus fit are clamped to it.
inline constexpr double kMinKelvin = 1667.0;
inline constexpr double kMaxKelvin = 25000.0;

// The CIE 1931 chromaticity of a black body at `kelvin`: the cubic-spline fit of
// the Planckian locus by Kim et al. (2002), in double precision.
Chromaticity planckianXY(double kelvin);

// The linear sRGB colour of a black body at `kelvin`, scaled to luminance 1.
float3 kelvinToLinearSRGB(double kelvin);

// Per-channel gains that turn the illuminant colour into a neutral grey of the
// same luminance: a grey lit by `illuminant` comes out grey and keeps its
// luminance. A degenerate illuminant gives (1, 1, 1).
float3 whiteBalanceGains(float3 illuminant);

// 0.2126 r + 0.7152 g + 0.0722 b.
inline float luminance(float3 c) { return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z; }

} // namespace qv::ColorMath
