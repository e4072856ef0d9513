#pragma once

#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere::app {

/// A check of an option's text: one of some names, upper or lower case, in whose place the text that it stands for is
/// put. Unlike the command line library's own it says the names in their order, suggests one for a mistyped one, and
/// takes the names alone.
class Choice {
public:
    using Cases = std::vector<std::pair<std::string, std::string>>;  ///< Names, and what they stand for.

    explicit Choice(Cases cases) : cases_(std::move(cases)) {}

    /// Empty where the text is a name, else what is wrong with it.
    std::string operator()(std::string& text) const;

    /// All names, as the help shows them: "gentle|background|fast".
    [[nodiscard]] std::string names() const;

private:
    Cases cases_;
};

/// The number as which the command line library takes a case of an enumeration.
template <class E>
std::string numberOf(E value) {
    return std::to_string(static_cast<int>(value));
}

/// The cases of an enumeration by their raw values.
template <class E>
Choice choiceOf() {
    Choice::Cases cases;
    for (const E value : allCases<E>()) cases.emplace_back(rawValue(value), numberOf(value));
    return Choice(std::move(cases));
}

}  // namespace quillmere::app
