#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// A moment, with the resolution of the system's clock.
using Date = std::chrono::system_clock::time_point;

/// The ISO 8601 internet form in universal time, whole seconds: "2024-05-01T10:20:30Z".
[[nodiscard]] std::string iso8601(Date date);

/// The Gregorian calendar in one time zone of the system's zone data. A value; thread-safe to use.
class Calendar {
public:
    /// Hour and minute of the day, as a clock on the wall shows them.
    struct TimeOfDay {
        int hour = 0;    ///< 0...23.
        int minute = 0;  ///< 0...59.
    };

    /// The calendar of a zone by its IANA name, such as "Europe/Berlin"; nothing if the system does not know it.
    [[nodiscard]] static std::optional<Calendar> inZone(std::string_view name);

    /// The user's zone: what `TZ` names if it names one ("Europe/Berlin", ":Europe/Berlin" or the path of a file of
    /// zone data; empty is UTC), else the system's, else UTC. A rule of POSIX such as "CET-1CEST" names none. Reads the
    /// process's environment.
    [[nodiscard]] static Calendar current();

    /// What a clock in the zone shows at `date`.
    [[nodiscard]] TimeOfDay timeOfDay(Date date) const;

    /// The next moment strictly after `date` at which the clock shows `hour`:`minute`:00. A time that the
    /// clock skips counts as the first moment after the gap; one that comes twice counts once, the first time.
    /// Nothing if `hour` is not in 0...23, `minute` not in 0...59, or no `Date` can hold the moment.
    [[nodiscard]] std::optional<Date> next(int hour, int minute, Date date) const;

    /// The last such moment strictly before `date`, or nothing for the same reasons.
    [[nodiscard]] std::optional<Date> previous(int hour, int minute, Date date) const;

    /// The zone's name.
    [[nodiscard]] std::string zone() const;

private:
    explicit Calendar(const void* zone) noexcept : zone_(zone) {}
    const void* zone_;  // an entry of the zone data, which lives as long as the process
};

}  // namespace quillmere
