#include "QuillmereKit/Library/AudioLoudness.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

AudioLoudness measured(std::optional<double> integratedLUFS, double peak, std::optional<double> seconds = 60.0) {
    return {.integratedLUFS = integratedLUFS, .peak = peak, .seconds = seconds};
}

std::string compact(const AudioLoudness& loudness) { return encodeJSON(loudness, JSONWriter::Form::compact); }

TEST(AudioLoudness, TargetIsMinus18) { EXPECT_EQ(AudioLoudness::targetLUFS, -18.0); }

TEST(AudioLoudness, GainReachesTheTarget) {
    EXPECT_DOUBLE_EQ(measured(-15.5, 0.5).gainDB(), -2.5);
    EXPECT_DOUBLE_EQ(measured(-21.0, 0.5).gainDB(), 3.0);
    EXPECT_EQ(measured(-18.0, 0.5).gainDB(), 0.0);
}

TEST(AudioLoudness, BoostIsCappedAt6) { EXPECT_EQ(measured(-30.0, 0.1).gainDB(), 6.0); }

TEST(AudioLoudness, PeakCeilingWins) {
    EXPECT_NEAR(measured(-30.0, 0.5).gainDB(), 5.575072019056577, 1e-9);   // 20 log10(0.95 / 0.5)
    EXPECT_NEAR(measured(-18.0, 1.0).gainDB(), -0.445527894223045, 1e-9);  // 20 log10(0.95)
    EXPECT_NEAR(measured(-10.0, 9.5).gainDB(), -20.0, 1e-9);
    EXPECT_EQ(measured(-18.0, 0.95).gainDB(), 0.0);
}

TEST(AudioLoudness, WithoutALoudnessTheGainOnlyAttenuates) {
    for (const std::optional<double> none : {std::optional<double>(), {infinity}, {-infinity}, {notANumber}}) {
        EXPECT_EQ(measured(none, 0.1).gainDB(), 0.0);
        EXPECT_NEAR(measured(none, 1.0).gainDB(), -0.445527894223045, 1e-9);
    }
}

TEST(AudioLoudness, WithoutAUsablePeakTheGainIsZero) {
    for (const double peak : {0.0, -0.0, -0.5, infinity, -infinity, notANumber}) {
        EXPECT_EQ(measured(-30.0, peak).gainDB(), 0.0) << peak;
        EXPECT_EQ(measured(-3.0, peak).gainDB(), 0.0) << peak;
    }
}

TEST(AudioLoudness, SmallestPeakStillGivesTheCappedBoost) {
    EXPECT_EQ(measured(-30.0, std::numeric_limits<double>::denorm_min()).gainDB(), 6.0);
}

TEST(AudioLoudness, PartialMeasurementGivesThreeClampsTogether) {
    EXPECT_EQ(measured(-30.0, 0.1, 10.0).streamGainDB({}, 60), -1.0);    // never above 1 dB of attenuation
    EXPECT_EQ(measured(-15.0, 0.1, 10.0).streamGainDB({}, 60), -4.0);    // 1 dB below the gain
    EXPECT_EQ(measured(-15.0, 0.1, 10.0).streamGainDB(-7.5, 60), -7.5);  // never above the gain before
    EXPECT_EQ(measured(-15.0, 0.1, 10.0).streamGainDB(-2.0, 60), -4.0);
    EXPECT_EQ(measured(-30.0, 0.1, 10.0).streamGainDB(5.0, 60), -1.0);
}

TEST(AudioLoudness, MeasurementOf30SecondsIsTrusted) {
    EXPECT_EQ(measured(-30.0, 0.1, 30.0).streamGainDB({}, 60), 6.0);
    EXPECT_EQ(measured(-30.0, 0.1, 30.0).streamGainDB(-9.0, 600), 6.0);
    EXPECT_EQ(measured(-30.0, 0.1, 29.999).streamGainDB({}, 60), -1.0);
}

TEST(AudioLoudness, MeasurementOfAShortPieceMayLackATenthOfASecond) {
    EXPECT_EQ(measured(-30.0, 0.1, 9.9).streamGainDB({}, 10), 6.0);
    EXPECT_EQ(measured(-30.0, 0.1, 9.89).streamGainDB({}, 10), -1.0);
}

TEST(AudioLoudness, NothingToPlayNeedsNoMeasurement) {
    for (const double totalSeconds : {0.0, 0.1, -5.0, -infinity}) {
        EXPECT_EQ(measured(-30.0, 0.1, {}).streamGainDB({}, totalSeconds), 6.0) << totalSeconds;
    }
}

TEST(AudioLoudness, UnknownCoverageCountsAsNone) {
    EXPECT_EQ(measured(-30.0, 0.1, {}).streamGainDB({}, 10), -1.0);
    EXPECT_EQ(measured(-30.0, 0.1, notANumber).streamGainDB({}, 10), -1.0);
    EXPECT_EQ(measured(-30.0, 0.1, 40).streamGainDB({}, infinity), 6.0);  // 30 seconds are always enough
}

TEST(AudioLoudness, JSONLeavesOutWhatIsAbsent) {
    EXPECT_EQ(compact(measured(-20.5, 0.5, 120)), R"({"integratedLUFS":-20.5,"peak":0.5,"seconds":120})");
    EXPECT_EQ(compact(measured({}, 0, {})), R"({"peak":0})");
}

TEST(AudioLoudness, JSONReadsBackEqual) {
    for (const auto& loudness :
         {measured(-20.5, 0.5, 120), measured({}, 0.1, 3), measured(-7.25, 1.5, {}), measured({}, 0, {})}) {
        EXPECT_EQ(decodeJSON<AudioLoudness>(compact(loudness)), loudness);
    }
}

TEST(AudioLoudness, JSONNeedsThePeakOnly) {
    EXPECT_EQ(decodeJSON<AudioLoudness>(R"({"peak":1,"other":[],"seconds":null})"), measured({}, 1, {}));
    for (const char* text : {"{}", R"({"seconds":1})", R"({"peak":null})", R"({"peak":"1"})", R"({"peak":true})", "[]",
                             "null", R"({"peak":1,"seconds":"2"})", R"({"peak":1,"integratedLUFS":false})"}) {
        EXPECT_THROW((void)decodeJSON<AudioLoudness>(text), JSONError) << text;
    }
}

TEST(AudioLoudness, ValuesThatAreNotFiniteAreNotWritten) {
    EXPECT_THROW(compact(measured({}, notANumber)), EncodingError);
    EXPECT_THROW(compact(measured(-infinity, 1)), EncodingError);
    EXPECT_THROW(compact(measured({}, 1, infinity)), EncodingError);
}

TEST(AudioLoudness, EveryFieldCountsInEqualityAndHash) {
    const std::hash<AudioLoudness> hash;
    const auto loudness = measured(-20, 0.5, 60);

    EXPECT_EQ(hash(loudness), hash(measured(-20, 0.5, 60)));
    for (const auto& other : {measured(-21, 0.5, 60), measured({}, 0.5, 60), measured(-20, 0.6, 60),
                              measured(-20, 0.5, 61), measured(-20, 0.5, {}), measured(0, 0.5, 60)}) {
        EXPECT_NE(loudness, other);
        EXPECT_NE(hash(loudness), hash(other));
    }
    EXPECT_NE(measured({}, 0.5), measured(0, 0.5));
    EXPECT_NE(hash(measured({}, 0.5)), hash(measured(0, 0.5)));
}

}  // namespace
}  // namespace quillmere::test
