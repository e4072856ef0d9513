#pragma once

#include <filesystem>
#include <optional>

namespace quillmere {

/// The per-user folders of the desktop (XDG Base Directory Specification). Thread-safe; nothing is created here.
namespace UserFolders {

/// The application's own data folder: `$XDG_DATA_HOME/Quillmere` (an absolute `XDG_DATA_HOME`, else
/// `~/.local/share`), or the folder that `moveTo` or the environment variable `QUILLMERE_HOME` names.
/// Nothing if the user has no home folder at all.
[[nodiscard]] std::optional<std::filesystem::path> applicationData();

/// Where settings live: `$XDG_CONFIG_HOME/Quillmere` (else `~/.config/Quillmere`), or the same moved folder as above.
[[nodiscard]] std::optional<std::filesystem::path> configuration();

/// The system's folder for temporary files (`TMPDIR`, else `/tmp`).
[[nodiscard]] std::filesystem::path temporary();

/// Moves everything of the application below `home` (made absolute), for this process. Call it before the shared
/// instances are first used; it goes before `QUILLMERE_HOME`.
void moveTo(const std::filesystem::path& home);

/// Whether the process runs under the automated harness: the environment holds "XCTestConfigurationFilePath".
/// Shared instances then live in per-process temporary folders.
[[nodiscard]] bool isAutomatedHarness() noexcept;

}  // namespace UserFolders

}  // namespace quillmere
