#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/Mood.hpp"

namespace quillmere::app {

class Verb;

/// The ids of all moods, the user's own included.
[[nodiscard]] std::vector<std::string> moodIDs();

/// The mood with this id. Throws `UsageError` in the name of `option`, with a suggestion for a mistyped one.
[[nodiscard]] Mood namedMood(const std::string& option, const std::string& id);

/// The same for a mood that there can be music for.
[[nodiscard]] Mood playableMood(const std::string& option, const std::string& id);

/// The option `--blend`, which takes 0...4 and the names of the coarse steps.
void addBlendOption(Verb verb, std::int64_t& blend);

}  // namespace quillmere::app
