#include <benchmark/benchmark.h>
#include <ebur128.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "QuillmereKit/Library/LoudnessMeter.hpp"

// The loudness meter and libebur128 in turn, on the same audio in the same buffers: integrated loudness and sample
// peak. "per frame" is the time for one frame.

namespace {

constexpr std::size_t seconds = 30;
constexpr std::size_t framesPerSecond = 48'000;
constexpr std::size_t framesPerBuffer = 9'600;

enum class Signal : std::int64_t { chord, silenceAfterOneSecond };

std::vector<float> makeSignal(Signal signal, std::size_t channels) {
    std::vector<float> samples(seconds * framesPerSecond * channels);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double time = static_cast<double>(i / channels) / framesPerSecond;
        if (signal == Signal::silenceAfterOneSecond && time >= 1) break;
        const double phase = 6.283185307179586 * time;
        const auto channel = static_cast<double>(i % channels);
        samples[i] = static_cast<float>(0.3 * std::sin(220 * phase) + 0.2 * std::sin(329.6 * phase + channel));
    }
    return samples;
}

template <class Measure>
void run(benchmark::State& state, Measure measure) {
    const auto channels = static_cast<std::size_t>(state.range(0));
    const auto samples = makeSignal(static_cast<Signal>(state.range(1)), channels);
    std::vector<std::span<const float>> buffers;
    for (std::size_t first = 0; first < samples.size(); first += framesPerBuffer * channels) {
        buffers.push_back(std::span(samples).subspan(first, framesPerBuffer * channels));
    }
    for (auto _ : state) {
        double result = measure(channels, buffers);
        benchmark::DoNotOptimize(result);
    }
    const auto frames = static_cast<double>(state.iterations()) * seconds * framesPerSecond;
    state.counters["per frame"] = benchmark::Counter(frames, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

double measureOurs(std::size_t channels, const std::vector<std::span<const float>>& buffers) {
    quillmere::LoudnessMeter meter(static_cast<int>(channels));
    for (const auto buffer : buffers) meter.append(buffer);
    const auto loudness = meter.measurement();
    return loudness->integratedLUFS.value_or(0) + loudness->peak;
}

double measureLibebur128(std::size_t channels, const std::vector<std::span<const float>>& buffers) {
    struct Destroy {
        void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
    };
    const std::unique_ptr<ebur128_state, Destroy> state(
        ebur128_init(static_cast<unsigned>(channels), framesPerSecond, EBUR128_MODE_I | EBUR128_MODE_SAMPLE_PEAK));
    for (const auto buffer : buffers) ebur128_add_frames_float(state.get(), buffer.data(), buffer.size() / channels);
    double loudness = 0, peak = 0;
    ebur128_loudness_global(state.get(), &loudness);
    ebur128_sample_peak(state.get(), 0, &peak);
    return loudness + peak;
}

void LoudnessMeter(benchmark::State& state) { run(state, measureOurs); }
void Libebur128(benchmark::State& state) { run(state, measureLibebur128); }

void signals(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"channels", "silence"})->Unit(benchmark::kMillisecond);
    for (const std::int64_t channels : {2, 1}) {
        for (const Signal signal : {Signal::chord, Signal::silenceAfterOneSecond}) {
            benchmark->Args({channels, static_cast<std::int64_t>(signal)});
        }
    }
}
BENCHMARK(LoudnessMeter)->Apply(signals);
BENCHMARK(Libebur128)->Apply(signals);

}  // namespace

BENCHMARK_MAIN();
