#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Renderers/Tonebed/Block.hpp"
#include "Renderers/Tonebed/Score.hpp"

namespace quillmere::tonebed {

/// One struck or plucked note: a few partials, each a decaying sine of its own.
///
/// A partial is a complex number that turns by a fixed angle and shrinks by a fixed factor each frame; what that comes
/// to over the frames of a block is computed once for the note. As with every voice, all is a function of its age.
class ModalVoice {
public:
    /// One partial of an instrument.
    struct Partial {
        double ratio = 1;  ///< Frequency in multiples of the fundamental.
        double amplitude = 1;
        double seconds = 2;  ///< Time in which it fades by 60 dB.
        double detune = 0;   ///< Hertz added to the frequency: pairs of partials beat.
    };

    /// How one note of an instrument sounds.
    struct Settings {
        std::vector<Partial> partials;
        double gain = 1;
        double attack = 0.002;  ///< Seconds.
        double release = 0.3;   ///< Seconds from the note's end until it is silent.
        double width = 0.25;    ///< How far every other partial stands to the left, the rest to the right.
    };

    ModalVoice(const Settings& settings, const Note& note);

    /// Adds the frames `from` to `to` of a block. False once the note has ended.
    bool render(Block& bus, std::size_t from, std::size_t to) noexcept;

private:
    struct Mode {
        float real = 0;       // in the frame before the next one
        float imaginary = 0;  // what is heard
        Channel turnReal{};   // the turn by 1, 2, 3 ... frames
        Channel turnImaginary{};
        std::int64_t frames = 0;  // until it cannot be heard
    };

    [[nodiscard]] double level(std::int64_t age) const noexcept;

    /// Adds a mode's next frames to the sum, or begins it with them, and goes on by `count`, 1 to a whole block.
    static void turn(Mode& mode, Channel& sum, bool isFirst, std::size_t count) noexcept;

    std::array<std::vector<Mode>, 2> modes_;  // more to the left, more to the right; the longest first
    float width_ = 0;
    std::int64_t age_ = 0;
    std::int64_t length_ = 0;
    std::int64_t end_ = 0;
    double attack_ = 0;   // frames
    double release_ = 0;  // frames
    double level_ = 0;
    std::array<float, 2> pan_{};
};

}  // namespace quillmere::tonebed
