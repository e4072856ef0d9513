#include "App/Suggestion.hpp"

#include <algorithm>
#include <numeric>

#include "App/Terminal.hpp"

namespace quillmere::app {
namespace {

std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

std::optional<std::string> suggestion(std::string_view word, const std::vector<std::string>& candidates) {
    constexpr std::size_t longestWord = 100;  // what is longer was not mistyped
    if (word.empty() || word.size() > longestWord) return std::nullopt;
    std::optional<std::string> best;
    std::size_t nearest = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const auto& candidate : candidates) {
        const std::size_t d = distance(word, candidate);
        if (d < nearest) {
            nearest = d;
            best = candidate;
        }
    }
    return best;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates, std::string_view otherwise) {
    const auto near = suggestion(word, candidates);
    return near ? " Did you mean \"" + safeForTerminal(*near) + "\"?" : std::string(otherwise);
}

}  // namespace quillmere::app
