#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quillmere::tonebed {

/// The finaliser of SplitMix64 (Steele, Lea, Flood: "Fast Splittable Pseudorandom Number Generators", 2014).
[[nodiscard]] constexpr std::uint64_t scrambled(std::uint64_t x) noexcept {
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

/// A 64-bit name of a text (FNV-1a).
[[nodiscard]] constexpr std::uint64_t hashOf(std::string_view text) noexcept {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
    return hash;
}

/// A stream of random numbers (SplitMix64), the same for the same seed everywhere. A value type.
///
/// Two calls never stand in one expression or one argument list: the language leaves their order open.
class Random {
public:
    explicit constexpr Random(std::uint64_t seed) noexcept : state_(seed) {}

    /// An independent stream for one purpose, so that one voice's choices never shift another's.
    constexpr Random(std::uint64_t seed, std::string_view purpose) noexcept
        : state_(scrambled(seed ^ hashOf(purpose))) {}

    constexpr std::uint64_t next() noexcept { return scrambled(state_ += 0x9e3779b97f4a7c15ULL); }

    /// Evenly in 0 (included) to 1 (excluded).
    constexpr double unit() noexcept { return static_cast<double>(next() >> 11) * 0x1p-53; }

    constexpr double between(double low, double high) noexcept { return low + (high - low) * unit(); }

    /// A whole number from 0 to `count` - 1; `count` below 2^32 and above 0.
    constexpr std::size_t below(std::size_t count) noexcept {
        return static_cast<std::size_t>(((next() >> 32) * count) >> 32);
    }

    constexpr bool chance(double probability) noexcept { return unit() < probability; }

private:
    std::uint64_t state_;
};

/// White noise without memory: the value at one place of one stream, evenly in -1 to 1 (excluded).
/// An integer hash of 32 bits with low bias (two rounds of xorshift and multiply).
[[nodiscard]] constexpr float noiseAt(std::uint32_t stream, std::uint32_t place) noexcept {
    // Streams that are numbered in turn must not come out shifted against each other.
    const std::uint32_t mixed = stream * 0x9e3779b9U;
    std::uint32_t x = place;
    x = (x ^ (x >> 16)) * 0x7feb352dU + (mixed ^ (mixed >> 16)) * 0x21f0aaadU;
    x = (x ^ (x >> 15)) * 0x846ca68bU;
    x ^= x >> 16;
    return static_cast<float>(static_cast<std::int32_t>(x)) * 0x1p-31f;
}

}  // namespace quillmere::tonebed
