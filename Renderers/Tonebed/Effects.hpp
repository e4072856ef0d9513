#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Renderers/Tonebed/Block.hpp"
#include "Renderers/Tonebed/Filters.hpp"
#include "Renderers/Tonebed/Reverb.hpp"

namespace quillmere::tonebed {

/// A slow sine that fits a whole number of times into the loop.
struct SlowWave {
    double turnsPerFrame = 0;
    double start = 0;

    SlowWave() = default;

    /// As close to one turn every `seconds` as the loop allows, at least one turn.
    SlowWave(std::int64_t loopFrames, double seconds, double startTurns) noexcept;

    [[nodiscard]] double at(std::int64_t position) const noexcept;
};

/// Thickens a sound: each side is joined by its own past, 6 to 14 ms ago, moving slowly.
class Chorus {
public:
    Chorus(std::int64_t loopFrames, double seconds, double depth);

    /// Works in place; `position` is the block's first frame in the loop.
    void process(Block& block, std::int64_t position, std::size_t count) noexcept;

private:
    std::array<DelayLine, 2> lines_;
    std::array<SlowWave, 2> waves_;
    float depth_;
};

/// Echoes that come from the other side each time, darker and darker.
class Echo {
public:
    /// `delay` in frames, at least a block's.
    Echo(std::size_t delay, double feedback, double highestHertz);

    /// Adds the echoes of `input` to `output`.
    void process(const Block& input, Block& output, std::size_t count) noexcept;

private:
    std::array<DelayLine, 2> lines_;
    std::array<OnePole, 2> filters_;
    std::size_t delay_;
    float feedback_;
};

}  // namespace quillmere::tonebed
