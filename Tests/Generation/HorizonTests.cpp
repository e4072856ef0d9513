#include "QuillmereKit/Generation/Horizon.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {
namespace {

TEST(Horizon, PresetsHaveNames) {
    EXPECT_EQ(Horizon::twentyMinutes.rawValue(), "twentyMinutes");
    EXPECT_EQ(Horizon::oneHour.rawValue(), "oneHour");
    EXPECT_EQ(Horizon::threeHours.rawValue(), "threeHours");
    EXPECT_EQ(Horizon::unlimited.rawValue(), "unlimited");
    EXPECT_EQ(Horizon{20}, Horizon::twentyMinutes);
    EXPECT_EQ(Horizon{60}, Horizon::oneHour);
    EXPECT_EQ(Horizon{180}, Horizon::threeHours);
}

TEST(Horizon, OtherMinutesAreWrittenInDecimal) {
    EXPECT_EQ(Horizon{1}.rawValue(), "minutes:1");
    EXPECT_EQ(Horizon{45}.rawValue(), "minutes:45");
    EXPECT_EQ(Horizon{120}.rawValue(), "minutes:120");
    EXPECT_EQ(Horizon{45}.id(), "minutes:45");
    EXPECT_EQ(Horizon::oneHour.id(), "oneHour");
}

TEST(Horizon, MinutesAreClamped) {
    EXPECT_EQ(Horizon{0}, Horizon{1});
    EXPECT_EQ(Horizon{-5}, Horizon{1});
    EXPECT_EQ(Horizon{std::numeric_limits<std::int64_t>::min()}, Horizon{1});
    EXPECT_EQ(Horizon{1'441}, Horizon{1'440});
    EXPECT_EQ(Horizon{5'000}.rawValue(), "minutes:1440");
    EXPECT_EQ(Horizon{std::numeric_limits<std::int64_t>::max()}, Horizon{1'440});
}

TEST(Horizon, EveryMinuteCountReadsBackFromItsText) {
    std::unordered_set<Horizon> seen;
    for (std::int64_t minutes = 1; minutes <= 1'440; ++minutes) {
        const Horizon horizon{minutes};
        EXPECT_EQ(Horizon::fromRawValue(horizon.rawValue()), horizon);
        EXPECT_EQ(Horizon::fromRawValue("minutes:" + std::to_string(minutes)), horizon);
        EXPECT_EQ(horizon.minutes(), minutes);
        EXPECT_EQ(horizon.seconds(), static_cast<double>(minutes * 60));
        seen.insert(horizon);
    }
    EXPECT_EQ(Horizon::fromRawValue("unlimited"), Horizon::unlimited);
    seen.insert(Horizon::unlimited);
    EXPECT_EQ(seen.size(), 1'441U);
}

TEST(Horizon, LeadingZeroesAreRead) {
    EXPECT_EQ(Horizon::fromRawValue("minutes:0060"), Horizon::oneHour);
    EXPECT_EQ(Horizon::fromRawValue("minutes:007"), Horizon{7});
}

TEST(Horizon, OtherTextsGiveNothing) {
    for (const char* raw :
         {"", "minutes:", "minutes:0", "minutes:1441", "minutes:-5", "minutes: 5", "minutes:5 ", "minutes:5.0",
          "minutes:0x5", "minutes:99999999999999999999", "hours:2", "Unlimited", " unlimited", "unlimited ", "onehour",
          "20", "Minutes:20", "minutes:5minutes:5", "minutes:\xd9\xa5"}) {
        EXPECT_EQ(Horizon::fromRawValue(raw), std::nullopt) << raw;
    }
    EXPECT_EQ(Horizon::fromRawValue(std::string_view("minutes:5\0", 10)), std::nullopt);
}

TEST(Horizon, UnlimitedHasNoMinutes) {
    EXPECT_EQ(Horizon::unlimited.minutes(), std::nullopt);
    EXPECT_EQ(Horizon::unlimited.seconds(), std::nullopt);
}

TEST(Horizon, OfferedOnesComeInOrder) {
    std::vector<std::string> raw;
    for (const Horizon& horizon : Horizon::allCases()) raw.push_back(horizon.rawValue());

    EXPECT_EQ(raw, (std::vector<std::string>{"minutes:5", "minutes:10", "twentyMinutes", "minutes:30", "oneHour",
                                             "minutes:120", "threeHours", "unlimited"}));
}

TEST(Horizon, LabelsUseHoursWhereTheyAreWhole) {
    const std::vector<std::pair<Horizon, std::string>> labels{
        {Horizon{5}, "5 minutes"},        {Horizon{10}, "10 minutes"},       {Horizon::twentyMinutes, "20 minutes"},
        {Horizon{30}, "30 minutes"},      {Horizon::oneHour, "1 hour"},      {Horizon{120}, "2 hours"},
        {Horizon::threeHours, "3 hours"}, {Horizon::unlimited, "Unlimited"}, {Horizon{1}, "1 minutes"},
        {Horizon{59}, "59 minutes"},      {Horizon{61}, "61 minutes"},       {Horizon{90}, "90 minutes"},
        {Horizon{1'439}, "1439 minutes"}, {Horizon{1'440}, "24 hours"},
    };
    for (const auto& [horizon, label] : labels) EXPECT_EQ(horizon.label(), label);
}

TEST(Horizon, CostIsInWholeMegabytes) {
    // 48,000 frames of 4 bytes for 60 seconds, in units of 2^20 bytes.
    EXPECT_EQ(Horizon::megabytesPerMinute, 48'000 * 4 * 60 / 1'048'576.0);
    EXPECT_EQ(Horizon::twentyMinutes.cost(), "~220 MB on disk");
    EXPECT_EQ(Horizon::oneHour.cost(), "~659 MB on disk");
    EXPECT_EQ(Horizon::threeHours.cost(), "~1978 MB on disk");
    EXPECT_EQ(Horizon{1}.cost(), "~11 MB on disk");
    EXPECT_EQ(Horizon{5'000}.cost(), "~15820 MB on disk");
    EXPECT_EQ(Horizon::unlimited.cost(), "storage grows as new music is saved");
}

TEST(Horizon, NoteEndsWithTheCost) {
    EXPECT_EQ(Horizon::oneHour.note(), "Saved music before it repeats · ~659 MB on disk");
    EXPECT_EQ(Horizon::unlimited.note(), "Saved music before it repeats · storage grows as new music is saved");
}

TEST(Horizon, NextGoesRoundTheOfferedOnes) {
    Horizon horizon{5};
    for (std::size_t i = 1; i <= 8; ++i) {
        horizon = horizon.next();
        EXPECT_EQ(horizon, Horizon::allCases()[i % 8]);
    }
    EXPECT_EQ(Horizon::unlimited.next(), Horizon{5});
}

TEST(Horizon, NextOfOneThatIsNotOfferedIsTheFirst) {
    EXPECT_EQ(Horizon{45}.next(), Horizon{5});
    EXPECT_EQ(Horizon{1'440}.next(), Horizon{5});
}

TEST(Horizon, IsSatisfiedByItsOwnLengthAndMore) {
    EXPECT_TRUE(Horizon::twentyMinutes.isSatisfied(1'200));
    EXPECT_FALSE(Horizon::twentyMinutes.isSatisfied(1'199.999));
    EXPECT_TRUE(Horizon::twentyMinutes.isSatisfied(1e300));
    EXPECT_FALSE(Horizon::oneHour.isSatisfied(1'200));
    EXPECT_FALSE(Horizon{1}.isSatisfied(std::numeric_limits<double>::quiet_NaN()));
}

TEST(Horizon, UnlimitedIsNeverSatisfied) {
    EXPECT_FALSE(Horizon::unlimited.isSatisfied(1'200));
    EXPECT_FALSE(Horizon::unlimited.isSatisfied(std::numeric_limits<double>::infinity()));
}

TEST(Horizon, JSONIsTheRawValue) {
    for (const Horizon& horizon : Horizon::allCases()) {
        const std::string text = encodeJSON(horizon, JSONWriter::Form::compact);
        EXPECT_EQ(text, "\"" + horizon.rawValue() + "\"");
        EXPECT_EQ(decodeJSON<Horizon>(text), horizon);
    }
    EXPECT_EQ(decodeJSON<Horizon>(R"("minutes:60")"), Horizon::oneHour);
}

TEST(Horizon, JSONOfAnotherTextSaysWhatIsWrong) {
    for (const char* text : {R"("minutes:0")", R"("")", R"("forever")"}) {
        try {
            (void)decodeJSON<Horizon>(text);
            ADD_FAILURE() << "accepted " << text;
        } catch (const JSONError& error) {
            EXPECT_EQ(error.reason(), "Invalid music duration");
        }
    }
    for (const char* text : {"20", "null", "{}", "true"})
        EXPECT_THROW((void)decodeJSON<Horizon>(text), JSONError) << text;
}

}  // namespace
}  // namespace quillmere::test
