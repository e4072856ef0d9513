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

constexpr std::size_t seamFrames = 480;           // on each side of the seam, in which its level may change,
constexpr std::size_t seamNeighbourhood = 48000;  // and in which it is compared with other places
constexpr int mostEasings = 40;

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

/// The value itself up to a knee, and above it ever less, up to the ceiling.
float roundedOff(float value) noexcept {
    constexpr float knee = 0.6f;
    constexpr float room = static_cast<float>(ceiling) - knee;
    const float excess = magnitude(value) - knee;
    if (excess <= 0) return value;
    const float rounded = knee + room * (excess / (room + excess));
    return value < 0 ? -rounded : rounded;
}

int stepOf(float from, float to) noexcept {
    const int step = sixteenBits(to) - sixteenBits(from);
    return step < 0 ? -step : step;
}

/// How far the step across the seam is above the largest one near it, but not where easing it changes that one:
/// above 1 is too far.
double seamExcess(std::span<const float> channel) noexcept {
    const std::size_t frames = channel.size();
    const std::size_t neighbours = std::min(seamNeighbourhood, frames - 1);
    int largest = 1;
    for (std::size_t i = std::min(seamFrames, neighbours) + 1; i <= neighbours; ++i) {
        largest = std::max(largest, stepOf(channel[i - 1], channel[i]));
        largest = std::max(largest, stepOf(channel[frames - i - 1], channel[frames - i]));
    }
    return static_cast<double>(stepOf(channel.back(), channel.front())) / static_cast<double>(largest);
}

}  // namespace

void easeSeam(std::span<float> left, std::span<float> right) {
    const std::size_t frames = left.size();
    for (int turn = 0; turn < mostEasings; ++turn) {
        const double excess = std::max(seamExcess(left), seamExcess(right));
        if (excess <= 1) return;
        const double depth = 1 - 0.98 / excess;
        for (std::size_t i = 0; i < std::min(seamFrames, frames / 2); ++i) {
            const double share = static_cast<double>(i) / static_cast<double>(seamFrames);
            const auto factor = static_cast<float>(1 - depth * (1 - smoothStep(share)));
            for (const std::span<float> channel : {left, right}) {
                channel[i] *= factor;
                channel[frames - 1 - i] *= factor;
            }
        }
    }
}

double master(std::span<float> left, std::span<float> right, double energy) {
    double total = 1;
    // Limiting takes a little loudness away, which the next turn makes up for.
    for (int turn = 0; turn < 3; ++turn) {
        if (turn > 0) energy = gatedEnergy(left, right);
        if (energy <= 0) return total;
        const double gain = std::sqrt(targetEnergy / energy);
        if (turn > 0 && gain > 0.99 && gain < 1.01) break;
        total *= gain;
        if (!applyGain(left, right, gain)) break;
    }
    return total;
}

void DraftLevel::apply(std::span<const float> left, std::span<const float> right, double energy,
                       std::span<std::int16_t> samples) noexcept {
    const double wished = energy > 0 ? std::sqrt(targetEnergy / energy) : 1;
    const double start = gain_ > 0 ? gain_ : wished;
    const double step = (wished - start) / static_cast<double>(left.size());
    for (std::size_t i = 0; i < left.size(); ++i) {
        const auto gain = static_cast<float>(start + step * static_cast<double>(i));
        samples[2 * i] = sixteenBits(roundedOff(gain * left[i]));
        samples[2 * i + 1] = sixteenBits(roundedOff(gain * right[i]));
    }
    gain_ = wished;
}

}  // namespace quillmere::tonebed
