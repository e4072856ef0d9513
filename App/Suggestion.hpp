#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::app {

/// The candidate that a mistyped word most likely meant, or nothing where none is close (Levenshtein distance of at
/// most a third of the word).
[[nodiscard]] std::optional<std::string> suggestion(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace quillmere::app
