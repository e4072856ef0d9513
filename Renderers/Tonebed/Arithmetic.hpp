#pragma once

#include <cstdint>

/// The arithmetic of the synthesizer.
///
/// Everything here is built from + - * / and whole numbers, in one fixed order, so that every compiler and every
/// processor computes the same bits. The C library's sine, power and logarithm may differ in the last bit from one
/// release or processor to the next and are not used anywhere in the signal path.
namespace quillmere::tonebed {

/// Frames per second of everything the synthesizer makes.
inline constexpr std::int64_t sampleRate = 48000;

/// The largest whole number not above `x`; |x| below 2^62.
[[nodiscard]] constexpr std::int64_t wholeBelow(double x) noexcept {
    const auto truncated = static_cast<std::int64_t>(x);
    return static_cast<double>(truncated) > x ? truncated - 1 : truncated;
}

/// The nearest whole number, halves upwards.
[[nodiscard]] constexpr std::int64_t nearest(double x) noexcept { return wholeBelow(x + 0.5); }

/// sin(2π·turns), to about 1e-15 for |turns| up to a thousand.
[[nodiscard]] double sine(double turns) noexcept;

/// cos(2π·turns).
[[nodiscard]] double cosine(double turns) noexcept;

/// 2^x for x in -1000...1000.
[[nodiscard]] double powerOfTwo(double x) noexcept;

/// log2(x) for positive, normal x.
[[nodiscard]] double logarithm(double x) noexcept;

/// The amplitude factor of a level in decibels.
[[nodiscard]] inline double gainOf(double decibels) noexcept { return powerOfTwo(decibels * 0.16609640474436813); }

/// The frequency in hertz of a pitch in semitones, 69 being 440 Hz.
[[nodiscard]] inline double frequencyOf(double pitch) noexcept { return 440 * powerOfTwo((pitch - 69) / 12); }

[[nodiscard]] constexpr double clamped(double x, double low, double high) noexcept {
    return x < low ? low : (x > high ? high : x);
}

/// The way from `a` to `b` by the share `w`.
[[nodiscard]] constexpr double mixed(double a, double b, double w) noexcept { return a + (b - a) * w; }

/// A soft step from 0 to 1 for x from 0 to 1, level at both ends.
[[nodiscard]] constexpr double smoothStep(double x) noexcept {
    const double c = clamped(x, 0, 1);
    return c * c * (3 - 2 * c);
}

}  // namespace quillmere::tonebed
