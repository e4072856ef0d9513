#pragma once

#include <span>

namespace quillmere::tonebed {

/// The brightness of a piece, 0 to 1: its spectral centroid as a share of 5 kHz, more counts as 1.
///
/// The centroid is the mean frequency, weighted by magnitude, of both sides together, over windows (Hann, 1,024
/// frames) that begin about a tenth of a second apart. 0 for silence and for what is shorter than one window.
[[nodiscard]] double brightnessOf(std::span<const float> left, std::span<const float> right);

}  // namespace quillmere::tonebed
