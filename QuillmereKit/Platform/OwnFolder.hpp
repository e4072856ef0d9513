#pragma once

#include <filesystem>

namespace quillmere {

/// A folder and the question which files are its own.
///
/// A file is the folder's own when its standard path is the folder's standard path, "/" and a rest, no
/// link lies on the way below the folder, and it is a regular file. Everything that deletes, moves or
/// overwrites asks again at that very moment, on the folder's own descriptors, so that a link swapped
/// in between check and use leads nowhere. A value; thread-safe to use; touches the disk.
class OwnFolder {
public:
    explicit OwnFolder(std::filesystem::path folder);

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return folder_; }

    /// Whether `file`'s standard path lies below the folder's, by text alone. Does not touch the disk.
    [[nodiscard]] bool names(const std::filesystem::path& file) const;

    /// Whether `file` is the folder's own regular file now.
    [[nodiscard]] bool owns(const std::filesystem::path& file) const noexcept;

    /// Deletes `file` if it is the folder's own, and syncs the folder it stood in. Returns whether it was
    /// deleted; false, with nothing touched, if it is not its own or not there. Throws `FileError` if deleting failed.
    bool remove(const std::filesystem::path& file) const;

private:
    std::filesystem::path folder_;
};

}  // namespace quillmere
