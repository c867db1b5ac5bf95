#include "cli/CLIOptions.h"

namespace qv {

// Placeholder until the full parser lands.
CLIOptions CLIOptions::parse(const std::vector<std::string>& args) {
    CLIOptions o;
    for (const auto& a : args) {
        if (a == "--headless") o.headless = true;
        else throw CLIError("unknown option " + a);
    }
    return o;
}

int64_t CLIOptions::renderWidth() const {
    if (settings.projection != Projection::equirect) return width;
    int64_t pad = width < 1536 ? 64 : (width >= 6144 ? 256 : 2 * (width / 48));
    return width + pad;
}

bool CLIOptions::launchesApplication() const {
    return !headless && !listCameras && !raster && !benchRaster && !parity;
}

const std::string& usageText() {
    static const std::string text = "Quorvane - CPU ray-traced path tracer for the house walkthrough model.\n";
    return text;
}

namespace {
CLIOptions& launchOptionsStorage() {
    static CLIOptions options;
    return options;
}
} // namespace

const CLIOptions& launchOptions() { return launchOptionsStorage(); }
void setLaunchOptions(const CLIOptions& options) { launchOptionsStorage() = options; }

} // namespace qv
