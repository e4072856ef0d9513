#pragma once

#include <filesystem>
#include <optional>

namespace quillmere {

/// The per-user folders of the desktop (XDG Base Directory Specification 0.8). Thread-safe, as long as nobody changes
/// the environment meanwhile; nothing is created here.
///
/// A relative path in an XDG variable, `HOME` or `TMPDIR` is ignored, as that standard asks; without a usable `HOME`
/// the home folder is the one of the user's passwd entry.
namespace UserFolders {

/// The application's own data folder: `$XDG_DATA_HOME/Quillmere` (an absolute `XDG_DATA_HOME`, else
/// `~/.local/share`), or the folder that `moveTo` or the environment variable `QUILLMERE_HOME` names.
/// Nothing if the user has no home folder at all. A relative `QUILLMERE_HOME` is taken from the current folder, an
/// empty one ignored.
[[nodiscard]] std::optional<std::filesystem::path> applicationData();

/// Where settings live: `$XDG_CONFIG_HOME/Quillmere` (else `~/.config/Quillmere`), or the same moved folder as above.
[[nodiscard]] std::optional<std::filesystem::path> configuration();

/// The system's folder for temporary files (`TMPDIR`, else `/tmp`).
[[nodiscard]] std::filesystem::path temporary();

/// Moves everything of the application below `home` (made absolute), for this process. Call it before the shared
/// instances are first used; it goes before `QUILLMERE_HOME`. `home` must not be empty.
void moveTo(const std::filesystem::path& home);

/// Whether `moveTo` or `QUILLMERE_HOME` names the application's folder: then somebody may have mistyped it.
[[nodiscard]] bool isMoved();

/// Whether the process runs under the automated harness: the environment holds "XCTestConfigurationFilePath".
/// Shared instances then live in per-process temporary folders.
[[nodiscard]] bool isAutomatedHarness() noexcept;

}  // namespace UserFolders

}  // namespace quillmere
