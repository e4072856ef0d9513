#include "App/Choice.hpp"

#include <algorithm>

#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"

namespace quillmere::app {
namespace {

std::string lowerCase(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

}  // namespace

std::string Choice::operator()(std::string& text) const {
    const std::string wanted = lowerCase(text);
    std::vector<std::string> known;
    std::string all;
    for (const auto& [name, meaning] : cases_) {
        if (name == wanted) {
            text = meaning;
            return {};
        }
        known.push_back(name);
        all += (all.empty() ? "" : ", ") + name;
    }
    return "\"" + safeForTerminal(text) + "\" is none of " + all + "." + didYouMean(wanted, known);
}

std::string Choice::names() const {
    std::string all;
    for (const auto& [name, meaning] : cases_) all += (all.empty() ? "" : "|") + name;
    return all;
}

}  // namespace quillmere::app
