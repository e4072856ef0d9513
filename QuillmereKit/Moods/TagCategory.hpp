#pragma once

#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The kinds of prompt tags, in the order in which prompts and the tag vocabulary list them.
enum class TagCategory { genre, moods, instruments, tempo, texture, nature };

/// One row of the categories' table.
struct TagCategoryRow {
    TagCategory value;       ///< The case.
    std::string_view raw;    ///< Its raw value.
    std::string_view title;  ///< The heading shown to the user.
};
template <>
inline constexpr auto enumTable<TagCategory> = EnumTable<TagCategoryRow, 6>{{{
    {TagCategory::genre, "genre", "Genre"},
    {TagCategory::moods, "moods", "Moods"},
    {TagCategory::instruments, "instruments", "Instruments"},
    {TagCategory::tempo, "tempo", "Tempo"},
    {TagCategory::texture, "texture", "Texture"},
    {TagCategory::nature, "nature", "Nature"},
}}};
static_assert(enumTable<TagCategory>.isInCaseOrder());

/// The heading shown to the user.
[[nodiscard]] constexpr std::string_view title(TagCategory category) noexcept {
    return enumTable<TagCategory>[category].title;
}

/// Written and read as the raw value, such as "genre". Any other text is a `JSONError`.
void encode(JSONWriter& writer, TagCategory category);
template <>
TagCategory decode<TagCategory>(const JSONValue& value);

}  // namespace quillmere
