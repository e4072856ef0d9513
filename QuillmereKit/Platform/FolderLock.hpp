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
    /// The folder and who holds it, as far as known.
    LibraryInUse(std::filesystem::path folder, std::string holder);

    /// The folder.
    [[nodiscard]] const std::filesystem::path& folder() const noexcept { return folder_; }
    /// Who holds it, as far as known: program and process id ("quillmere, process 4711").
    [[nodiscard]] const std::string& holder() const noexcept { return holder_; }

private:
    std::filesystem::path folder_;
    std::string holder_;
};

/// The right of one process to write in a folder, kept as a lock on a file in it.
///
/// The operating system frees the lock when the process ends in whatever way; a program that it starts does not
/// inherit it. (A copy of the process made by `fork` alone shares it until it runs another program or ends.)
/// Several users in one process share it; it is freed when the last handle goes. The lock file stays:
/// removing it could take it away from under the next owner. Thread-safe; blocks on disk, but never on another's lock.
class FolderLock {
public:
    /// Takes the lock on `lockFile` (made if missing), or shares this process's own; never waits.
    ///
    /// Throws `LibraryInUse` if another process holds it, and `FileError` for every other cause: the file cannot be
    /// made or opened, the file system has no locks, or what stands there is no lock file. That is anything but a
    /// regular file, links too (`fileNotRegular`), and a file that holds something else than a lock file's line
    /// (`fileNotOwn`): it is left as it is, and only regular files are ever opened. A lock file that has a second name
    /// is locked, but its holder is not written down: the other name may be somebody else's.
    [[nodiscard]] static std::shared_ptr<FolderLock> acquire(const std::filesystem::path& lockFile);

    /// The same, or nothing where that throws one of these.
    [[nodiscard]] static std::shared_ptr<FolderLock> tryAcquire(const std::filesystem::path& lockFile);

    /// Whether any process, this one included, holds the lock now. False if there is no lock file; true where that
    /// cannot be told, or what stands there is no lock file, because "free" is what others act on.
    [[nodiscard]] static bool isHeld(const std::filesystem::path& lockFile) noexcept;

    /// Who holds it, from the lock file's text ("quillmere, process 4711"); "another process" where that cannot be
    /// told.
    [[nodiscard]] static std::string holder(const std::filesystem::path& lockFile);

    /// Whether the file at the path is still the one that is locked. Somebody may have removed or replaced it since;
    /// then another process can lock the new one.
    [[nodiscard]] bool isInForce() const noexcept;

    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    struct State;
    explicit FolderLock(std::unique_ptr<State> state) noexcept;
    std::unique_ptr<State> state_;
};

}  // namespace quillmere
