#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "QuillmereKit/Platform/Calendar.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"

/// What the stores share that keep a list of the user's in one file and replace it whole, and in part the library's
/// folder with its manifest: absence and damage are told from a disk that cannot answer. Not part of the library's
/// interface. Thread-safe; blocks on disk.
namespace quillmere::replacedFile {

/// What stands at a path, links not followed, or nothing where certainly nothing does. Throws `FileError` where that
/// cannot be told.
[[nodiscard]] std::optional<FileFacts> lookAt(const std::filesystem::path& file);

/// The file that a link in `file`'s place names in the end; `file` itself where no link stands. Nothing where the link
/// leads nowhere. Throws `FileError` where that cannot be told.
[[nodiscard]] std::optional<std::filesystem::path> behindLink(const std::filesystem::path& file);

/// The lock that `FolderLock::acquire` takes, for who can do without: nothing on a file system that has no locks, for
/// that two programs may then write at once is better than that none can. Throws as that does for every other cause,
/// one that may pass (`ENOLCK`) too.
[[nodiscard]] std::shared_ptr<FolderLock> acquireLock(const std::filesystem::path& lockFile);

/// The right to replace the file, among all processes, as long as it is held: a lock on a file beside it that is named
/// after it, ".Moods.lock" for "Moods.json". Nothing, and throws, as `acquireLock`.
[[nodiscard]] std::shared_ptr<FolderLock> lockFor(const std::filesystem::path& file);

/// Whether an error says for good that what stands there is not a file that can be read: no regular one, or too large.
/// Any other may have passed when the file is next looked at.
[[nodiscard]] bool isForGood(const FileError& error) noexcept;

/// Keeps a copy of a file that is about to be replaced, as `keepCopyAside` does. Only its being gone is no failure.
void keep(const std::filesystem::path& file, std::string_view reason, Date now);

}  // namespace quillmere::replacedFile
