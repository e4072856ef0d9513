#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Platform/FileSizes.hpp"
#include "QuillmereKit/Platform/ResourceBundle.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere {

/// The library of generated music on disk: one folder of audio files, and a manifest that lists a `LoopArtifact` for
/// each of them, by fingerprint.
///
/// What others say is not believed. A file is the store's own when it is a regular file whose path lies below the
/// folder's without a link on the way, and no list or lock (".json", ".lock"), which may be the store's records or the
/// user's; this is looked at again at the moment of removing it. Pieces whose files lie
/// elsewhere are loaded and played, but their files are never removed, moved, overwritten or counted. A manifest that
/// cannot be read, or of which entries were dropped, is kept beside the new one before the first save. One of more than
/// 1 GiB is neither read nor written; a list of seeds may have 64 MiB.
///
/// One process writes: it holds a lock on ".lock" in the folder as long as any store is open on it. In another process
/// the store loads, answers and plays, but removes nothing, and its saves fail with `LibraryInUse`; once the lock is
/// free, the next change first takes in what the other process wrote, and keeps what this one could not save. Stores
/// of one process on one folder are views of the same library: what one adds, all see.
///
/// Thread-safe: one plain mutex for each folder, held for the whole of each operation. Two kinds of callables run under
/// it and must not call back into a store: `discard`, and the predicate of `trash`.
/// Blocks on disk: construction, and every member that changes something or says so.
class LoopStore {
public:
    /// Removes a file or folder for the store; true if it is gone from its place. An exception counts as false.
    using Discard = std::function<bool(const FileURL&)>;

    /// What a store is opened for.
    enum class Access {
        /// To answer and to change: the lock on the folder is taken at once if it is free, what dead processes left is
        /// cleaned up, and new seeds are imported.
        writing,
        /// To answer: nothing in the folder is made, changed or locked, so that others are free to write. A later
        /// change through this store takes the lock first, and then takes in what others wrote.
        reading,
    };

    /// A piece that ships with the application: one element of the resource "seeds.json".
    struct BundledSeed {
        std::string file;                                  ///< Name of the audio resource, without its extension "m4a".
        LoopIdentity identity;                             ///< What the piece was generated from.
        double seconds = 0;                                ///< Length of the audio.
        std::optional<double> seamDB;                      ///< As in `LoopArtifact`.
        std::optional<LoopQuality> quality;                ///< As in `LoopArtifact`.
        std::optional<double> leadIn;                      ///< As in `LoopArtifact`.
        std::optional<std::vector<std::string>> replaces;  ///< Fingerprints of pieces that this one takes the place of.

        friend bool operator==(const BundledSeed&, const BundledSeed&) = default;
    };

    /// The process-wide store, made on first use: default folder, the application's resources, the user's trash. Under
    /// the automated harness its folder is "quillmere-loops-" and the process id, among the temporary files.
    [[nodiscard]] static const std::shared_ptr<LoopStore>& shared();

    /// Opens the store in `directory`, making it if needed (default: "Loops" in the application's data folder; a user
    /// without one stops the process), and imports the seeds of `bundle` that it does not hold yet; that one of them
    /// could not be copied is kept as `lastSaveError`. `discard` defaults to moving to the user's trash.
    ///
    /// Never fails: a folder that cannot be made, a missing or damaged manifest or a missing seed leaves the store with
    /// fewer pieces. An entry counts only if its file exists and is a regular file; a disk that cannot tell is given
    /// the benefit of the doubt.
    explicit LoopStore(const std::optional<std::filesystem::path>& directory = std::nullopt,
                       const ResourceBundle& bundle = ResourceBundle::main(), Discard discard = {},
                       Access access = Access::writing);
    ~LoopStore();
    LoopStore(const LoopStore&) = delete;
    LoopStore& operator=(const LoopStore&) = delete;

    /// The folder, absolute and made standard. Where this process already has the folder open under another name (a
    /// link), that name.
    [[nodiscard]] const std::filesystem::path& directory() const noexcept;

    /// The stored piece with this identity's fingerprint.
    [[nodiscard]] std::optional<LoopArtifact> artifact(const LoopIdentity& identity) const;
    /// The stored piece with exactly this fingerprint.
    [[nodiscard]] std::optional<LoopArtifact> artifact(std::string_view fingerprint) const;
    /// All stored pieces, sorted by fingerprint, ascending.
    [[nodiscard]] std::vector<LoopArtifact> all() const;
    /// Whether a piece with this identity's fingerprint is stored.
    [[nodiscard]] bool contains(const LoopIdentity& identity) const;
    /// How many pieces are stored.
    [[nodiscard]] std::size_t count() const;
    /// How many pieces of exactly this mood are stored.
    [[nodiscard]] std::size_t count(std::string_view moodID) const;

