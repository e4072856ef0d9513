#include "QuillmereKit/Generation/GenerationEngine.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

std::string identityModel(GenerationEngine engine, GenerationModel model) {
    std::string text = "sa3_";
    text += rawValue(model);
    text += enumTable<GenerationEngine>[engine].identityModelSuffix;
    return text;
}

std::optional<GenerationEngine> engineOfIdentityModel(std::string_view text) {
    for (const auto engine : allCases<GenerationEngine>()) {
        for (const auto model : allCases<GenerationModel>()) {
            if (identityModel(engine, model) == text) return engine;
        }
    }
    return std::nullopt;
}

void encode(JSONWriter& writer, GenerationEngine engine) { writer.string(rawValue(engine)); }

template <>
GenerationEngine decode<GenerationEngine>(const JSONValue& value) {
    return decodeRawValue<GenerationEngine>(value);
}

}  // namespace quillmere
