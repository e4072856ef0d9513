#include "Renderers/Tonebed/Mastering.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Loudness.hpp"

namespace quillmere::tonebed {
namespace {

constexpr std::size_t limiterBlock = 64;
constexpr std::size_t reach = 20;            // blocks on each side that a peak lowers,
constexpr std::size_t rounding = reach - 1;  // and over which the lowered level is rounded off

float magnitude(float x) noexcept { return x < 0 ? -x : x; }

/// Multiplies by `gain`, and by less around what would be above the ceiling. True if something had to give way.
bool applyGain(std::span<float> left, std::span<float> right, double gain) {
    const std::size_t frames = left.size();
    const auto factor = static_cast<float>(gain);
    const std::size_t blocks = (frames + limiterBlock - 1) / limiterBlock;
    std::vector<double> wished(blocks, 1.0);
    bool isLimited = false;
    for (std::size_t block = 0; block < blocks; ++block) {
        const std::size_t end = std::min(frames, (block + 1) * limiterBlock);
        float peak = 0;
        for (std::size_t i = block * limiterBlock; i < end; ++i) {
            left[i] *= factor;
            right[i] *= factor;
            peak = std::max(peak, std::max(magnitude(left[i]), magnitude(right[i])));
        }
        if (static_cast<double>(peak) <= ceiling) continue;
        wished[block] = ceiling / static_cast<double>(peak);
        isLimited = true;
    }
    if (!isLimited) return false;

    // Everything is a circle: the blocks before the first are the last.
    const auto around = [&](std::size_t block, std::size_t ahead, std::size_t back) {
        return (block + ahead + blocks * reach - back) % blocks;
    };
    std::vector<double> lowest(blocks);
    for (std::size_t node = 0; node < blocks; ++node) {
        double least = 1;
        for (std::size_t i = 0; i < 2 * reach; ++i) least = std::min(least, wished[around(node, i, reach)]);
        lowest[node] = least;
    }
    std::vector<double> level(blocks + 1);
    for (std::size_t node = 0; node < blocks; ++node) {
        double sum = 0;
        for (std::size_t i = 0; i <= 2 * rounding; ++i) sum += lowest[around(node, i, rounding)];
        level[node] = sum / static_cast<double>(2 * rounding + 1);
    }
    level[blocks] = level[0];
    for (std::size_t block = 0; block < blocks; ++block) {
        if (level[block] == 1 && level[block + 1] == 1) continue;
        const std::size_t start = block * limiterBlock;
        const std::size_t end = std::min(frames, start + limiterBlock);
        const auto count = static_cast<double>(end - start);
        for (std::size_t i = start; i < end; ++i) {
            const auto share = static_cast<double>(i - start) / count;
            const auto value = static_cast<float>(mixed(level[block], level[block + 1], share));
            left[i] *= value;
            right[i] *= value;
        }
    }
    return true;
}

}  // namespace

double master(std::span<float> left, std::span<float> right) {
    double total = 1;
    // Limiting takes a little loudness away, which the next turn makes up for.
    for (int turn = 0; turn < 3; ++turn) {
        const double energy = gatedEnergy(left, right);
        if (energy <= 0) return total;
        const double gain = std::sqrt(targetEnergy / energy);
        if (turn > 0 && gain > 0.99 && gain < 1.01) break;
        total *= gain;
        if (!applyGain(left, right, gain)) break;
    }
    return total;
}

std::int16_t sixteenBits(float value) noexcept {
    const double scaled = static_cast<double>(value) * 32767;
    return static_cast<std::int16_t>(clamped(static_cast<double>(nearest(scaled)), -32768, 32767));
}

}  // namespace quillmere::tonebed
