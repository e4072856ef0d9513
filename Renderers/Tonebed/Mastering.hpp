#pragma once

#include <cstdint>
#include <span>

namespace quillmere::tonebed {

/// The largest sample value of a finished piece, of full scale: room enough for what lies between the samples.
inline constexpr double ceiling = 0.86;

/// Brings a loop to -18 LUFS with no sample above `ceiling`, in place. Where single peaks would go beyond, the level
/// gives way for some 50 ms around them, across the seam too. Returns the gain, as a factor.
double master(std::span<float> left, std::span<float> right);

/// A sample of 16 bits: nearest, limited to the range.
[[nodiscard]] std::int16_t sixteenBits(float value) noexcept;

}  // namespace quillmere::tonebed
