#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "QuillmereKit/Moods/TagCategory.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// One tag of a prompt. A plain value.
struct PromptTag {
    TagCategory category = TagCategory::genre;  ///< Which kind of tag.
    std::string value;                          ///< The tag's text, used verbatim in the prompt.

    friend bool operator==(const PromptTag&, const PromptTag&) = default;
};

/// {"category": text, "value": text}, both required.
void encode(JSONWriter& writer, const PromptTag& tag);
template <>
PromptTag decode<PromptTag>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::PromptTag> {
    std::size_t operator()(const quillmere::PromptTag& tag) const noexcept;
};
