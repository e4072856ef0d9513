#pragma once

#include <string>
#include <string_view>

#include "QuillmereKit/Generation/GenerationSchedule.hpp"

namespace quillmere::app {

/// The daily window that a text such as "22:00-06:00" names. Throws `UsageError` for any other text, and for
/// a window that ends when it begins.
[[nodiscard]] GenerationSchedule chosenWindow(std::string_view text);

/// A window as `chosenWindow` reads it.
[[nodiscard]] std::string windowText(const GenerationSchedule& schedule);

/// A moment as a clock and a calendar on the wall show it: "2026-11-21 22:00".
[[nodiscard]] std::string localTime(Date date);

}  // namespace quillmere::app
