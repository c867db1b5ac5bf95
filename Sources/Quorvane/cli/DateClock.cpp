#include "cli/CLIOptions.h"
#include "cli/ValueReaders.h"

#include <cmath>

namespace qv::DateClock {

std::optional<CalendarDate> parseDate(const std::string& text) {
    auto pieces = cli::splitAt(text, '-');
    if (pieces.size() != 3) return std::nullopt;
    auto year = cli::readInteger(pieces[0]);
    auto month = cli::readInteger(pieces[1]);
    auto day = cli::readInteger(pieces[2]);
    if (!year || !month || !day) return std::nullopt;
    if (*year <= 0 || *month < 1 || *month > 12 || *day < 1 || *day > 31) return std::nullopt;
    return CalendarDate{*year, *month, *day};
}

std::optional<double> parseClockMinutes(const std::string& text) {
    auto pieces = cli::splitAt(text, ':');
    if (pieces.size() != 2 && pieces.size() != 3) return std::nullopt;
    double values[3] = {0, 0, 0};
    for (size_t i = 0; i < pieces.size(); ++i) {
        auto v = cli::readDouble(pieces[i]);
        if (!v) return std::nullopt;
        values[i] = *v;
    }
    double hours = values[0], minutes = values[1], seconds = values[2];
    if (!(hours >= 0 && hours < 24) || !(minutes >= 0 && minutes < 60)) return std::nullopt;
    // The seconds have no range of their own, but a clock must stay a finite time.
    if (!std::isfinite(seconds)) return std::nullopt;
    return 60.0 * hours + minutes + seconds / 60.0;
}

} // namespace qv::DateClock
