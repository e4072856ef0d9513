#include "QuillmereKit/Generation/GenerationMode.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

std::optional<GenerationMode> restoredMode(std::string_view text) noexcept {
    if (text == "whileListening") return GenerationMode::background;
    return fromRawValue<GenerationMode>(text);
}

void encode(JSONWriter& writer, GenerationMode mode) { writer.string(rawValue(mode)); }

template <>
GenerationMode decode<GenerationMode>(const JSONValue& value) {
    return decodeRawValue<GenerationMode>(value);
}

}  // namespace quillmere