    /// How much music of one mood is stored.
    struct Material {
        std::size_t pieces = 0;  ///< How many pieces.
        double seconds = 0;      ///< Their length together; finite, and 0 or above.
    };
    /// How much music of each mood is stored, by mood identifier; without copying a piece. A length that is no finite
    /// number above 0, which a stranger's manifest may hold, counts as 0.
    [[nodiscard]] std::map<std::string, Material> material() const;

    /// Stores a piece, replacing the one with its fingerprint, and saves the manifest with all pieces whose files lie
    /// inside the folder. The piece's own audio is made durable first. A failed save is kept as `lastSaveError`; the
    /// piece stays stored in memory, and a later save tries again.
    void add(LoopArtifact artifact);

    /// The same for many pieces, with one save. If memory runs out none of them is stored.
    void add(std::vector<LoopArtifact> artifacts);

    /// The same for the caller who has to know: when this returns, the manifest on disk lists the piece and would
    /// survive a power cut. The manifest is then written in the form meant for people, and also lists the pieces whose
    /// files lie outside the folder, until the next ordinary save. Throws `FileError`, `LibraryInUse` or, for a piece
    /// that JSON cannot hold, `EncodingError`; the piece then stays in memory.
    void addPersistent(LoopArtifact artifact);

    /// Removes, through `discard`, a file inside the folder that no piece uses: the result of a cancelled render. Also
    /// removes the working folder "Render-…" directly in the store's folder that it leaves empty, but for a lock file
    /// that nobody holds. Returns whether anything was removed. False, with nothing touched, for files outside the
    /// folder or behind a link, for what is no regular file, for files that a piece uses, however its URL is spelled,
    /// or may use (see `prune`), and for the store's own records.
    bool discardUnstored(const FileURL& url);

    /// Moves such a file out of the way instead, durably, to a free name beside it
    /// ("NAME.unlisted-2024-05-01T10-20-30Z.wav"). For whoever needs the name and did not make the file: that no piece
    /// uses it may only mean that the entry was lost, and then it is music. Returns whether the name is free now;
    /// false, with nothing touched, for all that `discardUnstored` leaves alone. Throws `FileError` if it cannot be
    /// moved.
    bool moveUnstoredAside(const FileURL& url);

    /// The fingerprints of all seeds that ship with the application, imported or not.
    [[nodiscard]] std::set<std::string> bundledFingerprints() const;

    /// Keeps pieces as they are while `owner` plays them; replaces what the owner protected before. An empty set ends
    /// the protection. In memory only.
    void protectFromMigration(const std::set<std::string>& fingerprints, const UUID& owner);

    // Pools. All lists are sorted by fingerprint, ascending, and are copies; their cost grows with the mood, not
    // with the library.

    /// The pieces of a mood at one blend step; made with exactly this identity-model string where one is given.
    [[nodiscard]] std::vector<LoopArtifact> pool(std::string_view moodID, BlendStep blend,
                                                 std::optional<std::string_view> model = std::nullopt) const;

    /// The same at all blend steps.
    [[nodiscard]] std::vector<LoopArtifact> pool(std::string_view moodID,
                                                 std::optional<std::string_view> model = std::nullopt) const;

    /// The pieces of a mood that may be played now: those that still belong to their mood (see
    /// `LoopArtifact::isPlayable`) and are not among `excluding`, a set of fingerprints.
    ///
    /// A preferred identity-model string narrows the choice as far as there is music for it: to pieces made with
    /// exactly this string; else with the same model on any engine; else with any known model; else nothing is
    /// narrowed. Recordings always stay in.
    [[nodiscard]] std::vector<LoopArtifact> playbackPool(std::string_view moodID,
                                                         std::optional<std::string_view> preferredModel,
                                                         const std::set<std::string>& excluding) const;

    /// The piece of a mood with the lowest fingerprint at the blend step nearest to `blend` that has any; of two steps
    /// equally near the lower counts. Whether the piece still belongs to its mood does not matter here. The lock is
    /// taken once for each step.
    [[nodiscard]] std::optional<LoopArtifact> nearestCached(std::string_view moodID, BlendStep blend) const;

    // Housekeeping.

    /// Deletes the store's own pieces whose fingerprints are not in `keeping`, files and entries, but never a
    /// recording. Returns how many went. A file that cannot be deleted, or that a remaining piece uses too, stays, and
    /// the entry goes all the same. A failed save is kept as `lastSaveError`. In a library that another process holds
    /// nothing is deleted; nor where the system does not say which file a remaining piece uses, and it may be any: that
    /// is told by `lastSaveError`, and the pieces stay.
    std::int64_t prune(const std::set<std::string>& keeping);

