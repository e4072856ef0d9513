#include <ebur128.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "QuillmereKit/Library/LoudnessMeter.hpp"
#include "Tests/Library/Signals.hpp"

namespace quillmere::test {
namespace {

// What libebur128, an independent meter after EBU R 128, measures.
struct Peer {
    double integratedLUFS = 0;
    double peak = 0;
};

Peer peer(int channels, std::span<const float> samples) {
    struct Destroy {
        void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
    };
    const std::unique_ptr<ebur128_state, Destroy> state(
        ebur128_init(static_cast<unsigned>(channels), 48'000, EBUR128_MODE_I | EBUR128_MODE_SAMPLE_PEAK));
    EXPECT_EQ(
        ebur128_add_frames_float(state.get(), samples.data(), samples.size() / static_cast<std::size_t>(channels)),
        EBUR128_SUCCESS);
    Peer result;
    EXPECT_EQ(ebur128_loudness_global(state.get(), &result.integratedLUFS), EBUR128_SUCCESS);
    for (unsigned channel = 0; channel < static_cast<unsigned>(channels); ++channel) {
        double peak = 0;
        EXPECT_EQ(ebur128_sample_peak(state.get(), channel, &peak), EBUR128_SUCCESS);
        result.peak = std::max(result.peak, peak);
    }
    return result;
}

void expectAgreement(int channels, std::span<const float> samples) {
    const Peer expected = peer(channels, samples);
    LoudnessMeter meter(channels);

    meter.append(samples);

    const auto measurement = meter.measurement();
    ASSERT_TRUE(measurement && measurement->integratedLUFS);
    EXPECT_NEAR(*measurement->integratedLUFS, expected.integratedLUFS, 0.1);
    EXPECT_EQ(measurement->peak, expected.peak);
}

struct LoudnessMeterPeerTests : testing::TestWithParam<int> {
    int channels = GetParam();
};
INSTANTIATE_TEST_SUITE_P(Channels, LoudnessMeterPeerTests, testing::Values(1, 2),
                         [](const auto& test) { return test.param == 1 ? "Mono" : "Stereo"; });

TEST_P(LoudnessMeterPeerTests, MusicReadsAsWithLibebur128) {
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        SCOPED_TRACE(seed);
        expectAgreement(channels, music(seed, channels, 20));
    }
}

TEST_P(LoudnessMeterPeerTests, NoiseReadsAsWithLibebur128) {
    for (const float amplitude : {1.0F, 0.1F, 0.002F}) {
        SCOPED_TRACE(amplitude);
        expectAgreement(channels, noise(21, channels, 300'000, amplitude));
    }
}

TEST_P(LoudnessMeterPeerTests, SinesReadAsWithLibebur128) {
    for (const double hertz : {40.0, 100.0, 440.0, 997.0, 3'000.0, 12'000.0}) {
        SCOPED_TRACE(hertz);
        expectAgreement(channels, sine(channels, 5, hertz, -18));
    }
}

TEST_P(LoudnessMeterPeerTests, GatedMixtureReadsAsWithLibebur128) {
    auto samples = joined(music(5, channels, 10), noise(22, channels, 480'000, 0.0002F));
    samples = joined(samples, sine(channels, 10, 997, -45));

    expectAgreement(channels, joined(samples, std::vector<float>(static_cast<std::size_t>(channels) * 240'000)));
}

}  // namespace
}  // namespace quillmere::test
