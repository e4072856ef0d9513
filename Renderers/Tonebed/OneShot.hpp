#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Renderers/Tonebed/Block.hpp"
#include "Renderers/Tonebed/Score.hpp"

namespace quillmere::tonebed {

/// A short sound, computed once and then played as often as it is needed: a drum, a rain drop, the call of a bird.
struct OneShot {
    std::vector<float> left;
    std::vector<float> right;
};

/// The sounds of one percussive voice in a few variations, so that no two neighbours are quite the same.
/// `brightness` is 0 to 1; the same arguments give the same sounds. Empty for voices that are no one-shots.
[[nodiscard]] std::vector<OneShot> oneShots(Voice voice, double brightness, std::uint64_t seed);

/// One sound while it plays.
class OneShotVoice {
public:
    OneShotVoice(const OneShot& sound, double gain, double pan) noexcept;

    /// Adds the frames `from` to `to` of a block. False once the sound has ended.
    bool render(Block& bus, std::size_t from, std::size_t to) noexcept;

private:
    const OneShot* sound_;
    std::size_t position_ = 0;
    float left_ = 1;
    float right_ = 1;
};

}  // namespace quillmere::tonebed
