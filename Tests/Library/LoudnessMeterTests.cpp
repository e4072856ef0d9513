#include "QuillmereKit/Library/LoudnessMeter.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Tests/Library/Signals.hpp"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace quillmere::test {
namespace {

constexpr std::int64_t block = 19'200;    // frames of a gating block, 400 ms
constexpr std::int64_t subBlock = 4'800;  // frames from one block's start to the next one's, 100 ms

// The method as one reads it: a frame at a time, a channel at a time, a test at every sample.
class PlainMeter {
public:
    explicit PlainMeter(int channels) : filters_(static_cast<std::size_t>(channels)) {}

    void append(std::span<const float> samples) {
        for (std::size_t first = 0; isValid && first < samples.size(); first += filters_.size()) {
            double frameEnergy = 0;
            for (std::size_t channel = 0; channel < filters_.size(); ++channel) {
                const double x = samples[first + channel];
                if (!std::isfinite(x)) {
                    isValid = false;
                    return;
                }
                peak = std::max(peak, std::fabs(x));
                const double y = filters_[channel].highpass.next(filters_[channel].shelf.next(x));
                frameEnergy += y * y;
            }
            energy_ += frameEnergy;
            ++frames;
            if (frames % subBlock == 0) endSubBlock();
        }
    }

    [[nodiscard]] std::optional<double> integratedLUFS() const {
        std::vector<double> loud;
        for (const double energy : blocks_) {
            if (energy > 1.1724653045822981e-7) loud.push_back(energy);
        }
        if (loud.empty()) return std::nullopt;
        const double gate = mean(loud) * 0.1;
        std::vector<double> gated;
        for (const double energy : loud) {
            if (energy > gate) gated.push_back(energy);
        }
        if (gated.empty()) return std::nullopt;
        return 10 * std::log10(mean(gated)) - 0.691;
    }

    double peak = 0;
    std::int64_t frames = 0;
    bool isValid = true;

private:
    struct Biquad {
        double b0, b1, b2, a1, a2;
        double z1 = 0, z2 = 0;

        double next(double x) {
            const double y = b0 * x + z1;
            z1 = b1 * x - a1 * y + z2;
            z2 = b2 * x - a2 * y;
            return y;
        }
    };
    struct Filters {
        Biquad shelf{1.53512485958697, -2.69169618940638, 1.19839281085285, -1.69065929318241, 0.73248077421585};
        Biquad highpass{1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621};
    };

    static double mean(const std::vector<double>& values) {
        double sum = 0;
        for (const double value : values) sum += value;
        return sum / static_cast<double>(values.size());
    }

    void endSubBlock() {
        recent_.push_back(energy_ / 4800.0);
        energy_ = 0;
        if (recent_.size() > 4) recent_.erase(recent_.begin());
        if (recent_.size() < 4) return;
        double sum = 0;
        for (const double value : recent_) sum += value;
        blocks_.push_back(sum * 0.25);
    }

