#include <ebur128.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoudnessMeter.hpp"
#include "Renderers/Tonebed/Loudness.hpp"
#include "Renderers/Tonebed/Mastering.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"
#include "Tests/Renderers/TonebedPieces.hpp"

namespace quillmere::tonebed {
namespace {

using test::pieceOf;
using test::playableMoods;
using test::Rendering;

struct Loudness {
    double integrated = 0;  // LUFS
    double truePeak = 0;    // of full scale, four times oversampled
};

// Measured by an independent meter.
Loudness loudnessOf(const Rendering& piece) {
    ebur128_state* state = ebur128_init(2, 48000, EBUR128_MODE_I | EBUR128_MODE_TRUE_PEAK);
    ebur128_add_frames_short(state, piece.samples.data(), piece.samples.size() / 2);
    Loudness loudness;
    ebur128_loudness_global(state, &loudness.integrated);
    for (unsigned channel = 0; channel < 2; ++channel) {
        double peak = 0;
        ebur128_true_peak(state, channel, &peak);
        loudness.truePeak = std::max(loudness.truePeak, peak);
    }
    ebur128_destroy(&state);
    return loudness;
}

// The spectral centroid in hertz: the mean frequency above 47 Hz, weighted by magnitude, of both sides together, over
// all windows of 4,096 frames (Hann).
double centroidOf(const Rendering& piece) {
    constexpr std::size_t size = 4096;
    double weighted = 0;
    double total = 0;
    std::vector<std::complex<double>> values(size);
    for (std::size_t start = 0; start + size <= piece.samples.size() / 2; start += size) {
        for (std::size_t i = 0; i < size; ++i) {
            const double window = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / size);
            values[i] = window * (piece.samples[2 * (start + i)] + piece.samples[2 * (start + i) + 1]);
        }
        for (std::size_t i = 1, j = 0; i < size; ++i) {
            std::size_t bit = size / 2;
            for (; (j & bit) != 0; bit /= 2) j ^= bit;
            j ^= bit;
            if (i < j) std::swap(values[i], values[j]);
        }
        for (std::size_t length = 2; length <= size; length *= 2) {
            const auto turn = std::polar(1.0, -2 * std::numbers::pi / static_cast<double>(length));
            for (std::size_t block = 0; block < size; block += length) {
                std::complex<double> factor = 1;
                for (std::size_t k = block; k < block + length / 2; ++k) {
                    const auto odd = values[k + length / 2] * factor;
                    values[k + length / 2] = values[k] - odd;
                    values[k] += odd;
                    factor *= turn;
                }
            }
        }
        for (std::size_t bin = 4; bin < size / 2; ++bin) {
            const double magnitude = std::abs(values[bin]);
            weighted += magnitude * static_cast<double>(bin) * 48000 / size;
            total += magnitude;
        }
    }
    return weighted / total;
}

double energyOf(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) sum += value * value;
    return sum / static_cast<double>(values.size());
}

void expectSeam(const Rendering& piece) {
    for (const std::size_t channel : {std::size_t{0}, std::size_t{1}}) {
        const auto values = piece.side(channel);
        const std::size_t count = values.size();
        const std::size_t reach = std::min<std::size_t>(48000, count - 1);
        double largest = 0;
        for (std::size_t i = 1; i <= reach; ++i) {
            largest = std::max(largest, std::abs(values[i] - values[i - 1]));
            largest = std::max(largest, std::abs(values[count - i] - values[count - i - 1]));
        }
        const double step = std::abs(values.front() - values.back());
        EXPECT_LE(step, largest);
        EXPECT_LE(step, piece.seamStep + 1e-12);
    }
}

void expectLevel(const Rendering& piece) {
    const Loudness loudness = loudnessOf(piece);
    EXPECT_NEAR(loudness.integrated, -18, 1.0);
    EXPECT_LE(loudness.truePeak, 0.95);
    for (const std::int16_t sample : piece.samples) {
        if (std::abs(static_cast<int>(sample)) <= 0.9 * 32768) continue;
        ADD_FAILURE() << "a sample of " << sample;
        break;
    }
}

