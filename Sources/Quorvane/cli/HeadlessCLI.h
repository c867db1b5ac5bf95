#pragma once
#include "cli/CLIOptions.h"
#include "scene/LogSink.h"

#include <stdexcept>

namespace qv {

// A failure of a headless run; main prints it after "error: " and exits 1.
class HeadlessError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The batch driver for every run that is not the desktop viewer.
class HeadlessCLI {
public:
    // Report lines go to standard output.
    static void run(const CLIOptions& options);
    // The same with the report lines (and scene warnings) sent to `out`.
    static void run(const CLIOptions& options, const LogSink& out);
};

} // namespace qv
