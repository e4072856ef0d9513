#include "QuillmereKit/Platform/Calendar.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <limits>

namespace quillmere::test {
namespace {

using std::chrono::seconds;

Date at(std::int64_t secondsSince1970) { return Date(seconds(secondsSince1970)); }

/// The moment of a text in the form of `iso8601`.
Date utc(const std::string& text) {
    std::tm parts{};
    EXPECT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts), nullptr) << text;
    return at(timegm(&parts));
}

Calendar zone(std::string_view name) { return Calendar::inZone(name).value(); }

std::string text(std::optional<Date> date) { return date ? iso8601(*date) : "none"; }

/// Sets `TZ` for the length of a test.
class TimeZoneVariable {
public:
    explicit TimeZoneVariable(const char* value) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        value != nullptr ? setenv("TZ", value, 1) : unsetenv("TZ");
    }
    ~TimeZoneVariable() { old_ ? setenv("TZ", old_->c_str(), 1) : unsetenv("TZ"); }
    TimeZoneVariable(const TimeZoneVariable&) = delete;
    TimeZoneVariable& operator=(const TimeZoneVariable&) = delete;

private:
    std::optional<std::string> old_;
};

TEST(CalendarTests, InternetFormHasWholeSecondsInUniversalTime) {
    EXPECT_EQ(iso8601(at(0)), "1970-01-01T00:00:00Z");
    EXPECT_EQ(iso8601(at(1714558830)), "2024-05-01T10:20:30Z");
    EXPECT_EQ(iso8601(at(1714558830) + std::chrono::milliseconds(999)), "2024-05-01T10:20:30Z");
    EXPECT_EQ(iso8601(at(-1)), "1969-12-31T23:59:59Z");
    EXPECT_EQ(iso8601(at(0) - std::chrono::milliseconds(1)), "1969-12-31T23:59:59Z");
    EXPECT_EQ(iso8601(at(951782400)), "2000-02-29T00:00:00Z");
}

TEST(CalendarTests, ClockShowsTheZonesTime) {
    const Date date = utc("2024-07-01T22:45:59Z");
    const auto shows = [&](std::string_view name, int hour, int minute) {
        const auto time = zone(name).timeOfDay(date);
        EXPECT_EQ(time.hour, hour) << name;
        EXPECT_EQ(time.minute, minute) << name;
    };

    shows("UTC", 22, 45);
    shows("Europe/Berlin", 0, 45);
    shows("America/New_York", 18, 45);
    shows("Asia/Kathmandu", 4, 30);
    shows("America/St_Johns", 20, 15);
}

TEST(CalendarTests, ClockBefore1970CountsForward) {
    const auto time = zone("UTC").timeOfDay(at(-61));

    EXPECT_EQ(time.hour, 23);
    EXPECT_EQ(time.minute, 58);
}

TEST(CalendarTests, NextIsStrictlyAfterAndPreviousStrictlyBefore) {
    const auto calendar = zone("UTC");
    const Date match = utc("2024-05-01T10:20:00Z");

    EXPECT_EQ(text(calendar.next(10, 20, match)), "2024-05-02T10:20:00Z");
    EXPECT_EQ(text(calendar.next(10, 20, match - std::chrono::nanoseconds(1))), "2024-05-01T10:20:00Z");
    EXPECT_EQ(text(calendar.previous(10, 20, match)), "2024-04-30T10:20:00Z");
    EXPECT_EQ(text(calendar.previous(10, 20, match + std::chrono::nanoseconds(1))), "2024-05-01T10:20:00Z");
}

TEST(CalendarTests, SkippedTimeCountsAsTheFirstMomentAfterTheGap) {
    const auto calendar = zone("Europe/Berlin");  // 2024-03-31: from 2:00 to 3:00 at 1:00 universal time

    EXPECT_EQ(text(calendar.next(2, 30, utc("2024-03-30T12:00:00Z"))), "2024-03-31T01:00:00Z");
    EXPECT_EQ(text(calendar.next(2, 0, utc("2024-03-30T12:00:00Z"))), "2024-03-31T01:00:00Z");
    EXPECT_EQ(text(calendar.next(2, 30, utc("2024-03-31T01:00:00Z"))), "2024-04-01T00:30:00Z");
    EXPECT_EQ(text(calendar.previous(2, 30, utc("2024-03-31T12:00:00Z"))), "2024-03-31T01:00:00Z");
    EXPECT_EQ(text(calendar.previous(2, 30, utc("2024-03-31T01:00:00Z"))), "2024-03-30T01:30:00Z");
}

