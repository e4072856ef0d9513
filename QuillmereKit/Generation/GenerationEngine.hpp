#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The runtimes that can run a model.
enum class GenerationEngine { mlx, stableAudioCoreML };

/// One row of the engines' table.
struct GenerationEngineRow {
    GenerationEngine value;                ///< The case.
    std::string_view raw;                  ///< Its raw value.
    std::string_view shortLabel;           ///< The name shown to the user.
    std::string_view detail;               ///< One line that explains it.
    std::string_view unavailableReason;    ///< What the user is told without it.
    std::string_view identityModelSuffix;  ///< How its identity-model strings end.
};
template <>
inline constexpr auto enumTable<GenerationEngine> = EnumTable<GenerationEngineRow, 2>{{{
    {GenerationEngine::mlx, "mlx", "Standard", "Creates tracks of about 2 minutes",
     "Preparing music files for Standard. Starter music can play meanwhile.", "_mlx_v2"},
    {GenerationEngine::stableAudioCoreML, "coreml-stable-audio", "Background",
     "Creates two-minute tracks · may take longer",
     "Download Background music files in Settings › New music › Advanced. Requires macOS 15 or later.", "_coreml_v1"},
}}};
static_assert(enumTable<GenerationEngine>.isInCaseOrder());

/// The name shown to the user.
[[nodiscard]] constexpr std::string_view shortLabel(GenerationEngine engine) noexcept {
    return enumTable<GenerationEngine>[engine].shortLabel;
}
/// The same text as `shortLabel`.
[[nodiscard]] constexpr std::string_view label(GenerationEngine engine) noexcept { return shortLabel(engine); }
/// One line that explains the choice.
[[nodiscard]] constexpr std::string_view detail(GenerationEngine engine) noexcept {
    return enumTable<GenerationEngine>[engine].detail;
}
/// What the user is told while the engine has no service.
[[nodiscard]] constexpr std::string_view unavailableReason(GenerationEngine engine) noexcept {
    return enumTable<GenerationEngine>[engine].unavailableReason;
}

/// The identity-model string of `model` on `engine`: "sa3_", the model's raw value, the engine's suffix.
[[nodiscard]] std::string identityModel(GenerationEngine engine, GenerationModel model);

/// The engine that one of the four known identity-model strings names, or nothing.
[[nodiscard]] std::optional<GenerationEngine> engineOfIdentityModel(std::string_view text);

/// Written and read as the raw value, such as "mlx". Any other text is a `JSONError`.
void encode(JSONWriter& writer, GenerationEngine engine);
template <>
GenerationEngine decode<GenerationEngine>(const JSONValue& value);

}  // namespace quillmere
