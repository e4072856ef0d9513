#include "QuillmereKit/Moods/PromptTag.hpp"

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, const PromptTag& tag) {
    writer.beginObject();
    writer.member("category", tag.category);
    writer.member("value", tag.value);
    writer.endObject();
}

template <>
PromptTag decode<PromptTag>(const JSONValue& value) {
    return {
        .category = value.member<TagCategory>("category"),
        .value = value.member<std::string>("value"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::PromptTag>::operator()(const quillmere::PromptTag& tag) const noexcept {
    return quillmere::Hasher{}.add(tag.category).add(tag.value).value();
}
