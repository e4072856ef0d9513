#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

namespace quillmere::tonebed {

/// Measures the K-weighted, gated mean energy of stereo sound at 48 kHz (ITU-R BS.1770-4), piece by piece:
/// -0.691 + 10 log10 of it is the integrated loudness in LUFS. How the sound is divided does not change the result.
class EnergyMeter {
public:
    /// Both sides of the next frames.
    void append(std::span<const float> left, std::span<const float> right);

    /// The energy of all so far. What is too short for a gating block of 400 ms counts as one block; silence gives 0.
    [[nodiscard]] double energy() const;

private:
    /// The filter of one side.
    struct KFilter {
        std::array<double, 4> z{};

        double operator()(double x) noexcept;
    };

    KFilter left_;
    KFilter right_;
    std::vector<double> subBlocks_;  // mean energy of each whole tenth of a second
    double sum_ = 0;                 // of the present one
    std::size_t inSubBlock_ = 0;
};

/// The energy of a whole piece, as an `EnergyMeter` has it.
[[nodiscard]] double gatedEnergy(std::span<const float> left, std::span<const float> right);

/// The energy of -18 LUFS: 10^((-18 + 0.691) / 10).
inline constexpr double targetEnergy = 0.01858232279629327;

}  // namespace quillmere::tonebed
