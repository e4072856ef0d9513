#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <set>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// What a later sync does not make safe in one folder: files of which a sync failed, and all those in folders of which
/// one failed, for their names may be lost. The system may have dropped what it could not write, and says of the next
/// sync that all is well.
///
/// One for each folder, for the life of the process: what is known of the disk does not go with those who asked.
/// Not part of the library's interface. Thread-safe. Does not sync anything itself.
class SyncDoubt {
public:
    /// Files and folders below the folder, as paths that begin there; "." is the folder itself.
    struct Reach {
        std::set<std::filesystem::path> files;    ///< Files.
        std::set<std::filesystem::path> folders;  ///< Folders, for all files directly in them.
    };

    /// The one of the folder at a path, shared by all who ask for it, under whatever name. Asks the disk which folder
    /// that is; of one that is not there or cannot be looked at, one of its own.
    [[nodiscard]] static std::shared_ptr<SyncDoubt> of(const std::filesystem::path& folder);

    /// What a failed sync of a file below the folder, or of one of the folders it lies in, throws doubt on. To be made
    /// before it is needed: memory may have run out by then.
    [[nodiscard]] static Reach reachOfFile(const std::filesystem::path& file);

    /// The same for a sync of a folder, or of one of those it lies in.
    [[nodiscard]] static Reach reachOfFolder(const std::filesystem::path& folder);

    /// Whether a file below the folder is in doubt.
    [[nodiscard]] bool isOf(const std::filesystem::path& file) const;

    /// Takes in what a failure means for what was to be synced, if it is that of a sync.
    void remember(Reach reach, const FileError& failure) noexcept;

    /// Takes in what another one knows, of a folder that may be the same.
    void takeIn(const SyncDoubt& other);

    /// These files were written anew, with their names, and synced.
    void forget(std::set<std::filesystem::path> files) noexcept;

private:
    [[nodiscard]] bool isNone() const;

    mutable std::mutex mutex_;
    Reach reach_;                                // guarded by mutex_
    std::set<std::filesystem::path> forgotten_;  // guarded by mutex_; since a sync of a folder last failed
};

}  // namespace quillmere
