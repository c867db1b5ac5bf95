// Every parse error, word for word: once through the parser and once through
// the built program, which must print "error: ", the message, a blank line and
// the usage on standard error and exit with status 1.
#include "CLITestSupport.h"
#include "ProgramRun.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

using test::Args;
using test::Env;

struct ErrorCase {
    Args args;
    std::string message;
    Env env = {};
};

const std::vector<ErrorCase>& errorCases() {
    static const std::vector<ErrorCase> cases = {
        // The walk: unknown arguments, missing values, unreadable values.
        {{"--bogus"}, "unknown option --bogus"},
        {{"headless"}, "unknown option headless"},
        {{"--HEADLESS"}, "unknown option --HEADLESS"},
        {{"--denoise", "soft"}, "unknown option soft"},
        {{"--spp"}, "--spp needs a value"},
        {{"--model"}, "--model needs a value"},
        {{"-o"}, "-o needs a value"},
        {{"--headless", "--out"}, "--out needs a value"},
        {{"--idle-capture", "1,2"}, "--idle-capture needs a value"},
        {{"--exposure", "bright"}, "--exposure: not a number: bright"},
        {{"--max-seconds", "1,5"}, "--max-seconds: not a number: 1,5"},
        {{"--saturation", " 1"}, "--saturation: not a number:  1"},
        {{"--spp", "12.5"}, "--spp: not an integer: 12.5"},
        {{"--seed", "99999999999999999999"}, "--seed: not an integer: 99999999999999999999"},
        {{"--spp", "--help"}, "--spp: not an integer: --help"},
        {{"--eye", "1,2"}, "--eye expects x,y,z"},
        {{"--eye", "1,a,2"}, "--eye expects x,y,z"},
        {{"--target", "1,2,3,4"}, "--target expects x,y,z"},
        // Checks made as each option is read; the first failing option wins.
        {{"--time", "noon"}, "--time must be day, dusk or night"},
        {{"--spp", "0"}, "--spp must be at least 1 (got 0)"},
        {{"--spp", "-5", "--bogus"}, "--spp must be at least 1 (got -5)"},
        {{"--size", "0x100"}, "--size expects WxH"},
        {{"--size", "100"}, "--size expects WxH"},
        {{"--size", "1920x1080x2"}, "--size expects WxH"},
        {{"--size", "wide"}, "--size expects WxH"},
        {{"--size", "70000x10"}, "--size: each side must be at most 65536"},
        {{"--size", "10x65537"}, "--size: each side must be at most 65536"},
        {{"--wb", "999"}, "--wb expects kelvin (1000-25000), auto or sky"},
        {{"--wb", "25001"}, "--wb expects kelvin (1000-25000), auto or sky"},
        {{"--wb", "warm"}, "--wb expects kelvin (1000-25000), auto or sky"},
        {{"--wb", "nan"}, "--wb expects kelvin (1000-25000), auto or sky"},
        {{"--tonemap", "filmic"}, "--tonemap must be agx, aces or clamp"},
        {{"--look", "soft"}, "--look must be base, medium or punchy"},
        {{"--clip-above", "inf"}, "--clip-above expects a finite height"},
        {{"--clip-above", "1e39"}, "--clip-above expects a finite height"},
        {{"--tex-footprint", "16.5"}, "--tex-footprint expects 0-16 pixels"},
        {{"--tex-footprint", "-0.1"}, "--tex-footprint expects 0-16 pixels"},
        {{"--nee", "grid"}, "--nee must be tree, cell, ris-tree or ris-cell"},
        {{"--max-seconds", "0"}, "--max-seconds expects a positive number of seconds"},
        {{"--max-seconds", "inf"}, "--max-seconds expects a positive number of seconds"},
        {{"--capture-after", "-1"}, "--capture-after expects seconds"},
        {{"--bench-raster", "0"}, "--bench-raster needs a frame count of at least 1"},
        {{"--raster-view", "normals"}, "--raster-view must be full, ao, irradiance, direct or ambient"},
        {{"--probe-rays", "15"}, "--probe-rays must be at least 16"},
        {{"--probe-rays", "4294967296"}, "--probe-rays must be at most 4294967295"},
        {{"--max-depth", "4294967296"}, "--max-depth must be at most 4294967295"},
        {{"--ris-m", "5000000000"}, "--ris-m must be at most 4294967295"},
        {{"--fov", "0.05"}, "--fov must be between 0.1 and 179.0 degrees (got 0.05)"},
        {{"--fov", "180"}, "--fov must be between 0.1 and 179.0 degrees (got 180.0)"},
        {{"--fov", "nan"}, "--fov must be between 0.1 and 179.0 degrees (got nan)"},
        {{"--fov-axis", "diagonal"}, "--fov-axis must be vertical or horizontal"},
        {{"--date", "2024-13-01"}, "--date expects YYYY-MM-DD (got 2024-13-01)"},
        {{"--date", "2024-06"}, "--date expects YYYY-MM-DD (got 2024-06)"},
        {{"--date", "21.06.2024"}, "--date expects YYYY-MM-DD (got 21.06.2024)"},
        {{"--clock", "24:00"}, "--clock expects HH:MM, 24-hour (got 24:00)"},
        {{"--clock", "12:60"}, "--clock expects HH:MM, 24-hour (got 12:60)"},
        {{"--clock", "noon"}, "--clock expects HH:MM, 24-hour (got noon)"},
        {{"--projection", "fisheye"}, "--projection must be perspective or equirect"},
        {{"--cutaway", "attic"}, "--cutaway must be whole, no-roof, first-floor, ground-floor"},
        {{"--fps", "0"}, "--fps must be between 1 and 240"},
        {{"--fps", "240.5"}, "--fps must be between 1 and 240"},
        {{"--fps", "fast"}, "--fps must be between 1 and 240"},
        {{"--frames", "5:2"}, "--frames expects A:B (first and last frame, inclusive; A: or :B for open ends)"},
        {{"--frames", "-1:3"}, "--frames expects A:B (first and last frame, inclusive; A: or :B for open ends)"},
        {{"--frames", "5"}, "--frames expects A:B (first and last frame, inclusive; A: or :B for open ends)"},
        {{"--frames", "1:2:3"}, "--frames expects A:B (first and last frame, inclusive; A: or :B for open ends)"},
        {{"--frames", "a:b"}, "--frames expects A:B (first and last frame, inclusive; A: or :B for open ends)"},
        {{"--codec", "vp9"}, "--codec must be h264 or hevc"},
        {{"--bitrate", "abc"}, "--bitrate expects e.g. 16M, 8000k or 12000000"},
        {{"--bitrate", "0"}, "--bitrate expects e.g. 16M, 8000k or 12000000"},
        {{"--bitrate", "-5m"}, "--bitrate expects e.g. 16M, 8000k or 12000000"},
        {{"--video-denoise", "spatial"}, "--video-denoise must be temporal, hybrid or off"},
        // Checks after the walk, in their order: the first that fails is the error.
        {{"--debug-nee-only", "--debug-no-light-nee"}, "--debug-nee-only and --debug-no-light-nee are mutually exclusive"},
        {{"--debug-nee-only", "--debug-no-light-nee", "--nee", "ris-tree"},
         "--debug-nee-only and --debug-no-light-nee are mutually exclusive"},
        {{"--nee", "ris-tree"}, "--nee ris-tree / ris-cell are QA modes: run with QV_NEE_RIS=1 in the environment"},
        {{"--nee", "RIS-CELL"}, "--nee ris-tree / ris-cell are QA modes: run with QV_NEE_RIS=1 in the environment"},
        {{"--nee", "ris-cell"}, "--nee ris-tree / ris-cell are QA modes: run with QV_NEE_RIS=1 in the environment",
         {{"QV_NEE_RIS", "yes"}}},
        {{"--nee", "ris-cell", "--debug-nee-stats"},
         "--nee ris-tree / ris-cell are QA modes: run with QV_NEE_RIS=1 in the environment"},
        {{"--debug-nee-stats"}, "--debug-nee-stats needs QV_NEE_STATS=1 in the environment"},
        {{"--debug-nee-stats"}, "--debug-nee-stats needs QV_NEE_STATS=1 in the environment", {{"QV_NEE_STATS", "1 "}}},
        {{"--debug-nee-stats", "--projection", "equirect", "--size", "100x100"},
         "--debug-nee-stats needs QV_NEE_STATS=1 in the environment"},
        {{"--projection", "equirect", "--size", "4000x2048"},
         "--projection equirect needs a 2:1 --size, such as 4096x2048 (got 4000x2048)"},
        {{"--projection", "equirect", "--size", "1024x1024", "--clock", "12:00"},
         "--projection equirect needs a 2:1 --size, such as 4096x2048 (got 1024x1024)"},
        {{"--clock", "18:30"}, "--clock needs --date"},
    };
    return cases;
}

