#pragma once

#include <optional>
#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The generative models: a fuller and a lighter one.
enum class GenerationModel { medium, smallMusic };

/// One row of the models' table.
struct GenerationModelRow {
    GenerationModel value;           ///< The case.
    std::string_view raw;            ///< Its raw value.
    std::string_view label;          ///< The name shown to the user.
    std::string_view engineName;     ///< The name in the engine settings.
    std::string_view detail;         ///< One line that explains it.
    std::string_view dit;            ///< The name of the weights.
    std::string_view identityModel;  ///< Its standard identity-model string.
};
template <>
inline constexpr auto enumTable<GenerationModel> = EnumTable<GenerationModelRow, 2>{{{
    {GenerationModel::medium, "medium", "Full", "Medium", "Richer sound · takes longer to create", "medium",
     "sa3_medium_mlx_v2"},
    {GenerationModel::smallMusic, "small-music", "Light", "Small Music", "Lighter sound · ready sooner", "sm-music",
     "sa3_small-music_mlx_v2"},
}}};
static_assert(enumTable<GenerationModel>.isInCaseOrder());

/// Length of a full track, and the upper bound of any render, in seconds.
inline constexpr double trackSeconds = 120.0;

/// The name shown to the user.
[[nodiscard]] constexpr std::string_view label(GenerationModel model) noexcept {
    return enumTable<GenerationModel>[model].label;
}
/// The name shown in the engine settings.
[[nodiscard]] constexpr std::string_view engineName(GenerationModel model) noexcept {
    return enumTable<GenerationModel>[model].engineName;
}
/// One line that explains the choice.
[[nodiscard]] constexpr std::string_view detail(GenerationModel model) noexcept {
    return enumTable<GenerationModel>[model].detail;
}
/// The name of the model's diffusion-transformer weights, as the renderer knows them.
[[nodiscard]] constexpr std::string_view dit(GenerationModel model) noexcept {
    return enumTable<GenerationModel>[model].dit;
}
/// The identity-model string of this model on the standard engine, whatever engine will run it.
[[nodiscard]] constexpr std::string_view identityModel(GenerationModel model) noexcept {
    return enumTable<GenerationModel>[model].identityModel;
}

/// The model that exactly this standard-engine identity-model string names; knows no other engine's strings.
[[nodiscard]] std::optional<GenerationModel> modelOfIdentityModel(std::string_view text) noexcept;

/// The model that an identity-model string of any version and engine was made with, or nothing.
[[nodiscard]] std::optional<GenerationModel> cachedModel(std::string_view text) noexcept;

/// Written and read as the raw value, such as "small-music". Any other text is a `JSONError`.
void encode(JSONWriter& writer, GenerationModel model);
template <>
GenerationModel decode<GenerationModel>(const JSONValue& value);

}  // namespace quillmere
