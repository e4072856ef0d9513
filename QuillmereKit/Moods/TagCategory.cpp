#include "QuillmereKit/Moods/TagCategory.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, TagCategory category) { writer.string(rawValue(category)); }

template <>
TagCategory decode<TagCategory>(const JSONValue& value) {
    return decodeRawValue<TagCategory>(value);
}

}  // namespace quillmere
