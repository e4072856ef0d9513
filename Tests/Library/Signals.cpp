#include "Tests/Library/Signals.hpp"

#include <array>
#include <cmath>
#include <numbers>

namespace quillmere::test {

std::uint64_t Random::draw() noexcept {
    state_ += 0x9e3779b97f4a7c15;
    std::uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

float Random::noise() noexcept {
    return static_cast<float>(static_cast<std::int64_t>(draw() >> 40) - 8'388'608) / 8'388'608.0F;
}

std::vector<float> noise(std::uint64_t seed, int channels, std::size_t frames, float amplitude) {
    Random random(seed);
    std::vector<float> samples(frames * static_cast<std::size_t>(channels));
    for (float& sample : samples) sample = amplitude * random.noise();
    return samples;
}

std::vector<float> sine(int channels, double seconds, double hertz, double dBFS) {
    const double amplitude = std::pow(10.0, dBFS / 20);
    const double step = 2 * std::numbers::pi * hertz / 48'000;
    const auto width = static_cast<std::size_t>(channels);
    std::vector<float> samples(static_cast<std::size_t>(std::llround(seconds * 48'000)) * width);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<float>(amplitude * std::sin(step * static_cast<double>(i / width)));
    }
    return samples;
}

std::vector<float> music(std::uint64_t seed, int channels, double seconds) {
    constexpr std::array<double, 5> scale{220.0, 246.94, 293.66, 329.63, 392.0};
    constexpr std::size_t beat = 24'000;
    Random random(seed);
    const auto frames = static_cast<std::size_t>(seconds * 48'000);
    std::vector<float> samples;
    samples.reserve(frames * static_cast<std::size_t>(channels));
    std::array<double, 3> notes{};
    double level = 0;
    for (std::size_t frame = 0; frame < frames; ++frame) {
        const std::size_t inBeat = frame % beat;
        if (inBeat == 0) {
            for (double& note : notes) note = scale[random.below(scale.size())] * (random.below(2) == 0 ? 1 : 2);
            level = random.below(8) == 0 ? 0.0 : 0.05 + 0.2 * static_cast<double>(random.below(5));
        }
        const double time = static_cast<double>(frame) / 48'000;
        const double decay = std::exp(-static_cast<double>(inBeat) / 9'000);
        for (int channel = 0; channel < channels; ++channel) {
            double value = 0.3 * std::sin(2 * std::numbers::pi * 55 * time);
            for (const double note : notes) {
                value += 0.2 * decay * std::sin(2 * std::numbers::pi * note * time + channel);
            }
            if (inBeat < 3'000) value += 0.1 * static_cast<double>(random.noise());
            samples.push_back(static_cast<float>(level * value));
        }
    }
    return samples;
}

std::vector<float> joined(std::vector<float> first, const std::vector<float>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace quillmere::test
