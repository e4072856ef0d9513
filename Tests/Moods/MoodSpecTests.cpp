#include "QuillmereKit/Moods/MoodSpec.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr auto least = std::numeric_limits<std::int64_t>::min();
constexpr auto most = std::numeric_limits<std::int64_t>::max();

PromptTag genre(std::string value) { return {TagCategory::genre, std::move(value)}; }
PromptTag mood(std::string value) { return {TagCategory::moods, std::move(value)}; }
PromptTag instrument(std::string value) { return {TagCategory::instruments, std::move(value)}; }
PromptTag tempo(std::string value) { return {TagCategory::tempo, std::move(value)}; }
PromptTag texture(std::string value) { return {TagCategory::texture, std::move(value)}; }
PromptTag nature(std::string value) { return {TagCategory::nature, std::move(value)}; }

SoundGuide guideOf(std::string storageID) {
    return {
        .format = std::string(SoundGuide::currentFormat),
        .assetID = std::string(64, 'a'),
        .storageID = std::move(storageID),
        .model = GenerationModel::medium,
        .sampleCount = 8192,
        .latentCount = 2,
        .sourceName = "rain.wav",
        .sourceOffset = 0,
        .strength = 0.5,
    };
}

TEST(TagCategoryTests, CategoriesHaveTheirRawValuesAndTitlesInPromptOrder) {
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"genre", "Genre"}, {"moods", "Moods"},     {"instruments", "Instruments"},
        {"tempo", "Tempo"}, {"texture", "Texture"}, {"nature", "Nature"},
    };
    std::vector<std::pair<std::string, std::string>> found;
    for (const auto category : allCases<TagCategory>()) {
        found.emplace_back(rawValue(category), title(category));
        const auto text = encodeJSON(category, JSONWriter::Form::compact);
        EXPECT_EQ(text, '"' + std::string(rawValue(category)) + '"');
        EXPECT_EQ(decodeJSON<TagCategory>(text), category);
    }
    EXPECT_EQ(found, expected);
    EXPECT_THROW((void)decodeJSON<TagCategory>(R"("Genre")"), JSONError);
}

TEST(MoodGlyphTests, GlyphsHaveTheirRawValuesInOrder) {
    const std::vector<std::string> expected = {"wave", "descend", "bolt", "pulse", "arc", "grain", "ring", "step"};
    std::vector<std::string> found;
    for (const auto glyph : allCases<MoodGlyph>()) {
        found.emplace_back(rawValue(glyph));
        const auto text = encodeJSON(glyph, JSONWriter::Form::compact);
        EXPECT_EQ(text, '"' + std::string(rawValue(glyph)) + '"');
        EXPECT_EQ(decodeJSON<MoodGlyph>(text), glyph);
    }
    EXPECT_EQ(found, expected);
    EXPECT_THROW((void)decodeJSON<MoodGlyph>(R"("square")"), JSONError);
}

TEST(PromptTagTests, BothFieldsCountAndAreRequired) {
    const auto text = encodeJSON(genre("ambient"), JSONWriter::Form::compact);
    EXPECT_EQ(text, R"({"category":"genre","value":"ambient"})");
    EXPECT_EQ(decodeJSON<PromptTag>(text), genre("ambient"));
    EXPECT_THROW((void)decodeJSON<PromptTag>(R"({"category":"genre"})"), JSONError);
    EXPECT_THROW((void)decodeJSON<PromptTag>(R"({"value":"ambient"})"), JSONError);

    const std::hash<PromptTag> hash;
    EXPECT_NE(genre("a"), mood("a"));
    EXPECT_NE(genre("a"), genre("b"));
    EXPECT_NE(hash(genre("a")), hash(mood("a")));
    EXPECT_NE(hash(genre("a")), hash(genre("b")));
    EXPECT_EQ(hash(genre("a")), hash(genre("a")));
}

TEST(MoodEndTests, TempoRangeIsThirtyToThreeHundred) {
    EXPECT_EQ(MoodEnd::bpmRangeMin, 30);
    EXPECT_EQ(MoodEnd::bpmRangeMax, 300);
}

