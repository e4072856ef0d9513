#pragma once

#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <vector>

#include "QuillmereKit/Library/LoopFolder.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopTable.hpp"

namespace quillmere {

/// The files that some pieces use, whatever their URLs look like. Lives no longer than the pieces.
class UsedFiles {
public:
    explicit UsedFiles(const LoopFolder& folder);

    void add(const StoredLoop& loop);

    /// Whether one of the pieces is known to use the folder's own file at this standard path.
    [[nodiscard]] bool contains(const std::filesystem::path& file) const;

    /// Why any file of the folder may be in use besides, and then none may be removed: the system does not say where a
    /// piece's file lies, and its path is in the folder or goes through a link. What lies elsewhere, as far as can be
    /// seen without a link on the way, is no file of the folder's, be it a mount that is gone.
    [[nodiscard]] const std::optional<FileError>& doubt() const noexcept { return doubt_; }

private:
    const LoopFolder& folder_;
    std::filesystem::path realFolder_;            // the folder without links; empty if it cannot be had
    std::error_code folderError_;                 // why, unless it is not there
    std::unordered_set<std::string_view> names_;  // of plain files directly in the folder
    std::unordered_set<std::string> paths_;       // of all others, as they are spelled and where they really lie
    std::optional<FileError> doubt_;
};

/// The files of one lossless migration.
struct MigrationFiles {
    std::filesystem::path source;     ///< The WAV file.
    std::filesystem::path target;     ///< The lossless file that takes its place.
    std::filesystem::path temporary;  ///< Where it is made.
};

/// What all stores of this process on one folder share. Everything but `mutex` is guarded by it; only a migration,
/// which holds nobody up while it encodes, calls what `folder` offers without it.
struct LoopStore::State {
    State(std::filesystem::path directory, Access access);

    /// The state of the folder, shared with every store of this process that has it open, for whatever it was opened.
    [[nodiscard]] static std::shared_ptr<State> open(const std::filesystem::path& directory, Access access);

    /// Notes the seeds of an application's resources and, for writing, imports those that the library does not hold.
    void mergeSeeds(const ResourceBundle& bundle, Access access);

    /// Stores a piece in memory.
    void put(LoopArtifact artifact) { putAll({&artifact, 1}); }

    /// The same for many, which are taken away: all of them, or none if memory runs out.
    void putAll(std::span<LoopArtifact> artifacts);

    /// Writes the manifest in its ordinary form; throws what `LoopFolder::save` throws, and notes it.
    void save();

    /// The same where no caller could act on a failure: it is only noted.
    void saveIgnoringFailure() noexcept;

    /// Writes the manifest with all pieces, in the form meant for people. Throws and notes as `save` does.
    void savePretty();

    /// Whether it is known which of the folder's files the pieces use; notes why not.
    [[nodiscard]] bool isSureOf(const UsedFiles& used);

    /// Calls `discard`; an exception counts as false.
    [[nodiscard]] static bool tryDiscard(const Discard& discard, const FileURL& url) noexcept;

    /// The same for a file at a standard path, named by `url` as far as that spells out the same path.
    [[nodiscard]] static bool tryDiscard(const Discard& discard, const std::filesystem::path& file,
                                         const FileURL& url) noexcept;

    /// Discards a file if it is the folder's own at this moment.
    void discardOwn(const Discard& discard, const std::filesystem::path& file) const noexcept;

    /// Whether a piece may be migrated now: a full track of the store's own, not a seed, not playing, and still a WAV
    /// file, or a lossless one that a migration left its WAV file beside.
    [[nodiscard]] bool canMigrate(const StoredLoop& loop) const;

    /// Stores a piece and saves. What cannot be saved is taken back: the piece is `before` again, in memory and, as far
    /// as it had come, on disk. Throws what `save` throws, or `EncodingError` for a piece that no manifest can hold.
    /// Only where the taking back failed too is the change in place; the error says so, and memory keeps it.
    void record(const LoopArtifact& changed, const LoopArtifact& before);

    /// Encodes into the temporary file, calls `verify`, and gives the file the target's name. Neither encodes nor
    /// verifies under the lock, but `lock`, which is not held before, is held when it returns: nobody changes the piece
    /// between the move and the record of it. A piece that names the target names the source before
    /// the target goes, and `piece` is changed with it. False if that one must not be changed any more. On failure the
    /// temporary file is gone.
    bool encodeLossless(const Discard& discard, LoopArtifact& piece, const MigrationFiles& files, const Encode& encode,
                        const std::function<void()>& verify, const std::stop_token& stop,
                        std::unique_lock<std::mutex>& lock);

    /// Records that a piece that names the target plays from the source. False, with nothing done, if it is gone, has
    /// gone to another file, or names the target and is not the one given any more, or may not be migrated. Throws what
    /// `record` throws.
    bool fallBackToSource(LoopArtifact& piece, const MigrationFiles& files);

    /// Makes sure that this process may change the folder. Where it could not until now, it first takes in what others
    /// have written meanwhile: the table may be another one afterwards. Throws `LibraryInUse` or `FileError`.
    void requireLock();

    /// The same where the caller only wants to know; notes why not.
    [[nodiscard]] bool mayChangeFiles() noexcept;

    std::mutex mutex;
    LoopFolder folder;
    LoopTable table;
    std::unordered_set<LoopKey> bundledIDs;     // all seeds of the application's resources, imported now or earlier
    std::map<UUID, std::set<LoopKey>> playing;  // what each playback owner keeps from migration
    std::set<std::filesystem::path> migrating;  // temporary files of the migrations at work
    std::set<LoopKey> unsaved;                  // pieces stored since the last save that succeeded
    std::exception_ptr saveFailure;             // of the last save, or why files had to stay; null if it succeeded

private:
    bool importSeed(const LoopStore::BundledSeed& seed, const ResourceBundle& bundle);
    bool takeBack(const LoopArtifact& before);
    void catchUp();
    template <class MakeText>
    void write(LoopFolder::Scope scope, const MakeText& makeText);
};

}  // namespace quillmere
