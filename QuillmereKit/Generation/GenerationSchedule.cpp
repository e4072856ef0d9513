#include "QuillmereKit/Generation/GenerationSchedule.hpp"

#include <chrono>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr bool isMinuteOfDay(std::int64_t minute) noexcept { return minute >= 0 && minute < std::int64_t{24} * 60; }

}  // namespace

bool GenerationSchedule::isValid() const noexcept {
    return isMinuteOfDay(startMinute) && isMinuteOfDay(endMinute) && startMinute != endMinute;
}

bool GenerationSchedule::contains(Date date, const Calendar& calendar) const {
    if (!isValid()) return false;
    const auto time = calendar.timeOfDay(date);
    const std::int64_t minute = time.hour * 60 + time.minute;
    return startMinute < endMinute ? startMinute <= minute && minute < endMinute
                                   : startMinute <= minute || minute < endMinute;
}

std::optional<Date> GenerationSchedule::nextStart(Date date, const Calendar& calendar) const {
    if (!isValid()) return std::nullopt;
    return calendar.next(static_cast<int>(startMinute / 60), static_cast<int>(startMinute % 60), date);
}

std::optional<Date> GenerationSchedule::windowStart(Date date, const Calendar& calendar) const {
    if (!contains(date, calendar)) return std::nullopt;
    // The search looks strictly before its date; from a second later, it also finds a start at `date` itself.
    constexpr std::chrono::seconds aSecond(1);
    const Date later = date < Date::max() - aSecond ? date + aSecond : Date::max();
    return calendar.previous(static_cast<int>(startMinute / 60), static_cast<int>(startMinute % 60), later);
}

void encode(JSONWriter& writer, const GenerationSchedule& schedule) {
    writer.beginObject();
    writer.member("startMinute", schedule.startMinute);
    writer.member("endMinute", schedule.endMinute);
    writer.endObject();
}

template <>
GenerationSchedule decode<GenerationSchedule>(const JSONValue& value) {
    return {.startMinute = value.member<std::int64_t>("startMinute"),
            .endMinute = value.member<std::int64_t>("endMinute")};
}

}  // namespace quillmere
