#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::app {

/// Splits a command as a shell splits words: blanks separate, quotes and backslashes keep together. No variables, no
/// globs, and no shell is started. Throws `Error` for an unclosed quote.
[[nodiscard]] std::vector<std::string> splitCommand(std::string_view command);

/// The folder of the running program.
[[nodiscard]] std::filesystem::path programFolder();

/// The command of the default engine: Tonebed beside this program, or where an installation puts it.
[[nodiscard]] std::vector<std::string> defaultEngineCommand();

/// The processor's name as the system gives it; empty where it gives none.
[[nodiscard]] std::string processorName();

}  // namespace quillmere::app
