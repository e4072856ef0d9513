#include "QuillmereKit/Generation/GenerationPace.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillmere {
namespace {

using testing::ElementsAre;

TEST(GenerationPaceTests, CasesComeInTheirOrder) {
    EXPECT_THAT(allCases<GenerationPace>(),
                ElementsAre(GenerationPace::gentle, GenerationPace::background, GenerationPace::fast));
}

TEST(GenerationPaceTests, GentleHasItsTextsAndNumbers) {
    constexpr auto pace = GenerationPace::gentle;
    EXPECT_EQ(rawValue(pace), "gentle");
    EXPECT_EQ(label(pace), "Energy Saver");
    EXPECT_EQ(detail(pace), "Longer breaks between tracks. Pauses when other apps need more of your Mac.");
    EXPECT_EQ(processQualityOfService(pace), ProcessQualityOfService::background);
    EXPECT_EQ(interval(pace), 300.0);
    EXPECT_EQ(dutyCycle(pace), 0.1);
}

TEST(GenerationPaceTests, BackgroundHasItsTextsAndNumbers) {
    constexpr auto pace = GenerationPace::background;
    EXPECT_EQ(rawValue(pace), "background");
    EXPECT_EQ(label(pace), "Balanced");
    EXPECT_EQ(detail(pace), "Creates music with breaks to leave room for other apps.");
    EXPECT_EQ(processQualityOfService(pace), ProcessQualityOfService::standard);
    EXPECT_EQ(interval(pace), 120.0);
    EXPECT_EQ(dutyCycle(pace), 0.25);
}

TEST(GenerationPaceTests, FastHasItsTextsAndNumbers) {
    constexpr auto pace = GenerationPace::fast;
    EXPECT_EQ(rawValue(pace), "fast");
    EXPECT_EQ(label(pace), "Fast");
    EXPECT_EQ(detail(pace), "Creates music without breaks. Other apps may feel slower.");
    EXPECT_EQ(processQualityOfService(pace), ProcessQualityOfService::userInitiated);
    EXPECT_EQ(interval(pace), 0.0);
    EXPECT_EQ(dutyCycle(pace), 1.0);
}

TEST(GenerationPaceTests, QualityClassesHaveThePlatformsValues) {
    EXPECT_EQ(static_cast<int>(ProcessQualityOfService::background), 9);
    EXPECT_EQ(static_cast<int>(ProcessQualityOfService::standard), -1);
    EXPECT_EQ(static_cast<int>(ProcessQualityOfService::userInitiated), 25);
}

TEST(GenerationPaceTests, MemoryPressureRisesInTheOrderOfItsCases) {
    EXPECT_EQ(GenerationMemoryPressure(), GenerationMemoryPressure::normal);
    EXPECT_LT(GenerationMemoryPressure::normal, GenerationMemoryPressure::warning);
    EXPECT_LT(GenerationMemoryPressure::warning, GenerationMemoryPressure::critical);
}

TEST(GenerationPaceTests, MemoryPressureHoldsBackTheGentlerPacesFirst) {
    using Pressure = GenerationMemoryPressure;
    struct Row {
        Pressure pressure;
        bool gentle, background, fast;
    };
    for (const auto& row : {Row{Pressure::normal, true, true, true}, Row{Pressure::warning, false, true, true},
                            Row{Pressure::critical, false, false, false}}) {
        SCOPED_TRACE(static_cast<int>(row.pressure));
        EXPECT_EQ(permits(GenerationPace::gentle, row.pressure), row.gentle);
        EXPECT_EQ(permits(GenerationPace::background, row.pressure), row.background);
        EXPECT_EQ(permits(GenerationPace::fast, row.pressure), row.fast);
    }
}

TEST(GenerationPaceTests, TheOldGentlePaceIsTheBalancedOneOfToday) {
    EXPECT_EQ(restoredLegacyPace("gentle"), GenerationPace::background);
    EXPECT_EQ(restoredLegacyPace("background"), GenerationPace::background);
    EXPECT_EQ(restoredLegacyPace("fast"), GenerationPace::fast);
    for (const auto* other : {"", "Gentle", "gentle ", "balanced", "normal"}) {
        SCOPED_TRACE(other);
        EXPECT_EQ(restoredLegacyPace(other), std::nullopt);
    }
}

TEST(GenerationPaceTests, GoesThroughJSONAsItsRawValue) {
    for (const auto pace : allCases<GenerationPace>()) {
        const std::string json = '"' + std::string(rawValue(pace)) + '"';
        EXPECT_EQ(encodeJSON(pace, JSONWriter::Form::compact), json);
        EXPECT_EQ(decodeJSON<GenerationPace>(json), pace);
    }
    for (const auto* other : {R"("Fast")", R"("")", "0", "null", "true", R"(["fast"])"}) {
        SCOPED_TRACE(other);
        EXPECT_THROW((void)decodeJSON<GenerationPace>(other), JSONError);
    }
}

}  // namespace
}  // namespace quillmere