void expectStereo(const Rendering& piece) {
    const auto left = piece.side(0);
    const auto right = piece.side(1);
    std::vector<double> middle(left.size());
    std::vector<double> sides(left.size());
    for (std::size_t i = 0; i < left.size(); ++i) {
        middle[i] = 0.5 * (left[i] + right[i]);
        sides[i] = 0.5 * (left[i] - right[i]);
    }
    EXPECT_GT(energyOf(sides), 0.01 * energyOf(middle)) << "hardly stereo";
    EXPECT_GT(energyOf(middle), 1.5 * energyOf(sides)) << "much is lost when played on one loudspeaker";
    const double balance = energyOf(left) / energyOf(right);
    EXPECT_GT(balance, 0.4);
    EXPECT_LT(balance, 2.5);
}

class TonebedMoodTests : public testing::TestWithParam<std::size_t> {
protected:
    const Mood mood = playableMoods().at(GetParam());
};

INSTANTIATE_TEST_SUITE_P(BuiltIn, TonebedMoodTests, testing::Range(std::size_t{0}, std::size_t{6}));

TEST_P(TonebedMoodTests, EveryStepIsASeamlessLoopAtItsLevelAndBrighterThanTheOneBefore) {
    for (const std::int64_t seed : {1, 2}) {
        double centroidBefore = 0;
        double brightnessBefore = 0;
        double densityBefore = 0;
        for (std::int64_t blend = 0; blend < 5; ++blend) {
            SCOPED_TRACE(mood.id + ", seed " + std::to_string(seed) + ", step " + std::to_string(blend));
            const Rendering piece(pieceOf(mood, blend, seed, 12));

            EXPECT_EQ(piece.frames(), 12 * 48000);
            expectSeam(piece);
            expectLevel(piece);
            expectStereo(piece);
            const double centroid = centroidOf(piece);
            EXPECT_GT(centroid, centroidBefore);
            EXPECT_GT(piece.brightness, brightnessBefore);
            EXPECT_GT(piece.score.onsetDensity(), densityBefore);
            EXPECT_LE(piece.brightness, 1);
            centroidBefore = centroid;
            brightnessBefore = piece.brightness;
            densityBefore = piece.score.onsetDensity();
        }
    }
}

TEST_P(TonebedMoodTests, TwoSeedsAreTwoPiecesOfSound) {
    const auto first = Rendering(pieceOf(mood, 2, 10, 10)).side(0);
    const auto second = Rendering(pieceOf(mood, 2, 11, 10)).side(0);

    double shared = 0;
    for (std::size_t i = 0; i < first.size(); ++i) shared += first[i] * second[i];
    const double correlation =
        shared / static_cast<double>(first.size()) / std::sqrt(energyOf(first) * energyOf(second));
    EXPECT_LT(std::abs(correlation), 0.25);
}

TEST(TonebedSynthesizerTests, EverythingThatCanBeAskedForIsSeamlessAtItsLevelAndStereo) {
    for (const char* prompt :
         {"solo piano", "electric piano, bass, brushed drums", "strings, choir, cinematic", "guitar, flute, folk",
          "bells, marimba, harp", "techno, driving drums, arpeggio, BPM: 140", "rain", "ocean waves, wind, birds",
          "lo-fi hip hop, vinyl crackle, tape hiss", "very slow dark drone, deep reverb", "", "drums",
          "dry, mono, bass"}) {
        SCOPED_TRACE(prompt);
        const Rendering piece(pieceOf(std::string(prompt), 4, 9));
        expectSeam(piece);
        expectLevel(piece);
        expectStereo(piece);
    }
}

TEST(TonebedSynthesizerTests, PiecesOfAnyLengthHaveExactlyTheirFrames) {
    for (const std::int64_t frames : {4800, 4801, 24000, 48000, 48001, 100003}) {
        SCOPED_TRACE(frames);
        auto piece = pieceOf("arpeggio, drums, pads, piano, rain", 1, 1);
        piece.frames = frames;
        const Rendering rendering(piece);
        EXPECT_EQ(rendering.frames(), frames);
        expectSeam(rendering);
        if (frames >= 48000) expectLevel(rendering);
    }
}

TEST(TonebedSynthesizerTests, ALengthThatCannotBeMadeStopsTheProcess) {
    for (const std::int64_t frames : {std::int64_t{0}, std::int64_t{-1}, fewestFrames - 1, mostFrames + 1}) {
        auto piece = pieceOf("pads", 1, 1);
        piece.frames = frames;
        EXPECT_DEATH(Synthesizer{piece}, "a length that cannot be made");
    }
}

