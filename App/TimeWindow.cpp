#include "App/TimeWindow.hpp"

#include <array>
#include <ctime>
#include <optional>

#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere::app {
namespace {

// The minute of the day that "22:00" or "7:30" names.
std::optional<std::int64_t> minuteOfDay(std::string_view text) {
    const auto colon = text.find(':');  // beyond everything where there is none
    if (colon > 2 || text.size() != colon + 3) return std::nullopt;
    const auto hour = decimalInteger(text.substr(0, colon));
    const auto minute = decimalInteger(text.substr(colon + 1));
    if (!hour || !minute || *hour > 23 || *minute > 59) return std::nullopt;
    return *hour * 60 + *minute;
}

std::string clockText(std::int64_t minute) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d", static_cast<int>(minute / 60), static_cast<int>(minute % 60));
    return text.data();
}

}  // namespace

GenerationSchedule chosenWindow(std::string_view text) {
    const auto dash = text.find('-');
    const auto start = minuteOfDay(trimmed(text.substr(0, dash)));
    const auto end = dash == std::string_view::npos ? std::nullopt : minuteOfDay(trimmed(text.substr(dash + 1)));
    if (!start || !end) {
        throw UsageError("schedule", "\"" + safeForTerminal(text) +
                                         "\" is no window of the day: give its start and its end, as in "
                                         "22:00-06:00, or none.");
    }
    const GenerationSchedule schedule{*start, *end};
    if (!schedule.isValid()) throw UsageError("schedule", "the window ends when it begins.");
    return schedule;
}

std::string windowText(const GenerationSchedule& schedule) {
    return clockText(schedule.startMinute) + "-" + clockText(schedule.endMinute);
}

std::string localTime(Date date) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm parts{};
    std::array<char, 32> text{};
    if (localtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts) == 0) {
        return iso8601(date);
    }
    return text.data();
}

}  // namespace quillmere::app
