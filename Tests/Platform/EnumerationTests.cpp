#include "QuillmereKit/Platform/Enumeration.hpp"

#include <gtest/gtest.h>

namespace quillmere {

enum class SampleWeather { sun, lightRain };
struct SampleWeatherRow {
    SampleWeather value;
    std::string_view raw;
};
template <>
inline constexpr auto enumTable<SampleWeather> = EnumTable<SampleWeatherRow, 2>{{{
    {SampleWeather::sun, "sun"},
    {SampleWeather::lightRain, "light-rain"},
}}};

template <>
SampleWeather decode<SampleWeather>(const JSONValue& value) {
    return decodeRawValue<SampleWeather>(value);
}

namespace test {
namespace {

TEST(EnumerationTests, CasesComeInTheOrderOfTheTable) {
    EXPECT_EQ(allCases<SampleWeather>(), (std::array{SampleWeather::sun, SampleWeather::lightRain}));
    EXPECT_TRUE(enumTable<SampleWeather>.isInCaseOrder());
}

TEST(EnumerationTests, TableOutOfOrderIsNoticed) {
    constexpr EnumTable<SampleWeatherRow, 2> wrong{{{{SampleWeather::lightRain, "a"}, {SampleWeather::sun, "b"}}}};

    EXPECT_FALSE(wrong.isInCaseOrder());
}

TEST(EnumerationTests, RawValuesGoBothWays) {
    for (const auto weather : allCases<SampleWeather>()) {
        EXPECT_EQ(fromRawValue<SampleWeather>(rawValue(weather)), weather);
    }
    EXPECT_EQ(rawValue(SampleWeather::lightRain), "light-rain");
    for (const std::string_view text : {"", "Sun", "sun ", "lightRain"}) {
        EXPECT_EQ(fromRawValue<SampleWeather>(text), std::nullopt) << text;
    }
}

TEST(EnumerationTests, UnknownRawValueInJSONIsAnErrorThatShowsIt) {
    EXPECT_EQ(decodeJSON<SampleWeather>("\"sun\""), SampleWeather::sun);
    EXPECT_THROW(static_cast<void>(decodeJSON<SampleWeather>("0")), JSONError);
    try {
        static_cast<void>(decodeJSON<SampleWeather>("\"hail\""));
        FAIL();
    } catch (const JSONError& error) {
        EXPECT_EQ(error.reason(), "unknown value \"hail\"");
    }
}

}  // namespace
}  // namespace test
}  // namespace quillmere
