#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/Mood.hpp"

namespace quillmere::app {

class Verb;

/// The user's own moods as their file holds them now. Where it cannot be read, that is said on standard error, once; a
/// failure for want of one of them says it again.
[[nodiscard]] CustomMoodStore& ownMoods();

/// Whether it is known if there is a mood `id`, and what it asks for: not where it would be one of the user's own and
/// those cannot be read. That they cannot be is said as `ownMoods` does, whatever the mood.
[[nodiscard]] bool isReadable(const std::string& id);

/// The same, but throws `Error` with the reason where that is not known.
void requireReadable(const std::string& id);

/// The ids of all moods, the user's own included.
[[nodiscard]] std::vector<std::string> moodIDs();

/// The mood with this id. Throws `UsageError` in the name of `option`, with a suggestion for a mistyped one, and as
/// `requireReadable`.
[[nodiscard]] Mood namedMood(const std::string& option, const std::string& id);

/// The same for a mood that there can be music for.
[[nodiscard]] Mood playableMood(const std::string& option, const std::string& id);

/// The option `--blend`, which takes 0...4 and the names of the coarse steps.
void addBlendOption(Verb verb, std::int64_t& blend);

}  // namespace quillmere::app
