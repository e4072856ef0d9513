#pragma once

#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <unordered_set>
#include <vector>

#include "QuillmereKit/Library/LoopFolder.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopTable.hpp"
#include "QuillmereKit/Library/UsedFiles.hpp"

namespace quillmere {

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

    /// Removes pieces from memory; how many of them were there.
    std::size_t remove(std::span<const LoopKey> keys) noexcept;

    /// Writes the manifest in its ordinary form. New audio that cannot be made safe stops no other new piece: the
    /// manifest then lists what it did in place of that piece, and why is noted. Once what was refused before is
    /// refused again, the rest of that waits for its turn in a later save. Throws, and notes, what `LoopFolder::save`
    /// throws, and why the audio of the piece `needed` cannot be made safe; nothing is written then.
    void save(std::optional<LoopKey> needed = std::nullopt);

    /// The same where no caller could act on a failure: it is only noted.
    void saveIgnoringFailure() noexcept;

    /// Writes the manifest with all pieces, in the form meant for people. Throws and notes as `save` does.
    void savePretty(LoopKey needed);

    /// Whether it is known which of the folder's files the pieces use; notes why not.
    [[nodiscard]] bool isSureOf(const UsedFiles& used);

    /// Takes the lock for a store that is to write, as opening the folder for that would have done. Not to get it is no
    /// failure yet: the first change says so.
    void beginWriting();

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

    /// A piece that was stored since it was last saved.
    struct Change {
        std::vector<LoopArtifact> listed;  ///< What the manifest lists in its place: itself as it was, others that it
                                           ///< replaces.
        bool wasRefused = false;           ///< A save could not make its audio safe.
    };
    using Unsaved = std::map<LoopKey, Change>;  ///< By fingerprint.

    std::mutex mutex;
    LoopFolder folder;
    LoopTable table;
    std::unordered_set<LoopKey> bundledIDs;     // all seeds of the application's resources, imported now or earlier
    std::map<UUID, std::set<LoopKey>> playing;  // what each playback owner keeps from migration
    std::set<std::filesystem::path> migrating;  // temporary files of the migrations at work
    Unsaved unsaved;                            // what is not yet saved
    std::optional<LoopKey> lastRefused;         // behind it the next save begins to try again what was refused
    bool hasRemovals = false;                   // pieces were removed since the last save
    std::exception_ptr saveFailure;             // of the last save, or why files had to stay; null if it succeeded

private:
    bool importSeed(const LoopStore::BundledSeed& seed, const ResourceBundle& bundle);
    bool removeReplaced(const LoopStore::BundledSeed& seed, LoopKey key);
    bool takeBack(const LoopArtifact& before);
    void catchUp();
    [[nodiscard]] Unsaved makeSafe(std::optional<LoopKey> needed, std::exception_ptr& failure);
    [[nodiscard]] LoopTable listedInsteadOf(const Unsaved& unsafe) const;
    [[nodiscard]] Unsaved onceWritten(const Unsaved& unsafe) const;
    template <class MakeText>
    void write(LoopFolder::Scope scope, std::optional<LoopKey> needed, const MakeText& makeText);
};

}  // namespace quillmere
