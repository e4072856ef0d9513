#include "QuillmereKit/Library/LoopArtifact.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/Mood.hpp"
#include "QuillmereKit/Moods/MoodSpec.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {
namespace {

const std::string identityJSON =
    R"({"moodID":"focus","blend":{"index":2},"calmPrompt":"soft","energeticPrompt":"bright","seed":7,)"
    R"("model":"sa3_medium_mlx_v2","recipe":1})";
const std::string bareJSON =
    R"({"identity":)" + identityJSON + R"(,"url":"file:\/\/\/loops\/a%20b.wav","seconds":120})";

struct LoopArtifactTests : testing::Test {
    LoopArtifact bare{.identity = {.moodID = "focus",
                                   .blend = BlendStep{2},
                                   .calmPrompt = "soft",
                                   .energeticPrompt = "bright",
                                   .seed = 7,
                                   .model = "sa3_medium_mlx_v2",
                                   .prompt = {},
                                   .audio = {}},
                      .url = FileURL::fromPath("/loops/a b.wav"),
                      .seconds = 120,
                      .seamDB = {},
                      .quality = {},
                      .leadIn = {},
                      .engineBuild = {},
                      .origin = {}};
    AudioLoudness loudness{.integratedLUFS = -20.5, .peak = 0.75, .seconds = 120.0};
    LoopArtifact full = withEverything(bare, loudness);

    static LoopArtifact withEverything(LoopArtifact artifact, AudioLoudness loudness) {
        artifact.seamDB = -31.25;
        artifact.quality = LoopQuality{.brightness = 0.5, .makeupDB = 1.5, .loudness = loudness};
        artifact.leadIn = 0.25;
        artifact.engineBuild = "build 7";
        artifact.origin = RecipeOrigin{.chip = "Chip 9"};
        return artifact;
    }

    static AudioUse guide(AudioUse::Kind kind) {
        AudioUse use;
        use.guide.format = SoundGuide::currentFormat;
        use.kind = kind;
        return use;
    }

