#include "App/MoodChoice.hpp"

#include <utility>

#include "App/Choice.hpp"
#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

namespace quillmere::app {

namespace {

bool isUsers(const std::string& id) { return id.starts_with(MoodSpec::idPrefix); }

// What keeps the user's own moods from being read now.
std::optional<std::string> problem() {
    auto& moods = CustomMoodStore::shared();
    moods.refresh();
    return moods.loadProblem();
}

void warnOnce(const std::string& problem) {
    static std::string last;
    if (std::exchange(last, problem) != problem) Host::warn(problem);
}

}  // namespace

CustomMoodStore& ownMoods() {
    if (const auto reason = problem()) warnOnce(*reason);
    return CustomMoodStore::shared();
}

bool isReadable(const std::string& id) { return !ownMoods().loadProblem() || !isUsers(id); }

// Also where another mood is asked for: whoever looks first puts a damaged file aside, and the next run finds none.
void requireReadable(const std::string& id) {
    const auto reason = problem();
    if (!reason) return;
    if (isUsers(id)) throw Error(*reason);
    warnOnce(*reason);
}

std::vector<std::string> moodIDs() {
    std::vector<std::string> ids;
    for (const Mood& mood : MoodCatalog::all(CustomMoodStore::shared())) ids.push_back(mood.id);
    return ids;
}

Mood namedMood(const std::string& option, const std::string& id) {
    requireReadable(id);
    if (const auto mood = MoodCatalog::mood(id)) return *mood;
    throw UsageError(option, "there is no mood \"" + safeForTerminal(id) + "\"." +
                                 didYouMean(id, moodIDs(), " 'quillmere moods' lists them."));
}

Mood playableMood(const std::string& option, const std::string& id) {
    Mood mood = namedMood(option, id);
    if (mood.isPlayable()) return mood;
    throw UsageError(
        option, "\"" + safeForTerminal(mood.name) + "\" has no music yet. 'quillmere moods' lists those that have.");
}

void addBlendOption(Verb verb, std::int64_t& blend) {
    const Choice step({{"0", "0"},
                       {"1", "1"},
                       {"2", "2"},
                       {"3", "3"},
                       {"4", "4"},
                       {"calm", "0"},
                       {"balanced", "1"},
                       {"energetic", "4"}});
    verb.addOption("--blend", blend, "0 (calm) to 4 (energetic), or calm, balanced, energetic")
        .transform(step, "0..4|calm|balanced|energetic")
        .defaultText("1");
}

}  // namespace quillmere::app
