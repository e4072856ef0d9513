#include "App/ScheduleState.hpp"

#include "App/TimeWindow.hpp"

namespace quillmere::app {

ScheduleState ScheduleState::at(Date date, const std::optional<GenerationSchedule>& schedule) {
    if (!schedule) return {};
    const Calendar calendar = Calendar::current();
    return {.isInside = schedule->contains(date, calendar),
            .windowStart = schedule->windowStart(date, calendar),
            .nextStart = schedule->nextStart(date, calendar)};
}

std::string ScheduleState::text(const std::optional<GenerationSchedule>& schedule) const {
    if (!schedule) return "no window";
    std::string text = windowText(*schedule) + (isInside ? " · inside" : " · outside");
    if (windowStart) text += " since " + localTime(*windowStart);
    if (nextStart) text += ", next start " + localTime(*nextStart);
    return text;
}

void writeMembers(JSONWriter& writer, const ScheduleState& state, const std::optional<GenerationSchedule>& schedule) {
    const auto time = [](const std::optional<Date>& date) {
        return date ? std::optional(iso8601(*date)) : std::nullopt;
    };
    writer.member("schedule", schedule);
    writer.member("isInside", state.isInside);
    writer.member("windowStart", time(state.windowStart));
    writer.member("nextStart", time(state.nextStart));
}

}  // namespace quillmere::app
