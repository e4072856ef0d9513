#pragma once

#include <optional>
#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// When generation runs: by itself, only when asked for, or within a daily window.
enum class GenerationMode { background, manual, scheduled };

/// A row of the table of modes.
struct GenerationModeRow {
    GenerationMode value;    ///< The case.
    std::string_view raw;    ///< Its raw value.
    std::string_view label;  ///< The name shown to the user.
};
template <>
inline constexpr auto enumTable<GenerationMode> = EnumTable<GenerationModeRow, 3>{{{
    {GenerationMode::background, "background", "Automatically"},
    {GenerationMode::manual, "manual", "On request"},
    {GenerationMode::scheduled, "scheduled", "On a schedule"},
}}};
static_assert(enumTable<GenerationMode>.isInCaseOrder());

/// The name shown to the user.
[[nodiscard]] constexpr std::string_view label(GenerationMode mode) noexcept {
    return enumTable<GenerationMode>[mode].label;
}

/// Reads a saved mode, also one saved by an earlier version: the old "whileListening" is today's `background`.
/// Nothing for unknown text.
[[nodiscard]] std::optional<GenerationMode> restoredMode(std::string_view text) noexcept;

/// Written as its raw value.
void encode(JSONWriter& writer, GenerationMode mode);
/// Throws `JSONError` for any other text or type.
template <>
GenerationMode decode<GenerationMode>(const JSONValue& value);

}  // namespace quillmere
