#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

TEST(TonebedArithmeticTests, SineAgreesWithTheLibraryOverManyTurns) {
    for (int i = -4000; i <= 4000; ++i) {
        const double turns = i * 0.01234567;
        EXPECT_NEAR(sine(turns), std::sin(2 * std::numbers::pi * turns), 4e-14) << turns;
        EXPECT_NEAR(cosine(turns), std::cos(2 * std::numbers::pi * turns), 4e-14) << turns;
    }
}

TEST(TonebedArithmeticTests, SineMeetsTheQuarterTurnsExactly) {
    EXPECT_EQ(sine(0), 0);
    EXPECT_EQ(sine(0.5), 0);
    EXPECT_NEAR(sine(0.25), 1, 1e-15);
    EXPECT_NEAR(sine(-0.25), -1, 1e-15);
}

TEST(TonebedArithmeticTests, PowersAndLogarithmsOfTwoAgreeWithTheLibrary) {
    for (int i = -3000; i <= 3000; ++i) {
        const double x = i * 0.0317;
        EXPECT_NEAR(powerOfTwo(x) / std::exp2(x), 1, 1e-14) << x;
        EXPECT_NEAR(logarithm(std::exp2(x)), x, 2e-13) << x;
    }
    EXPECT_EQ(powerOfTwo(10), 1024);
    EXPECT_EQ(logarithm(1), 0);
}

TEST(TonebedArithmeticTests, WholeNumbersAreRoundedDownAndToTheNearest) {
    EXPECT_EQ(wholeBelow(2.9), 2);
    EXPECT_EQ(wholeBelow(-2.1), -3);
    EXPECT_EQ(wholeBelow(-3.0), -3);
    EXPECT_EQ(nearest(2.5), 3);
    EXPECT_EQ(nearest(-2.5), -2);
    EXPECT_EQ(nearest(-2.6), -3);
}

TEST(TonebedArithmeticTests, PitchSixtyNineIsConcertPitchAndTwelveSemitonesDoubleIt) {
    EXPECT_EQ(frequencyOf(69), 440);
    EXPECT_EQ(frequencyOf(81), 880);
    EXPECT_NEAR(frequencyOf(60), 261.6256, 1e-4);
    EXPECT_NEAR(gainOf(-6.0206), 0.5, 1e-6);
}

TEST(TonebedArithmeticTests, RandomStreamsAreEvenAndDoNotFollowOneAnother) {
    Random one(1, "one");
    Random other(1, "other");
    double sum = 0;
    double product = 0;
    constexpr int count = 20000;
    for (int i = 0; i < count; ++i) {
        const double a = one.unit();
        const double b = other.unit();
        EXPECT_GE(a, 0);
        EXPECT_LT(a, 1);
        sum += a;
        product += (a - 0.5) * (b - 0.5);
    }
    EXPECT_NEAR(sum / count, 0.5, 0.01);
    EXPECT_NEAR(product / count, 0, 0.002);
}

TEST(TonebedArithmeticTests, NoiseIsWhiteAndOfTwoStreamsUnrelated) {
    double mean = 0;
    double power = 0;
    double neighbours = 0;
    constexpr std::array<std::uint32_t, 6> others = {6, 8, 9, 15, 0, 0x80000007U};
    std::array<double, others.size()> streams{};
    constexpr std::uint32_t count = 50000;
    for (std::uint32_t place = 0; place < count; ++place) {
        const double value = static_cast<double>(noiseAt(7, place));
        mean += value;
        power += value * value;
        neighbours += value * static_cast<double>(noiseAt(7, place + 1));
        for (std::size_t i = 0; i < others.size(); ++i) {
            streams[i] += value * static_cast<double>(noiseAt(others[i], place));
        }
    }
    EXPECT_NEAR(mean / count, 0, 0.01);
    EXPECT_NEAR(power / count, 1.0 / 3, 0.01);
    EXPECT_NEAR(neighbours / count, 0, 0.01);
    for (std::size_t i = 0; i < others.size(); ++i) EXPECT_NEAR(streams[i] / count, 0, 0.01) << others[i];
}

}  // namespace
}  // namespace quillmere::tonebed