TEST(CalendarTests, RepeatedTimeCountsOnceTheFirstTime) {
    const auto calendar = zone("Europe/Berlin");  // 2024-10-27: from 3:00 back to 2:00 at 1:00 universal time

    EXPECT_EQ(text(calendar.next(2, 30, utc("2024-10-26T12:00:00Z"))), "2024-10-27T00:30:00Z");
    EXPECT_EQ(text(calendar.next(2, 30, utc("2024-10-27T00:30:00Z"))), "2024-10-28T01:30:00Z");
    EXPECT_EQ(text(calendar.previous(2, 30, utc("2024-10-27T02:00:00Z"))), "2024-10-27T00:30:00Z");
}

TEST(CalendarTests, SkippedDayCountsAsItsEnd) {
    const auto calendar = zone("Pacific/Apia");  // there was no 2011-12-30: the 31st began at 10:00 universal time

    EXPECT_EQ(text(calendar.next(12, 0, utc("2011-12-29T23:00:00Z"))), "2011-12-30T10:00:00Z");
    EXPECT_EQ(text(calendar.next(12, 0, utc("2011-12-30T10:00:00Z"))), "2011-12-30T22:00:00Z");
    EXPECT_EQ(text(calendar.previous(12, 0, utc("2011-12-30T22:00:00Z"))), "2011-12-30T10:00:00Z");
}

TEST(CalendarTests, NextAndPreviousAreEachOthersInverse) {
    for (const std::string_view name : {"UTC", "Europe/Berlin", "America/St_Johns", "Australia/Lord_Howe",
                                        "Africa/Casablanca", "Asia/Kathmandu", "Pacific/Apia"}) {
        const auto calendar = zone(name);
        Date date = utc("2011-01-01T00:00:00Z");
        for (int day = 0; day < 800; ++day) {
            const int minute = day * 37 % 1440;
            const auto next = calendar.next(minute / 60, minute % 60, date);
            ASSERT_TRUE(next);
            EXPECT_GT(*next, date);
            EXPECT_LE(*next - date, std::chrono::hours(50));
            EXPECT_EQ(calendar.previous(minute / 60, minute % 60, *next + seconds(1)), next);
            EXPECT_LE(calendar.previous(minute / 60, minute % 60, *next), date);
            date += std::chrono::hours(23);
        }
    }
}

TEST(CalendarTests, TimeThatNoClockShowsIsNeverMet) {
    const auto calendar = zone("UTC");

    for (const auto& [hour, minute] : {std::pair{-1, 0}, {24, 0}, {0, -1}, {0, 60}}) {
        EXPECT_EQ(calendar.next(hour, minute, at(0)), std::nullopt);
        EXPECT_EQ(calendar.previous(hour, minute, at(0)), std::nullopt);
    }
}

TEST(CalendarTests, EndsOfTimeAreSafe) {
    for (const std::string_view name : {"UTC", "Europe/Berlin", "Pacific/Apia"}) {
        const auto calendar = zone(name);
        for (const Date date : {Date::min(), Date::max()}) {
            const auto next = calendar.next(12, 0, date);
            const auto previous = calendar.previous(12, 0, date);
            EXPECT_TRUE(!next || *next > date);
            EXPECT_TRUE(!previous || *previous < date);
            EXPECT_EQ(iso8601(date).size(), 20U);
            EXPECT_LT(calendar.timeOfDay(date).hour, 24);
        }
    }
}

TEST(CalendarTests, UnknownZoneIsNothing) {
    for (const std::string_view name :
         {"", "Nowhere/Land", "../etc/passwd", "/etc/localtime", "europe/berlin!", "tzdata.zi"}) {
        EXPECT_FALSE(Calendar::inZone(name)) << name;
    }
    EXPECT_EQ(zone("Europe/Berlin").zone(), "Europe/Berlin");
}

TEST(CalendarTests, VariableNamesTheZone) {
    for (const char* value : {"Europe/Berlin", ":Europe/Berlin", "/usr/share/zoneinfo/Europe/Berlin",
                              ":/usr/share/zoneinfo/Europe/Berlin", "/usr/share/zoneinfo/posix/Europe/Berlin"}) {
        const TimeZoneVariable variable(value);

        EXPECT_EQ(Calendar::current().zone(), "Europe/Berlin") << value;
    }
}

TEST(CalendarTests, EmptyVariableIsUniversalTime) {
    for (const char* value : {"", ":"}) {
        const TimeZoneVariable variable(value);

        EXPECT_EQ(Calendar::current().timeOfDay(at(3600)).hour, 1) << value;
    }
}

TEST(CalendarTests, VariableThatNamesNoZoneLeavesTheSystemsZone) {
    std::string system;
    {
        const TimeZoneVariable variable(nullptr);
        system = Calendar::current().zone();
    }
    EXPECT_FALSE(system.empty());
    for (const char* value : {"Nowhere/Land", "/etc/passwd", "/no/such/file", "/usr/share/zoneinfo/"}) {
        const TimeZoneVariable variable(value);

        EXPECT_EQ(Calendar::current().zone(), system) << value;
    }
}

}  // namespace
}  // namespace quillmere::test