    /// Moves the files of the store's own pieces for which `predicate` holds away through `discard`, drops the pieces
    /// for which that worked, and returns these. A file that another remaining piece uses is not moved. A failed save
    /// is kept as `lastSaveError`. Where `prune` deletes nothing, nothing is moved.
    std::vector<LoopArtifact> trash(const std::function<bool(const LoopArtifact&)>& predicate);

    /// The bytes of the store's own audio files; a file whose size cannot be read counts 0. Asks for the size of every
    /// file directly in the folder before it takes the mutex, so that a long look at the disk holds nobody up.
    [[nodiscard]] std::int64_t bytesOnDisk() const;

    /// The same for a caller who has asked the disk already, perhaps while the store was opened: `sizes` are those of
    /// the store's folder. Asks for what is not among them.
    [[nodiscard]] std::int64_t bytesOnDisk(const FileSizes& sizes) const;

    /// The pieces without a loudness measurement, by fingerprint.
    [[nodiscard]] std::vector<LoopArtifact> loudnessCandidates() const;

    /// Stores a measurement of exactly this piece and saves the manifest. False, with nothing changed, if the piece
    /// has changed or gone since, or its file is not there. Throws `EncodingError`, with nothing changed, for a
    /// measurement that is not finite; `FileError` or `LibraryInUse` if the save fails: the measurement then stays in
    /// memory.
    bool setLoudness(const AudioLoudness& loudness, const LoopArtifact& artifact);

    // The lossless migration.

    /// Writes the lossless copy of a WAV file, `source`, to `destination`, where nothing is yet; or throws.
    using Encode = std::function<void(const FileURL& source, const FileURL& destination)>;

    /// The pieces that can be migrated now, by fingerprint: full tracks of the store's own, 16-bit WAV files as far as
    /// their names tell, neither seeds nor protected. Asks the disk for each.
    [[nodiscard]] std::vector<LoopArtifact> losslessMigrationCandidates() const;

    /// Replaces a piece's WAV file by a lossless one, once that is proved to decode to the same samples: encodes beside
    /// it, compares digest and length, records the new file durably, and only then discards the WAV file. A valid
    /// lossless file that lies there already is adopted. True: the piece now points at its lossless file.
    ///
    /// False, with nothing changed, if the piece has changed, gone, or may not be migrated (any more). Decoding and
    /// encoding run without the lock; `encode` on the calling thread. Whatever fails, the WAV file is still there, or
    /// the manifest names the verified copy. Throws `FileError`: `fileReadCorruptFile` if the source is not 16-bit, 48
    /// kHz stereo linear PCM, `fileWriteUnknown` if the encoded file does not decode to the same samples or the
    /// manifest cannot be saved, what opening or moving gives; `LibraryInUse`; `CancellationError` when `stop` asks;
    /// what `encode` throws. Only where the manifest could not be brought back either, the error's `isInPlace()` is
    /// true: manifest and memory then name the lossless file, and both files are there. A piece that names a damaged
    /// lossless file names its WAV file, on disk too, before that one goes.
    bool migrateToLossless(const LoopArtifact& artifact, const Encode& encode, const std::stop_token& stop = {});

    /// What was wrong with the manifest when it was last read, where nothing of it could be: the pieces that it lists
    /// are not here, and what has been saved since, be it only what ships with the application, stands in its place. A
    /// sentence for the user.
    [[nodiscard]] std::optional<std::string> manifestProblem() const;

    /// Why the last save failed, which pieces it had to leave out, why a seed could not be brought in, or which piece
    /// could not be looked at, so that files had to stay, until a save succeeds with all. A sentence for the user.
    [[nodiscard]] std::optional<std::string> lastSaveError() const;

private:
    struct State;

    struct UnstoredFile {
        std::filesystem::path place;
        bool isFolderUsed;  // a piece may need the folder that it lies in
    };
    // The file that a URL names, if it lies in the folder and certainly no piece uses it. Under the state's lock.
    [[nodiscard]] std::optional<UnstoredFile> unstoredFile(const FileURL& url);

    const std::shared_ptr<State> state_;
    const Discard discard_;
};

/// {"file": string, "identity": identity, "seconds": number, "seamDB"?: number, "quality"?: quality, "leadIn"?: number,
/// "replaces"?: [string]}
template <>
LoopStore::BundledSeed decode<LoopStore::BundledSeed>(const JSONValue& value);

}  // namespace quillmere
