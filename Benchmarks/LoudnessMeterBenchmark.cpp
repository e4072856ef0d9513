#include <ebur128.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <span>
#include <vector>

#include "Benchmarks/Comparison.hpp"
#include "QuillmereKit/Library/LoudnessMeter.hpp"

// The loudness meter and libebur128 on the same audio in the same buffers: integrated loudness and sample peak.

namespace quillmere::benchmarks {
namespace {

constexpr std::size_t framesPerSecond = 48'000;
constexpr std::size_t framesPerBuffer = 9'600;

struct Signal {
    std::size_t channels;
    std::size_t musicSeconds;
    std::size_t silentSeconds;
};

// Two tones, different in each channel, over a little noise, as music has; then digital silence.
std::vector<float> samplesOf(const Signal& signal) {
    std::vector<float> samples((signal.musicSeconds + signal.silentSeconds) * framesPerSecond * signal.channels);
    std::minstd_rand noise(1);
    for (std::size_t i = 0; i < signal.musicSeconds * framesPerSecond * signal.channels; ++i) {
        const double phase = 6.283185307179586 * static_cast<double>(i / signal.channels) / framesPerSecond;
        const auto channel = static_cast<double>(i % signal.channels);
        const double hiss = (static_cast<double>(noise()) / static_cast<double>(noise.max()) - 0.5) * 0.01;
        samples[i] = static_cast<float>(0.3 * std::sin(220 * phase) + 0.2 * std::sin(329.6 * phase + channel) + hiss);
    }
    return samples;
}

using Buffers = std::vector<std::span<const float>>;

double measureOurs(std::size_t channels, const Buffers& buffers) {
    LoudnessMeter meter(static_cast<int>(channels));
    for (const auto buffer : buffers) meter.append(buffer);
    const auto loudness = meter.measurement();
    return loudness->integratedLUFS.value_or(0) + loudness->peak;
}

double measurePeer(std::size_t channels, const Buffers& buffers) {
    struct Destroy {
        void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
    };
    const std::unique_ptr<ebur128_state, Destroy> state(
        ebur128_init(static_cast<unsigned>(channels), framesPerSecond, EBUR128_MODE_I | EBUR128_MODE_SAMPLE_PEAK));
    for (const auto buffer : buffers) ebur128_add_frames_float(state.get(), buffer.data(), buffer.size() / channels);
    double loudness = 0;
    ebur128_loudness_global(state.get(), &loudness);
    double peak = 0;
    for (unsigned channel = 0; channel < channels; ++channel) {
        double one = 0;
        ebur128_sample_peak(state.get(), channel, &one);
        peak = std::max(peak, one);
    }
    return loudness + peak;
}

Body meterLoop(Signal signal, double (*measure)(std::size_t, const Buffers&)) {
    return [=](benchmark::State& state) {
        const auto samples = samplesOf(signal);
        Buffers buffers;
        for (std::size_t first = 0; first < samples.size(); first += framesPerBuffer * signal.channels) {
            buffers.push_back(std::span(samples).subspan(first, framesPerBuffer * signal.channels));
        }
        for (auto _ : state) benchmark::DoNotOptimize(measure(signal.channels, buffers));
    };
}

bool compareOn(const std::string& subject, Signal signal) {
    return compare(subject, meterLoop(signal, measureOurs), meterLoop(signal, measurePeer), benchmark::kMillisecond);
}

[[maybe_unused]] const bool registered = compareOn("Loudness meter, stereo", {2, 30, 0}) &&
                                         compareOn("Loudness meter, mono", {1, 30, 0}) &&
                                         compareOn("Loudness meter, silence after music", {2, 1, 120});

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
