#include "QuillmereKit/Generation/GenerationModel.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

/// Takes `prefix` off the front of `text`; false, with `text` as it was, where it does not start so.
bool consume(std::string_view& text, std::string_view prefix) noexcept {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

}  // namespace

std::optional<GenerationModel> modelOfIdentityModel(std::string_view text) noexcept {
    for (const auto& row : enumTable<GenerationModel>.rows) {
        if (row.identityModel == text) return row.value;
    }
    return std::nullopt;
}

std::optional<GenerationModel> cachedModel(std::string_view text) noexcept {
    for (const auto model : allCases<GenerationModel>()) {
        for (const std::string_view engine : {"mlx", "coreml"}) {
            std::string_view rest = text;
            if (consume(rest, "sa3_") && consume(rest, rawValue(model)) && consume(rest, "_") &&
                consume(rest, engine) && consume(rest, "_v") && decimalInteger(rest).value_or(0) > 0) {
                return model;
            }
        }
    }
    return std::nullopt;
}

void encode(JSONWriter& writer, GenerationModel model) { writer.string(rawValue(model)); }

template <>
GenerationModel decode<GenerationModel>(const JSONValue& value) {
    return decodeRawValue<GenerationModel>(value);
}

}  // namespace quillmere
