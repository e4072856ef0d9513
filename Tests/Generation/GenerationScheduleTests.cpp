#include "QuillmereKit/Generation/GenerationSchedule.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>

namespace quillmere {
namespace {

using namespace std::chrono_literals;

struct GenerationScheduleTests : testing::Test {
    const Calendar utc = Calendar::inZone("UTC").value();
    const Date midnight{std::chrono::sys_days(std::chrono::year(2024) / 5 / 1)};  // the same in UTC
    const GenerationSchedule night{.startMinute = 1320, .endMinute = 360};        // 22:00 to 06:00
    const GenerationSchedule lunch{.startMinute = 720, .endMinute = 780};         // 12:00 to 13:00
};

TEST_F(GenerationScheduleTests, AWindowIncludesItsStartAndExcludesItsEnd) {
    EXPECT_FALSE(lunch.contains(midnight + 11h + 59min + 59s, utc));
    EXPECT_TRUE(lunch.contains(midnight + 12h, utc));
    EXPECT_TRUE(lunch.contains(midnight + 12h + 59min + 59s, utc));
    EXPECT_FALSE(lunch.contains(midnight + 13h, utc));
}

TEST_F(GenerationScheduleTests, AWindowMayPassMidnight) {
    EXPECT_TRUE(night.contains(midnight + 23h + 59min, utc));
    EXPECT_TRUE(night.contains(midnight, utc));
    EXPECT_TRUE(night.contains(midnight + 5h + 59min, utc));
    EXPECT_FALSE(night.contains(midnight + 6h, utc));
    EXPECT_FALSE(night.contains(midnight + 21h + 59min, utc));
    EXPECT_TRUE(night.contains(midnight + 22h, utc));
}

TEST_F(GenerationScheduleTests, AnInvalidScheduleContainsNoMoment) {
    const GenerationSchedule invalid[] = {{600, 600},
                                          {0, 0},
                                          {1440, 5},
                                          {5, 1440},
                                          {-1, 5},
                                          {5, -1},
                                          {1439, 1440},
                                          {std::numeric_limits<std::int64_t>::min(), 5},
                                          {5, std::numeric_limits<std::int64_t>::max()}};
    for (const auto& schedule : invalid) {
        SCOPED_TRACE(std::to_string(schedule.startMinute) + "-" + std::to_string(schedule.endMinute));
        EXPECT_FALSE(schedule.isValid());
        EXPECT_EQ(schedule.nextStart(midnight, utc), std::nullopt);
        for (auto minute = 0min; minute < 24h; minute += 1min) {
            ASSERT_FALSE(schedule.contains(midnight + minute, utc));
            ASSERT_EQ(schedule.windowStart(midnight + minute, utc), std::nullopt);
        }
    }
}

TEST_F(GenerationScheduleTests, TheWidestWindowsAreValid) {
    EXPECT_TRUE((GenerationSchedule{0, 1439}.isValid()));
    EXPECT_TRUE((GenerationSchedule{1439, 0}.isValid()));
    EXPECT_FALSE((GenerationSchedule{0, 1439}.contains(midnight + 23h + 59min, utc)));
    EXPECT_TRUE((GenerationSchedule{1439, 0}.contains(midnight + 23h + 59min + 59s, utc)));
}

TEST_F(GenerationScheduleTests, TheNextStartIsStrictlyLater) {
    EXPECT_EQ(lunch.nextStart(midnight, utc), midnight + 12h);
    EXPECT_EQ(lunch.nextStart(midnight + 12h - 1ns, utc), midnight + 12h);
    EXPECT_EQ(lunch.nextStart(midnight + 12h, utc), midnight + 36h);
    EXPECT_EQ(lunch.nextStart(midnight + 12h + 30min, utc), midnight + 36h);
}

TEST_F(GenerationScheduleTests, TheWindowStartOfADateAtTheStartIsThatDate) {
    EXPECT_EQ(lunch.windowStart(midnight + 12h, utc), midnight + 12h);
    EXPECT_EQ(lunch.windowStart(midnight + 12h + 250ms, utc), midnight + 12h);
    EXPECT_EQ(lunch.windowStart(midnight + 12h + 59min, utc), midnight + 12h);
    EXPECT_EQ(night.windowStart(midnight + 3h, utc), midnight - 2h);
}

TEST_F(GenerationScheduleTests, EvenTheLastMomentThatADateCanHoldHasItsWindowStart) {
    const GenerationSchedule evening{.startMinute = 1380, .endMinute = 0};  // 23:00 to midnight
    const Date last = Date::max();                                          // 2262-04-11 23:47:16
    const auto day = std::chrono::floor<std::chrono::days>(last);

    ASSERT_TRUE(evening.contains(last, utc));
    EXPECT_EQ(evening.windowStart(last, utc), Date(day) + 23h);
    EXPECT_EQ(evening.nextStart(last, utc), std::nullopt);
}

TEST_F(GenerationScheduleTests, OutsideTheWindowThereIsNoWindowStart) {
    EXPECT_EQ(lunch.windowStart(midnight + 12h - 1ns, utc), std::nullopt);
    EXPECT_EQ(lunch.windowStart(midnight + 13h, utc), std::nullopt);
}

TEST_F(GenerationScheduleTests, AStartThatTheClockSkipsMovesToTheFirstMomentAfterTheGap) {
    const auto berlin = Calendar::inZone("Europe/Berlin").value();
    const Date gap{
        std::chrono::sys_seconds(1711846800s)};  // 2024-03-31 03:00 summer time, just after 01:59 winter time
    const GenerationSchedule skipped{.startMinute = 150, .endMinute = 240};  // 02:30 to 04:00

    EXPECT_EQ(skipped.nextStart(gap - 2h, berlin), gap);
    EXPECT_EQ(skipped.windowStart(gap + 10min, berlin), gap);
}

TEST_F(GenerationScheduleTests, AStartThatComesTwiceCountsTheFirstTime) {
    const auto berlin = Calendar::inZone("Europe/Berlin").value();
    const Date first{std::chrono::sys_seconds(1729989000s)};  // 2024-10-27 02:30 summer time; again an hour later
    const GenerationSchedule repeated{.startMinute = 150, .endMinute = 240};

    EXPECT_EQ(repeated.nextStart(first - 1h, berlin), first);
    EXPECT_EQ(repeated.nextStart(first, berlin), first + 25h);
    EXPECT_EQ(repeated.windowStart(first + 1h + 5min, berlin), first);
}

TEST_F(GenerationScheduleTests, GoesThroughJSONWithBothMinutes) {
    EXPECT_EQ(encodeJSON(night, JSONWriter::Form::compact), R"({"startMinute":1320,"endMinute":360})");
    EXPECT_EQ(decodeJSON<GenerationSchedule>(R"({"startMinute":1320,"endMinute":360})"), night);
    EXPECT_EQ(decodeJSON<GenerationSchedule>(R"({"endMinute":-1,"other":[],"startMinute":9000})"),
              (GenerationSchedule{9000, -1}));
    for (const auto* bad : {"{}", R"({"startMinute":1})", R"({"startMinute":1,"endMinute":null})",
                            R"({"startMinute":1,"endMinute":2.5})", R"({"startMinute":"1","endMinute":2})", "[1,2]"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW((void)decodeJSON<GenerationSchedule>(bad), JSONError);
    }
}

TEST_F(GenerationScheduleTests, EqualityIsByBothMinutes) {
    EXPECT_EQ(night, (GenerationSchedule{1320, 360}));
    EXPECT_NE(night, (GenerationSchedule{1320, 361}));
    EXPECT_NE(night, (GenerationSchedule{1321, 360}));
}

}  // namespace
}  // namespace quillmere
