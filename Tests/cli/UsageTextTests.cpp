// The usage text: its fixed lines, the order of its options, the defaults it
// documents, and that it never names an option the parser does not know.
#include "CLITestSupport.h"
#include "ProgramRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace qv {
namespace {

std::vector<std::string> usageLines() {
    std::vector<std::string> lines;
    std::istringstream in(usageText());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(UsageText, OpensWithTheBannerAndFourSynopses) {
    const std::string& u = usageText();
    ASSERT_FALSE(u.empty());
    EXPECT_EQ(u.back(), '\n');
    auto lines = usageLines();
    EXPECT_EQ(lines[0], "Quorvane - CPU ray-traced path tracer for the house walkthrough model.");

    const char* headings[] = {
        "App (default; also \"quorvane\" with no options): progressive viewport, sidebar controls, final renders, "
        "auto-reload",
        "Headless still:",
        "360-degree panorama (equirectangular, 2:1, level horizon, heading from --target):",
        "Camera path (fly-through video):",
        "Options:",
    };
    size_t at = 0;
    for (const char* heading : headings) {
        auto it = std::find(lines.begin() + static_cast<long>(at), lines.end(), heading);
        ASSERT_NE(it, lines.end()) << heading;
        size_t index = static_cast<size_t>(it - lines.begin());
        // Each synopsis gives one example command line right below its heading.
        if (std::string(heading) != "Options:") {
            EXPECT_EQ(lines[index + 1].rfind("  quorvane ", 0), 0u) << heading;
        }
        at = index + 1;
    }
}

TEST(UsageText, ListsTheOptionsInOrderWithoutQAOptions) {
    const char* order[] = {
        "--model", "--scene", "--camera", "--list-cameras", "--eye", "--fov-axis", "--time", "--sun-azimuth",
        "--sun-elevation", "--date", "--projection", "--cutaway", "--spp", "--size", "--exposure", "--ev100", "--wb",
        "--tonemap", "--saturation", "--look", "--hide-roof", "--hide-material", "--clip-above", "--no-lights",
        "--light-scale", "--emissive-nits", "--emissive-one-sided", "--max-depth", "--clamp", "--caustics",
        "--tex-footprint", "--denoise", "--auto-exposure", "--max-seconds", "--batch", "--seed", "--out", "--path",
        "--fps", "--frames", "--frames-dir", "--codec", "--bitrate", "--video-denoise", "--overwrite", "--encode-only",
        "--dump", "--debug-no-light-nee", "--debug-no-sky-nee", "--debug-nee-only", "--debug-albedo", "--raster",
        "--bench-raster", "--parity", "--raster-view", "--snapshot-after", "--capture-window", "--capture-ui",
        "--ui-selftest"};
    std::vector<std::string> entries; // the first word of every option entry
    bool inOptions = false;
    for (const auto& line : usageLines()) {
        if (line == "Options:") inOptions = true;
        else if (inOptions && line.rfind("  --", 0) == 0) entries.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
    std::vector<std::string> expected(std::begin(order), std::end(order));
    expected.push_back("--help,");
    EXPECT_EQ(entries, expected);

    const std::string& u = usageText();
    for (const char* qa : {"--nee ", "--ris-m", "--grid-", "--em-roulette", "--dump-guides", "--dump-raw", "--dump-at",
                           "--mfx-", "--idle-capture", "--probe-rays", "--warmup", "--debug-nee-stats"})
        EXPECT_EQ(u.find(qa), std::string::npos) << qa;
}

// The text with every run of white space as one space, so that wrapping does not matter.
std::string flowed(const std::string& text) {
    std::string out;
    for (char c : text) {
        bool space = c == ' ' || c == '\n';
        if (!space) out += c;
        else if (!out.empty() && out.back() != ' ') out += ' ';
    }
    return out;
}

TEST(UsageText, DocumentsTheDefaults) {
    const std::string u = flowed(usageText());
    const char* defaults[] = {
        "(default 256)", "default 1280x720; 4096x2048 for equirect", "\"default_camera\"",
        "the camera's scene.json \"time\", else day", "(default medium)", "saturation (default 1)",
        "lamp (default 1)", "(default 1000 cd/m2)", "default 10, with Russian roulette after 3",
        "(default 10; 0 turns it off)", "(default 0.75", "--capture-after seconds (default 8)",
        "default adaptive, about 150 ms", "(default H.264 High)", "about 0.26 bit per pixel per frame",
        "../viewer/house.glb next to the package when it is there, else the bundled house.glb",
        "<model dir>/scene.json, then sample_scene.json"};
    for (const char* d : defaults) EXPECT_NE(u.find(d), std::string::npos) << d;
}

TEST(UsageText, EveryOptionItNamesIsKnownToTheParser) {
    // Every word that starts with a hyphen, up to the first character that
    // cannot belong to an option name.
    const std::string& u = usageText();
    int seen = 0;
    for (size_t i = 0; i < u.size(); ++i) {
        bool wordStart = i == 0 || u[i - 1] == ' ' || u[i - 1] == '[' || u[i - 1] == '(';
        if (!wordStart || u[i] != '-' || i + 1 >= u.size() || !(u[i + 1] == '-' || std::isalpha(static_cast<unsigned char>(u[i + 1])))) continue;
        size_t end = i + 1;
        while (end < u.size() && (std::isalnum(static_cast<unsigned char>(u[end])) || u[end] == '-')) ++end;
        std::string name = u.substr(i, end - i);
        ++seen;
        EXPECT_EQ(test::parseError({name}).rfind("unknown option", 0), std::string::npos) << name;
    }
    EXPECT_GT(seen, 60);
}

TEST(UsageText, ProgramPrintsItForHelpAndExitsZero) {
    for (const char* flag : {"--help", "-h"}) {
        test::ProgramResult r = test::runProgram({"--spp", "4", flag, "--bogus"});
        EXPECT_EQ(r.status, 0) << flag;
        EXPECT_EQ(r.out, usageText()) << flag;
        EXPECT_EQ(r.err, "") << flag;
    }
}

} // namespace
} // namespace qv
