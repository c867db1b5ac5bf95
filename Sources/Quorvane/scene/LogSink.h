#pragma once
#include <functional>
#include <string_view>

namespace qv {

// Long-lived objects report through a sink that takes one line of text: the
// headless driver prints the lines, the viewer keeps them in its log list.
using LogSink = std::function<void(std::string_view line)>;

} // namespace qv
