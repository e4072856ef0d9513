#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Platform/Calendar.hpp"
#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// What stands at a path, links not followed.
struct FileFacts {
    /// What stands there.
    enum class Kind { regular, folder, link, other };
    Kind kind = Kind::other;   ///< What it is.
    std::uint64_t size = 0;    ///< Bytes; of a regular file.
    Date modified;             ///< When its content last changed.
    std::uint64_t device = 0;  ///< The file system it is on.
    std::uint64_t inode = 0;   ///< Its number there; with `device`, the file's identity.

    /// Equal facts, taken at two times, mean that nobody has written or replaced the file in between.
    friend bool operator==(const FileFacts&, const FileFacts&) = default;
};

/// Whether a path whose last component is a symbolic link names what the link points to. Links above the last
/// component are always followed: the user may keep the whole folder elsewhere.
enum class FinalLink {
    refused,   ///< A link is not a regular file: `fileNotRegular`. For everything that the program finds by itself.
    followed,  ///< For a path that the user named.
};

/// One entry of a folder.
struct FolderEntry {
    std::string name;                               ///< Its name in the folder.
    FileFacts::Kind kind = FileFacts::Kind::other;  ///< What it is.
};

// All functions are thread-safe, block on disk, retry interrupted calls and throw `FileError` with the
// step, the path and the cause, except where they say otherwise. A path with a zero byte in it names nothing.

/// Writes a whole file so that it holds either its old content or all of the new, and the new survives
/// a power cut once this returns: a fresh temporary file in the same folder (random name, never
/// through a link), written, synced and closed, renamed over `file`, and the folder synced.
///
/// An existing file's permission bits are kept; a new one gets 0644 less the process's mask. Only a regular file is
/// ever replaced: a link, a folder or anything else at `file` is the error `fileNotRegular`.
///
/// On any failure before the rename the temporary file is removed and `file` untouched. If only the
/// last folder sync fails, the new content is in place and the error's `isInPlace()` is true. A failed
/// sync is never retried.
void writeDurably(const std::filesystem::path& file, std::string_view bytes);

/// Whether a name is that of a temporary file of `writeDurably`, left behind by a crash.
[[nodiscard]] bool isTemporaryFileName(std::string_view name) noexcept;

/// Removes the temporary files of `writeDurably` in a folder that nobody has written to for an hour, as no write takes:
/// what crashed processes left where no lock says whether they still run. What cannot be removed stays. Does not throw.
/// A process that was only asleep for so long has its write fail, and its file as it was.
void removeOldTemporaries(const std::filesystem::path& folder) noexcept;

/// Opens a regular file for reading, never anything else; a fifo nobody writes to is refused at once.
[[nodiscard]] Descriptor openRegularFile(const std::filesystem::path& file, FinalLink link = FinalLink::refused);

/// The content of a regular file of at most `limit` bytes; a larger one is the error `fileReadTooLarge`.
/// A missing file is an error here.
[[nodiscard]] std::string readFile(const std::filesystem::path& file, std::size_t limit,
                                   FinalLink link = FinalLink::refused);

/// The same, or nothing if the folder is there and holds no such name, or the folder itself is missing.
[[nodiscard]] std::optional<std::string> readFileIfPresent(const std::filesystem::path& file, std::size_t limit);

/// Creates a folder and its missing parents, each synced into its parent and the user's alone (0700, as the XDG Base
/// Directory Specification asks). An existing folder, also one behind a link, is fine.
void createFolders(const std::filesystem::path& folder);

/// What stands at `path`, or nothing where nothing does or it cannot be looked at. Does not throw.
[[nodiscard]] std::optional<FileFacts> factsOf(const std::filesystem::path& path) noexcept;

/// Whether something stands at `path`, links followed. Does not throw.
[[nodiscard]] bool fileExists(const std::filesystem::path& path) noexcept;

/// The entries of a folder, without `.` and `..`, in no particular order.
[[nodiscard]] std::vector<FolderEntry> listFolder(const std::filesystem::path& folder);

/// Flushes a regular file's content, or a folder's names, to the disk.
void syncFile(const std::filesystem::path& file);
void syncFolder(const std::filesystem::path& folder);

/// Renames `from` to `to` on the same file system and syncs the folders; never over an existing file
/// (the error's code is then `std::errc::file_exists`). If only a folder's sync fails, the error's `isInPlace()` is
/// true.
void moveFile(const std::filesystem::path& from, const std::filesystem::path& to);

/// Copies a regular file durably, as `writeDurably` writes, but never over anything that exists
/// (`std::errc::file_exists`). The copy gets the permission bits of a new file.
void copyFile(const std::filesystem::path& from, const std::filesystem::path& to);

/// Removes one file or link, never a folder. Returns false if nothing was there.
bool removeFile(const std::filesystem::path& file);

/// Removes a folder with all it holds, following no link, `folder` itself included. Returns false if nothing was there.
bool removeFolder(const std::filesystem::path& folder);

/// Keeps a copy of `file` beside it, under its name without extension, "." + `reason` + "-" + time stamp +
/// the extension ("manifest.unreadable-2024-05-01T10-20-30Z.json"; a number follows the stamp where the
/// name is taken), and of such copies for this reason the newest three. The file itself stays. Returns the copy's path.
/// That an older copy could not be removed is no failure. A copy whose name could not be made safe is removed again.
std::filesystem::path keepCopyAside(const std::filesystem::path& file, std::string_view reason, Date now);

/// Moves `file` away under such a name, never over another file, by `move`, which behaves as `moveFile` does. Returns
/// the new path.
std::filesystem::path moveAside(
    const std::filesystem::path& file, std::string_view reason, Date now,
    const std::function<void(const std::filesystem::path& from, const std::filesystem::path& to)>& move = moveFile);

}  // namespace quillmere
