#include "QuillmereKit/Moods/MoodGlyph.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, MoodGlyph glyph) { writer.string(rawValue(glyph)); }

template <>
MoodGlyph decode<MoodGlyph>(const JSONValue& value) {
    return decodeRawValue<MoodGlyph>(value);
}

}  // namespace quillmere