TEST(TonebedSynthesizerTests, WhatRingsAtTheEndRingsOnAtTheBeginning) {
    // With a large room nothing has gone quiet by the time the loop begins again.
    const Rendering piece(pieceOf("warm pads, deep reverb, cathedral", 3, 8));
    const auto left = piece.side(0);
    const std::vector<double> beginning(left.begin(), left.begin() + 4800);
    const std::vector<double> end(left.end() - 4800, left.end());

    EXPECT_GT(energyOf(beginning), 0.1 * energyOf(left));
    EXPECT_GT(energyOf(beginning), 0.15 * energyOf(end));
    EXPECT_LT(energyOf(beginning), 6 * energyOf(end));
}

TEST(TonebedSynthesizerTests, HowTheWorkIsDividedDoesNotChangeTheSound) {
    const auto piece = pieceOf("arpeggio, drums, flute, piano, wind", 8, 3.3);
    const Rendering whole(piece);

    Synthesizer synthesizer(piece);
    for (std::int64_t part = 1; synthesizer.framesPlayed() < synthesizer.framesToPlay(); part = part % 5000 + 777) {
        synthesizer.play(part);
    }
    synthesizer.finish();
    std::vector<std::int16_t> samples(whole.samples.size());
    synthesizer.read(0, std::span(samples).first(1000));
    synthesizer.read(500, std::span(samples).subspan(1000));

    EXPECT_EQ(samples, whole.samples);
}

TEST(TonebedSynthesizerTests, TheOwnLoudnessAgreesWithTheLibrarysMeter) {
    const Rendering piece(pieceOf("piano, drums", 6, 7));
    std::vector<float> left;
    std::vector<float> right;
    std::vector<float> both;
    for (std::size_t i = 0; i < piece.samples.size(); ++i) {
        const float value = static_cast<float>(piece.samples[i]) / 32768;
        (i % 2 == 0 ? left : right).push_back(value);
        both.push_back(value);
    }
    LoudnessMeter meter(2);
    meter.append(both);

    EXPECT_NEAR(-0.691 + 10 * std::log10(gatedEnergy(left, right)), meter.measurement()->integratedLUFS.value(), 1e-6);
}

TEST(TonebedSynthesizerTests, SilenceAndPiecesShorterThanAGatingBlockHaveAnEnergyToo) {
    const std::vector<float> silence(48000, 0.0f);
    EXPECT_EQ(gatedEnergy(silence, silence), 0);
    EXPECT_EQ(gatedEnergy({}, {}), 0);

    std::vector<float> tone(4800);
    for (std::size_t i = 0; i < tone.size(); ++i) tone[i] = static_cast<float>(std::sin(0.13 * static_cast<double>(i)));
    EXPECT_NEAR(-0.691 + 10 * std::log10(gatedEnergy(tone, tone)), 0, 1);
}

TEST(TonebedSynthesizerTests, MasteringTamesPeaksAcrossTheSeamAndLeavesSilenceAlone) {
    std::vector<float> left(96000);
    for (std::size_t i = 0; i < left.size(); ++i) left[i] = 0.02f * std::sin(0.05f * static_cast<float>(i));
    left.front() = 3;
    left[50000] = -2;
    std::vector<float> right = left;
    master(left, right, gatedEnergy(left, right));
    for (const float value : left) ASSERT_LE(std::abs(static_cast<double>(value)), ceiling + 1e-6);
    // The level gives way on both sides of the seam.
    EXPECT_LT(std::abs(left.back()), std::abs(left[20000]));

    std::vector<float> silence(9600, 0.0f);
    EXPECT_EQ(master(silence, silence, 0), 1);
    EXPECT_EQ(silence, std::vector<float>(9600, 0.0f));
}

int stepBetween(float from, float to) { return std::abs(sixteenBits(to) - sixteenBits(from)); }

