#include <bit>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoudnessMeter.hpp"
#include "Tests/Library/Signals.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere::test {
namespace {

std::optional<double> optionalNumber(const VectorCase& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) return std::nullopt;
    return found->get<double>();
}

// Only the C library's logarithm may differ, in the last bits.
void expectClose(double actual, double expected) { EXPECT_NEAR(actual, expected, std::abs(expected) * 1e-12); }

// The signal of a case, as the topic's `about` tells to make it.
std::vector<float> signal(const VectorCase& vector) {
    const int kind = vector.at("kind").get<int>();
    const auto channels = vector.at("channels").get<std::size_t>();
    const auto frames = vector.at("frames").get<std::size_t>();
    const auto amplitude = vector.at("amplitude").get<float>();
    const float quiet = amplitude * 0.001F;
    Random random(std::stoull(vector.at("seed").get<std::string>()));
    std::vector<float> samples;
    samples.reserve(frames * channels);
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (std::size_t channel = 0; channel < channels; ++channel) {
            const float noise = random.noise();
            const std::size_t period = 48 + 7 * channel, half = period / 2;
            const std::size_t place = frame % period;
            const std::size_t rise = place < half ? place : period - place;
            const float triangle = static_cast<float>(rise) / static_cast<float>(half) * 2 - 1;
            switch (kind) {
                case 0: samples.push_back(amplitude * triangle); break;
                case 1: samples.push_back(amplitude * noise); break;
                case 2: samples.push_back(frame / 24'000 % 2 == 0 ? amplitude * triangle : 0); break;
                case 3: samples.push_back((frame < frames / 2 ? amplitude : quiet) * noise); break;
                default: samples.push_back(0);
            }
        }
    }
    return samples;
}

QUILLMERE_VECTOR_TEST(Loudness, "loudness") {
    const auto samples = signal(vector);
    const auto& first = vector.at("firstSamples");
    for (std::size_t i = 0; i < first.size(); ++i) ASSERT_EQ(samples.at(i), first[i].get<float>()) << "sample " << i;
    LoudnessMeter meter(vector.at("channels").get<int>());

    meter.append(samples);

    const auto loudness = meter.measurement();
    ASSERT_TRUE(loudness);
    EXPECT_EQ(meter.frames(), vector.at("frames").get<std::int64_t>());
    const auto expected = optionalNumber(vector, "integratedLUFS");
    ASSERT_EQ(loudness->integratedLUFS.has_value(), expected.has_value());
    if (expected) {
        expectClose(*loudness->integratedLUFS, *expected);
        const auto bits = std::stoull(vector.at("lufsBits").get<std::string>(), nullptr, 16);
        expectClose(*loudness->integratedLUFS, std::bit_cast<double>(std::uint64_t{bits}));
    }
    EXPECT_EQ(std::bit_cast<std::uint64_t>(loudness->peak),
              std::stoull(vector.at("peakBits").get<std::string>(), nullptr, 16));
    EXPECT_EQ(loudness->peak, vector.at("peak").get<double>());
    EXPECT_EQ(loudness->seconds, vector.at("seconds").get<double>());
    expectClose(loudness->gainDB(), vector.at("gainDB").get<double>());
    expectClose(loudness->streamGainDB({}, 60), vector.at("streamGainDB60").get<double>());
}

QUILLMERE_VECTOR_TEST(Gains, "gains") {
    const auto& record = vector.at("loudness");
    const AudioLoudness loudness{.integratedLUFS = optionalNumber(record, "integratedLUFS"),
                                 .peak = record.at("peak").get<double>(),
                                 .seconds = optionalNumber(record, "seconds")};

    expectClose(loudness.gainDB(), vector.at("gainDB").get<double>());
    expectClose(loudness.streamGainDB(optionalNumber(vector, "previous"), vector.at("totalSeconds").get<double>()),
                vector.at("streamGainDB").get<double>());
}

}  // namespace
}  // namespace quillmere::test
