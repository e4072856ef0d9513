#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quillmere::test {

/// Draws that are the same on every machine: SplitMix64 (Steele, Lea and Flood, 2014).
class Random {
public:
    explicit Random(std::uint64_t state) noexcept : state_(state) {}

    std::uint64_t draw() noexcept;
    /// A whole number from 0 to `bound` - 1, nearly even.
    std::size_t below(std::size_t bound) noexcept { return static_cast<std::size_t>(draw() % bound); }
    /// An even value in -1..<1, a multiple of 2^-23.
    float noise() noexcept;

private:
    std::uint64_t state_;
};

/// White noise of this amplitude; interleaved.
std::vector<float> noise(std::uint64_t seed, int channels, std::size_t frames, float amplitude);

/// A sine of `hertz` at 48,000 frames a second, the same in all channels, its peak `dBFS` decibels below full scale.
std::vector<float> sine(int channels, double seconds, double hertz, double dBFS);

/// Slowly changing chords with decaying notes, a bass, a noisy beat and a pause, different left and right.
std::vector<float> music(std::uint64_t seed, int channels, double seconds);

/// One after the other.
std::vector<float> joined(std::vector<float> first, const std::vector<float>& second);

}  // namespace quillmere::test
