#include "cli/HeadlessCLI.h"

namespace qv {

void HeadlessCLI::run(const CLIOptions&) {
    throw HeadlessError("headless rendering is not built yet in this version of quorvane");
}

} // namespace qv