TEST(MoodEndTests, IsEmptyWithoutTagsWordsAndTempo) {
    EXPECT_TRUE(MoodEnd::empty.isEmpty());
    EXPECT_EQ(MoodEnd::empty, MoodEnd{});
    EXPECT_TRUE((MoodEnd{{}, " \t\r\n\u00a0\u2003\u3000\u2028", std::nullopt}.isEmpty()));
    EXPECT_FALSE((MoodEnd{{}, " x ", std::nullopt}.isEmpty()));
    EXPECT_FALSE((MoodEnd{{}, "", 0}.isEmpty()));
    EXPECT_FALSE((MoodEnd{{genre("")}, "", std::nullopt}.isEmpty()));
}

TEST(MoodEndTests, AnEmptyEndHasTheBarePrompt) {
    EXPECT_EQ(MoodEnd::empty.prompt(), "TrackType: Music, VocalType: Instrumental.");
}

TEST(MoodEndTests, APromptHasEveryCategoryInItsPlace) {
    const MoodEnd end{{genre("ambient"), mood("calm"), mood("warm"), instrument("piano"), tempo("slow"),
                       texture("tape hiss"), nature("rain")},
                      " soft and slow ",
                      70};

    EXPECT_EQ(end.prompt(),
              "TrackType: Music, VocalType: Instrumental, Genre: ambient, Moods: calm, warm, Instruments: piano, "
              "Tempo: slow, BPM: 70, tape hiss, rain. soft and slow");
}

TEST(MoodEndTests, APromptOrdersByCategoryAndKeepsTheUsersOrderWithin) {
    const MoodEnd end{{nature("wind"), tempo("fast"), texture("grain"), genre("b"), instrument("y"), tempo("slow"),
                       mood("n"), genre("a"), instrument("x"), texture("dust"), mood("m"), nature("sea")},
                      "",
                      std::nullopt};

    EXPECT_EQ(end.prompt(),
              "TrackType: Music, VocalType: Instrumental, Genre: b, Genre: a, Moods: n, m, Instruments: y, x, "
              "Tempo: fast, grain, dust, wind, sea.");
}

TEST(MoodEndTests, TagValuesAreUsedVerbatim) {
    const MoodEnd end{{genre(" A "), genre(" A "), mood(""), texture("x, y.")}, "\n", -5};

    EXPECT_EQ(end.prompt(),
              "TrackType: Music, VocalType: Instrumental, Genre:  A , Genre:  A , Moods: , BPM: -5, x, y..");
}

TEST(MoodEndTests, JSONLeavesAnAbsentTempoOut) {
    const MoodEnd end{{mood("calm")}, "a", std::nullopt};
    const auto text = encodeJSON(end, JSONWriter::Form::compact);
    EXPECT_EQ(text, R"({"tags":[{"category":"moods","value":"calm"}],"text":"a"})");
    EXPECT_EQ(decodeJSON<MoodEnd>(text), end);
    EXPECT_EQ(encodeJSON(MoodEnd{{}, "", 90}, JSONWriter::Form::compact), R"({"tags":[],"text":"","bpm":90})");
    EXPECT_EQ(decodeJSON<MoodEnd>(R"({"tags":[],"text":"","bpm":null})"), MoodEnd::empty);
    EXPECT_EQ(decodeJSON<MoodEnd>(R"({"tags":[],"text":"","bpm":90.0})").bpm, 90);
}

TEST(MoodEndTests, WhatIsNoMoodEndIsRefused) {
    for (const char* text : {R"({"tags":[]})", R"({"text":""})", R"({"tags":null,"text":""})",
                             R"({"tags":[],"text":"","bpm":90.5})", R"({"tags":[],"text":"","bpm":"90"})",
                             R"({"tags":[],"text":"","bpm":9223372036854775808})", R"({"tags":{},"text":""})", "[]"}) {
        EXPECT_THROW((void)decodeJSON<MoodEnd>(text), JSONError) << text;
    }
    try {
        (void)decodeJSON<MoodEnd>(
            R"({"tags":[{"category":"genre","value":"a"},{"category":"x","value":"b"}],"text":""})");
        FAIL() << "accepted";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "tags[1].category");
    }
}

