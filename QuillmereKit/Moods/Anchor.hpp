#pragma once

#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The two ends of a mood, the keys of every prompt map.
enum class Anchor { calm, energetic };

/// One row of the anchors' table.
struct AnchorRow {
    Anchor value;            ///< The case.
    std::string_view raw;    ///< Its raw value.
    std::string_view label;  ///< The name shown to the user.
};
template <>
inline constexpr auto enumTable<Anchor> = EnumTable<AnchorRow, 2>{{{
    {Anchor::calm, "calm", "Calm"},
    {Anchor::energetic, "energetic", "Energetic"},
}}};
static_assert(enumTable<Anchor>.isInCaseOrder());

/// The name shown to the user.
[[nodiscard]] constexpr std::string_view label(Anchor anchor) noexcept { return enumTable<Anchor>[anchor].label; }

/// Written and read as the raw value, "calm" or "energetic". Any other text is a `JSONError`.
void encode(JSONWriter& writer, Anchor anchor);
template <>
Anchor decode<Anchor>(const JSONValue& value);

}  // namespace quillmere
