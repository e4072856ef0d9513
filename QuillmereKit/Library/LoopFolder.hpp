#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "QuillmereKit/Library/LoopTable.hpp"
#include "QuillmereKit/Library/SyncDoubt.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSizes.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

namespace quillmere {

/// A loop store's folder on disk: who may write in it, which files are its own, and its manifest.
///
/// Not thread-safe: the store's lock guards it. Only `sync`, and what asks where a file lies or what it is, may be
/// called without: that looks at nothing that changes. Blocks on disk.
class LoopFolder {
public:
    /// The file that a process holds locked as long as it has the store open.
    static constexpr std::string_view lockName = ".lock";
    /// What the names of renderers' working folders begin with; an identifier follows.
    static constexpr std::string_view workPrefix = "Render-";
    /// What the names of the files that a migration writes into begin and end with.
    static constexpr std::string_view migrationPrefix = ".";
    static constexpr std::string_view migrationSuffix = ".migration.m4a";

    /// What the name of a host's own records of the pieces' samples begins with; they are as safe as the manifest.
    static constexpr std::string_view digestsPrefix = "digests.";

    /// To be written in, makes the folder with its parents if it can, and takes its lock if it can.
    explicit LoopFolder(std::filesystem::path path, bool isWritten = true);

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return files_.path(); }

    /// The path that a URL names, or nothing where it can name no file: another scheme, a relative path, a zero byte.
    [[nodiscard]] static std::optional<std::filesystem::path> fileOf(const FileURL& url);

    /// Whether a URL names a regular file that is there, inside the folder or not.
    [[nodiscard]] static bool isRegularFile(const FileURL& url);

    /// The same for who must not take one that the disk cannot tell of for one that is gone. Throws `FileError` then.
    [[nodiscard]] static bool isCertainlyThere(const FileURL& url);

    /// Whether what the system answered to a path means that it leads to no file; otherwise it could not tell.
    [[nodiscard]] static bool meansNoFile(const std::error_code& error) noexcept;

    /// The name of a file directly in the folder, where the URL is the one that this library itself would give it;
    /// nothing for any other URL, wherever it leads. Lives as long as the URL.
    [[nodiscard]] std::optional<std::string_view> plainName(const FileURL& url) const noexcept;

    /// Where a URL leads, as far as the folder is concerned. `isPlain` asks the disk.
    [[nodiscard]] LoopTable::Place placeOf(const FileURL& url) const;

    /// The standard path of a piece's file inside the folder.
    [[nodiscard]] std::filesystem::path fileInside(const StoredLoop& loop) const;

    /// Whether a path lies inside the folder, by text alone.
    [[nodiscard]] bool names(const std::filesystem::path& file) const { return files_.names(file); }

    /// Whether a standard path names the folder's own file now, and none of those that the store keeps its books in.
    [[nodiscard]] bool owns(const std::filesystem::path& file) const noexcept;

    /// The bytes of the pieces' files, as far as the folder owns them: from `sizes`, which are the folder's, or asked
    /// for where a file is not among them.
    [[nodiscard]] std::uint64_t sizeOfFiles(const LoopTable& table, const FileSizes& sizes) const;

    /// Deletes each of the files that the folder owns at that moment. What cannot be deleted stays, without a report.
    /// That a sync failed is remembered for `sync`.
    void remove(std::span<const std::filesystem::path> files) const;

    /// Copies a file durably to `target`, directly in the folder, unless a regular file stands there. Whether one does
    /// now. Throws `FileError`; that a sync failed is remembered for `sync`.
    bool bringIn(const std::filesystem::path& source, const std::filesystem::path& target) const;

    /// Whether `place` is a working folder directly in this one that holds nothing, or nothing but a lock file that
    /// nobody holds.
    [[nodiscard]] bool isFinishedWork(const std::filesystem::path& place) const;

    /// Whether nothing at all stands at a path. False where that cannot be told.
    [[nodiscard]] static bool isNothingAt(const std::filesystem::path& place) noexcept;

    /// Flushes a piece's file and its name to the disk if the folder owns it. A file of which that failed, now or
    /// before in this process, is written anew, because syncing it again would prove nothing. Throws `FileError`; that
    /// it failed is remembered. Thread-safe.
    void sync(const FileURL& url);

    /// Gives the folder's own file `from` the free name `to` in the folder, durably. Throws what `OwnFolder::move`
    /// throws; that a sync failed is remembered for `sync`.
    void move(const std::filesystem::path& from, const std::filesystem::path& to);

