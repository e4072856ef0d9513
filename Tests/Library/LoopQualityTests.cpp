#include "QuillmereKit/Library/LoopQuality.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {
namespace {

const LoopQuality bare{.brightness = 0.25, .makeupDB = -1.5, .loudness = {}};
const LoopQuality full{
    .brightness = 0.25, .makeupDB = -1.5, .loudness = AudioLoudness{.integratedLUFS = {}, .peak = 0.5, .seconds = {}}};

std::string compact(const LoopQuality& quality, JSONUserInfo userInfo = {}) {
    return encodeJSON(quality, JSONWriter::Form::compact, std::move(userInfo));
}

TEST(LoopQuality, JSONHasTheLegacyFieldLast) {
    EXPECT_EQ(compact(bare), R"({"brightness":0.25,"makeupDB":-1.5,"eventfulness":0})");
    EXPECT_EQ(compact(full), R"({"brightness":0.25,"makeupDB":-1.5,"loudness":{"peak":0.5},"eventfulness":0})");
}

TEST(LoopQuality, LegacyFieldIsLeftOutOnlyWhenTheSettingIsTrue) {
    const std::string key = "Quillmere.omitLegacyMusicFields";

    EXPECT_EQ(compact(bare, {{key, true}}), R"({"brightness":0.25,"makeupDB":-1.5})");
    EXPECT_EQ(compact(bare, {{key, false}}), compact(bare));
    EXPECT_EQ(compact(bare, {{key, std::int64_t{1}}}), compact(bare));
    EXPECT_EQ(compact(bare, {{key, 1.0}}), compact(bare));
    EXPECT_EQ(compact(bare, {{key, std::string("true")}}), compact(bare));
    EXPECT_EQ(compact(bare, {{"omitLegacyMusicFields", true}}), compact(bare));
}

TEST(LoopQuality, JSONReadsBackEqualWithAndWithoutTheLegacyField) {
    for (const auto& quality : {bare, full}) {
        EXPECT_EQ(decodeJSON<LoopQuality>(compact(quality)), quality);
        EXPECT_EQ(decodeJSON<LoopQuality>(compact(quality, {{std::string(omitLegacyMusicFields), true}})), quality);
    }
}

TEST(LoopQuality, LegacyFieldIsIgnoredWhateverItHolds) {
    EXPECT_EQ(decodeJSON<LoopQuality>(R"({"brightness":0.25,"makeupDB":-1.5,"eventfulness":"x","loudness":null})"),
              bare);
}

TEST(LoopQuality, JSONNeedsBrightnessAndMakeup) {
    for (const char* text : {R"({"brightness":1})", R"({"makeupDB":1})", R"({"brightness":"1","makeupDB":1})",
                             R"({"brightness":1,"makeupDB":null})", R"({"brightness":1,"makeupDB":1,"loudness":{}})",
                             R"({"brightness":1,"makeupDB":1,"loudness":3})", "[]"}) {
        EXPECT_THROW((void)decodeJSON<LoopQuality>(text), JSONError) << text;
    }
}

TEST(LoopQuality, ReadingErrorNamesTheKeyPath) {
    try {
        (void)decodeJSON<LoopQuality>(R"({"brightness":1,"makeupDB":1,"loudness":{"peak":"high"}})");
        FAIL() << "accepted";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "loudness.peak");
    }
}

TEST(LoopQuality, ValuesThatAreNotFiniteAreNotWritten) {
    LoopQuality quality = bare;
    quality.brightness = std::numeric_limits<double>::quiet_NaN();

    EXPECT_THROW(compact(quality), EncodingError);
}

TEST(LoopQuality, EveryFieldCountsInEqualityAndHash) {
    const std::hash<LoopQuality> hash;
    LoopQuality brighter = bare, louder = bare;
    brighter.brightness = 0.5;
    louder.makeupDB = 0;

    EXPECT_EQ(hash(full), hash(LoopQuality(full)));
    for (const auto& other : {brighter, louder, full}) {
        EXPECT_NE(bare, other);
        EXPECT_NE(hash(bare), hash(other));
    }
}

}  // namespace
}  // namespace quillmere::test
