#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "QuillmereKit/Generation/GenerationPace.hpp"

namespace quillmere::app {

/// The pressure that the kernel's figures tell (the text of /proc/pressure/memory): a warning while some tasks waited
/// for memory for a tenth of the last ten seconds, critical while all of them did. Nothing for any other text.
[[nodiscard]] std::optional<GenerationMemoryPressure> memoryPressure(std::string_view figures);

/// The system's present memory pressure; nothing where the kernel does not tell. Reads `file`.
[[nodiscard]] std::optional<GenerationMemoryPressure> presentMemoryPressure(
    const std::filesystem::path& file = "/proc/pressure/memory");

/// "normal", "warning" or "critical".
[[nodiscard]] std::string_view text(GenerationMemoryPressure pressure);

}  // namespace quillmere::app
