#include "QuillmereKit/Platform/Calendar.hpp"

#include <date/date.h>
#include <date/tz.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace quillmere {
namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

/// The zone with this name, or null: a bad name and missing zone data come as exceptions from the library.
const date::time_zone* locate(std::string_view name) {
    try {
        return date::locate_zone(name);
    } catch (const std::exception&) {
        return nullptr;
    }
}

/// The zone that a value of `TZ` names: "Europe/Berlin", ":Europe/Berlin" or the path of a file of zone data.
const date::time_zone* zoneOfVariable(std::string_view value) {
    if (value.starts_with(':')) value.remove_prefix(1);
    if (value.empty()) return locate("UTC");
    if (!value.starts_with('/')) return locate(value);

    std::error_code error;
    const std::string path = std::filesystem::canonical(std::filesystem::path(value), error).native();
    for (const std::string_view folder : {"/zoneinfo/posix/", "/zoneinfo/"}) {
        for (const std::string_view file : {std::string_view(path), value}) {
            const auto place = file.find(folder);
            if (place == std::string_view::npos) continue;
            if (const auto* zone = locate(file.substr(place + folder.size()))) return zone;
        }
    }
    return nullptr;
}

const date::time_zone* systemZone() {
    try {
        return date::current_zone();
    } catch (const std::exception&) {
        return nullptr;
    }
}

/// How far a zone's clock is ahead of universal time; null is universal time.
seconds offsetAt(const date::time_zone* zone, Date moment) {
    return zone == nullptr ? seconds(0) : zone->get_info(std::chrono::floor<seconds>(moment)).offset;
}

/// The moment at which a clock shows `local`: the first of two, or the end of the gap that skips it.
date::sys_seconds momentOf(const date::time_zone* zone, date::local_seconds local) {
    const auto time = local.time_since_epoch();
    if (zone == nullptr) return date::sys_seconds(time);
    const auto info = zone->get_info(local);
    if (info.result == date::local_info::nonexistent) return info.second.begin;
    return date::sys_seconds(time - info.first.offset);
}

/// Nothing for moments that a `Date` cannot hold.
std::optional<Date> asDate(date::sys_seconds moment) {
    constexpr auto bound = std::chrono::floor<seconds>(Date::duration::max());
    if (moment.time_since_epoch() >= bound || moment.time_since_epoch() <= -bound) return std::nullopt;
    return Date(moment);
}

/// The matches of `hour`:`minute` on the days around `date`, in order of time: no offset reaches a day, and a
/// zone that changes sides of the date line skips or repeats one.
constexpr int reach = 3;

template <class Accept>
std::optional<Date> firstMatch(const date::time_zone* zone, int hour, int minute, Date date, int direction,
                               Accept accept) {
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59) return std::nullopt;
    const auto here = std::chrono::floor<seconds>(date).time_since_epoch() + offsetAt(zone, date);
    const date::local_days today(std::chrono::floor<days>(here));
    for (int day = -reach; day <= reach; ++day) {
        const auto moment = asDate(momentOf(zone, today + days(direction * day) + hours(hour) + minutes(minute)));
        if (moment && accept(*moment)) return moment;
    }
    return std::nullopt;
}

}  // namespace

std::string iso8601(Date date) {
    const auto moment = std::chrono::floor<seconds>(date);
    const auto day = std::chrono::floor<days>(moment);
    const date::year_month_day ymd{date::sys_days(day.time_since_epoch())};
    const date::hh_mm_ss time(moment - day);
    std::array<char, 64> text;
    const int length =
        std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", int(ymd.year()),
                      unsigned(ymd.month()), unsigned(ymd.day()), static_cast<int>(time.hours().count()),
                      static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

std::optional<Calendar> Calendar::inZone(std::string_view name) {
    const auto* zone = locate(name);
    if (zone == nullptr) return std::nullopt;
    return Calendar(zone);
}

Calendar Calendar::current() {
    const char* variable = std::getenv("TZ");
    const auto* zone = variable != nullptr ? zoneOfVariable(variable) : nullptr;
    return Calendar(zone != nullptr ? zone : systemZone());
}

Calendar::TimeOfDay Calendar::timeOfDay(Date date) const {
    const auto* zone = static_cast<const date::time_zone*>(zone_);
    const auto here = std::chrono::floor<seconds>(date).time_since_epoch() + offsetAt(zone, date);
    const auto time = std::chrono::floor<minutes>(here - std::chrono::floor<days>(here));
    return {static_cast<int>(time.count() / 60), static_cast<int>(time.count() % 60)};
}

std::optional<Date> Calendar::next(int hour, int minute, Date date) const {
    const auto* zone = static_cast<const date::time_zone*>(zone_);
    return firstMatch(zone, hour, minute, date, 1, [&](Date moment) { return moment > date; });
}

std::optional<Date> Calendar::previous(int hour, int minute, Date date) const {
    const auto* zone = static_cast<const date::time_zone*>(zone_);
    return firstMatch(zone, hour, minute, date, -1, [&](Date moment) { return moment < date; });
}

std::string Calendar::zone() const {
    return zone_ == nullptr ? "UTC" : static_cast<const date::time_zone*>(zone_)->name();
}

}  // namespace quillmere
