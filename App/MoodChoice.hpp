#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/Mood.hpp"

namespace quillmere::app {

class Verb;

/// The user's own moods as their file holds them now. Where it cannot be read, that is said on standard error.
[[nodiscard]] CustomMoodStore& ownMoods();

/// Throws `Error` where `id` names a mood of the user's own and those cannot be read: whether there is one, and what it
/// asks for, is not known then.
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