TEST(MoodEndTests, EveryFieldCountsInEqualityAndHash) {
    const std::hash<MoodEnd> hash;
    const MoodEnd end{{genre("a")}, "t", 60};
    std::set<std::size_t> hashes{hash(end)};
    for (const auto& other : {MoodEnd{{genre("a"), genre("a")}, "t", 60}, MoodEnd{{genre("a")}, "u", 60},
                              MoodEnd{{genre("a")}, "t", 61}, MoodEnd{{genre("a")}, "t", std::nullopt}}) {
        EXPECT_NE(other, end);
        hashes.insert(hash(other));
    }
    EXPECT_EQ(hashes.size(), 5U);
    EXPECT_EQ(hash(MoodEnd{{genre("a")}, "t", 60}), hash(end));
}

struct MoodSpecTests : testing::Test {
    MoodSpec spec{
        .id = "my-a",
        .name = "Rain",
        .glyph = MoodGlyph::grain,
        .calm = {{genre("ambient"), mood("calm")}, "soft", 60},
        .energetic = {{genre("techno"), mood("calm")}, "driving", 120},
        .soundGuide = std::nullopt,
    };

    MoodEnd end(std::int64_t index) const { return spec.end(BlendStep::unclamped(index)); }
    std::optional<std::int64_t> bpm(std::int64_t index) const { return end(index).bpm; }
};

TEST_F(MoodSpecTests, ABlankOneIsEmptyAndHasAFreshId) {
    EXPECT_EQ(MoodSpec::idPrefix, "my-");
    std::set<std::string> ids;
    for (int i = 0; i < 200; ++i) {
        const auto blank = MoodSpec::blank(MoodGlyph::ring);
        EXPECT_EQ(blank.id.size(), 11U);
        EXPECT_TRUE(blank.id.starts_with("my-")) << blank.id;
        EXPECT_EQ(blank.id.find_first_not_of("0123456789abcdef", 3), std::string::npos) << blank.id;
        EXPECT_EQ(blank.name, "Untitled mood");
        EXPECT_EQ(blank.glyph, MoodGlyph::ring);
        EXPECT_EQ(blank.calm, MoodEnd::empty);
        EXPECT_EQ(blank.energetic, MoodEnd::empty);
        EXPECT_FALSE(blank.soundGuide);
        EXPECT_FALSE(blank.isPlayable());
        ids.insert(blank.id);
    }
    EXPECT_EQ(ids.size(), 200U);
}

TEST_F(MoodSpecTests, IsPlayableWhenNeitherEndIsEmpty) {
    spec.calm = {{}, "  ", 70};
    spec.energetic = {{genre("a")}, "", std::nullopt};
    EXPECT_TRUE(spec.isPlayable());
    spec.calm = {{}, "  ", std::nullopt};
    EXPECT_FALSE(spec.isPlayable());
    std::swap(spec.calm, spec.energetic);
    EXPECT_FALSE(spec.isPlayable());
}

TEST_F(MoodSpecTests, AGuideMustBeValidAndStoredUnderTheMoodsId) {
    spec.soundGuide = guideOf("my-a");
    EXPECT_TRUE(spec.isPlayable());
    spec.soundGuide = guideOf("my-b");
    EXPECT_FALSE(spec.isPlayable());
    spec.soundGuide = guideOf("my-a");
    spec.soundGuide->latentCount = 4;
    EXPECT_FALSE(spec.isPlayable());
}

TEST_F(MoodSpecTests, TagsOnlyDropsTheGuideUnderAnIdOfItsOwn) {
    EXPECT_EQ(spec.tagsOnly(), spec);

    MoodSpec guided = spec;
    guided.soundGuide = guideOf("my-a");
    MoodSpec expected = spec;
    expected.id = "my-a-tags";
    EXPECT_EQ(guided.tagsOnly(), expected);
}

TEST_F(MoodSpecTests, TheEndsThemselvesAreUnchanged) {
    spec.calm.tags = {tempo("slow"), tempo("very slow"), genre("a"), genre("a")};
    spec.calm.text = " padded ";

    EXPECT_EQ(end(0), spec.calm);
    EXPECT_EQ(end(4), spec.energetic);
    EXPECT_EQ(spec.prompt(BlendStep::calm), spec.calm.prompt());
}

