#include "QuillmereKit/Moods/SoundGuide.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/AudioUse.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr auto least = std::numeric_limits<std::int64_t>::min();
constexpr auto most = std::numeric_limits<std::int64_t>::max();
constexpr auto notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr auto infinity = std::numeric_limits<double>::infinity();

struct SoundGuideTests : testing::Test {
    // 300 seconds.
    SoundGuide guide{
        .format = "sa3.latents/1",
        .assetID = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",
        .storageID = "my-3f9a0c1e",
        .model = GenerationModel::smallMusic,
        .sampleCount = 3230 * 4096,
        .latentCount = 3230,
        .sourceName = "rain/at night.wav",
        .sourceOffset = 12.25,
        .strength = 0.5,
    };

    bool isValidWith(const std::function<void(SoundGuide&)>& change) const {
        SoundGuide changed = guide;
        change(changed);
        return changed.isValid();
    }
};

TEST_F(SoundGuideTests, ConstantsAreWhatTheUserAndTheFilesKnow) {
    EXPECT_EQ(SoundGuide::currentFormat, "sa3.latents/1");
    EXPECT_EQ(SoundGuide::strengthRangeMin, 0.3);
    EXPECT_EQ(SoundGuide::strengthRangeMax, 0.7);
    EXPECT_EQ(SoundGuide::defaultStrength, 0.5);
    EXPECT_EQ(SoundGuide{}.strength, 0.5);
}

TEST_F(SoundGuideTests, LengthAndFileNameFollowFromTheFields) {
    guide.sampleCount = 44100 * 3;

    EXPECT_EQ(guide.seconds(), 3.0);
    EXPECT_EQ(guide.fileName(), "my-3f9a0c1e.safetensors");
}

TEST_F(SoundGuideTests, StoredAsChangesTheStorageAlone) {
    const SoundGuide moved = guide.storedAs("my-00000000");

    EXPECT_EQ(moved.storageID, "my-00000000");
    EXPECT_NE(moved, guide);
    EXPECT_EQ(moved.storedAs(guide.storageID), guide);
}

TEST_F(SoundGuideTests, AWholeGuideIsValid) { EXPECT_TRUE(guide.isValid()); }

TEST_F(SoundGuideTests, OnlyTheCurrentFormatIsValid) {
    for (const char* format : {"", "sa3.latents/2", "sa3.latents/1 ", "SA3.latents/1"}) {
        EXPECT_FALSE(isValidWith([&](auto& g) { g.format = format; })) << format;
    }
}

TEST_F(SoundGuideTests, TheAssetIsSixtyFourLowerCaseHexadecimalDigits) {
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID[5] = 'A'; }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID[63] = 'g'; }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID[0] = '/'; }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID[0] = ':'; }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID.pop_back(); }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID += '0'; }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID.clear(); }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.assetID.replace(0, 3, "\xef\xbc\x90"); }));  // a full-width zero
}

TEST_F(SoundGuideTests, TheStorageNameIsAsciiLettersDigitsAndHyphens) {
    EXPECT_TRUE(isValidWith([](auto& g) { g.storageID = "my-3f9a0c1e"; }));
    EXPECT_TRUE(isValidWith([](auto& g) { g.storageID = "A-z-09"; }));
    EXPECT_TRUE(isValidWith([](auto& g) { g.storageID = std::string(128, 'a'); }));
    EXPECT_FALSE(isValidWith([](auto& g) { g.storageID = std::string(129, 'a'); }));
    for (const char* name : {"", "my_mood", "my mood", "../x", "a.b", "m\xc3\xb6od", "a\n"}) {
        EXPECT_FALSE(isValidWith([&](auto& g) { g.storageID = name; })) << name;
    }
    EXPECT_FALSE(isValidWith([](auto& g) { g.storageID = std::string("a\0b", 3); }));
}

TEST_F(SoundGuideTests, TheSamplesFillTheLatentFrames) {
    struct Row {
        std::int64_t samples;
        std::int64_t latents;
        bool isValid;
    };
    for (const auto& row : {Row{8192, 2, true},  Row{8192, 3, true},
                            Row{8192, 4, false}, Row{8192, 1, false},
                            Row{8193, 2, false}, Row{8193, 3, true},
                            Row{8191, 2, true},  Row{8191, 3, false},
                            Row{1, 1, true},     Row{1, 2, false},
                            Row{4096, 1, true},  Row{4096, 2, true},
                            Row{4097, 1, false}, Row{0, 1, false},
                            Row{-1, 1, false},   Row{1, 0, false},
                            Row{1, -1, false},   Row{least, least, false},
                            Row{1, most, false}, Row{most, most, false},
                            Row{most, 1, false}, Row{most, most / 4096 + 1, true}}) {
        SCOPED_TRACE(std::to_string(row.samples) + " samples in " + std::to_string(row.latents));
        EXPECT_EQ(isValidWith([&](auto& g) {
                      g.sampleCount = row.samples;
                      g.latentCount = row.latents;
                  }),
                  row.isValid);
    }
}

