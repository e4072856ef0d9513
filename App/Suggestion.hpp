#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::app {

/// The candidate that a mistyped word most likely meant, or nothing where none is close (Levenshtein distance of at
/// most a third of the word).
[[nodiscard]] std::optional<std::string> suggestion(std::string_view word, const std::vector<std::string>& candidates);

/// " Did you mean "word"?" where a candidate is close, else `otherwise`. Safe for a terminal.
[[nodiscard]] std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates,
                                     std::string_view otherwise = {});

}  // namespace quillmere::app