    static std::string compact(const LoopArtifact& artifact) { return encodeJSON(artifact, JSONWriter::Form::compact); }
};

TEST_F(LoopArtifactTests, IsIdentifiedByItsFingerprint) {
    EXPECT_EQ(bare.id(), bare.identity.fingerprint());
    EXPECT_EQ(bare.id().size(), 16U);
}

TEST_F(LoopArtifactTests, JSONWithoutTheOptionalFieldsHasThreeKeys) {
    EXPECT_EQ(compact(bare), bareJSON);
    EXPECT_EQ(decodeJSON<LoopArtifact>(bareJSON), bare);
}

TEST_F(LoopArtifactTests, JSONHasAllFieldsInTheirOrder) {
    const std::string text =
        bareJSON.substr(0, bareJSON.size() - 1) +
        R"(,"seamDB":-31.25,"quality":{"brightness":0.5,"makeupDB":1.5,"loudness":{"integratedLUFS":-20.5,)"
        R"("peak":0.75,"seconds":120},"eventfulness":0},"leadIn":0.25,"engineBuild":"build 7",)"
        R"("origin":{"chip":"Chip 9"}})";

    EXPECT_EQ(compact(full), text);
    EXPECT_EQ(decodeJSON<LoopArtifact>(text), full);
}

TEST_F(LoopArtifactTests, JSONReadsBackEqualInEveryForm) {
    for (const auto form : {JSONWriter::Form::compact, JSONWriter::Form::sorted, JSONWriter::Form::pretty}) {
        EXPECT_EQ(decodeJSON<LoopArtifact>(encodeJSON(bare, form)), bare);
        EXPECT_EQ(decodeJSON<LoopArtifact>(encodeJSON(full, form)), full);
    }
}

TEST_F(LoopArtifactTests, JSONKeepsAURLAsItWasWritten) {
    const std::string text =
        R"({"seconds":1,"url":"FILE:\/\/localhost\/x%2f\u00e4.wav","identity":)" + identityJSON + "}";

    const auto artifact = decodeJSON<LoopArtifact>(text);

    EXPECT_EQ(artifact.url.text(), "FILE://localhost/x%2fä.wav");
    EXPECT_EQ(decodeJSON<LoopArtifact>(compact(artifact)), artifact);
}

TEST_F(LoopArtifactTests, NullMeansAbsentAndUnknownKeysAreIgnored) {
    const std::string text =
        bareJSON.substr(0, bareJSON.size() - 1) +
        R"(,"seamDB":null,"quality":null,"leadIn":null,"engineBuild":null,"origin":null,"mood":{"a":[1]}})";

    EXPECT_EQ(decodeJSON<LoopArtifact>(text), bare);
}

TEST_F(LoopArtifactTests, MissingOrMistypedRequiredKeyFailsWithItsPath) {
    const std::string url = R"("url":"file:\/\/\/a.wav")";
    const std::string identity = R"("identity":)" + identityJSON;
    const std::vector<std::pair<std::string, std::string>> texts{
        {"{" + url + R"(,"seconds":1})", "identity"},
        {"{" + identity + R"(,"seconds":1})", "url"},
        {"{" + identity + "," + url + "}", "seconds"},
        {"{" + identity + "," + url + R"(,"seconds":"1"})", "seconds"},
        {"{" + identity + "," + url + R"(,"seconds":null})", "seconds"},
        {"{" + identity + R"(,"url":7,"seconds":1})", "url"},
        {R"({"identity":{"moodID":"focus"},)" + url + R"(,"seconds":1})", "identity.blend"},
        {"{" + identity + "," + url + R"(,"seconds":1,"quality":{"brightness":1}})", "quality.makeupDB"},
        {"{" + identity + "," + url + R"(,"seconds":1,"origin":{}})", "origin.chip"},
        {"{" + identity + "," + url + R"(,"seconds":1,"seamDB":"x"})", "seamDB"},
        {"{" + identity + "," + url + R"(,"seconds":1,"leadIn":true})", "leadIn"},
        {"{" + identity + "," + url + R"(,"seconds":1,"engineBuild":1})", "engineBuild"},
    };
    for (const auto& [text, path] : texts) {
        SCOPED_TRACE(text);
        try {
            (void)decodeJSON<LoopArtifact>(text);
            ADD_FAILURE() << "accepted";
        } catch (const JSONError& error) {
            EXPECT_EQ(error.path(), path);
        }
    }
}

TEST_F(LoopArtifactTests, WhatJSONCannotHoldIsNotWritten) {
    auto endless = bare, wrongText = bare;
    endless.seconds = std::numeric_limits<double>::infinity();
    wrongText.engineBuild = "\xc3";

    EXPECT_THROW(compact(endless), EncodingError);
    EXPECT_THROW(compact(wrongText), EncodingError);
}

TEST_F(LoopArtifactTests, LoudnessOfAnArtifactWithoutQualityComesWithZeroes) {
    auto expected = bare;
    expected.quality = LoopQuality{.brightness = 0, .makeupDB = 0, .loudness = loudness};

    EXPECT_EQ(bare.withLoudness(loudness), expected);
}

TEST_F(LoopArtifactTests, LoudnessReplacesTheOldOneAndKeepsTheRest) {
    const AudioLoudness other{.integratedLUFS = {}, .peak = 0.1, .seconds = {}};
    auto expected = full;
    expected.quality->loudness = other;

    EXPECT_EQ(full.withLoudness(other), expected);
    EXPECT_EQ(full.withLoudness(other).quality->brightness, 0.5);
    EXPECT_EQ(full.withLoudness(other).quality->makeupDB, 1.5);
}

TEST_F(LoopArtifactTests, NewLocationKeepsTheRest) {
    auto expected = full;
    expected.url = FileURL::fromPath("/elsewhere/c.m4a");

    EXPECT_EQ(full.withURL(FileURL::fromPath("/elsewhere/c.m4a")), expected);
    EXPECT_EQ(full.withURL(FileURL::fromPath("/elsewhere/c.m4a")).id(), full.id());
}

TEST_F(LoopArtifactTests, PieceOfAKnownModelIsATrack) {
    const std::vector<std::pair<std::string, bool>> models{
        {"sa3_medium_mlx_v2", true},
        {"sa3_small-music_mlx_v2", true},
        {"sa3_small-music_coreml_v1", true},
        {"sa3_medium_coreml_v7", true},
        {"sa3_medium_mlx_v0", false},
        {"sa3_medium_mlx_v", false},
        {"sa3_medium_mlx_v2b", false},
        {"medium", false},
        {"", false},
    };
    for (const auto& [model, isTrack] : models) {
        auto artifact = bare;
        artifact.identity.model = model;
        EXPECT_EQ(artifact.isTrack(), isTrack) << model;

        artifact.identity.audio = guide(AudioUse::Kind::song);
        EXPECT_EQ(artifact.isTrack(), isTrack) << model;
    }
}

TEST_F(LoopArtifactTests, RecordingIsATrackWhateverItsModel) {
    bare.identity.model = "unknown";
    bare.identity.audio = guide(AudioUse::Kind::recording);

    EXPECT_TRUE(bare.isTrack());
}

TEST_F(LoopArtifactTests, PieceOfABuiltInMoodIsPlayable) { EXPECT_TRUE(bare.isPlayable()); }

TEST_F(LoopArtifactTests, PieceOfAUserMoodIsPlayableWhileTheMoodAsksForIt) {
    auto& store = CustomMoodStore::shared();
    MoodSpec spec = MoodSpec::blank(MoodGlyph::wave);
    spec.calm.text = "soft rain";
    spec.energetic.text = "bright rain";
    bare.identity = Mood(spec).identity(BlendStep{2}, 7, "sa3_medium_mlx_v2").value();
    EXPECT_FALSE(bare.isPlayable());

    store.save(spec);
    EXPECT_TRUE(bare.isPlayable());

    auto edited = spec;
    edited.calm.text = "loud rain";
    store.save(edited);
    EXPECT_FALSE(bare.isPlayable());

    store.save(spec);
    EXPECT_TRUE(bare.isPlayable());

    store.remove(spec.id);
    EXPECT_FALSE(bare.isPlayable());
}

TEST_F(LoopArtifactTests, EveryFieldCountsInEqualityAndHash) {
    const std::hash<LoopArtifact> hash;
    std::vector<LoopArtifact> changed(8, full);
    changed[0].identity.seed = 8;
    changed[1].url = FileURL::fromPath("/b.wav");
    changed[2].seconds = 119;
    changed[3].seamDB = {};
    changed[4].quality = {};
    changed[5].leadIn = 0.0;
    changed[6].engineBuild = "build 8";
    changed[7].origin = RecipeOrigin{.chip = "Chip 10"};

    EXPECT_EQ(full, LoopArtifact(full));
    EXPECT_EQ(hash(full), hash(LoopArtifact(full)));
    std::set<std::size_t> hashes{hash(full)};
    for (const auto& artifact : changed) {
        EXPECT_NE(artifact, full);
        hashes.insert(hash(artifact));
    }
    EXPECT_EQ(hashes.size(), 9U);
}

TEST_F(LoopArtifactTests, AnotherEngineBuildIsAnotherArtifactOfTheSamePiece) {
    auto other = full;
    other.engineBuild = "build 8";

    EXPECT_NE(other, full);
    EXPECT_NE(std::hash<LoopArtifact>{}(other), std::hash<LoopArtifact>{}(full));
    EXPECT_EQ(other.id(), full.id());
}

}  // namespace
}  // namespace quillmere::test
