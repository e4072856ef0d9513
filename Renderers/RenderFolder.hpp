#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "QuillmereKit/Library/SyncDoubt.hpp"
#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"

namespace quillmere {

/// The working folder of one render: `Render-` and a fresh identifier, inside the loop store's folder. Gone, with all
/// it holds, when the object is.
///
/// Its lock file, `.lock`, is held from before the folder has its name until after it is empty, so a `Render-` folder
/// whose lock is free is always a dead run's. The folder is known by its descriptor: what an engine puts at its path
/// instead leads nowhere. Not thread-safe; blocks on disk.
class RenderFolder {
public:
    /// Makes the folder. Throws `FileError`.
    explicit RenderFolder(const std::filesystem::path& store);
    ~RenderFolder();
    RenderFolder(const RenderFolder&) = delete;
    RenderFolder& operator=(const RenderFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
    [[nodiscard]] int number() const noexcept { return folder_.number(); }

    /// Opens a regular file that lies directly in the folder. Throws `EngineFailure` (refusedFile) for any name that
    /// leads elsewhere, a link, anything else that is no regular file, a file that has a second name, and where
    /// nothing is; `FileError` for the system's own failures.
    [[nodiscard]] Descriptor open(const std::string& name) const;

    /// The same, but nothing where nothing is.
    [[nodiscard]] std::optional<Descriptor> openIfPresent(const std::string& name) const;

    /// Renames the file `name`, which must still be the one that is open as `file`, into the store's folder, never over
    /// anything, and makes both names durable. Returns false, with nothing changed, if something has that name already.
    /// Throws `EngineFailure` (refusedFile) if `name` is another file now, `FileError` if it failed; the file is then
    /// not in the store's folder. That the folder could not be synced is remembered for what else lies in it.
    [[nodiscard]] bool moveOut(const std::string& name, const Descriptor& file, const std::string& newName) const;

    /// Removes what runs that died while they made their folder left in the store's folder. Swallows failures: nothing
    /// depends on it, and the next run tries again.
    static void removeLeftovers(const std::filesystem::path& store) noexcept;

private:
    std::filesystem::path path_;
    Descriptor store_;
    std::shared_ptr<SyncDoubt> doubt_;
    std::array<Descriptor, 3> spare_;  // so that the folder can be removed when no descriptor is to be had any more
    Descriptor folder_;
    std::shared_ptr<FolderLock> lock_;
};

}  // namespace quillmere
