#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Renderers/Tonebed/Block.hpp"
#include "Renderers/Tonebed/Score.hpp"
#include "Renderers/Tonebed/Waveform.hpp"

namespace quillmere::tonebed {

/// One sounding note of two or three slightly detuned oscillators that read waveforms.
///
/// All it does is a function of its age, so that a note which rings past the loop's end sounds in the loop's beginning
/// exactly as it would have gone on.
class WaveVoice {
public:
    /// How an instrument sounds.
    struct Settings {
        const Waveform* waveform = nullptr;  ///< The sound as it dies away, or all of it without `bright`.
        const Waveform* bright = nullptr;    ///< The sound of the attack, if that is another.
        double gain = 1;
        std::size_t oscillators = 2;
        double detune = 6;         ///< Cents of the outer oscillators.
        double spread = 0.7;       ///< How far they stand apart, 0 to 1.
        double attack = 0.01;      ///< Seconds.
        double decay = 0;          ///< Seconds in which the level halves on its way to `sustain`; 0 for none.
        double sustain = 1;        ///< Level that is held.
        double release = 0.1;      ///< Seconds.
        double brightStart = 0;    ///< Share of `bright` at the beginning,
        double brightDecay = 0.1;  ///< halved in this many seconds.
        double vibrato = 0;        ///< Cents.
        double vibratoRate = 5;    ///< Hertz.
    };

    WaveVoice(const Settings& settings, const Note& note);

    /// Adds the frames `from` to `to` of a block. False once the note has ended.
    bool render(Block& bus, std::size_t from, std::size_t to) noexcept;

private:
    struct Oscillator {
        const float* table = nullptr;
        const float* bright = nullptr;
        std::uint32_t phase = 0;
        std::uint32_t step = 0;
        float left = 0;
        float right = 0;
    };

    [[nodiscard]] double level(double age) const noexcept;

    Settings settings_;
    std::array<Oscillator, 3> oscillators_{};
    double age_ = 0;      // frames
    double attack_ = 0;   // frames
    double length_ = 0;   // frames until the release
    double release_ = 0;  // frames
    double level_ = 0;
    double brightness_ = 0;
    double vibratoPhase_ = 0;
};

}  // namespace quillmere::tonebed
