#pragma once

#include <filesystem>
#include <optional>

namespace quillmere {

/// Where `quillmere-supervisor`, the program under which engines run, lies: beside the running program, in
/// `../libexec/quillmere` from there, in the build tree if the running program is part of it, or where the library was
/// installed. Nothing if it is in none of these places. Thread-safe; touches the disk.
[[nodiscard]] std::optional<std::filesystem::path> findSupervisorProgram();

/// The program that a command's first word names, as an absolute path: one with a "/" is taken from the current folder,
/// any other looked for along `PATH`. Nothing if there is no executable file. Thread-safe; touches the disk.
[[nodiscard]] std::optional<std::filesystem::path> findProgram(const std::filesystem::path& name);

}  // namespace quillmere
