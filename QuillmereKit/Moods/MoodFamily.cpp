#include "QuillmereKit/Moods/MoodFamily.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, MoodFamily family) { writer.string(rawValue(family)); }

template <>
MoodFamily decode<MoodFamily>(const JSONValue& value) {
    return decodeRawValue<MoodFamily>(value);
}

}  // namespace quillmere
