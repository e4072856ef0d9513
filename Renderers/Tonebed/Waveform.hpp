#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace quillmere::tonebed {

/// One period of a tone, as a set of tables from which each pitch takes the one whose harmonics all lie below half the
/// sample rate, so that nothing folds back.
class Waveform {
public:
    static constexpr unsigned tableBits = 11;
    static constexpr std::size_t tableSize = std::size_t{1} << tableBits;

    /// The amplitude of one harmonic (1 is the fundamental) of a tone of `hertz`.
    using Spectrum = std::function<double(int harmonic, double hertz)>;

    /// Computes all tables and brings them to the same mean square, 0.5.
    explicit Waveform(const Spectrum& spectrum);

    /// The table for a tone of `hertz`: `tableSize` values and the first one again.
    [[nodiscard]] const float* table(double hertz) const noexcept;

    /// The value at a phase, 2^32 being a whole turn; straight between two places of the table.
    [[nodiscard]] static float at(const float* table, std::uint32_t phase) noexcept {
        const std::uint32_t place = phase >> (32 - tableBits);
        const auto rest = static_cast<std::int32_t>(phase & ((1U << (32 - tableBits)) - 1));
        const float share = static_cast<float>(rest) * (1.0f / static_cast<float>(1U << (32 - tableBits)));
        return table[place] + share * (table[place + 1] - table[place]);
    }

private:
    static constexpr int mostHarmonics = 160;

    std::vector<std::array<float, tableSize + 1>> tables_;  // one for each octave, from the lowest up
};

/// The phase that a tone of `hertz` goes on in one frame.
[[nodiscard]] std::uint32_t phaseStep(double hertz) noexcept;

}  // namespace quillmere::tonebed
