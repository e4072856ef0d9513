#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::app {

/// The candidate that a mistyped word most likely meant, or nothing where none is close: a third of its letters, but
/// one in any case, may be wrong, missing, too many or swapped.
[[nodiscard]] std::optional<std::string> suggestion(std::string_view word, const std::vector<std::string>& candidates);

/// " Did you mean "word"?" where a candidate is close, else `otherwise`. Safe for a terminal.
[[nodiscard]] std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates,
                                     std::string_view otherwise = {});

}  // namespace quillmere::app
