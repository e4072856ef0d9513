#include "App/NumberBetween.hpp"

#include <array>
#include <charconv>
#include <cstdio>

namespace quillmere::app {

std::string NumberBetween::operator()(const std::string& text) const {
    double number = 0;
    const auto* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc{} && rest == end && number >= least_ && number <= most_) return {};
    std::array<char, 96> reason{};
    std::snprintf(reason.data(), reason.size(), "a number from %g to %g is needed", least_, most_);
    return reason.data();
}

}  // namespace quillmere::app
