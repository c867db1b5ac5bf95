#pragma once
// Tunables given as comma-separated numbers in environment switches, e.g.
// QV_CONF="0.02,0.08". A badly formed value leaves the caller's default.
#include <optional>
#include <string_view>
#include <vector>

namespace qv {

// The numbers of a comma-separated list ("8, 64,0.02"), or nothing when any
// item is empty, not a finite number, or has trailing text.
std::optional<std::vector<float>> parseNumberList(std::string_view text);

// parseNumberList of an environment variable; nothing when it is unset.
std::optional<std::vector<float>> environmentNumbers(const char* name);

} // namespace qv