TEST_F(SoundGuideTests, StrengthsOutsideWhatTheUserCanSetStayValid) {
    for (const double strength : {0.01, 0.3, 0.7, 0.9, 1.0}) {
        EXPECT_TRUE(isValidWith([&](auto& g) { g.strength = strength; })) << strength;
    }
    for (const double strength : {0.0, 0.0099, 1.0001, -0.5, notANumber, infinity, -infinity}) {
        EXPECT_FALSE(isValidWith([&](auto& g) { g.strength = strength; })) << strength;
    }
}

TEST_F(SoundGuideTests, TheSourceOffsetIsAnyFiniteNumber) {
    for (const double offset : {0.0, -3.5, 1e300}) {
        EXPECT_TRUE(isValidWith([&](auto& g) { g.sourceOffset = offset; })) << offset;
    }
    for (const double offset : {notANumber, infinity, -infinity}) {
        EXPECT_FALSE(isValidWith([&](auto& g) { g.sourceOffset = offset; })) << offset;
    }
}

TEST_F(SoundGuideTests, TheSameSeedAlwaysTakesTheSamePartAndSeedsSpreadOverTheGuide) {
    const std::int64_t steps = (guide.sampleCount - 120 * 44100) / 4096;
    std::set<std::int64_t> offsets;
    for (std::int64_t seed = 0; seed < 200; ++seed) {
        const auto offset = guide.offset(seed, 120.0);
        EXPECT_EQ(guide.offset(seed, 120.0), offset);
        EXPECT_GE(offset, 0);
        EXPECT_LE(offset, steps);
        offsets.insert(offset);
    }
    EXPECT_GT(offsets.size(), 150U);
    EXPECT_NE(guide.offset(1, 120.0), guide.offset(2, 120.0));
}

TEST_F(SoundGuideTests, TheLastPlaceIsReachedAndNeverPassed) {
    guide.sampleCount = 2 * 4096;  // two latent frames of room for an empty window
    guide.latentCount = 2;
    std::set<std::int64_t> offsets;
    for (std::int64_t seed = 0; seed < 100; ++seed) offsets.insert(guide.offset(seed, 0));
    EXPECT_EQ(offsets, (std::set<std::int64_t>{0, 1, 2}));
}

TEST_F(SoundGuideTests, NoRoomMeansTheBeginning) {
    guide.sampleCount = 120 * 44100;
    guide.latentCount = 1292;
    ASSERT_TRUE(guide.isValid());
    EXPECT_EQ(guide.offset(1, 120.0), 0);
    EXPECT_EQ(guide.offset(1, 1e300), 0);

    // One sample less than a latent frame to spare.
    guide.sampleCount = 120 * 44100 + 4095;
    guide.latentCount = 1293;
    ASSERT_TRUE(guide.isValid());
    for (std::int64_t seed = 0; seed < 20; ++seed) EXPECT_EQ(guide.offset(seed, 120.0), 0);
}

TEST_F(SoundGuideTests, AWindowOfAHalfSampleIsRoundedToTheEvenOne) {
    const auto hasRoomFor = [&](double samples, std::int64_t sampleCount) {
        EXPECT_EQ(samples / 44100.0 * 44100.0, samples);
        guide.sampleCount = sampleCount;
        guide.latentCount = 2;
        EXPECT_TRUE(guide.isValid());
        std::set<std::int64_t> offsets;
        for (std::int64_t seed = 0; seed < 50; ++seed) offsets.insert(guide.offset(seed, samples / 44100.0));
        return offsets.size() == 2;
    };
    EXPECT_TRUE(hasRoomFor(2.5, 4096 + 2));
    EXPECT_FALSE(hasRoomFor(3.5, 4096 + 3));
    EXPECT_TRUE(hasRoomFor(3.5, 4096 + 4));
}

TEST_F(SoundGuideTests, WhatMakesNoSenseBeginsAtZero) {
    EXPECT_EQ(guide.offset(-1, 120.0), 0);
    EXPECT_EQ(guide.offset(least, 120.0), 0);
    EXPECT_EQ(guide.offset(1, -1.0), 0);
    EXPECT_EQ(guide.offset(1, notANumber), 0);
    EXPECT_EQ(guide.offset(1, infinity), 0);
    guide.format = "other";
    EXPECT_EQ(guide.offset(1, 120.0), 0);
}

TEST_F(SoundGuideTests, TheLongestPossibleGuideHasOffsetsInRange) {
    guide.sampleCount = most;
    guide.latentCount = most / 4096 + 1;
    ASSERT_TRUE(guide.isValid());

    EXPECT_EQ(guide.offset(1, 1e300), 0);
    EXPECT_GE(guide.offset(most, 0), 0);
    EXPECT_LE(guide.offset(most, 0), most / 4096);
}

