#pragma once

#include <cstdint>
#include <optional>

#include "QuillmereKit/Platform/Calendar.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// A daily window in which generation may run, by the clock on the wall.
///
/// A plain value: any two integers may be held. `isValid` says whether they name a window; an invalid schedule
/// contains no moment.
struct GenerationSchedule {
    std::int64_t startMinute = 0;  ///< First minute of the day inside the window, 0 (midnight) to 1439 (23:59).
    std::int64_t endMinute = 0;    ///< First minute after it; smaller than the start if the window passes midnight.

    /// Whether both ends are minutes of a day and differ.
    [[nodiscard]] bool isValid() const noexcept;

    /// Whether the minute of the day at `date` lies in the window. Seconds are ignored.
    [[nodiscard]] bool contains(Date date, const Calendar& calendar) const;

    /// The first start of the window strictly after `date`; nothing for an invalid schedule. A start that the clock
    /// skips counts as the first moment after the gap; one that comes twice counts once, the first time.
    [[nodiscard]] std::optional<Date> nextStart(Date date, const Calendar& calendar) const;

    /// The last start of the window at or before `date`, found as `nextStart` finds them; nothing unless the schedule
    /// contains `date`.
    [[nodiscard]] std::optional<Date> windowStart(Date date, const Calendar& calendar) const;

    friend bool operator==(const GenerationSchedule&, const GenerationSchedule&) = default;
};

/// {"startMinute": integer, "endMinute": integer}
void encode(JSONWriter& writer, const GenerationSchedule& schedule);
/// Throws `JSONError`. Any two integers are read, a window or not.
template <>
GenerationSchedule decode<GenerationSchedule>(const JSONValue& value);

}  // namespace quillmere
