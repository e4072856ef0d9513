#include "QuillmereKit/Generation/GenerationPace.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

bool permits(GenerationPace pace, GenerationMemoryPressure pressure) noexcept {
    switch (pressure) {
        case GenerationMemoryPressure::normal: return true;
        case GenerationMemoryPressure::warning: return pace != GenerationPace::gentle;
        case GenerationMemoryPressure::critical: break;
    }
    return false;
}

std::optional<GenerationPace> restoredLegacyPace(std::string_view text) noexcept {
    // The pace once called gentle is the balanced one of today.
    if (text == "gentle" || text == "background") return GenerationPace::background;
    if (text == "fast") return GenerationPace::fast;
    return std::nullopt;
}

void encode(JSONWriter& writer, GenerationPace pace) { writer.string(rawValue(pace)); }

template <>
GenerationPace decode<GenerationPace>(const JSONValue& value) {
    return decodeRawValue<GenerationPace>(value);
}

}  // namespace quillmere
