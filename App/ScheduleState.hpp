#pragma once

#include <optional>

#include "QuillmereKit/Generation/GenerationSchedule.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::app {

/// Where a moment lies in a daily window.
struct ScheduleState {
    bool isInside = false;                           ///< Whether the moment lies inside the window.
    std::optional<Date> windowStart = std::nullopt;  ///< When the window began, inside it.
    std::optional<Date> nextStart = std::nullopt;    ///< When it next begins.

    /// The state at `date`; without a window, outside and with no start.
    [[nodiscard]] static ScheduleState at(Date date, const std::optional<GenerationSchedule>& schedule);

    /// One line: "22:00-06:00 · outside, next start 2026-11-21 22:00".
    [[nodiscard]] std::string text(const std::optional<GenerationSchedule>& schedule) const;
};

/// The members "schedule"?, "isInside", "windowStart"? and "nextStart"? of an object that is begun; times in ISO 8601.
void writeMembers(JSONWriter& writer, const ScheduleState& state, const std::optional<GenerationSchedule>& schedule);

}  // namespace quillmere::app
