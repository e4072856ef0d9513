#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopStoreState.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {
namespace {

using std::filesystem::path;

std::string lowerCaseExtension(const path& file) {
    std::string extension = file.extension().string();
    std::ranges::transform(extension, extension.begin(),
                           [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return extension;
}

// A file is taken as it is, however its extension is spelled.
MigrationFiles filesOf(const path& file) {
    const std::string extension = lowerCaseExtension(file);
    path source = extension == ".wav" ? file : path(file).replace_extension(".wav");
    path target = extension == ".m4a" ? file : path(file).replace_extension(".m4a");
    path temporary = file.parent_path() / (std::string(LoopFolder::migrationPrefix) + source.filename().string() +
                                           std::string(LoopFolder::migrationSuffix));
    return {std::move(source), std::move(target), std::move(temporary)};
}

[[noreturn]] void failAsCorrupt(const path& file) {
    throw FileError("verify", file, make_error_code(FileFault::fileReadCorruptFile));
}

// An audio file of the folder's own, and which file that is.
struct OwnAudio {
    OwnAudio(Descriptor opened, const path& file) : facts(factsOf(opened, file)), audio(std::move(opened), file) {}

    static FileFacts factsOf(const Descriptor& opened, const path& file) {
        struct stat status {};
        if (::fstat(opened.number(), &status) != 0) throw FileError("look at", file, systemCalls::lastError());
        return systemCalls::factsFrom(status);
    }

    FileFacts facts;
    AudioFile audio;
};

bool isSameFile(const std::optional<FileFacts>& a, const FileFacts& b) {
    return a && a->device == b.device && a->inode == b.inode && a->size == b.size && a->modified == b.modified;
}

// What a lossless copy must agree with, and the file that says so.
struct Proof {
    std::string digest;
    std::int64_t frames = 0;
    FileFacts source;
};

Proof proofOf(const OwnFolder& own, const path& source, const std::stop_token& stop) {
    OwnAudio opened(own.open(source), source);
    const AudioFormat wanted{AudioFormat::Codec::linearPCM, 16, 48000, 2};
    if (opened.audio.format() != wanted) failAsCorrupt(source);
    Proof proof{AudioPCM::digest(opened.audio, stop), opened.audio.frames(), opened.facts};
    if (proof.frames < 1 || proof.digest.empty()) failAsCorrupt(source);
    return proof;
}

// Throws unless `file` decodes to exactly the samples of the proof. Returns which file that was.
FileFacts verifyLossless(const OwnFolder& own, const path& file, const Proof& proof, const std::stop_token& stop) {
    OwnAudio opened(own.open(file), file);
    const AudioFormat wanted{AudioFormat::Codec::alac, 16, 48000, 2};
    if (opened.audio.format() != wanted || opened.audio.frames() != proof.frames) failAsCorrupt(file);
    if (AudioPCM::digest(opened.audio, stop) != proof.digest) failAsCorrupt(file);
    return opened.facts;
}

// Calls a function when the scope is left.
template <class Function>
struct AtEnd {
    explicit AtEnd(Function wanted) : function(std::move(wanted)) {}
    ~AtEnd() { function(); }
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;

    const Function function;
};

}  // namespace

bool LoopStore::State::canMigrate(const StoredLoop& loop) const {
    if (!loop.isRecording() && !cachedModel(*loop.model)) return false;
    if (bundledIDs.contains(loop.key)) return false;
    const auto isPlaying = [&](const auto& owner) { return owner.second.contains(loop.key); };
    if (std::ranges::any_of(playing, isPlaying)) return false;
    if (!loop.isInside) return false;
    const path file = folder.fileInside(loop);
    // A file that is gone is for the opening to report; anything but the folder's own file is no business of ours.
    if (!folder.owns(file) && !LoopFolder::isNothingAt(file)) return false;
    const std::string extension = lowerCaseExtension(file);
    if (extension == ".wav") return true;
    // A migration that stopped between its commit and the removal of its source.
    return extension == ".m4a" && folder.owns(filesOf(file).source);
}

void LoopStore::State::discardOwn(const Discard& discard, const path& file) const noexcept {
    if (!folder.owns(file)) return;
    try {
        static_cast<void>(discard(FileURL::fromPath(file)));
    } catch (...) {
        // It stays; the next migration of the piece, or the next start, tries again.
    }
}

// Whether the manifest holds the piece as it was.
bool LoopStore::State::takeBack(const LoopArtifact& before) {
    put(before);
    try {
        save(LoopKey::of(before.identity));
        return true;
    } catch (const FileError& error) {
        return error.isInPlace();
    } catch (const std::exception&) {
        return false;
    }
}

void LoopStore::State::record(const LoopArtifact& changed, const LoopArtifact& before) {
    try {
        const auto key = LoopKey::of(changed.identity);
        put(changed);
        save(key);
        // A piece that no manifest can hold is left out of it, and then the manifest names no file of it.
        if (table.find(key)->isEncodable) return;
        throw EncodingError("The manifest cannot hold this piece.");
    } catch (const FileError& error) {
        if (takeBack(before) || !error.isInPlace()) throw error.notInPlace();
        put(changed);  // memory follows the file
        throw;
    } catch (const std::exception&) {
        takeBack(before);
        throw;
    }
}

bool LoopStore::State::fallBackToSource(LoopArtifact& piece, const MigrationFiles& files) {
    const StoredLoop* const loop = table.find(LoopKey::of(piece.identity));
    if (loop == nullptr || !loop->isInside) return false;
    const path file = folder.fileInside(*loop);
    if (file == files.source) return true;
    if (file != files.target) return false;
    if (loop->artifact() != piece || !canMigrate(*loop)) return false;
    auto changed = piece.withURL(FileURL::fromPath(files.source));
    record(changed, piece);
    piece = std::move(changed);
    return true;
}

bool LoopStore::State::encodeLossless(const Discard& discard, LoopArtifact& piece, const MigrationFiles& files,
                                      const Encode& encode, const std::function<void()>& verify,
                                      const std::stop_token& stop, std::unique_lock<std::mutex>& lock) {
    const auto key = LoopKey::of(piece.identity);
    {
        const std::lock_guard briefly(mutex);
        UsedFiles used(folder);
        table.forEach([&](const StoredLoop& loop) { used.add(loop); });
        if (used.doubt() && folder.owns(files.temporary)) throw FileError(*used.doubt());
        if (!used.contains(files.temporary)) discardOwn(discard, files.temporary);
    }
    // An encoder would write through a link, or over what is not ours.
    std::error_code error;
    if (std::filesystem::symlink_status(files.temporary, error).type() != std::filesystem::file_type::not_found) {
        throw FileError("create", files.temporary, error ? error : std::make_error_code(std::errc::file_exists));
    }
    try {
        encode(FileURL::fromPath(files.source), FileURL::fromPath(files.temporary));
        if (stop.stop_requested()) throw CancellationError();
        folder.sync(FileURL::fromPath(files.temporary));
        try {
            verify();
        } catch (const FileError&) {
            throw FileError("verify", files.temporary, make_error_code(FileFault::fileWriteUnknown));
        }

        lock.lock();
        UsedFiles usedByOthers(folder);
        table.forEach([&](const StoredLoop& loop) {
            if (loop.key != key) usedByOthers.add(loop);
        });
        try {
            if (usedByOthers.doubt() && folder.owns(files.target)) throw FileError(*usedByOthers.doubt());
            if (!usedByOthers.contains(files.target)) {
                // Were the process to end between the old file's going and the new one's coming, a manifest that names
                // the target would name nothing, and the piece be lost at the next start.
                if (!fallBackToSource(piece, files)) {
                    discardOwn(discard, files.temporary);
                    return false;
                }
                discardOwn(discard, files.target);
            }
            folder.move(files.temporary, files.target);
        } catch (const FileError& failure) {
            throw failure.notInPlace();  // the copy may be, the record of it is not
        }
        return true;
    } catch (...) {
        if (!lock.owns_lock()) lock.lock();
        discardOwn(discard, files.temporary);
        try {
            // One whose lossless file is gone altogether need not wait for the next encoding to be heard.
            if (LoopFolder::isNothingAt(files.target)) fallBackToSource(piece, files);
        } catch (const std::exception&) {
            // What came first is told.
        }
        throw;
    }
}

std::vector<LoopArtifact> LoopStore::losslessMigrationCandidates() const {
    const std::lock_guard lock(state_->mutex);
    std::vector<LoopArtifact> candidates;
    for (const auto* loop : state_->table.inOrder()) {
        if (state_->canMigrate(*loop)) candidates.push_back(loop->artifact());
    }
    return candidates;
}

bool LoopStore::migrateToLossless(const LoopArtifact& artifact, const Encode& encode, const std::stop_token& stop) {
    const auto key = LoopKey::of(artifact.identity);
    LoopArtifact piece = artifact;
    State& state = *state_;
    const OwnFolder own(directory());
    // Under the lock: whether the piece is still the one that was given, and may be migrated.
    const auto isStillThere = [&] {
        const StoredLoop* const loop = state.table.find(key);
        return loop != nullptr && loop->artifact() == piece && state.canMigrate(*loop);
    };

    MigrationFiles files;
    {
        const std::lock_guard lock(state.mutex);
        if (!isStillThere()) return false;
        state.requireLock();
        if (!isStillThere()) return false;
        files = filesOf(state.folder.fileInside(*state.table.find(key)));
        // Two at work on the same files would take each other's temporary file away.
        if (!state.migrating.insert(files.temporary).second) return false;
    }
    const AtEnd atEnd([&] {
        const std::lock_guard lock(state.mutex);
        state.migrating.erase(files.temporary);
    });

    const Proof proof = proofOf(own, files.source, stop);
    static_cast<void>(losslessModule());  // nothing is encoded that could not be verified

    const FileURL target = FileURL::fromPath(files.target);
    std::unique_lock lock(state.mutex, std::defer_lock);
    std::optional<FileFacts> verified;
    try {
        state.folder.sync(target);
        verified = verifyLossless(own, files.target, proof, stop);
    } catch (const FileError&) {
        verified = std::nullopt;  // not there, or not to be trusted: it is made anew
    }
    if (!verified) {
        const auto verify = [&] { verified = verifyLossless(own, files.temporary, proof, stop); };
        if (!state.encodeLossless(discard_, piece, files, encode, verify, stop, lock)) return false;
    }
    if (stop.stop_requested()) throw CancellationError();

    if (!lock.owns_lock()) lock.lock();
    if (!isStillThere()) return false;
    if (!isSameFile(own.facts(files.target), *verified)) failAsCorrupt(files.target);
    const FileError unrecorded("record", files.target, make_error_code(FileFault::fileWriteUnknown));
    try {
        state.record(piece.withURL(target), piece);
    } catch (const FileError& error) {
        if (error.isInPlace()) throw unrecorded.inPlace();
        throw FileError(unrecorded);
    } catch (const std::exception&) {
        throw FileError(unrecorded);
    }

    // A source that is no longer what was proved stays: whatever it holds now, nothing else holds it. So does one whose
    // twin had to be written anew to be safe: that is proved by the next migration.
    UsedFiles used(state.folder);
    state.table.forEach([&](const StoredLoop& loop) { used.add(loop); });
    const bool isProved = isSameFile(own.facts(files.target), *verified);
    if (isProved && !used.contains(files.source) && isSameFile(own.facts(files.source), proof.source)) {
        if (state.isSureOf(used)) state.discardOwn(discard_, files.source);
    }
    return true;
}

}  // namespace quillmere
