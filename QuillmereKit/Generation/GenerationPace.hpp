#pragma once

#include <optional>
#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The system's memory pressure.
enum class GenerationMemoryPressure { normal, warning, critical };

/// How hard the computer may work on new music.
enum class GenerationPace { gentle, background, fast };

/// The process quality-of-service classes of the desktop platform, by their platform values.
enum class ProcessQualityOfService { background = 9, standard = -1, userInitiated = 25 };

struct GenerationPaceRow {
    GenerationPace value;
    std::string_view raw;
    std::string_view label;
    std::string_view detail;
    ProcessQualityOfService quality;
    double interval;
    double dutyCycle;
};
template <>
inline constexpr auto enumTable<GenerationPace> = EnumTable<GenerationPaceRow, 3>{{{
    {GenerationPace::gentle, "gentle", "Energy Saver",
     "Longer breaks between tracks. Pauses when other apps need more of your Mac.", ProcessQualityOfService::background,
     300.0, 0.1},
    {GenerationPace::background, "background", "Balanced", "Creates music with breaks to leave room for other apps.",
     ProcessQualityOfService::standard, 120.0, 0.25},
    {GenerationPace::fast, "fast", "Fast", "Creates music without breaks. Other apps may feel slower.",
     ProcessQualityOfService::userInitiated, 0.0, 1.0},
}}};
static_assert(enumTable<GenerationPace>.isInCaseOrder());

/// The name shown to the user.
[[nodiscard]] constexpr std::string_view label(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].label;
}
/// One line that explains the choice.
[[nodiscard]] constexpr std::string_view detail(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].detail;
}
/// How the system should rank the process.
[[nodiscard]] constexpr ProcessQualityOfService processQualityOfService(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].quality;
}
/// The break between two tracks, in seconds.
[[nodiscard]] constexpr double interval(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].interval;
}
/// The share of wall time that rendering may take.
[[nodiscard]] constexpr double dutyCycle(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].dutyCycle;
}

/// Whether generation may go on under this memory pressure.
[[nodiscard]] bool permits(GenerationPace pace, GenerationMemoryPressure pressure) noexcept;

/// Reads a pace saved by an earlier version: the old "gentle" is today's `background`. Nothing for unknown text.
[[nodiscard]] std::optional<GenerationPace> restoredLegacyPace(std::string_view text) noexcept;

void encode(JSONWriter& writer, GenerationPace pace);
template <>
GenerationPace decode<GenerationPace>(const JSONValue& value);

}  // namespace quillmere
