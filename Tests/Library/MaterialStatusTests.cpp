#include "QuillmereKit/Library/MaterialStatus.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace quillmere::test {
namespace {

std::string text(double seconds, Horizon horizon, bool isPlaying, bool isWriting) {
    return MaterialStatus{.seconds = seconds, .horizon = horizon, .isPlaying = isPlaying, .isWriting = isWriting}
        .text();
}

TEST(MaterialStatus, ClockShowsMinutesAndSecondsBelowAnHour) {
    EXPECT_EQ(MaterialStatus::clock(0), "00:00");
    EXPECT_EQ(MaterialStatus::clock(425), "07:05");
    EXPECT_EQ(MaterialStatus::clock(3'599), "59:59");
}

TEST(MaterialStatus, ClockShowsHoursFromOneHourOn) {
    EXPECT_EQ(MaterialStatus::clock(3'600), "1:00:00");
    EXPECT_EQ(MaterialStatus::clock(3'723), "1:02:03");
    EXPECT_EQ(MaterialStatus::clock(100 * 3'600.0 + 59), "100:00:59");
}

TEST(MaterialStatus, ClockRoundsToWholeSeconds) {
    EXPECT_EQ(MaterialStatus::clock(59.4), "00:59");
    EXPECT_EQ(MaterialStatus::clock(59.5), "01:00");
    EXPECT_EQ(MaterialStatus::clock(3'599.4), "59:59");
    EXPECT_EQ(MaterialStatus::clock(3'599.5), "1:00:00");
    EXPECT_EQ(MaterialStatus::clock(0.49999999999999994), "00:00");
    EXPECT_EQ(MaterialStatus::clock(2.5), "00:03");
}

TEST(MaterialStatus, ClockOfNegativeTimeIsZero) {
    for (const double seconds : {-0.0, -0.5, -1.0, -4'000.0, -0x1p63})
        EXPECT_EQ(MaterialStatus::clock(seconds), "00:00");
}

TEST(MaterialStatus, ClockTakesAllOfTheIntegerRange) {
    EXPECT_EQ(MaterialStatus::clock(9223372036854774784.0), "2562047788015215:13:04");  // the double below 2^63
}

TEST(MaterialStatusDeathTest, ClockStopsTheProcessOutsideTheIntegerRange) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double seconds : {infinity, -infinity, std::numeric_limits<double>::quiet_NaN(), 0x1p63, -0x1.1p63}) {
        EXPECT_DEATH((void)MaterialStatus::clock(seconds), "a clock shows a finite number of seconds");
    }
}

TEST(MaterialStatus, WithoutMusicItSaysWhetherSomeIsComing) {
    for (const Horizon horizon : {Horizon::twentyMinutes, Horizon::unlimited, Horizon{1}}) {
        for (const bool isPlaying : {false, true}) {
            for (const double seconds : {0.0, -0.0, -30.0}) {
                EXPECT_EQ(text(seconds, horizon, isPlaying, true), "Creating the first track…");
                EXPECT_EQ(text(seconds, horizon, isPlaying, false), "No saved music yet");
            }
        }
    }
}

TEST(MaterialStatus, WhilePausedOnlyTheStoredMusicCounts) {
    for (const Horizon horizon : {Horizon::twentyMinutes, Horizon::unlimited, Horizon{1}}) {
        EXPECT_EQ(text(90, horizon, false, false), "Paused · 01:30 saved");
        EXPECT_EQ(text(90, horizon, false, true), "Paused · 01:30 saved");
    }
}

TEST(MaterialStatus, UnlimitedHorizonIsNotNamed) {
    EXPECT_EQ(text(600, Horizon::unlimited, true, true), "10:00 saved · adding more…");
    EXPECT_EQ(text(600, Horizon::unlimited, true, false), "10:00 saved");
    EXPECT_EQ(text(1e9, Horizon::unlimited, true, true), "277777:46:40 saved · adding more…");
}

TEST(MaterialStatus, BelowTheHorizonBothAreNamed) {
    EXPECT_EQ(text(600, Horizon::twentyMinutes, true, true), "10:00 of 20:00 saved · adding more…");
    EXPECT_EQ(text(600, Horizon::twentyMinutes, true, false), "10:00 of 20:00 saved");
    EXPECT_EQ(text(600, Horizon::oneHour, true, false), "10:00 of 1:00:00 saved");
    EXPECT_EQ(text(1'199.9, Horizon::twentyMinutes, true, true), "20:00 of 20:00 saved · adding more…");
    EXPECT_EQ(text(0.1, Horizon::twentyMinutes, true, true), "00:00 of 20:00 saved · adding more…");
}

TEST(MaterialStatus, OnceTheHorizonIsReachedNothingIsAdded) {
    EXPECT_EQ(text(1'200, Horizon::twentyMinutes, true, true), "20:00 saved");
    EXPECT_EQ(text(1'500, Horizon::twentyMinutes, true, true), "25:00 saved");
    EXPECT_EQ(text(1'500, Horizon::twentyMinutes, true, false), "25:00 saved");
}

TEST(MaterialStatus, EveryFieldCountsInEquality) {
    const MaterialStatus status{.seconds = 1, .horizon = Horizon::oneHour, .isPlaying = false, .isWriting = false};
    MaterialStatus longer = status, other = status, playing = status, writing = status;
    longer.seconds = 2;
    other.horizon = Horizon::unlimited;
    playing.isPlaying = true;
    writing.isWriting = true;

    EXPECT_EQ(status, MaterialStatus(status));
    for (const auto& changed : {longer, other, playing, writing}) EXPECT_NE(status, changed);
}

}  // namespace
}  // namespace quillmere::test
