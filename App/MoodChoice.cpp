#include "App/MoodChoice.hpp"

#include "App/Choice.hpp"
#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

namespace quillmere::app {

CustomMoodStore& ownMoods() {
    auto& moods = CustomMoodStore::shared();
    moods.refresh();
    if (const auto problem = moods.loadProblem()) Host::warn(*problem);
    return moods;
}

void requireReadable(const std::string& id) {
    if (!id.starts_with(MoodSpec::idPrefix)) return;
    auto& moods = CustomMoodStore::shared();
    moods.refresh();
    if (const auto problem = moods.loadProblem()) throw Error(*problem);
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
