#include "Renderers/Tonebed/NoiseBed.hpp"

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

using enum Feature;

constexpr double atFullLevel(double level, double gain) noexcept { return level <= 0.02 ? 0 : gain * level; }

}  // namespace

NoiseBed::NoiseBed(const Style& style, std::uint64_t seed, std::int64_t loopFrames) {
    Random random(seed, "noise bed");
    const double treble = style[brightness];
    const auto waves2 = [&](double seconds) {
        const double first = random.unit();
        const double second = first + random.between(0.1, 0.3);
        return std::array{SlowWave(loopFrames, seconds, first), SlowWave(loopFrames, seconds, second)};
    };
    const auto stream = [&] { return static_cast<std::uint32_t>(random.next() >> 32); };

    Layer hissing;
    hissing.stream = stream();
    hissing.swells = waves2(7);
    hissing.lows = {OnePole(5000 + 5000 * treble), OnePole(5000 + 5000 * treble)};
    hissing.highs = {OnePole(1100), OnePole(1100)};
    hissing.depth = 0.12;
    add(hissing, atFullLevel(style[hiss], 0.022));

    Layer raining;
    raining.stream = stream();
    raining.swells = waves2(11);
    raining.lows = {OnePole(3000 + 4500 * treble), OnePole(3000 + 4500 * treble)};
    raining.highs = {OnePole(420), OnePole(420)};
    raining.depth = 0.2;
    add(raining, atFullLevel(style[rain], 0.06));

    Layer blowing;
    blowing.stream = stream();
    blowing.swells = waves2(9);
    blowing.lows = {OnePole(4000), OnePole(4000)};
    blowing.highs = {OnePole(90), OnePole(90)};
    blowing.lowest = 220;
    blowing.octaves = 1.6;
    blowing.damping = 0.55;
    blowing.depth = 0.55;
    blowing.isBand = true;
    add(blowing, atFullLevel(style[wind], 0.13));

    Layer rolling;
    rolling.stream = stream();
    rolling.swells = waves2(10);
    rolling.lows = {OnePole(6000), OnePole(6000)};
    rolling.highs = {OnePole(120), OnePole(120)};
    rolling.lowest = 260;
    rolling.octaves = 3.2 + 0.8 * treble;
    rolling.depth = 0.75;
    add(rolling, atFullLevel(style[waves], 0.16));

    Layer breathing;
    breathing.stream = stream();
    breathing.swells = waves2(13);
    breathing.lows = {OnePole(7000), OnePole(7000)};
    breathing.highs = {OnePole(1800), OnePole(1800)};
    breathing.depth = 0.6;
    add(breathing, atFullLevel(style[choir], 0.0022));
}

bool NoiseBed::sounds() const noexcept { return layerCount_ > 0; }

void NoiseBed::add(Layer layer, double gain) {
    if (gain <= 0) return;
    layer.gain = gain;
    layers_[layerCount_++] = layer;
}

void NoiseBed::renderLayer(Layer& layer, Block& bus, std::int64_t position, std::size_t count) noexcept {
    const std::int64_t end = position + static_cast<std::int64_t>(count);
    std::array<double, 2> gains{};
    std::array<double, 2> steps{};
    std::array<std::uint32_t, 2> streams = {layer.stream, layer.stream + 1};
    std::array<Channel, 2> noises;
    for (std::size_t side = 0; side < 2; ++side) {
        const double first = layer.swells[side].at(position);
        const double last = layer.swells[side].at(end);
        const auto level = [&](double swell) { return layer.gain * (1 - layer.depth * (0.5 - 0.5 * swell)); };
        gains[side] = level(first);
        steps[side] = (level(last) - gains[side]) / static_cast<double>(count);
        const auto start = static_cast<std::uint32_t>(position);
        for (std::size_t i = 0; i < count; ++i) {
            noises[side][i] = noiseAt(streams[side], start + static_cast<std::uint32_t>(i));
        }
        if (layer.octaves <= 0) continue;
        const double hertz = layer.lowest * powerOfTwo(layer.octaves * (0.5 + 0.25 * (first + last)));
        layer.bands[side].tune(hertz, layer.damping);
        for (std::size_t i = 0; i < count; ++i) {
            const float noise = noises[side][i];
            noises[side][i] = layer.isBand ? layer.bands[side].bandpass(noise) : layer.bands[side].lowpass(noise);
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        const double left = layer.lows[0].lowpass(static_cast<double>(noises[0][i]));
        const double right = layer.lows[1].lowpass(static_cast<double>(noises[1][i]));
        bus.left[i] += static_cast<float>(gains[0] * layer.highs[0].highpass(left));
        bus.right[i] += static_cast<float>(gains[1] * layer.highs[1].highpass(right));
        gains[0] += steps[0];
        gains[1] += steps[1];
    }
}

void NoiseBed::render(Block& bus, std::int64_t position, std::size_t count) noexcept {
    for (std::size_t i = 0; i < layerCount_; ++i) renderLayer(layers_[i], bus, position, count);
}

}  // namespace quillmere::tonebed
