#pragma once

#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The symbols drawn for a mood. How each is drawn is the user interface's business.
enum class MoodGlyph { wave, descend, bolt, pulse, arc, grain, ring, step };

/// One row of the glyphs' table.
struct MoodGlyphRow {
    MoodGlyph value;       ///< The case.
    std::string_view raw;  ///< Its raw value.
};
template <>
inline constexpr auto enumTable<MoodGlyph> = EnumTable<MoodGlyphRow, 8>{{{
    {MoodGlyph::wave, "wave"},
    {MoodGlyph::descend, "descend"},
    {MoodGlyph::bolt, "bolt"},
    {MoodGlyph::pulse, "pulse"},
    {MoodGlyph::arc, "arc"},
    {MoodGlyph::grain, "grain"},
    {MoodGlyph::ring, "ring"},
    {MoodGlyph::step, "step"},
}}};
static_assert(enumTable<MoodGlyph>.isInCaseOrder());

/// Written and read as the raw value, such as "wave". Any other text is a `JSONError`.
void encode(JSONWriter& writer, MoodGlyph glyph);
template <>
MoodGlyph decode<MoodGlyph>(const JSONValue& value);

}  // namespace quillmere
