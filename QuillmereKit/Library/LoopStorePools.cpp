#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LoopStoreState.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

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
    if (auto exact = narrow(isExact); !exact.empty()) return exact;
    if (auto same = narrow(isSameModel); !same.empty()) return same;
    if (auto known = narrow(isKnown); !known.empty()) return known;
    return loops;
}

// Whether the loops of one mood still belong to it, as `MoodCatalog::isCurrent` says. The mood is looked up once, and
// today's identity put together once for each blend step and model: without guide audio the seed changes nothing else.
class Eligibility {
public:
    explicit Eligibility(std::string_view moodID) : isUserMood_(moodID.starts_with(MoodSpec::idPrefix)) {
        if (isUserMood_) mood_ = MoodCatalog::mood(moodID);
    }

    [[nodiscard]] bool operator()(const StoredLoop& loop) {
        if (loop.isRecording() || !isUserMood_) return true;
        if (!mood_) return false;
        const auto [found, isNew] = today_.try_emplace({loop.blend, *loop.model});
        auto& today = found->second;
        if (isNew || (today && today->audio)) today = mood_->identity(loop.blend, loop.seed, *loop.model);
        if (!today) return false;
        today->seed = loop.seed;
        return *today == loop.identity();
    }

private:
    bool isUserMood_;
    std::optional<Mood> mood_;
    std::map<std::pair<BlendStep, std::string>, std::optional<LoopIdentity>> today_;
};

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

    Eligibility isEligible(moodID);

    const std::lock_guard lock(state_->mutex);
    const auto kept = chosen(state_->table.mood(moodID), [&](const StoredLoop* loop) {
        return !std::ranges::binary_search(excluded, loop->key) && isEligible(*loop);
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
