#pragma once

#include <cstdint>
#include <span>

namespace quillmere::tonebed {

/// The K-weighted, gated mean energy of a stereo piece at 48 kHz (ITU-R BS.1770-4): -0.691 + 10 log10 of it is the
/// integrated loudness in LUFS. Pieces too short for a gating block of 400 ms are measured as one block; silence
/// gives 0.
[[nodiscard]] double gatedEnergy(std::span<const float> left, std::span<const float> right);

/// The energy of -18 LUFS: 10^((-18 + 0.691) / 10).
inline constexpr double targetEnergy = 0.01858232279629327;

}  // namespace quillmere::tonebed
