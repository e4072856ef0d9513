#include "Renderers/Tonebed/Effects.hpp"

#include <algorithm>

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);
constexpr double chorusCentre = 0.010 * rate;
constexpr double chorusSwing = 0.004 * rate;

}  // namespace

SlowWave::SlowWave(std::int64_t loopFrames, double seconds, double startTurns) noexcept : start(startTurns) {
    const double turns = static_cast<double>(loopFrames) / (rate * seconds);
    const std::int64_t whole = std::max<std::int64_t>(1, nearest(turns));
    turnsPerFrame = static_cast<double>(whole) / static_cast<double>(loopFrames);
}

double SlowWave::at(std::int64_t position) const noexcept {
    return sine(start + turnsPerFrame * static_cast<double>(position));
}

Chorus::Chorus(std::int64_t loopFrames, double seconds, double depth)
    : lines_{DelayLine(1024), DelayLine(1024)},
      waves_{SlowWave(loopFrames, seconds, 0), SlowWave(loopFrames, seconds, 0.31)},
      depth_(static_cast<float>(depth)) {}

void Chorus::process(Block& block, std::int64_t position, std::size_t count) noexcept {
    for (std::size_t side = 0; side < 2; ++side) {
        Channel& channel = side == 0 ? block.left : block.right;
        DelayLine& line = lines_[side];
        const SlowWave& wave = waves_[side];
        const double first = chorusCentre + chorusSwing * wave.at(position);
        const double last = chorusCentre + chorusSwing * wave.at(position + static_cast<std::int64_t>(count));
        line.write(channel.data(), count);
        // The whole block is written already: its first frame lies `count` frames back.
        auto delay = static_cast<float>(first + static_cast<double>(count));
        const auto step = static_cast<float>((last - first) / static_cast<double>(count) - 1);
        for (std::size_t i = 0; i < count; ++i) {
            channel[i] += depth_ * line.at(delay);
            delay += step;
        }
    }
}

Echo::Echo(std::size_t delay, double feedback, double highestHertz)
    : lines_{DelayLine(delay), DelayLine(delay)},
      filters_{OnePole(highestHertz), OnePole(highestHertz)},
      delay_(delay),
      feedback_(static_cast<float>(feedback)) {}

void Echo::process(const Block& input, Block& output, std::size_t count) noexcept {
    std::array<Channel, 2> past;
    for (std::size_t side = 0; side < 2; ++side) lines_[side].read(past[side].data(), delay_, count);
    for (std::size_t i = 0; i < count; ++i) {
        past[0][i] = static_cast<float>(filters_[0].lowpass(static_cast<double>(past[0][i])));
        past[1][i] = static_cast<float>(filters_[1].lowpass(static_cast<double>(past[1][i])));
    }
    Channel left;
    Channel right;
    for (std::size_t i = 0; i < count; ++i) {
        output.left[i] += past[0][i];
        output.right[i] += past[1][i];
        left[i] = input.left[i] + feedback_ * past[1][i];
        right[i] = input.right[i] + feedback_ * past[0][i];
    }
    lines_[0].write(left.data(), count);
    lines_[1].write(right.data(), count);
}

}  // namespace quillmere::tonebed