    /// The same, to a free name beside it that tells of a reason and the time, as `quillmere::moveAside` makes it.
    void moveAside(const std::filesystem::path& file, std::string_view reason, Date now) const;

    /// Fills an empty table with the entries of the manifest whose files exist as regular files. Returns whether the
    /// manifest could be read; a missing one is an empty one. A manifest that cannot be read, or not be kept whole, is
    /// kept aside before the next save.
    bool load(LoopTable& table);

    /// Removes what dead processes had left in the folder when it was loaded, if this one may write in it and the
    /// manifest could be read: temporary files, those of migrations too, and renderers' working folders whose lock file
    /// is free. Spares what an entry uses, the files of `migrating`, which this process is working on, and temporary
    /// files while somebody writes a list of the user's in this folder. Where it cannot be told what the entries use,
    /// nothing is removed, and where not all could be read, no more than temporary files; the next start tries again.
    void cleanLeftovers(const LoopTable& table, const std::set<std::filesystem::path>& migrating);

    /// Whether this process may write in the folder: it holds the lock on the lock file that is there now.
    [[nodiscard]] bool hasLock() const noexcept { return lock_ && lock_->isInForce(); }

    /// Takes the lock, anew if the folder was replaced under the running program. Throws as `FolderLock::acquire` does,
    /// and `FileError` if the folder cannot be made.
    void takeLock();

    /// Whether the manifest is there and another than this process last read or wrote. Throws `FileError` where that
    /// cannot be told.
    [[nodiscard]] bool isManifestForeign() const;

    /// Whether the manifest could not be read when that was last tried, for a reason that may have passed: an input
    /// error, a missing right. One whose text is damaged was read.
    [[nodiscard]] bool isManifestUnread() const noexcept { return isUnread_; }
    /// Why, where it was the system that refused: read again, the manifest may be there.
    [[nodiscard]] const std::optional<FileError>& refusal() const noexcept { return refusal_; }
    /// Lets the manifest count as unread: what was read of it was lost again, or is not what it holds now.
    void forgetManifest() noexcept { isUnread_ = true; }

    /// Which entries a manifest's text lists.
    enum class Scope {
        inside,  ///< Those whose files lie inside the folder.
        all,
    };

    /// What is wrong with the manifest that was last read, where it could not be read at all.
    [[nodiscard]] const std::optional<std::string>& manifestProblem() const noexcept { return problem_; }

    /// Lets the folder know of a piece whose file lies elsewhere: the next manifest with `Scope::all` lists it.
    void noteOutside() noexcept { isOutsideNew_ = true; }

    /// Writes the manifest durably, keeping aside what must not be lost by it. For the holder of the lock only. Throws
    /// `FileError`; the manifest is then as it was, unless the error says that it is in place.
    void save(std::string_view manifest, Scope scope);

private:
    [[nodiscard]] std::filesystem::path lockFile() const { return path() / lockName; }
    [[nodiscard]] std::optional<FileFacts> factsOfOwn(const std::filesystem::path& file) const noexcept;
    [[nodiscard]] static bool isBookkeepingName(std::string_view name) noexcept;
    [[nodiscard]] bool isBookkeeping(const std::filesystem::path& file) const noexcept;
    [[nodiscard]] std::optional<JSONDocument> readManifest();
    [[nodiscard]] std::filesystem::path restOf(const std::filesystem::path& place) const {
        return place.lexically_relative(path());
    }
    template <class Use>
    auto withDoubt(const Use& use) const;
    template <class Action>
    void remembering(SyncDoubt::Reach reach, const Action& action) const;

    const OwnFolder files_;
    const std::filesystem::path manifestFile_;
    const std::string urlPrefix_;  // the text of the folder's URL and "/"
    mutable std::mutex doubtMutex_;
    std::shared_ptr<SyncDoubt> doubt_;  // guarded by doubtMutex_, for `sync` does without the store's lock
    std::shared_ptr<FolderLock> lock_;
    std::optional<FileFacts> manifest_;             // the manifest as this process last read or wrote it
    std::optional<std::string_view> reasonToKeep_;  // why the manifest must be kept aside before it is replaced
    std::optional<FileFacts> kept_;                 // the one of which a copy was kept last
    bool listsOutside_ = false;                     // it names files elsewhere of which no copy is kept
    bool isOutsideNew_ = false;                     // it will, once it lists all
    bool isUnread_ = false;
    std::optional<FileError> refusal_;
    std::optional<std::string> problem_;
    std::vector<FolderEntry> leftovers_;  // what loading found that may be a dead process's
    std::vector<std::string> listLocks_;  // and the locks of lists that lie in the folder
};

}  // namespace quillmere
