#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "Renderers/Tonebed/Block.hpp"
#include "Renderers/Tonebed/Filters.hpp"

namespace quillmere::tonebed {

/// The sound of one channel some time ago, read and written a block at a time.
class DelayLine {
public:
    /// `longest` is the greatest delay that will be asked for, in frames.
    explicit DelayLine(std::size_t longest);

    /// Copies what was written `delay` frames before the next frame to be written, `count` frames of it.
    /// `delay` at least `count` (nothing is read that is not yet written).
    void read(float* values, std::size_t delay, std::size_t count) const noexcept;
    void write(const float* values, std::size_t count) noexcept;

    /// One value `delay` frames back, straight between two frames. `delay` at least 1.
    [[nodiscard]] float at(float delay) const noexcept;

private:
    std::vector<float> ring_;  // its size is a power of two
    std::size_t next_ = 0;
};

/// A room: eight delay lines that feed one another through a Hadamard matrix (J.-M. Jot, A. Chaigne, "Digital delay
/// networks for designing artificial reverberators", 1991), behind a few allpass diffusers.
class Reverb {
public:
    /// `seconds` is the time to fade by 60 dB, `damping` (0 to 1) how much sooner the treble goes, `size` (0.5 to 1.5)
    /// the room's.
    Reverb(double seconds, double damping, double size);

    /// Adds the room's answer to `input` to `output`.
    void process(const Block& input, Block& output, std::size_t count) noexcept;

private:
    static constexpr std::size_t lines = 8;

    struct Diffuser {
        DelayLine line;
        std::size_t delay;
    };

    void diffuse(Channel& channel, std::vector<Diffuser>& diffusers, std::size_t count) noexcept;

    std::vector<DelayLine> lines_;
    std::array<std::size_t, lines> delays_{};
    std::array<float, lines> gains_{};
    float damping_ = 0;
    std::array<std::vector<Diffuser>, 2> diffusers_;
    std::vector<DelayLine> early_;  // before the diffusers, one a side
    std::array<OnePole, 2> rumble_{OnePole(140), OnePole(140)};
    std::size_t earlyDelay_ = 0;
};

}  // namespace quillmere::tonebed
