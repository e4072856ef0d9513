#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Renderers/Tonebed/Block.hpp"
#include "Renderers/Tonebed/Effects.hpp"
#include "Renderers/Tonebed/Filters.hpp"
#include "Renderers/Tonebed/Style.hpp"

namespace quillmere::tonebed {

/// The steady noises under a piece: rain, tape hiss, wind, waves, and the breath of airy sounds. The noise at a place
/// of the loop is always the same, so its end joins its beginning.
class NoiseBed {
public:
    NoiseBed(const Style& style, std::uint64_t seed, std::int64_t loopFrames);

    /// False if the style has no noise at all: then `render` adds nothing.
    [[nodiscard]] bool sounds() const noexcept;

    /// Adds `count` frames from `position` in the loop on.
    void render(Block& bus, std::int64_t position, std::size_t count) noexcept;

private:
    /// One noise through one filter on each side.
    struct Layer {
        double gain = 0;
        std::uint32_t stream = 0;
        std::array<SlowWave, 2> swells;
        std::array<OnePole, 2> lows{OnePole(1000), OnePole(1000)};
        std::array<OnePole, 2> highs{OnePole(100), OnePole(100)};
        std::array<StateVariable, 2> bands;
        double lowest = 0;   ///< Hertz of the moving filter,
        double octaves = 0;  ///< and how far it moves.
        double damping = 1.5;
        double depth = 0;     ///< How much the level swells.
        bool isBand = false;  ///< A band rather than a lowpass, where the filter moves.
    };

    void add(Layer layer, double gain);
    static void renderLayer(Layer& layer, Block& bus, std::int64_t position, std::size_t count) noexcept;

    std::array<Layer, 5> layers_;
    std::size_t layerCount_ = 0;
};

}  // namespace quillmere::tonebed
