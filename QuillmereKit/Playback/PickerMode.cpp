#include "QuillmereKit/Playback/PickerMode.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, PickerMode mode) { writer.string(rawValue(mode)); }

template <>
PickerMode decode<PickerMode>(const JSONValue& value) {
    return decodeRawValue<PickerMode>(value);
}

}  // namespace quillmere