TEST(TonebedSynthesizerTests, ASeamThatIsTheSteepestPlaceIsEasedAndNothingFurtherAway) {
    for (const std::size_t frames : {std::size_t{4800}, std::size_t{96001}, std::size_t{480000}}) {
        for (const float steepness : {1.01f, 1.3f, 3.0f}) {
            SCOPED_TRACE(std::to_string(frames) + " " + std::to_string(steepness));
            // A slope through zero at the seam that is steeper than any other.
            std::vector<float> left(frames);
            for (std::size_t i = 0; i < frames; ++i) left[i] = 0.2f * std::sin(0.05f * static_cast<float>(i));
            left.front() = 0.005f * steepness;
            left.back() = -0.005f * steepness;
            const std::vector<float> before = left;
            std::vector<float> right(frames, 0.1f);
            easeSeam(left, right);

            int largest = 0;
            for (std::size_t i = 1; i <= std::min<std::size_t>(48000, frames - 1); ++i) {
                largest = std::max(largest, stepBetween(left[i - 1], left[i]));
                largest = std::max(largest, stepBetween(left[frames - i], left[frames - i - 1]));
            }
            EXPECT_LE(stepBetween(left.back(), left.front()), largest);
            EXPECT_TRUE(std::equal(left.begin() + 480, left.end() - 480, before.begin() + 480));
            EXPECT_EQ(right[480], 0.1f);
            EXPECT_EQ(right.front(), right.back());
        }
    }
}

TEST(TonebedSynthesizerTests, ASeamThatIsNotSteepIsLeftAlone) {
    std::vector<float> left(96000);
    for (std::size_t i = 0; i < left.size(); ++i) left[i] = 0.2f * std::sin(0.05f * static_cast<float>(i));
    left.back() = -0.009f;
    std::vector<float> right = left;
    easeSeam(right, right);

    EXPECT_EQ(right, left);
}

TEST(TonebedSynthesizerTests, ADraftIsNeverAboveTheCeilingAndGlidesFromLevelToLevel) {
    DraftLevel level;
    std::vector<float> tone(4800);
    for (std::size_t i = 0; i < tone.size(); ++i) tone[i] = std::sin(0.1f * static_cast<float>(i));
    std::vector<std::int16_t> first(9600);
    std::vector<std::int16_t> second(9600);
    level.apply(tone, tone, targetEnergy / 100, first);
    level.apply(tone, tone, targetEnergy * 100, second);
    std::vector<std::int16_t> third(9600);
    level.apply(tone, tone, targetEnergy * 100, third);

    // Ten times too loud at first; then the level goes down to a tenth.
    const auto peak = static_cast<double>(*std::ranges::max_element(first)) / 32767;
    EXPECT_LE(peak, ceiling);
    EXPECT_GT(peak, 0.8);
    EXPECT_GT(*std::max_element(second.begin(), second.begin() + 200), 26000);
    EXPECT_LT(*std::max_element(second.end() - 200, second.end()), 9000);
    EXPECT_NEAR(*std::ranges::max_element(third), 3277, 5);
    for (std::size_t i = 0; i < second.size(); i += 2) ASSERT_EQ(second[i], second[i + 1]);
}

TEST(TonebedSynthesizerTests, DraftsFollowThePlayingAndDoNotChangeThePiece) {
    const auto piece = pieceOf("piano, drums", 3, 4);
    Synthesizer synthesizer(piece);
    std::vector<std::int16_t> samples;
    std::int64_t drafted = 0;
    while (synthesizer.framesPlayed() < synthesizer.framesToPlay()) {
        synthesizer.play(10000);
        const std::int64_t runUp = synthesizer.framesToPlay() - piece.frames;
        ASSERT_EQ(synthesizer.framesToDraft(), std::max<std::int64_t>(0, synthesizer.framesPlayed() - runUp) - drafted);
        samples.resize(static_cast<std::size_t>(2 * synthesizer.framesToDraft()));
        drafted += synthesizer.framesToDraft();
        if (!samples.empty()) synthesizer.draft(samples);
    }
    EXPECT_EQ(drafted, piece.frames);
    synthesizer.finish();
    samples.resize(static_cast<std::size_t>(2 * piece.frames));
    synthesizer.read(0, samples);

    EXPECT_EQ(samples, Rendering(piece).samples);
}

TEST(TonebedSynthesizerTests, SamplesAreRoundedToTheNearestAndLimited) {
    EXPECT_EQ(sixteenBits(0), 0);
    EXPECT_EQ(sixteenBits(1), 32767);
    EXPECT_EQ(sixteenBits(-1), -32767);
    EXPECT_EQ(sixteenBits(7), 32767);
    EXPECT_EQ(sixteenBits(-7), -32768);
    EXPECT_EQ(sixteenBits(0.7f / 32767), 1);
}

}  // namespace
}  // namespace quillmere::tonebed
