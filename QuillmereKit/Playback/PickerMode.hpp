#pragma once

#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// Whether the user picks a single mood or a radio of moods.
enum class PickerMode { mood, radio };

/// The table's row.
struct PickerModeRow {
    PickerMode value;      ///< The case.
    std::string_view raw;  ///< Its raw value.
};
/// The cases and their texts.
template <>
inline constexpr auto enumTable<PickerMode> = EnumTable<PickerModeRow, 2>{{{
    {PickerMode::mood, "mood"},
    {PickerMode::radio, "radio"},
}}};
static_assert(enumTable<PickerMode>.isInCaseOrder());

/// Written and read as one string, the raw value.
void encode(JSONWriter& writer, PickerMode mode);
template <>
PickerMode decode<PickerMode>(const JSONValue& value);

}  // namespace quillmere
