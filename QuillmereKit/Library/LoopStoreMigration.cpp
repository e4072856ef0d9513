#include <algorithm>
#include <cctype>
#include <string>
#include <unordered_set>
#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopStoreState.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

namespace quillmere {
namespace {

using std::filesystem::path;

std::string lowerCaseExtension(const path& file) {
    std::string extension = file.extension().string();
    std::ranges::transform(extension, extension.begin(), [](unsigned char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : static_cast<char>(c);
    });
    return extension;
}

MigrationFiles filesOf(const path& file) {
    // A WAV file is taken as it is, however its extension is spelled.
    path source = lowerCaseExtension(file) == ".wav" ? file : path(file).replace_extension(".wav");
    path target = path(file).replace_extension(".m4a");
    path temporary = file.parent_path() / ("." + source.filename().string() + ".migration.m4a");
    return {std::move(source), std::move(target), std::move(temporary)};
}

// What a lossless copy must agree with.
struct Proof {
    std::string digest;
    std::int64_t frames = 0;
};

[[noreturn]] void failAsCorrupt(const path& file) {
    throw FileError("verify", file, make_error_code(FileFault::fileReadCorruptFile));
}

Proof proofOf(const OwnFolder& own, const path& source, const std::stop_token& stop) {
    AudioFile audio(own.open(source), source);
    const AudioFormat wanted{AudioFormat::Codec::linearPCM, 16, 48000, 2};
    if (audio.format() != wanted) failAsCorrupt(source);
    Proof proof{.digest = AudioPCM::digest(audio, stop), .frames = audio.frames()};
    if (proof.frames < 1 || proof.digest.empty()) failAsCorrupt(source);
    return proof;
}

// Throws unless `file` decodes to exactly the samples of the proof.
void verifyLossless(const OwnFolder& own, const path& file, const Proof& proof, const std::stop_token& stop) {
    AudioFile audio(own.open(file), file);
    const AudioFormat wanted{AudioFormat::Codec::alac, 16, 48000, 2};
    if (audio.format() != wanted || audio.frames() != proof.frames) failAsCorrupt(file);
    if (AudioPCM::digest(audio, stop) != proof.digest) failAsCorrupt(file);
}

bool isVerifiedLossless(const OwnFolder& own, const path& file, const Proof& proof, const std::stop_token& stop) {
    try {
        verifyLossless(own, file, proof, stop);
        return true;
    } catch (const FileError&) {
        return false;
    }
}

bool isSameFile(const std::optional<FileFacts>& a, const std::optional<FileFacts>& b) {
    return a && b && a->device == b->device && a->inode == b->inode && a->size == b->size && a->modified == b->modified;
}

}  // namespace

bool LoopStore::State::canMigrate(const StoredLoop& loop) const {
    if (!loop.isRecording() && !cachedModel(*loop.model)) return false;
    if (bundledIDs.contains(loop.key)) return false;
    const auto isPlaying = [&](const auto& owner) { return owner.second.contains(loop.key); };
    if (std::ranges::any_of(playing, isPlaying)) return false;
    if (!loop.isInside) return false;
    const path file = folder.fileInside(loop);
    const std::string extension = lowerCaseExtension(file);
    if (extension == ".wav") return folder.owns(file);
    // A migration that stopped between its commit and the removal of its source.
    return extension == ".m4a" && folder.owns(file) && folder.owns(path(file).replace_extension(".wav"));
}

void LoopStore::State::discardOwn(const Discard& discard, const path& file) const noexcept {
    if (folder.owns(file)) static_cast<void>(tryDiscard(discard, FileURL::fromPath(file)));
}

// Encodes into the temporary file, has it verified, and gives it the target's name.
void LoopStore::State::encodeLossless(const Discard& discard, LoopKey key, const MigrationFiles& files,
                                      const Encode& encode, const std::function<void()>& verify,
                                      const std::stop_token& stop) {
    {
        const std::lock_guard lock(mutex);
        discardOwn(discard, files.temporary);
    }
    // An encoder would write through a link, or over what is not ours.
    if (!LoopFolder::isNothingAt(files.temporary)) {
        throw FileError("create", files.temporary, std::make_error_code(std::errc::file_exists));
    }
    encode(FileURL::fromPath(files.source), FileURL::fromPath(files.temporary));
    if (stop.stop_requested()) throw CancellationError();
    try {
        verify();
    } catch (const FileError&) {
        throw FileError("verify", files.temporary, make_error_code(FileFault::fileWriteUnknown));
    }
    if (stop.stop_requested()) throw CancellationError();

    const std::lock_guard lock(mutex);
    UsedFiles usedByOthers(folder);
    table.forEach([&](const StoredLoop& loop) {
        if (loop.key != key) usedByOthers.add(loop);
    });
    if (!usedByOthers.contains(files.target)) discardOwn(discard, files.target);
    OwnFolder(folder.path()).move(files.temporary, files.target);
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
    State& state = *state_;
    const OwnFolder own(directory());
    // Under the lock: whether the piece is still the one that was given, and may be migrated.
    const auto isStillThere = [&] {
        const StoredLoop* const loop = state.table.find(key);
        return loop != nullptr && loop->artifact() == artifact && state.canMigrate(*loop);
    };

    MigrationFiles files;
    {
        const std::lock_guard lock(state.mutex);
        if (!isStillThere()) return false;
        state.requireLock();
        if (!isStillThere()) return false;
        files = filesOf(state.folder.fileInside(*state.table.find(key)));
    }

    const Proof proof = proofOf(own, files.source, stop);
    if (!isVerifiedLossless(own, files.target, proof, stop)) {
        try {
            const auto verify = [&] { verifyLossless(own, files.temporary, proof, stop); };
            state.encodeLossless(discard_, key, files, encode, verify, stop);
        } catch (...) {
            const std::lock_guard lock(state.mutex);
            state.discardOwn(discard_, files.temporary);
            throw;
        }
    }
    if (stop.stop_requested()) throw CancellationError();

    const FileURL target = FileURL::fromPath(files.target);
    const auto verified = own.facts(files.target);

    const std::lock_guard lock(state.mutex);
    if (!isStillThere()) return false;
    state.folder.sync(target);
    if (!isSameFile(own.facts(files.target), verified)) failAsCorrupt(files.target);
    state.put(artifact.withURL(target));
    try {
        state.save();
    } catch (const std::exception&) {
        state.put(artifact);
        state.saveIgnoringFailure();
        throw FileError("record", files.target, make_error_code(FileFault::fileWriteUnknown));
    }
    UsedFiles used(state.folder);
    state.table.forEach([&](const StoredLoop& loop) { used.add(loop); });
    if (!used.contains(files.source)) state.discardOwn(discard_, files.source);
    return true;
}

}  // namespace quillmere
