#pragma once

#include <optional>
#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

class JSONWriter;

/// The system's memory pressure. Never stored.
enum class GenerationMemoryPressure { normal, warning, critical };

/// How hard the computer may work on new music: how long the breaks between tracks are, and how much of the machine
/// a render may take.
enum class GenerationPace { gentle, background, fast };

/// The process quality-of-service classes, by the desktop platform's values; `standard` is its default class. A
/// system without them maps them to its own process priorities.
enum class ProcessQualityOfService { background = 9, standard = -1, userInitiated = 25 };

/// A row of the table of paces.
struct GenerationPaceRow {
    GenerationPace value;             ///< The case.
    std::string_view raw;             ///< Its raw value.
    std::string_view label;           ///< The name shown to the user.
    std::string_view detail;          ///< One line that explains it.
    ProcessQualityOfService quality;  ///< The rank of the process.
    double interval;                  ///< Break between two tracks, in seconds.
    double dutyCycle;                 ///< Share of wall time for rendering.
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
/// The break between two tracks, in seconds. For whoever spaces the requests: the queue never waits.
[[nodiscard]] constexpr double interval(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].interval;
}
/// The share of wall time that rendering may take, 0...1: at 0.1 the renderer works one part and rests nine.
[[nodiscard]] constexpr double dutyCycle(GenerationPace pace) noexcept {
    return enumTable<GenerationPace>[pace].dutyCycle;
}

/// Whether generation may go on under this memory pressure.
[[nodiscard]] bool permits(GenerationPace pace, GenerationMemoryPressure pressure) noexcept;

/// Reads a pace saved by an earlier version: the old "gentle" is today's `background`. Nothing for unknown text.
[[nodiscard]] std::optional<GenerationPace> restoredLegacyPace(std::string_view text) noexcept;

/// Written as its raw value.
void encode(JSONWriter& writer, GenerationPace pace);
/// Throws `JSONError` for any other text or type.
template <>
GenerationPace decode<GenerationPace>(const JSONValue& value);

}  // namespace quillmere
