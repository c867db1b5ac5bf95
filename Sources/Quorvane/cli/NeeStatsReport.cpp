#include "cli/NeeStatsReport.h"

#include "scene/TextFormat.h"

namespace qv {

namespace {

double percent(uint64_t part, uint64_t whole) { return whole > 0 ? 100.0 * double(part) / double(whole) : 0.0; }

using ull = unsigned long long;

// "lamp chosen .., BSDF non-zero .., unoccluded ..": each share is of the step before.
std::string lampFunnel(const std::array<uint64_t, STAT_COUNT>& c, uint32_t offset) {
    uint64_t tried = c[STAT_LAMP_NEE_TRIED + offset], chosen = c[STAT_LAMP_CHOSEN + offset];
    uint64_t lit = c[STAT_LAMP_BSDF_NONZERO + offset], open = c[STAT_LAMP_UNOCCLUDED + offset];
    return strprintf("lamp chosen %llu (%.1f%% of attempts), BSDF non-zero %llu (%.1f%% of chosen), unoccluded %llu "
                     "(%.1f%% of shadow rays)",
                     ull(chosen), percent(chosen, tried), ull(lit), percent(lit, chosen), ull(open),
                     percent(open, lit));
}

std::string rays(const char* what, uint64_t traced, uint64_t open) {
    return strprintf("%s %llu, unoccluded %llu (%.1f%%)", what, ull(traced), ull(open), percent(open, traced));
}

} // namespace

std::vector<std::string> neeStatsLines(const std::array<uint64_t, STAT_COUNT>& c) {
    const uint32_t first = STAT_FIRST_VERTEX_OFFSET;
    return {
        strprintf("nee-stats: vertices %llu, lamp NEE at %llu; ", ull(c[STAT_SCATTER_VERTICES]),
                  ull(c[STAT_LAMP_NEE_TRIED])) +
            lampFunnel(c, 0),
        strprintf("nee-stats: first vertex lamp NEE %llu; ", ull(c[STAT_LAMP_NEE_TRIED + first])) +
            lampFunnel(c, first),
        "nee-stats: " + rays("emissive shadow rays", c[STAT_EMISSIVE_RAYS], c[STAT_EMISSIVE_UNOCCLUDED]) + "; " +
            rays("sun", c[STAT_SUN_RAYS], c[STAT_SUN_UNOCCLUDED]) + "; " +
            rays("sky", c[STAT_SKY_RAYS], c[STAT_SKY_UNOCCLUDED]),
    };
}

} // namespace qv
