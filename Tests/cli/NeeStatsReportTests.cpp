// The light-sampling statistics lines: every count and share in its place,
// shares of nothing as 0.0%, and totals beyond 32 bits printed whole.
#include "cli/NeeStatsReport.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace qv {
namespace {

std::array<uint64_t, STAT_COUNT> countsOf(std::initializer_list<std::pair<uint32_t, uint64_t>> values) {
    std::array<uint64_t, STAT_COUNT> c{};
    for (const auto& [index, value] : values) c[index] = value;
    return c;
}

struct ReportCase {
    const char* name;
    std::array<uint64_t, STAT_COUNT> counters;
    std::vector<std::string> lines;
};

TEST(NeeStatsReport, LinesCarryEveryCounterWithItsShare) {
    const ReportCase cases[] = {
        {"a lit interior",
         countsOf({{STAT_SCATTER_VERTICES, 1000},
                   {STAT_LAMP_NEE_TRIED, 1000},
                   {STAT_LAMP_CHOSEN, 950},
                   {STAT_LAMP_BSDF_NONZERO, 800},
                   {STAT_LAMP_UNOCCLUDED, 600},
                   {STAT_LAMP_NEE_TRIED + STAT_FIRST_VERTEX_OFFSET, 400},
                   {STAT_LAMP_CHOSEN + STAT_FIRST_VERTEX_OFFSET, 380},
                   {STAT_LAMP_BSDF_NONZERO + STAT_FIRST_VERTEX_OFFSET, 300},
                   {STAT_LAMP_UNOCCLUDED + STAT_FIRST_VERTEX_OFFSET, 150},
                   {STAT_EMISSIVE_RAYS, 200},
                   {STAT_EMISSIVE_UNOCCLUDED, 50},
                   {STAT_SUN_RAYS, 900},
                   {STAT_SUN_UNOCCLUDED, 450},
                   {STAT_SKY_RAYS, 700},
                   {STAT_NONFINITE_SAMPLE, 3}}),
         {"nee-stats: vertices 1000, lamp NEE at 1000; lamp chosen 950 (95.0% of attempts), BSDF non-zero 800 (84.2% "
          "of chosen), unoccluded 600 (75.0% of shadow rays)",
          "nee-stats: first vertex lamp NEE 400; lamp chosen 380 (95.0% of attempts), BSDF non-zero 300 (78.9% of "
          "chosen), unoccluded 150 (50.0% of shadow rays)",
          "nee-stats: emissive shadow rays 200, unoccluded 50 (25.0%); sun 900, unoccluded 450 (50.0%); sky 700, "
          "unoccluded 0 (0.0%)"}},
        {"nothing counted", {},
         {"nee-stats: vertices 0, lamp NEE at 0; lamp chosen 0 (0.0% of attempts), BSDF non-zero 0 (0.0% of chosen), "
          "unoccluded 0 (0.0% of shadow rays)",
          "nee-stats: first vertex lamp NEE 0; lamp chosen 0 (0.0% of attempts), BSDF non-zero 0 (0.0% of chosen), "
          "unoccluded 0 (0.0% of shadow rays)",
          "nee-stats: emissive shadow rays 0, unoccluded 0 (0.0%); sun 0, unoccluded 0 (0.0%); sky 0, unoccluded 0 "
          "(0.0%)"}},
        {"a long render past 32 bits",
         countsOf({{STAT_SCATTER_VERTICES, 6000000000ull},
                   {STAT_LAMP_NEE_TRIED, 6000000000ull},
                   {STAT_LAMP_CHOSEN, 5000000000ull},
                   {STAT_LAMP_BSDF_NONZERO, 4500000000ull},
                   {STAT_LAMP_UNOCCLUDED, 1500000000ull},
                   {STAT_SKY_RAYS, 4294967296ull},
                   {STAT_SKY_UNOCCLUDED, 4294967295ull}}),
         {"nee-stats: vertices 6000000000, lamp NEE at 6000000000; lamp chosen 5000000000 (83.3% of attempts), BSDF "
          "non-zero 4500000000 (90.0% of chosen), unoccluded 1500000000 (33.3% of shadow rays)",
          "nee-stats: first vertex lamp NEE 0; lamp chosen 0 (0.0% of attempts), BSDF non-zero 0 (0.0% of chosen), "
          "unoccluded 0 (0.0% of shadow rays)",
          "nee-stats: emissive shadow rays 0, unoccluded 0 (0.0%); sun 0, unoccluded 0 (0.0%); sky 4294967296, "
          "unoccluded 4294967295 (100.0%)"}},
    };
    for (const ReportCase& c : cases) EXPECT_EQ(neeStatsLines(c.counters), c.lines) << c.name;
}

} // namespace
} // namespace qv