    std::vector<Filters> filters_;
    double energy_ = 0;
    std::vector<double> recent_, blocks_;
};

std::optional<std::uint64_t> bits(std::optional<double> value) {
    if (!value) return std::nullopt;
    return std::bit_cast<std::uint64_t>(*value);
}

void expectSame(const LoudnessMeter& meter, const PlainMeter& plain) {
    EXPECT_EQ(meter.frames(), plain.frames);
    EXPECT_EQ(bits(meter.peak()), bits(plain.peak));
    const auto measurement = meter.measurement();
    ASSERT_EQ(measurement.has_value(), plain.isValid);
    if (!measurement) return;
    EXPECT_EQ(bits(measurement->integratedLUFS), bits(plain.integratedLUFS()));
    EXPECT_EQ(bits(measurement->peak), bits(plain.peak));
    EXPECT_EQ(bits(measurement->seconds), bits(static_cast<double>(plain.frames) / 48000.0));
}

void expectPlainFormula(int channels, std::span<const float> samples) {
    LoudnessMeter meter(channels);
    PlainMeter plain(channels);

    meter.append(samples);
    plain.append(samples);

    expectSame(meter, plain);
}

double loudness(int channels, std::span<const float> samples) {
    LoudnessMeter meter(channels);
    meter.append(samples);
    return meter.measurement().value().integratedLUFS.value();
}

std::vector<float> silence(int channels, std::int64_t frames) {
    return std::vector<float>(static_cast<std::size_t>(channels * frames), 0.0F);
}

// Pieces of everything: sound at all levels down to the smallest float, silence long enough for every filter to decay
// into the subnormal numbers, lone samples.
std::vector<float> patchwork(std::uint64_t seed, int channels) {
    Random random(seed);
    std::vector<float> samples;
    for (int piece = 0; piece < 12; ++piece) {
        const auto frames = 1 + random.below(random.below(3) == 0 ? 150'000 : 9'000);
        const auto amplitude =
            std::ldexp(1.0F, -static_cast<int>(random.below(4) == 0 ? random.below(150) : random.below(10)));
        const auto kind = random.below(4);
        for (std::size_t i = 0; i < frames * static_cast<std::size_t>(channels); ++i) {
            const float value = amplitude * random.noise();
            if (kind == 0) samples.push_back(random.below(2) == 0 ? 0.0F : -0.0F);
            if (kind == 1) samples.push_back(random.below(1'000) == 0 ? value : 0.0F);
            if (kind >= 2) samples.push_back(value);
        }
    }
    return samples;
}

struct LoudnessMeterTests : testing::TestWithParam<int> {
    int channels = GetParam();
};
INSTANTIATE_TEST_SUITE_P(Channels, LoudnessMeterTests, testing::Values(1, 2),
                         [](const auto& test) { return test.param == 1 ? "Mono" : "Stereo"; });

TEST_P(LoudnessMeterTests, NewMeterHasMeasuredNothing) {
    const LoudnessMeter meter(channels);

    EXPECT_EQ(meter.frames(), 0);
    EXPECT_EQ(meter.peak(), 0.0);
    EXPECT_EQ(meter.measurement(), (AudioLoudness{.integratedLUFS = {}, .peak = 0, .seconds = 0.0}));
}

TEST_P(LoudnessMeterTests, NoiseGivesTheBitsOfThePlainFormula) {
    for (const float amplitude : {1.0F, 0.1F, 0.001F, 0.0003F, 0.0001F}) {
        SCOPED_TRACE(amplitude);
        expectPlainFormula(channels, noise(11, channels, 101'234, amplitude));
    }
}

TEST_P(LoudnessMeterTests, MusicGivesTheBitsOfThePlainFormula) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE(seed);
        expectPlainFormula(channels, music(seed, channels, 9.3));
    }
}

TEST_P(LoudnessMeterTests, SilenceGivesTheBitsOfThePlainFormula) {
    expectPlainFormula(channels, silence(channels, 50'000));
}

TEST_P(LoudnessMeterTests, SilenceOfBothSignsBetweenSoundsGivesTheBitsOfThePlainFormula) {
    // 4 seconds: the slower filter needs 3 to decay from full scale into the subnormal numbers.
    for (const float zero : {0.0F, -0.0F}) {
        auto samples = noise(5, channels, 30'000, 1.0F);
        samples.insert(samples.end(), static_cast<std::size_t>(channels) * 192'000, zero);

        expectPlainFormula(channels, joined(samples, noise(6, channels, 40'000, 0.5F)));
    }
}

TEST_P(LoudnessMeterTests, SubnormalSamplesGiveTheBitsOfThePlainFormula) {
    const float smallest = std::numeric_limits<float>::denorm_min();
    std::vector<float> samples;
    for (int i = 0; i < 30'000 * channels; ++i) samples.push_back((i % 3 == 0 ? smallest : -7 * smallest));

    expectPlainFormula(channels, samples);
    expectPlainFormula(channels, joined(samples, noise(8, channels, 30'000, 0.5F)));
}

TEST_P(LoudnessMeterTests, SubnormalPeakIsExact) {
    const float smallest = std::numeric_limits<float>::denorm_min();
    LoudnessMeter meter(channels);

    meter.append(std::vector<float>{smallest, -3 * smallest});

    EXPECT_EQ(meter.peak(), 3 * static_cast<double>(smallest));
    EXPECT_GT(meter.peak(), 0.0);
}

TEST_P(LoudnessMeterTests, LargestFiniteSamplesAreNoReasonToGiveUp) {
    std::vector<float> samples;
    Random random(3);
    for (int i = 0; i < 30'000 * channels; ++i) samples.push_back(random.below(2) == 0 ? FLT_MAX : -FLT_MAX);

    expectPlainFormula(channels, samples);
    EXPECT_GT(loudness(channels, samples), 700.0);  // 20 log10(FLT_MAX) is 770.6
}

TEST_P(LoudnessMeterTests, PatchworkInRandomBuffersGivesTheBitsOfThePlainFormula) {
    for (std::uint64_t seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        const auto samples = patchwork(seed, channels);
        LoudnessMeter meter(channels);
        PlainMeter plain(channels);
        plain.append(samples);

        Random random(seed + 100);
        std::span<const float> rest = samples;
        while (!rest.empty()) {
            const auto longest = random.below(3) == 0 ? std::size_t{4} : std::size_t{20'000};
            const auto size = std::min(random.below(longest) * static_cast<std::size_t>(channels), rest.size());
            meter.append(rest.first(size));
            rest = rest.subspan(size);
        }

        expectSame(meter, plain);
    }
}

TEST_P(LoudnessMeterTests, SingleFramesGiveTheBitsOfOneBuffer) {
    const auto samples = music(9, channels, 1.5);
    LoudnessMeter whole(channels), single(channels);

    whole.append(samples);
    const auto frame = static_cast<std::size_t>(channels);
    for (std::size_t i = 0; i < samples.size(); i += frame)
        single.append(std::span(samples).subspan(i, frame), channels);

    EXPECT_EQ(bits(single.measurement()->integratedLUFS), bits(whole.measurement()->integratedLUFS));
    EXPECT_EQ(single.measurement(), whole.measurement());
    EXPECT_EQ(single.frames(), whole.frames());
}

TEST_P(LoudnessMeterTests, EmptyBufferChangesNothing) {
    LoudnessMeter meter(channels);
    meter.append(noise(1, channels, 20'000, 0.5F));
    const auto before = meter.measurement();

    meter.append({});
    meter.append({}, channels);

    EXPECT_EQ(meter.measurement(), before);
}

TEST_P(LoudnessMeterTests, FirstBlockIsCompleteAfter400Milliseconds) {
    const auto samples = noise(2, channels, block, 0.25F);
    const auto size = [&](std::int64_t frames) { return static_cast<std::size_t>(frames * channels); };
    LoudnessMeter meter(channels);

    meter.append(std::span(samples).first(size(block - 1)));
    ASSERT_TRUE(meter.measurement());
    EXPECT_FALSE(meter.measurement()->integratedLUFS);
    EXPECT_GT(meter.measurement()->peak, 0.2);
    EXPECT_EQ(meter.measurement()->seconds, 19'199 / 48000.0);

    meter.append(std::span(samples).subspan(size(block - 1)));
    EXPECT_TRUE(meter.measurement()->integratedLUFS);
    EXPECT_EQ(meter.measurement()->seconds, 0.4);
}

TEST_P(LoudnessMeterTests, EverySubBlockAfterTheFirstBlockAddsOne) {
    // Sound in the fifth sub-block only: the first block is silent, the second is not until it is complete.
    const auto samples = joined(silence(channels, block), noise(2, channels, subBlock, 0.25F));
    LoudnessMeter meter(channels);

    meter.append(std::span(samples).first(samples.size() - static_cast<std::size_t>(channels)));
    EXPECT_FALSE(meter.measurement()->integratedLUFS);

    meter.append(std::span(samples).last(static_cast<std::size_t>(channels)));
    ASSERT_TRUE(meter.measurement()->integratedLUFS);
    // A quarter of the block sounds.
    const double whole = loudness(channels, noise(2, channels, block, 0.25F));
    EXPECT_NEAR(*meter.measurement()->integratedLUFS, whole - 10 * std::log10(4.0), 0.1);
}

TEST_P(LoudnessMeterTests, IncompleteSubBlockCountsInFramesAndPeakOnly) {
    LoudnessMeter meter(channels);
    meter.append(noise(4, channels, 24'000, 0.01F));
    const auto before = meter.measurement();

    meter.append(noise(5, channels, subBlock - 1, 1.0F));

    EXPECT_EQ(meter.frames(), 28'799);
    EXPECT_GT(meter.peak(), 0.9);
    EXPECT_EQ(meter.measurement()->integratedLUFS, before->integratedLUFS);
    EXPECT_EQ(meter.measurement()->seconds, 28'799 / 48000.0);
}

TEST_P(LoudnessMeterTests, CopyGoesOnByItself) {
    LoudnessMeter meter(channels);
    meter.append(noise(1, channels, 30'000, 0.5F));
    LoudnessMeter copy = meter;
    const auto before = meter.measurement();

    copy.append(noise(2, channels, 30'000, 0.9F));

    EXPECT_EQ(meter.measurement(), before);
    EXPECT_EQ(copy.frames(), 60'000);
    expectPlainFormula(channels, joined(noise(1, channels, 30'000, 0.5F), noise(2, channels, 30'000, 0.9F)));
}

TEST_P(LoudnessMeterTests, SampleThatIsNotFiniteEndsTheMeasurementThere) {
    const float infinity = std::numeric_limits<float>::infinity();
    const auto clean = noise(7, channels, 25'000, 0.5F);
    // The first samples, both sides of a frame, the ends of a sub-block and of the buffer.
    const std::array<std::size_t, 10> places{0, 1, 2, 3, 9'598, 9'599, 9'600, 9'601, 20'001, clean.size() - 1};
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::signaling_NaN(),
                            -std::numeric_limits<float>::quiet_NaN(), infinity, -infinity}) {
        for (const std::size_t place : places) {
            SCOPED_TRACE(std::to_string(bad) + " at sample " + std::to_string(place));
            auto samples = clean;
            samples[place] = bad;
            samples[samples.size() - 2] *= 100;  // a larger peak, after the bad sample in all cases but the last
            LoudnessMeter meter(channels);
            PlainMeter plain(channels);

            meter.append(samples);
            plain.append(samples);

            EXPECT_FALSE(meter.measurement());
            EXPECT_EQ(meter.frames(), static_cast<std::int64_t>(place) / channels);
            expectSame(meter, plain);
        }
    }
}

TEST_P(LoudnessMeterTests, NothingIsMeasuredAfterASampleThatIsNotFinite) {
    LoudnessMeter meter(channels);
    auto samples = noise(7, channels, 10'000, 0.5F);
    samples.back() = std::numeric_limits<float>::quiet_NaN();
    meter.append(noise(7, channels, 30'000, 0.5F));
    meter.append(samples);
    const auto frames = meter.frames();
    const auto peak = meter.peak();

    meter.append(noise(8, channels, 30'000, 1.0F));

    EXPECT_EQ(frames, 39'999);
    EXPECT_EQ(meter.frames(), frames);
    EXPECT_EQ(meter.peak(), peak);
    EXPECT_FALSE(meter.measurement());
}

TEST(LoudnessMeter, LeftSampleBesideABadRightOneCountsInThePeakOnly) {
    LoudnessMeter meter(2);

    meter.append(std::vector<float>{0.1F, 0.2F, -0.75F, std::numeric_limits<float>::quiet_NaN(), 1.0F, 1.0F});

    EXPECT_EQ(meter.frames(), 1);
    EXPECT_EQ(meter.peak(), 0.75);
    EXPECT_FALSE(meter.measurement());
}

#ifdef __SSE2__
TEST_P(LoudnessMeterTests, FloatingPointModeOfTheThreadNeitherCountsNorChanges) {
    constexpr unsigned flushToZero = 0x8000, subnormalsAreZero = 0x0040, towardZero = 0x6000;
    const auto samples = patchwork(77, channels);
    PlainMeter plain(channels);
    plain.append(samples);
    PlainMeter plainTiny(channels);
    const std::vector<float> tiny(2, std::numeric_limits<float>::denorm_min());
    plainTiny.append(tiny);
    const unsigned usual = _mm_getcsr();

    for (const unsigned mode : {flushToZero, subnormalsAreZero, flushToZero | subnormalsAreZero, towardZero}) {
        LoudnessMeter meter(channels), meterTiny(channels);

        _mm_setcsr(usual | mode);
        meter.append(samples);
        meterTiny.append(tiny);
        const unsigned after = _mm_getcsr();
        _mm_setcsr(usual);

        EXPECT_EQ(after & 0xffc0, (usual | mode) & 0xffc0);
        expectSame(meter, plain);
        expectSame(meterTiny, plainTiny);
    }
}
#endif

// ITU-R BS.1770-4, annex 1: a sine of 997 Hz at full scale in one of the front channels reads -3.01 LKFS.
TEST(LoudnessMeter, FullScaleSineInOneChannelReadsMinus3Point01) {
    const auto mono = sine(1, 5, 997, 0);
    std::vector<float> left, right;
    for (const float sample : mono) {
        left.insert(left.end(), {sample, 0.0F});
        right.insert(right.end(), {0.0F, sample});
    }

    EXPECT_NEAR(loudness(1, mono), -3.01, 0.01);
    EXPECT_NEAR(loudness(2, left), -3.01, 0.01);
    EXPECT_NEAR(loudness(2, right), -3.01, 0.01);
}

// EBU Tech 3341 (2016), table 1, cases 1 to 5: stereo sines of 1,000 Hz, the same in both channels, each level given as
// the peak of a channel. Expected integrated loudness within 0.1 LU.
struct Tech3341Case {
    const char* name;
    struct Tone {
        double dBFS, seconds;
    };
    std::vector<Tone> tones;
    double expectedLUFS;
};

struct Tech3341Tests : testing::TestWithParam<Tech3341Case> {};
INSTANTIATE_TEST_SUITE_P(
    Table1, Tech3341Tests,
    testing::Values(Tech3341Case{"Case1", {{-23, 20}}, -23}, Tech3341Case{"Case2", {{-33, 20}}, -33},
                    Tech3341Case{"Case3", {{-36, 10}, {-23, 60}, {-36, 10}}, -23},
                    Tech3341Case{"Case4", {{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}, -23},
                    Tech3341Case{"Case5", {{-26, 20}, {-20, 20.1}, {-26, 20}}, -23}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_P(Tech3341Tests, IntegratedLoudnessIsWithinTheTolerance) {
    std::vector<float> samples;
    for (const auto& tone : GetParam().tones) samples = joined(samples, sine(2, tone.seconds, 1'000, tone.dBFS));

    EXPECT_NEAR(loudness(2, samples), GetParam().expectedLUFS, 0.1);
}

// The gain at `hertz` of the K-weighting's transfer function, in decibels: ITU-R BS.1770-4, annex 1, tables 1 and 2.
double weightingDB(double hertz) {
    const auto z1 = std::polar(1.0, -2 * std::numbers::pi * hertz / 48'000);
    const auto z2 = z1 * z1;
    const auto shelf = (1.53512485958697 - 2.69169618940638 * z1 + 1.19839281085285 * z2) /
                       (1.0 - 1.69065929318241 * z1 + 0.73248077421585 * z2);
    const auto highpass = (1.0 - 2.0 * z1 + z2) / (1.0 - 1.99004745483398 * z1 + 0.99007225036621 * z2);
    return 20 * std::log10(std::abs(shelf * highpass));
}

// As the tones of ITU-R BS.2217: at each of its frequencies a sine of the level that must read -23 and -24 LKFS, here
// taken from the transfer function. Two equal channels add 3.01 dB to the 3.01 dB that a sine lies below its peak.
TEST(LoudnessMeter, TonesOfAllFrequenciesReadAsTheTransferFunctionSays) {
    for (const double hertz : {25.0, 100.0, 500.0, 1'000.0, 2'000.0, 10'000.0}) {
        for (const double expected : {-23.0, -24.0}) {
            SCOPED_TRACE(hertz);
            const double stereo = expected + 0.691 - weightingDB(hertz);
            const double mono = stereo + 10 * std::log10(2.0);

            EXPECT_NEAR(loudness(2, sine(2, 3, hertz, stereo)), expected, 0.1);
            EXPECT_NEAR(loudness(1, sine(1, 3, hertz, mono)), expected, 0.1);
        }
    }
}

// As ITU-R BS.2217's test of the absolute gate: sound just above -70 LKFS counts, just below it does not.
TEST(LoudnessMeter, AbsoluteGateLiesAtMinus70) {
    EXPECT_NEAR(loudness(2, joined(sine(2, 10, 1'000, -69.5), silence(2, 480'000))), -69.5, 0.1);

    LoudnessMeter meter(2);
    meter.append(sine(2, 10, 1'000, -70.5));
    ASSERT_TRUE(meter.measurement());
    EXPECT_FALSE(meter.measurement()->integratedLUFS);
    EXPECT_GT(meter.measurement()->peak, 0.0);
}

// As ITU-R BS.2217's test of the relative gate: what lies more than 10 LU below the mean does not count. The mean of
// the equally long parts is 3 dB below the louder one.
TEST(LoudnessMeter, RelativeGateLies10BelowTheMean) {
    const auto loud = sine(2, 20, 1'000, -20);

    EXPECT_NEAR(loudness(2, joined(loud, sine(2, 20, 1'000, -33.5))), -20.0, 0.1);
    const double both = 10 * std::log10((std::pow(10, -2.0) + std::pow(10, -3.25)) / 2);
    EXPECT_NEAR(loudness(2, joined(loud, sine(2, 20, 1'000, -32.5))), both, 0.1);
}

TEST(LoudnessMeterDeathTest, OtherChannelCountsStopTheProcess) {
    for (const int channels : {0, 3, -1, 6}) {
        EXPECT_DEATH(LoudnessMeter meter(channels), "a loudness meter has 1 or 2 channels");
    }
}

TEST(LoudnessMeterDeathTest, BufferOfAnotherChannelCountStopsTheProcess) {
    const std::vector<float> samples(4);
    LoudnessMeter mono(1), stereo(2);

    EXPECT_DEATH(mono.append(samples, 2), "the buffer's channel count is the loudness meter's");
    EXPECT_DEATH(mono.append(samples, 0), "the buffer's channel count is the loudness meter's");
    EXPECT_DEATH(stereo.append(samples, 1), "the buffer's channel count is the loudness meter's");
    EXPECT_DEATH(stereo.append(samples, 0), "the buffer's channel count is the loudness meter's");
}

TEST(LoudnessMeterDeathTest, HalfAFrameStopsTheProcess) {
    const std::vector<float> samples(5);
    LoudnessMeter meter(2);

    EXPECT_DEATH(meter.append(samples, 2), "the buffer holds whole frames");
    EXPECT_DEATH(meter.append(samples), "the buffer holds whole frames");
}

TEST(LoudnessMeterDeathTest, RulesHoldForAnInvalidMeterToo) {
    LoudnessMeter meter(2);
    meter.append(std::vector<float>{std::numeric_limits<float>::infinity(), 0});

    EXPECT_DEATH(meter.append(std::vector<float>(5)), "the buffer holds whole frames");
}

}  // namespace
}  // namespace quillmere::test
