#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/Mood.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"

namespace quillmere::test {

/// The built-in moods that can be played.
[[nodiscard]] std::vector<Mood> playableMoods();

/// What is rendered for a mood's identity.
[[nodiscard]] tonebed::Piece pieceOf(const Mood& mood, std::int64_t blend, std::int64_t seed, double seconds);

/// What is rendered for a complete prompt.
[[nodiscard]] tonebed::Piece pieceOf(const std::string& prompt, std::int64_t seed, double seconds);

/// A finished piece.
struct Rendering {
    tonebed::Score score;
    std::vector<std::int16_t> samples;  ///< Left and right in turn.
    double seamStep = 0;
    double brightness = 0;
    double makeupGain = 1;

    explicit Rendering(const tonebed::Piece& piece);

    [[nodiscard]] std::int64_t frames() const noexcept { return static_cast<std::int64_t>(samples.size() / 2); }
    /// One side, -1 to 1.
    [[nodiscard]] std::vector<double> side(std::size_t channel) const;
};

}  // namespace quillmere::test
