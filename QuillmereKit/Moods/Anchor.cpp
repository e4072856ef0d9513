#include "QuillmereKit/Moods/Anchor.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, Anchor anchor) { writer.string(rawValue(anchor)); }

template <>
Anchor decode<Anchor>(const JSONValue& value) {
    return decodeRawValue<Anchor>(value);
}

}  // namespace quillmere
