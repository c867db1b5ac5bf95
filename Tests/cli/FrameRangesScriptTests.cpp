// The array-job helper scripts/frame-ranges.py and the bundled sample path.
#include "cli/PathRender.h"
#include "scene/CameraPath.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace qv {
namespace {

struct ScriptRun {
    int status = -1;
    std::string out;
};

// Runs the script with the given arguments (and environment assignments in
// front), standard error discarded.
ScriptRun frameRanges(const std::string& args, const std::string& env = "") {
    const std::string command = env + " python3 " + std::string(QV_SOURCE_DIR) + "/scripts/frame-ranges.py " +
                                args + " 2>/dev/null";
    ScriptRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return run;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
    int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

struct Range {
    int64_t first, last;
};

// "index A:B" lines of --all.
std::map<int, Range> parseAll(const std::string& text) {
    std::map<int, Range> ranges;
    std::istringstream in(text);
    int index;
    char colon;
    Range r{};
    while (in >> index >> r.first >> colon >> r.last) ranges[index] = r;
    return ranges;
}

TEST(FrameRangesScript, RangesTileThePathContiguouslyAndEvenly) {
    struct Case {
        int64_t count;
        int tasks;
    };
    for (const Case& c : {Case{301, 8}, Case{61, 61}, Case{3, 5}}) {
        ScriptRun run = frameRanges("--count " + std::to_string(c.count) + " --tasks " + std::to_string(c.tasks) +
                                    " --all");
        ASSERT_EQ(run.status, 0) << c.count << "/" << c.tasks;
        std::map<int, Range> ranges = parseAll(run.out);
        ASSERT_EQ(int64_t(ranges.size()), std::min<int64_t>(c.count, c.tasks));
        int64_t next = 0, smallest = c.count, largest = 0;
        int expectedIndex = 0;
        for (const auto& [index, r] : ranges) {
            EXPECT_EQ(index, expectedIndex++);
            EXPECT_EQ(r.first, next) << "ranges must be contiguous and in index order";
            EXPECT_LE(r.first, r.last);
            smallest = std::min(smallest, r.last - r.first + 1);
            largest = std::max(largest, r.last - r.first + 1);
            next = r.last + 1;
        }
        EXPECT_EQ(next, c.count) << "every frame exactly once";
        EXPECT_LE(largest - smallest, 1) << c.count << "/" << c.tasks;
    }
}

TEST(FrameRangesScript, OneIndexFromTheArgumentOrTheSchedulersEnvironment) {
    EXPECT_EQ(frameRanges("--count 301 --tasks 8 --index 3").out, "114:151\n");
    EXPECT_EQ(frameRanges("--count 301 --tasks 8 --index-from-env", "JOB_COMPLETION_INDEX=7").out, "264:300\n");
    EXPECT_EQ(frameRanges("--count 301 --tasks 8 --index-from-env",
                          "SLURM_ARRAY_TASK_ID=11 SLURM_ARRAY_TASK_MIN=10")
                  .out,
              "38:75\n");
    // More tasks than frames: the spare indices get nothing and succeed.
    ScriptRun spare = frameRanges("--count 3 --tasks 5 --index 4");
    EXPECT_EQ(spare.status, 0);
    EXPECT_EQ(spare.out, "");
}

TEST(FrameRangesScript, BadArgumentsFail) {
    for (const char* args :
         {"--count 10 --tasks 0 --all", "--count 10 --tasks 3 --index-from-env", "--path /nonexistent.json --tasks 2 --all"}) {
        ScriptRun run = frameRanges(args, "env -u JOB_COMPLETION_INDEX -u SLURM_ARRAY_TASK_ID");
        EXPECT_EQ(run.status, 2) << args;
        EXPECT_EQ(run.out, "") << args;
    }
}

// The script counts a path's frames by the renderer's own rule.
TEST(FrameRangesScript, CountsThePathLikeTheRenderer) {
    const std::string sample = std::string(QV_SOURCE_DIR) + "/Resources/walkthrough_path.json";
    const CameraPath path = CameraPath::load(sample);
    for (double fps : {12.5}) {
        const int64_t count = PathRender::frameCount(fps, path.duration);
        ScriptRun run = frameRanges("--path " + sample + " --fps " + std::to_string(fps) + " --tasks 1 --all");
        EXPECT_EQ(run.out, "0 0:" + std::to_string(count - 1) + "\n") << fps;
    }
    EXPECT_EQ(frameRanges("--path " + sample + " --tasks 1 --all").out,
              "0 0:" + std::to_string(path.frameCount - 1) + "\n");
}

// The bundled walk: from inside the front door, through the hall and the
// living-room door, to the living room by the terrace door.
TEST(SamplePath, WalkthroughLoadsAndStaysOnTheGroundFloor) {
    const CameraPath path = CameraPath::load(std::string(QV_SOURCE_DIR) + "/Resources/walkthrough_path.json");
    EXPECT_EQ(path.keys.size(), 5u);
    EXPECT_EQ(path.frameCount, 331);
    EXPECT_EQ(path.timeOfDay, std::optional<std::string>("day"));
    for (int64_t f = 0; f < path.frameCount; ++f) {
        const CameraPathSample s = path.at(path.frameTime(f));
        // Inside the walls (0.3 to 12.7 by 0.3 to 9.7) at standing eye height.
        EXPECT_GT(s.eye[0], 0.3);
        EXPECT_LT(s.eye[0], 12.7);
        EXPECT_GT(s.eye[2], 0.3);
        EXPECT_LT(s.eye[2], 9.7);
        EXPECT_GE(s.eye[1], 1.5);
        EXPECT_LE(s.eye[1], 1.65);
    }
}

} // namespace
} // namespace qv
