#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// A folder that this process wants to change is held by another one.
class LibraryInUse : public Error {
public:
    LibraryInUse(std::filesystem::path folder, std::string holder);

    [[nodiscard]] const std::filesystem::path& folder() const noexcept { return folder_; }
    /// Who holds it, as far as known: program and process id ("quillmere, process 4711").
    [[nodiscard]] const std::string& holder() const noexcept { return holder_; }

private:
    std::filesystem::path folder_;
    std::string holder_;
};

/// The right of one process to write in a folder, kept as a lock on a file in it.
///
/// The operating system frees the lock when the process ends in whatever way. Several users in one
/// process share it; it is freed when the last copy of the shared handle goes. Thread-safe.
class FolderLock {
public:
    /// Takes the lock on `lockFile` (made if missing), or shares this process's own. Returns nothing if another process
    /// holds it or the file cannot be made; never waits.
    [[nodiscard]] static std::shared_ptr<FolderLock> tryAcquire(const std::filesystem::path& lockFile);

    /// Whether any process, this one included, holds the lock now.
    [[nodiscard]] static bool isHeld(const std::filesystem::path& lockFile) noexcept;

    /// Who holds it, from the lock file's text; "another process" where that cannot be told.
    [[nodiscard]] static std::string holder(const std::filesystem::path& lockFile);

    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    FolderLock() = default;
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace quillmere
