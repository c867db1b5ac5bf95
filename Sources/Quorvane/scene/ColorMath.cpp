#include "scene/ColorMath.h"

#include <algorithm>
#include <cmath>

namespace qv::ColorMath {

Chromaticity planckianXY(double kelvin) {
    // NaN falls to the low end rather than poisoning every later colour.
    const double k = std::isnan(kelvin) ? kMinKelvin : std::clamp(kelvin, kMinKelvin, kMaxKelvin);
    const double k2 = k * k, k3 = k2 * k;
    double x;
    if (k <= 4000.0)
        x = -0.2661239e9 / k3 - 0.2343589e6 / k2 + 0.8776956e3 / k + 0.179910;
    else
        x = -3.0258469e9 / k3 + 2.1070379e6 / k2 + 0.2226347e3 / k + 0.240390;
    const double x2 = x * x, x3 = x2 * x;
    double y;
    if (k <= 2222.0)
        y = -1.1063814 * x3 - 1.34811020 * x2 + 2.18555832 * x - 0.20219683;
    else if (k <= 4000.0)
        y = -0.9549476 * x3 - 1.37418593 * x2 + 2.09137015 * x - 0.16748867;
    else
        y = 3.0817580 * x3 - 5.87338670 * x2 + 3.75112997 * x - 0.37001483;
    return {x, y};
}

float3 kelvinToLinearSRGB(double kelvin) {
    const Chromaticity c = planckianXY(kelvin);
    // XYZ with Y = 1, then the XYZ -> linear sRGB (D65) matrix.
    const double X = c.x / c.y, Y = 1.0, Z = (1.0 - c.x - c.y) / c.y;
    double r = 3.2404542 * X - 1.5371385 * Y - 0.4985314 * Z;
    double g = -0.9692660 * X + 1.8760108 * Y + 0.0415560 * Z;
    double b = 0.0556434 * X - 0.2040259 * Y + 1.0572252 * Z;
    r = std::max(r, 0.0);
    g = std::max(g, 0.0);
    b = std::max(b, 0.0);
    const double L = 0.2126 * r + 0.7152 * g + 0.0722 * b;
    if (!(L > 0.0)) return {1.0f, 1.0f, 1.0f};
    return {static_cast<float>(r / L), static_cast<float>(g / L), static_cast<float>(b / L)};
}

float3 whiteBalanceGains(float3 illuminant) {
    // std::max(NaN, floor) keeps NaN; the normality test below then rejects it.
    const float3 c{std::max(illuminant.x, 1e-6f), std::max(illuminant.y, 1e-6f),
                   std::max(illuminant.z, 1e-6f)};
    const float L = luminance(c);
    if (!std::isnormal(L) || L <= 0.0f || !std::isfinite(c.x + c.y + c.z)) return {1.0f, 1.0f, 1.0f};
    return {L / c.x, L / c.y, L / c.z};
}

} // namespace qv::ColorMath
