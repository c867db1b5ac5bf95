#pragma once
// Number and line formatting shared by every report line and message.
#include "shaders/VecMath.h"

#include <string>

namespace qv {

// printf into a std::string (report lines have fixed printf formats).
std::string strprintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The shortest decimal that reads back to the same single-precision value,
// always with a fractional part or an exponent: 1.0, 0.1, 179.0, 1e-05, 1.6777216e+07.
std::string formatFloat(float value);
std::string formatDouble(double value);

// A bracketed list of three floats: [1.0, 2.5, -3.0].
std::string formatFloatList(float3 v);

} // namespace qv
