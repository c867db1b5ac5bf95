#pragma once
#include <stdexcept>

namespace qv {

// A failure of the path tracer's device side (frame too large, a build that
// could not be made); what() is one sentence.
class RendererError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace qv