TEST_F(MoodSpecTests, ATagInBothEndsAppearsOnceAtTheCalmEndsPlace) {
    spec.calm.tags = {genre("a"), mood("b"), genre("a")};
    spec.energetic.tags = {nature("rain"), mood("b"), mood("a"), nature("rain")};

    for (const std::int64_t index : {1, 2, 3}) {
        EXPECT_EQ(end(index).tags, (std::vector{genre("a"), mood("b"), nature("rain"), mood("a")})) << index;
    }
}

TEST_F(MoodSpecTests, TheDominantEndsFirstTempoTagIsTheOnlyOne) {
    spec.calm.tags = {tempo("slow"), genre("a"), tempo("very slow")};
    spec.energetic.tags = {tempo("fast"), genre("b")};

    EXPECT_EQ(end(1).tags, (std::vector{genre("a"), genre("b"), tempo("slow")}));
    EXPECT_EQ(end(2).tags, (std::vector{genre("a"), genre("b"), tempo("fast")}));
    EXPECT_EQ(end(3).tags, (std::vector{genre("a"), genre("b"), tempo("fast")}));
}

TEST_F(MoodSpecTests, WithoutATempoTagOfTheDominantEndThereIsNone) {
    spec.calm.tags = {tempo("slow"), genre("a")};
    spec.energetic.tags = {genre("b")};

    EXPECT_EQ(end(3).tags, (std::vector{genre("a"), genre("b")}));
}

TEST_F(MoodSpecTests, TheTempoIsMixedByWeight) {
    EXPECT_EQ(bpm(1), 75);
    EXPECT_EQ(bpm(2), 90);
    EXPECT_EQ(bpm(3), 105);
}

TEST_F(MoodSpecTests, HalfABeatIsRoundedAwayFromZero) {
    const auto mixed = [&](std::int64_t calm, std::int64_t energetic) {
        spec.calm.bpm = calm;
        spec.energetic.bpm = energetic;
        return bpm(1);
    };
    EXPECT_EQ(mixed(60, 62), 61);
    EXPECT_EQ(mixed(61, 63), 62);
    EXPECT_EQ(mixed(62, 60), 62);
    EXPECT_EQ(mixed(-60, -62), -61);
    EXPECT_EQ(mixed(60, 61), 60);
}

TEST_F(MoodSpecTests, TheTempoOfOneEndAloneHolds) {
    spec.calm.bpm.reset();
    EXPECT_EQ(bpm(1), 120);
    spec.energetic.bpm.reset();
    EXPECT_EQ(bpm(1), std::nullopt);
    spec.calm.bpm = 60;
    EXPECT_EQ(bpm(3), 60);
}

TEST_F(MoodSpecTests, InTheMiddleTheTextsAreTrimmedAndJoined) {
    spec.calm.text = " soft \n";
    spec.energetic.text = "\tdriving on ";
    EXPECT_EQ(end(2).text, "soft driving on");
    spec.calm.text = "";
    spec.energetic.text = "  driving  ";
    EXPECT_EQ(end(2).text, "driving");
    spec.calm.text = " soft ";
    spec.energetic.text = "\n";
    EXPECT_EQ(end(2).text, "soft");
    spec.calm.text = " ";
    EXPECT_EQ(end(2).text, "");
}

TEST_F(MoodSpecTests, BesideTheMiddleTheDominantEndsTextIsUnchanged) {
    spec.calm.text = " soft ";
    spec.energetic.text = " driving ";

    EXPECT_EQ(end(1).text, " soft ");
    EXPECT_EQ(end(3).text, " driving ");
}

TEST_F(MoodSpecTests, AStepBesideTheAxisExtrapolates) {
    EXPECT_EQ(bpm(7), 165);
    EXPECT_EQ(end(7).text, "driving");
    EXPECT_EQ(bpm(-1), 45);
    EXPECT_EQ(end(-1).text, "soft");
    EXPECT_EQ(end(5).tags, (std::vector{genre("ambient"), mood("calm"), genre("techno")}));
}