TEST_F(SoundGuideTests, JSONHasEveryFieldInOrderAndRequiresEach) {
    const std::string text =
        R"({"format":"sa3.latents\/1","assetID":"0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",)"
        R"("storageID":"my-3f9a0c1e","model":"small-music","sampleCount":13230080,"latentCount":3230,)"
        R"("sourceName":"rain\/at night.wav","sourceOffset":12.25,"strength":0.5})";

    EXPECT_EQ(encodeJSON(guide, JSONWriter::Form::compact), text);
    EXPECT_EQ(decodeJSON<SoundGuide>(text), guide);
    for (const char* key : {"format", "assetID", "storageID", "model", "sampleCount", "latentCount", "sourceName",
                            "sourceOffset", "strength"}) {
        std::string without = text;
        without.replace(without.find('"' + std::string(key) + "\":"), std::string(key).size() + 2, "\"other\"");
        EXPECT_THROW((void)decodeJSON<SoundGuide>(without), JSONError) << key;
    }
}

TEST_F(SoundGuideTests, EveryFieldCountsInEqualityAndHash) {
    const std::vector<std::function<void(SoundGuide&)>> changes = {
        [](auto& g) { g.format += "x"; },     [](auto& g) { g.assetID[0] = 'f'; },
        [](auto& g) { g.storageID += "x"; },  [](auto& g) { g.model = GenerationModel::medium; },
        [](auto& g) { ++g.sampleCount; },     [](auto& g) { ++g.latentCount; },
        [](auto& g) { g.sourceName += "x"; }, [](auto& g) { g.sourceOffset += 1; },
        [](auto& g) { g.strength = 0.625; },
    };
    const std::hash<SoundGuide> hash;
    const SoundGuide same = guide;
    EXPECT_EQ(hash(same), hash(guide));
    for (std::size_t i = 0; i < changes.size(); ++i) {
        SoundGuide changed = guide;
        changes[i](changed);
        EXPECT_NE(changed, guide) << i;
        EXPECT_NE(hash(changed), hash(guide)) << i;
    }
}

struct AudioUseTests : SoundGuideTests {
    AudioUse use{guide, 17, AudioUse::Kind::recording};
};

TEST_F(AudioUseTests, KindsHaveTheirRawValues) {
    EXPECT_EQ(rawValue(AudioUse::Kind::song), "song");
    EXPECT_EQ(rawValue(AudioUse::Kind::recording), "recording");
    EXPECT_EQ(allCases<AudioUse::Kind>().size(), 2U);
}

TEST_F(AudioUseTests, FingerprintIsTheDigestOfTheSortedJSON) {
    // sha256sum of the text of `encodeJSON(use, sorted)`.
    EXPECT_EQ(encodeJSON(use, JSONWriter::Form::sorted),
              R"({"guide":{"assetID":"0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",)"
              R"("format":"sa3.latents\/1","latentCount":3230,"model":"small-music","sampleCount":13230080,)"
              R"("sourceName":"rain\/at night.wav","sourceOffset":12.25,"storageID":"my-3f9a0c1e","strength":0.5},)"
              R"("kind":"recording","offset":17})");
    EXPECT_EQ(use.fingerprint(), "a126bb7249dc733fda82045b9b89fbd770a3d823d07ac0049cbd70b0798271d3");
}

TEST_F(AudioUseTests, AUseThatCannotBeEncodedHasTheFixedFingerprint) {
    use.guide.strength = notANumber;
    EXPECT_EQ(use.fingerprint(), "invalid-audio-input");
    use.guide.strength = 0.5;
    use.guide.sourceName = "\xff";
    EXPECT_EQ(use.fingerprint(), "invalid-audio-input");
}

TEST_F(AudioUseTests, JSONRequiresEveryKeyAndAKnownKind) {
    const auto text = encodeJSON(use, JSONWriter::Form::compact);
    EXPECT_TRUE(text.ends_with(R"(},"offset":17,"kind":"recording"})")) << text;
    EXPECT_EQ(decodeJSON<AudioUse>(text), use);

    const auto guideText = encodeJSON(guide, JSONWriter::Form::compact);
    EXPECT_THROW((void)decodeJSON<AudioUse>(R"({"offset":17,"kind":"song"})"), JSONError);
    EXPECT_THROW((void)decodeJSON<AudioUse>(R"({"guide":)" + guideText + R"(,"kind":"song"})"), JSONError);
    EXPECT_THROW((void)decodeJSON<AudioUse>(R"({"guide":)" + guideText + R"(,"offset":17})"), JSONError);
    EXPECT_THROW((void)decodeJSON<AudioUse>(R"({"guide":)" + guideText + R"(,"offset":17,"kind":"Song"})"), JSONError);
}

TEST_F(AudioUseTests, EveryFieldCountsInEqualityAndHash) {
    const std::hash<AudioUse> hash;
    AudioUse other = use;
    EXPECT_EQ(hash(other), hash(use));
    other.offset = 18;
    EXPECT_NE(other, use);
    EXPECT_NE(hash(other), hash(use));
    other = use;
    other.kind = AudioUse::Kind::song;
    EXPECT_NE(other, use);
    EXPECT_NE(hash(other), hash(use));
    other = use;
    other.guide.strength = 0.625;
    EXPECT_NE(other, use);
    EXPECT_NE(hash(other), hash(use));
}

}  // namespace
}  // namespace quillmere
