#include "App/Suggestion.hpp"

#include <algorithm>
#include <numeric>

#include "App/Terminal.hpp"

namespace quillmere::app {
namespace {

// Letters left out, put in or replaced, and neighbours swapped: the optimal string alignment distance.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> beforeLast(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        beforeLast.swap(last);
        last.swap(row);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({replaced, last[j] + 1, row[j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
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
        if (d < nearest && d < word.size()) {  // at least one letter in common
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
