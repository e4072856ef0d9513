#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"

namespace quillmere {

/// A folder and the question which files are its own.
///
/// A file is the folder's own when its standard path is the folder's standard path, "/" and a rest, no
/// link lies on the way below the folder, and it is a regular file. Everything that opens, deletes or moves
/// asks again at that very moment, on the folder's own descriptors, so that a link swapped
/// in between check and use leads nowhere. Links on the way to the folder itself are followed: the user may
/// keep it elsewhere. A value; thread-safe to use; touches the disk.
class OwnFolder {
public:
    /// A relative `folder` is taken from the current one, now.
    explicit OwnFolder(std::filesystem::path folder);

    /// The folder's standard path.
    [[nodiscard]] const std::filesystem::path& path() const noexcept { return folder_; }

    /// Whether `file`'s standard path lies below the folder's, by text alone. Does not touch the disk.
    [[nodiscard]] bool names(const std::filesystem::path& file) const;

    /// Whether `file` is the folder's own regular file now.
    [[nodiscard]] bool owns(const std::filesystem::path& file) const noexcept;

    /// What `file` is, if it is the folder's own regular file now.
    [[nodiscard]] std::optional<FileFacts> facts(const std::filesystem::path& file) const noexcept;

    /// Opens the folder's own `file` for reading. Throws `FileError`; with `std::errc::operation_not_permitted` if the
    /// file is not below the folder or a link lies on the way, with `fileNotRegular` if it is no regular file.
    [[nodiscard]] Descriptor open(const std::filesystem::path& file) const;

    /// Deletes `file` if it is the folder's own, and syncs the folder it stood in. Returns whether it was
    /// deleted; false, with nothing touched, if it is not its own or not there. Throws `FileError` if deleting failed;
    /// if only the sync did, the error's `isInPlace()` is true.
    bool remove(const std::filesystem::path& file) const;

    /// The same without the sync, for many files at once: one `syncFolder` afterwards serves all that stood in a
    /// folder.
    bool removeUnsynced(const std::filesystem::path& file) const;

    /// Renames the folder's own file `from` to `to`, a free name below the folder in a folder that is there, and syncs
    /// both folders; never over anything that exists. Throws `FileError`, nothing being changed: with
    /// `std::errc::file_exists` if something stands at `to`, with `std::errc::operation_not_permitted` or
    /// `fileNotRegular` where `open` does. If only a sync failed, the error's `isInPlace()` is true.
    void move(const std::filesystem::path& from, const std::filesystem::path& to) const;

    /// Writes the folder's own `file` anew: what it holds goes into a fresh file beside it, which is synced and takes
    /// its place, and the folder is synced. For a file of which a sync failed: what the system could not write it may
    /// have dropped, and a later sync of the same file succeeds without it. Keeps the permission bits. Throws
    /// `FileError`, the file being as it was: where `open` does, and with `std::errc::resource_unavailable_try_again`
    /// if it changed meanwhile. If only the last sync failed, the error's `isInPlace()` is true.
    void rewrite(const std::filesystem::path& file) const;

    /// Removes a folder below this one with all it holds, following no link. Returns whether it was removed; false,
    /// with nothing touched, if it is not a folder below this one, a link lies on the way, or it is not there. Throws
    /// `FileError` if removing failed on the way.
    bool removeFolder(const std::filesystem::path& folder) const;

    /// The same for a folder that holds nothing; false if it holds anything.
    bool removeEmptyFolder(const std::filesystem::path& folder) const;

private:
    struct Location;
    [[nodiscard]] std::optional<std::filesystem::path> restOf(const std::filesystem::path& file) const;
    [[nodiscard]] std::optional<Location> locate(const std::filesystem::path& file, const char* step,
                                                 std::error_code& error) const;
    [[nodiscard]] std::optional<Location> unlinked(const std::filesystem::path& file) const;
    [[nodiscard]] Location located(const std::filesystem::path& file, const char* step) const;

    std::filesystem::path folder_;
    std::string prefix_;  // the standard path and one "/"
};

}  // namespace quillmere
