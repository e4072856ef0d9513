#pragma once

#include <cstdint>
#include <span>

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {

/// The largest sample value of a finished piece, of full scale: room enough for what lies between the samples.
inline constexpr double ceiling = 0.86;

/// Brings a loop to -18 LUFS with no sample above `ceiling`, in place. Where single peaks would go beyond, the level
/// gives way for some 50 ms around them, across the seam too. `energy` is the loop's own, see `EnergyMeter`. Returns
/// the gain, as a factor.
double master(std::span<float> left, std::span<float> right, double energy);

/// The level at which a piece can be heard while it is still being made: near to the final one, which only the whole
/// piece decides. It glides from one stretch to the next, and peaks are rounded off rather than limited.
class DraftLevel {
public:
    /// The next stretch as samples of 16 bits, left and right in turn, none above `ceiling`. `energy` is that of all
    /// so far.
    void apply(std::span<const float> left, std::span<const float> right, double energy,
               std::span<std::int16_t> samples) noexcept;

private:
    double gain_ = 0;  // none yet
};

/// Sees to it that the step across the loop's seam, in samples of 16 bits, is no larger than the largest one within a
/// second on either side, in place. A loop that runs on smoothly may still have its steepest place right there, where
/// nobody can tell it from a click: then the level gives way for 20 ms around the seam by the few percent that it
/// needs.
void easeSeam(std::span<float> left, std::span<float> right);

/// A sample of 16 bits: nearest, limited to the range.
[[nodiscard]] inline std::int16_t sixteenBits(float value) noexcept {
    return static_cast<std::int16_t>(nearest(clamped(static_cast<double>(value) * 32767, -32768, 32767)));
}

}  // namespace quillmere::tonebed
