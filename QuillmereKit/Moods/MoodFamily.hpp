#pragma once

#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The sections of the mood menu, in menu order.
enum class MoodFamily { mine, focus, ambient, low };

/// One row of the families' table.
struct MoodFamilyRow {
    MoodFamily value;        ///< The case.
    std::string_view raw;    ///< Its raw value.
    std::string_view title;  ///< The heading shown to the user.
};
template <>
inline constexpr auto enumTable<MoodFamily> = EnumTable<MoodFamilyRow, 4>{{{
    {MoodFamily::mine, "mine", "My moods"},
    {MoodFamily::focus, "focus", "Focus"},
    {MoodFamily::ambient, "ambient", "Ambient"},
    {MoodFamily::low, "low", "Wind down"},
}}};
static_assert(enumTable<MoodFamily>.isInCaseOrder());

/// The heading shown to the user.
[[nodiscard]] constexpr std::string_view title(MoodFamily family) noexcept {
    return enumTable<MoodFamily>[family].title;
}

/// Written and read as the raw value, such as "focus". Any other text is a `JSONError`.
void encode(JSONWriter& writer, MoodFamily family);
template <>
MoodFamily decode<MoodFamily>(const JSONValue& value);

}  // namespace quillmere