TEST_F(MoodSpecTests, AbsurdTemposAndStepsFromAFileAreHeldWithinSixtyFourBits) {
    const std::array tempos = {least, least + 1, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1}, most - 1, most};
    for (const auto calm : tempos) {
        for (const auto energetic : tempos) {
            spec.calm.bpm = calm;
            spec.energetic.bpm = energetic;
            for (const std::int64_t index : {least, std::int64_t{-1}, std::int64_t{1}, std::int64_t{2}, most}) {
                EXPECT_TRUE(bpm(index)) << calm << ' ' << energetic << ' ' << index;
            }
        }
    }
    spec.calm.bpm = 0;
    spec.energetic.bpm = most;
    EXPECT_EQ(bpm(most), most);
    EXPECT_EQ(bpm(least), least);
    spec.calm.bpm = most;
    EXPECT_EQ(bpm(2), most);
    spec.calm.bpm = least;
    spec.energetic.bpm = least;
    EXPECT_EQ(bpm(2), least);
}

TEST_F(MoodSpecTests, ManyTagsAreMixedWithoutComparingEachWithEach) {
    // 400,000 tags fit in a mood file of the greatest size; compared pairwise they would take minutes.
    spec.calm.tags.clear();
    for (int i = 0; i < 200'000; ++i) spec.calm.tags.push_back(mood(std::to_string(i)));
    spec.energetic.tags = spec.calm.tags;

    EXPECT_EQ(end(2).tags.size(), 200'000U);
}

TEST_F(MoodSpecTests, NamesGlyphsAndIdsPlayNoPartInTheMusic) {
    MoodSpec other = spec;
    other.id = "my-b";
    other.name = "Sun";
    other.glyph = MoodGlyph::bolt;

    EXPECT_TRUE(spec.rendersLike(other));
    EXPECT_TRUE(other.rendersLike(spec));
}

TEST_F(MoodSpecTests, WhatCannotBeHeardMakesNoDifference) {
    MoodSpec other = spec;
    other.calm.text = "  soft  ";
    other.calm.tags = {mood("calm"), genre("ambient")};  // the prompt orders by category

    EXPECT_TRUE(spec.rendersLike(other));
}

TEST_F(MoodSpecTests, AnotherPromptAtAnyStepIsOtherMusic) {
    const std::vector<std::function<void(MoodSpec&)>> changes = {
        [](auto& s) { s.calm.bpm = 61; },
        [](auto& s) { s.energetic.text += "!"; },
        [](auto& s) { s.calm.tags.push_back(genre("x")); },
        [](auto& s) { s.soundGuide = guideOf("my-a"); },
        [](auto& s) { s.calm = MoodEnd::empty; },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        MoodSpec other = spec;
        changes[i](other);
        EXPECT_FALSE(spec.rendersLike(other)) << i;
        EXPECT_FALSE(other.rendersLike(spec)) << i;
    }
}

TEST_F(MoodSpecTests, EndsThatSoundAlikeMayMixDifferently) {
    // The doubled tag of the calm end is heard once in every mixture, as the user wrote it only at the end itself.
    spec.calm.tags = {texture("x"), nature("x")};
    MoodSpec other = spec;
    other.calm.tags = {texture("x"), texture("x")};
    ASSERT_EQ(spec.calm.prompt(), other.calm.prompt());

    EXPECT_FALSE(spec.rendersLike(other));
}

TEST_F(MoodSpecTests, GuidesMustBeTheSameInEveryField) {
    spec.soundGuide = guideOf("my-a");
    MoodSpec other = spec;
    EXPECT_TRUE(spec.rendersLike(other));
    other.soundGuide->sourceName = "other.wav";
    EXPECT_FALSE(spec.rendersLike(other));
}

TEST_F(MoodSpecTests, OnePlayableAndOneUnplayableNeverRenderAlike) {
    spec.soundGuide = guideOf("my-a");
    MoodSpec other = spec;
    other.id = "my-b";  // the same guide, but not stored for this mood

    EXPECT_FALSE(spec.rendersLike(other));
}

TEST_F(MoodSpecTests, TwoUnplayableOnesRenderAlikeWhereTheirPromptsAgree) {
    MoodSpec one = MoodSpec::blank(MoodGlyph::wave);
    MoodSpec other = MoodSpec::blank(MoodGlyph::arc);
    one.energetic.bpm = 120;
    other.energetic.bpm = 120;
    ASSERT_FALSE(one.isPlayable());
    ASSERT_FALSE(other.isPlayable());
    EXPECT_TRUE(one.rendersLike(other));

    other.energetic.bpm = 121;
    EXPECT_FALSE(one.rendersLike(other));
}

TEST_F(MoodSpecTests, JSONHasTheFieldsInOrderAndTheLegacyOneLast) {
    spec.calm = MoodEnd::empty;
    spec.energetic = MoodEnd::empty;
    const std::string front = R"({"id":"my-a","name":"Rain","glyph":"grain","calm":{"tags":[],"text":""},)"
                              R"("energetic":{"tags":[],"text":""})";

    EXPECT_EQ(encodeJSON(spec, JSONWriter::Form::compact), front + R"(,"lively":false})");
    spec.soundGuide = guideOf("my-a");
    EXPECT_EQ(
        encodeJSON(spec, JSONWriter::Form::compact),
        front + R"(,"soundGuide":)" + encodeJSON(*spec.soundGuide, JSONWriter::Form::compact) + R"(,"lively":false})");
}

TEST_F(MoodSpecTests, TheLegacyFieldIsLeftOutOnlyWhereTheSettingIsTrue) {
    const auto isWritten = [&](JSONUserInfo userInfo) {
        return encodeJSON(spec, JSONWriter::Form::compact, std::move(userInfo)).find(R"("lively":false)") !=
               std::string::npos;
    };
    const std::string key(omitLegacyMusicFields);
    EXPECT_EQ(key, "Quillmere.omitLegacyMusicFields");
    EXPECT_TRUE(isWritten({}));
    EXPECT_FALSE(isWritten({{key, true}}));
    EXPECT_TRUE(isWritten({{key, false}}));
    EXPECT_TRUE(isWritten({{key, std::int64_t{1}}}));
    EXPECT_TRUE(isWritten({{key, std::string("true")}}));
    EXPECT_TRUE(isWritten({{"other", true}}));
}

TEST_F(MoodSpecTests, IsReadBackAsItWasWrittenAndTheLegacyFieldIgnored) {
    spec.soundGuide = guideOf("my-a");
    const auto text = encodeJSON(spec, JSONWriter::Form::pretty);
    EXPECT_EQ(decodeJSON<MoodSpec>(text), spec);

    auto other = text;
    other.replace(other.find("\"lively\" : false"), 16, R"("lively" : [1, 2])");
    EXPECT_EQ(decodeJSON<MoodSpec>(other), spec);
}

TEST_F(MoodSpecTests, AllButTheGuideIsRequired) {
    const auto text = encodeJSON(spec, JSONWriter::Form::compact);
    for (const std::string key : {"id", "name", "glyph", "calm", "energetic"}) {
        SCOPED_TRACE(key);
        auto without = text;
        without.replace(without.find('"' + key + "\":"), key.size() + 2, "\"other\"");
        EXPECT_THROW((void)decodeJSON<MoodSpec>(without), JSONError);
    }
    auto broken = text;
    broken.insert(1, R"("soundGuide":{},)");
    EXPECT_THROW((void)decodeJSON<MoodSpec>(broken), JSONError);
    auto null = text;
    null.insert(1, R"("soundGuide":null,)");
    EXPECT_EQ(decodeJSON<MoodSpec>(null), spec);
}

TEST_F(MoodSpecTests, EveryFieldCountsInEqualityAndHash) {
    const std::hash<MoodSpec> hash;
    const std::vector<std::function<void(MoodSpec&)>> changes = {
        [](auto& s) { s.id += "x"; },
        [](auto& s) { s.name += "x"; },
        [](auto& s) { s.glyph = MoodGlyph::arc; },
        [](auto& s) { s.calm.bpm = 61; },
        [](auto& s) { s.energetic.bpm = 61; },
        [](auto& s) { s.soundGuide = guideOf("my-a"); },
    };
    std::set<std::size_t> hashes{hash(spec)};
    for (const auto& change : changes) {
        MoodSpec changed = spec;
        EXPECT_EQ(hash(changed), hash(spec));
        change(changed);
        EXPECT_NE(changed, spec);
        hashes.insert(hash(changed));
    }
    EXPECT_EQ(hashes.size(), changes.size() + 1);
}

}  // namespace
}  // namespace quillmere
