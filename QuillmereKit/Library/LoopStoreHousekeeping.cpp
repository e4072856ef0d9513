#include <algorithm>
#include <unordered_map>
#include <utility>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopStoreState.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

bool lacksLoudness(const StoredLoop& loop) { return !loop.quality || !loop.quality->loudness; }

}  // namespace

std::int64_t LoopStore::prune(const std::set<std::string>& keeping) {
    std::unordered_set<LoopKey> kept;
    for (const auto& fingerprint : keeping) {
        if (const auto key = LoopKey::fromText(fingerprint)) kept.insert(*key);
    }

    const std::lock_guard lock(state_->mutex);
    if (!state_->mayChangeFiles()) return 0;
    const auto& folder = state_->folder;
    std::vector<LoopKey> victims;
    std::vector<std::filesystem::path> files;
    UsedFiles used(folder);
    for (const auto* loop : state_->table.inOrder()) {
        bool isVictim = false;
        if (loop->isInside && !loop->isRecording() && !kept.contains(loop->key)) {
            // A file behind a link, or what is no file, is not the store's own; one that is gone leaves only its entry.
            auto file = folder.fileInside(*loop);
            isVictim = folder.owns(file) || LoopFolder::isNothingAt(file);
            if (isVictim) files.push_back(std::move(file));
        }
        if (isVictim) {
            victims.push_back(loop->key);
        } else {
            used.add(*loop);
        }
    }
    if (victims.empty()) return 0;
    // Files that stay for want of an answer keep their entries: they are to go together once there is one.
    if (!state_->isSureOf(used)) return 0;

    // An entry goes even where its file cannot be deleted: what the caller does not want is not offered again.
    std::erase_if(files, [&](const auto& file) { return used.contains(file); });
    folder.remove(files);
    state_->remove(victims);
    state_->saveIgnoringFailure();
    return static_cast<std::int64_t>(victims.size());
}

std::vector<LoopArtifact> LoopStore::trash(const std::function<bool(const LoopArtifact&)>& predicate) {
    struct Candidate {
        LoopKey key;
        LoopArtifact artifact;
        std::filesystem::path file;
        bool* isGone;
        bool isUsed = false;  // by a piece that stays
    };

    const std::lock_guard lock(state_->mutex);
    if (!state_->mayChangeFiles()) return {};
    const auto& folder = state_->folder;
    std::vector<Candidate> candidates;
    std::unordered_map<std::string, bool> gone;  // by file: two pieces may share one
    UsedFiles used(folder);
    for (const auto* loop : state_->table.inOrder()) {
        auto artifact = loop->artifact();
        if (loop->isInside && predicate(artifact)) {
            auto file = folder.fileInside(*loop);
            bool* isGone = &gone.try_emplace(file.native(), false).first->second;
            candidates.push_back({loop->key, std::move(artifact), std::move(file), isGone});
        } else {
            used.add(*loop);
        }
    }
    if (candidates.empty() || !state_->isSureOf(used)) return {};
    for (auto& candidate : candidates) candidate.isUsed = used.contains(candidate.file);
    std::vector<LoopKey> keys;
    std::vector<LoopArtifact> trashed;
    keys.reserve(candidates.size());
    trashed.reserve(candidates.size());

    // From the first file that moves on nothing can throw: its piece must not stay behind in the table.
    for (auto& candidate : candidates) {
        if (!*candidate.isGone && !candidate.isUsed && folder.owns(candidate.file)) {
            *candidate.isGone = State::tryDiscard(discard_, candidate.file, candidate.artifact.url);
        }
        if (!*candidate.isGone) continue;
        keys.push_back(candidate.key);
        trashed.push_back(std::move(candidate.artifact));
    }
    if (trashed.empty()) return {};
    state_->remove(keys);
    state_->saveIgnoringFailure();
    return trashed;
}

std::int64_t LoopStore::bytesOnDisk() const { return bytesOnDisk(FileSizes(directory())); }

std::int64_t LoopStore::bytesOnDisk(const FileSizes& sizes) const {
    const std::lock_guard lock(state_->mutex);
    return static_cast<std::int64_t>(state_->folder.sizeOfFiles(state_->table, sizes));
}

std::vector<LoopArtifact> LoopStore::loudnessCandidates() const {
    const std::lock_guard lock(state_->mutex);
    std::vector<LoopArtifact> candidates;
    for (const auto* loop : state_->table.inOrder()) {
        if (lacksLoudness(*loop)) candidates.push_back(loop->artifact());
    }
    return candidates;
}

bool LoopStore::setLoudness(const AudioLoudness& loudness, const LoopArtifact& artifact) {
    static_cast<void>(encodeJSON(loudness, JSONWriter::Form::compact));  // throws for what no manifest can hold
    const auto key = LoopKey::of(artifact.identity);
    const std::lock_guard lock(state_->mutex);
    const auto* loop = state_->table.find(key);
    if (loop == nullptr || loop->artifact() != artifact) return false;
    if (!LoopFolder::isRegularFile(artifact.url)) return false;
    state_->put(artifact.withLoudness(loudness));
    state_->save(key);
    return true;
}

}  // namespace quillmere
