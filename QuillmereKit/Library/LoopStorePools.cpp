#include <algorithm>
#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopStoreState.hpp"

namespace quillmere {
namespace {

using Loops = std::vector<const StoredLoop*>;

// The loops of a list, in fingerprint order, for which `isWanted` holds.
template <class List, class IsWanted>
Loops chosen(const List& loops, const IsWanted& isWanted) {
    Loops result;
    std::ranges::copy_if(loops, std::back_inserter(result), isWanted, [](const StoredLoop* loop) { return loop; });
    return result;
}

std::vector<LoopArtifact> artifactsOf(const Loops& loops) {
    std::vector<LoopArtifact> artifacts;
    artifacts.reserve(loops.size());
    for (const auto* loop : loops) artifacts.push_back(loop->artifact());
    return artifacts;
}

// The loops that a preferred model leaves: recordings always, the rest as far as there is music for the model.
Loops narrowed(const Loops& loops, std::string_view preferredModel) {
    const auto preferred = cachedModel(preferredModel);
    const auto isExact = [&](const StoredLoop& loop) { return *loop.model == preferredModel; };
    const auto isSameModel = [&](const StoredLoop& loop) { return preferred && cachedModel(*loop.model) == preferred; };
    const auto isKnown = [](const StoredLoop& loop) { return cachedModel(*loop.model).has_value(); };

    const auto narrow = [&](const auto& matches) -> Loops {
        const auto isMatch = [&](const StoredLoop* loop) { return !loop->isRecording() && matches(*loop); };
        if (std::ranges::none_of(loops, isMatch)) return {};
        return chosen(loops, [&](const StoredLoop* loop) { return loop->isRecording() || isMatch(loop); });
    };
    for (auto result : {narrow(isExact), narrow(isSameModel), narrow(isKnown)}) {
        if (!result.empty()) return result;
    }
    return loops;
}

}  // namespace

std::vector<LoopArtifact> LoopStore::pool(std::string_view moodID, BlendStep blend,
                                          std::optional<std::string_view> model) const {
    const std::lock_guard lock(state_->mutex);
    return artifactsOf(chosen(state_->table.mood(moodID), [&](const StoredLoop* loop) {
        return loop->blend == blend && (!model || *loop->model == *model);
    }));
}

std::vector<LoopArtifact> LoopStore::pool(std::string_view moodID, std::optional<std::string_view> model) const {
    const std::lock_guard lock(state_->mutex);
    return artifactsOf(
        chosen(state_->table.mood(moodID), [&](const StoredLoop* loop) { return !model || *loop->model == *model; }));
}

std::vector<LoopArtifact> LoopStore::playbackPool(std::string_view moodID,
                                                  std::optional<std::string_view> preferredModel,
                                                  const std::set<std::string>& excluding) const {
    std::vector<LoopKey> excluded;  // in the order of the set, which is that of the keys
    excluded.reserve(excluding.size());
    for (const auto& fingerprint : excluding) {
        if (const auto key = LoopKey::fromText(fingerprint)) excluded.push_back(*key);
    }

    const std::lock_guard lock(state_->mutex);
    const auto kept = chosen(state_->table.mood(moodID), [&](const StoredLoop* loop) {
        return !std::ranges::binary_search(excluded, loop->key) && loop->artifact().isPlayable();
    });
    return artifactsOf(preferredModel ? narrowed(kept, *preferredModel) : kept);
}

std::optional<LoopArtifact> LoopStore::nearestCached(std::string_view moodID, BlendStep blend) const {
    for (const auto step : blend.byProximity()) {
        const std::lock_guard lock(state_->mutex);
        const auto& loops = state_->table.mood(moodID);
        const auto first = std::ranges::find(loops, step, [](const StoredLoop* loop) { return loop->blend; });
        if (first != loops.end()) return (*first)->artifact();
    }
    return std::nullopt;
}

}  // namespace quillmere
