#include "QuillmereKit/Generation/GenerationMode.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillmere {
namespace {

using testing::ElementsAre;

TEST(GenerationModeTests, CasesComeInTheirOrderWithTheirTexts) {
    EXPECT_THAT(allCases<GenerationMode>(),
                ElementsAre(GenerationMode::background, GenerationMode::manual, GenerationMode::scheduled));

    EXPECT_EQ(rawValue(GenerationMode::background), "background");
    EXPECT_EQ(label(GenerationMode::background), "Automatically");
    EXPECT_EQ(rawValue(GenerationMode::manual), "manual");
    EXPECT_EQ(label(GenerationMode::manual), "On request");
    EXPECT_EQ(rawValue(GenerationMode::scheduled), "scheduled");
    EXPECT_EQ(label(GenerationMode::scheduled), "On a schedule");
}

TEST(GenerationModeTests, ModesOfEarlierVersionsAreRead) {
    EXPECT_EQ(restoredMode("whileListening"), GenerationMode::background);
    EXPECT_EQ(restoredMode("background"), GenerationMode::background);
    EXPECT_EQ(restoredMode("manual"), GenerationMode::manual);
    EXPECT_EQ(restoredMode("scheduled"), GenerationMode::scheduled);
    for (const auto* other : {"", "Manual", "whilelistening", "manual ", "never"}) {
        SCOPED_TRACE(other);
        EXPECT_EQ(restoredMode(other), std::nullopt);
    }
}

TEST(GenerationModeTests, GoesThroughJSONAsItsRawValue) {
    for (const auto mode : allCases<GenerationMode>()) {
        const std::string json = '"' + std::string(rawValue(mode)) + '"';
        EXPECT_EQ(encodeJSON(mode, JSONWriter::Form::compact), json);
        EXPECT_EQ(decodeJSON<GenerationMode>(json), mode);
    }
    for (const auto* other : {R"("whileListening")", R"("")", "1", "null"}) {
        SCOPED_TRACE(other);
        EXPECT_THROW((void)decodeJSON<GenerationMode>(other), JSONError);
    }
}

}  // namespace
}  // namespace quillmere
