#include "cli/CLIOptions.h"
#include "cli/HeadlessCLI.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    // One write per line, so progress lines interleave correctly with other output.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    qv::CLIOptions options;
    try {
        options = qv::CLIOptions::parse(args);
    } catch (const qv::HelpRequested&) {
        std::fputs(qv::usageText().c_str(), stdout);
        return 0;
    } catch (const qv::CLIError& error) {
        std::fprintf(stderr, "error: %s\n\n%s", error.what(), qv::usageText().c_str());
        return 1;
    }
    qv::setLaunchOptions(options);

    if (options.launchesApplication()) {
        std::fprintf(stderr, "error: the desktop viewer is not built yet; run with --headless (see --help)\n");
        return 1;
    }
    try {
        qv::HeadlessCLI::run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
    return 0;
}
