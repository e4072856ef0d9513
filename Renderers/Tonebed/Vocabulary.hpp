#pragma once

#include <span>
#include <string_view>

#include "Renderers/Tonebed/Style.hpp"

namespace quillmere::tonebed {

/// One effect of one word or phrase. Layers take the largest amount asked for; shades add up.
struct WordEffect {
    std::string_view phrase;  ///< Lower-case words, one blank between; matches a plural in "s" too.
    Feature feature;
    double amount;
};

/// A tempo that a word stands for, in beats per minute.
struct TempoWord {
    std::string_view phrase;
    double beatsPerMinute;
};

/// A scale that a word stands for.
struct ScaleWord {
    std::string_view phrase;
    Scale scale;
};

/// Everything the synthesizer understands. Rows of one phrase stand together.
[[nodiscard]] std::span<const WordEffect> wordEffects() noexcept;
[[nodiscard]] std::span<const TempoWord> tempoWords() noexcept;
[[nodiscard]] std::span<const ScaleWord> scaleWords() noexcept;

}  // namespace quillmere::tonebed