TEST(CLIErrors, EachMessageIsExact) {
    for (const auto& c : errorCases())
        EXPECT_EQ(test::parseError(c.args, c.env), c.message) << test::joined(c.args);
}

// The same table through the program: the message, a blank line, the whole
// usage on standard error, nothing on standard output, exit status 1.
TEST(CLIErrors, ProgramPrintsMessageAndUsageAndExitsOne) {
    // A sanitizer build starts the program many times slower; there every
    // fifth case goes through the program (the test above still checks every
    // message), elsewhere all of them.
#if defined(__SANITIZE_ADDRESS__)
    const size_t stride = 5;
#else
    const size_t stride = 1;
#endif
    std::vector<ErrorCase> cases;
    for (size_t i = 0; i < errorCases().size(); i += stride) cases.push_back(errorCases()[i]);
    std::vector<test::ProgramCall> calls;
    for (const auto& c : cases) calls.push_back({c.args, c.env});
    std::vector<test::ProgramResult> results = test::runPrograms(calls);
    for (size_t i = 0; i < calls.size(); ++i) {
        const ErrorCase& c = cases[i];
        const test::ProgramResult& r = results[i];
        EXPECT_EQ(r.status, 1) << test::joined(c.args);
        EXPECT_EQ(r.err, "error: " + c.message + "\n\n" + usageText()) << test::joined(c.args);
        EXPECT_EQ(r.out, "") << test::joined(c.args);
    }
}

} // namespace
} // namespace qv
