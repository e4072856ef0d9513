#include "QuillmereKit/Playback/SeededGenerator.hpp"

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

struct Product {
    std::uint64_t high;
    std::uint64_t low;
};

// The whole 128-bit product, from four products of halves.
Product multiply(std::uint64_t a, std::uint64_t b) noexcept {
    constexpr std::uint64_t half = 0xffffffff;
    const std::uint64_t lowLow = (a & half) * (b & half);
    const std::uint64_t lowHigh = (a & half) * (b >> 32);
    const std::uint64_t highLow = (a >> 32) * (b & half);
    const std::uint64_t highHigh = (a >> 32) * (b >> 32);
    const std::uint64_t middle = (lowLow >> 32) + (lowHigh & half) + (highLow & half);
    return {highHigh + (lowHigh >> 32) + (highLow >> 32) + (middle >> 32), (middle << 32) | (lowLow & half)};
}

}  // namespace

std::uint64_t SeededGenerator::next() noexcept {
    state += 0x9e3779b97f4a7c15;
    std::uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

std::uint64_t SeededGenerator::below(std::uint64_t bound) noexcept {
    precondition(bound > 0, "a bounded draw needs a bound of at least 1");
    Product product = multiply(next(), bound);
    if (product.low < bound) {
        const std::uint64_t threshold = (0 - bound) % bound;  // 2^64 modulo bound
        while (product.low < threshold) product = multiply(next(), bound);
    }
    return product.high;
}

}  // namespace quillmere
