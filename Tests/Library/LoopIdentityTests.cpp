#include "QuillmereKit/Library/LoopIdentity.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

namespace quillmere {
namespace {

struct LoopIdentityTests : testing::Test {
    LoopIdentity identity{
        .moodID = "focus",
        .blend = BlendStep(2),
        .calmPrompt = "warm pads",
        .energeticPrompt = "soft pulse",
        .seed = 42,
        .model = "sa3_medium_mlx_v2",
        .prompt = std::nullopt,
        .audio = std::nullopt,
        .recipe = 1,
    };
    AudioUse audio{
        SoundGuide{
            .format = "sa3.latents/1",
            .assetID = std::string(64, 'a'),
            .storageID = "my-a",
            .model = GenerationModel::medium,
            .sampleCount = 8192,
            .latentCount = 2,
            .sourceName = "rain.wav",
            .sourceOffset = 0,
            .strength = 0.5,
        },
        3,
        AudioUse::Kind::song,
    };

    /// The first 16 digits of the digest of these parts.
    static std::string digestOf(const std::vector<std::string>& parts) {
        std::string text;
        for (std::size_t i = 0; i < parts.size(); ++i) text += (i == 0 ? "" : "\x1f") + parts[i];
        return hexadecimal(SHA256::digest(text)).substr(0, 16);
    }

    /// One change for each field.
    std::vector<std::function<void(LoopIdentity&)>> changes() const {
        return {
            [](auto& i) { i.moodID += "x"; },
            [](auto& i) { i.blend = BlendStep(3); },
            [](auto& i) { i.calmPrompt += "x"; },
            [](auto& i) { i.energeticPrompt += "x"; },
            [](auto& i) { ++i.seed; },
            [](auto& i) { i.model += "x"; },
            [](auto& i) { i.prompt = ""; },
            [this](auto& i) { i.audio = audio; },
            [](auto& i) { ++i.recipe; },
        };
    }
};

TEST_F(LoopIdentityTests, FingerprintIsTheDigestOfAllParts) {
    // printf 'v1\x1fsa3_medium_mlx_v2\x1ffocus\x1fblend=2/5\x1fseed=42\x1fwarm pads\x1fsoft pulse' | sha256sum
    EXPECT_EQ(identity.fingerprint(), "b9881b9a3683d03d");

    identity.prompt = "a/b \"c\"";
    // the same followed by '\x1fprompt=a/b "c"'
    EXPECT_EQ(identity.fingerprint(), "3fcd776b91e82c6e");
}

TEST_F(LoopIdentityTests, PromptAndAudioAddPartsOnlyWherePresent) {
    const std::vector<std::string> parts = {"v1",      "sa3_medium_mlx_v2", "focus",     "blend=2/5",
                                            "seed=42", "warm pads",         "soft pulse"};
    auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), parts.begin(), parts.end());
        return digestOf(more);
    };
    EXPECT_EQ(identity.fingerprint(), with({}));
    identity.audio = audio;
    EXPECT_EQ(identity.fingerprint(), with({"audio=" + audio.fingerprint()}));
    identity.prompt = "deep";
    EXPECT_EQ(identity.fingerprint(), with({"prompt=deep", "audio=" + audio.fingerprint()}));
    identity.audio.reset();
    EXPECT_EQ(identity.fingerprint(), with({"prompt=deep"}));
}

TEST_F(LoopIdentityTests, NumbersAreWrittenInPlainDecimal) {
    identity.seed = std::numeric_limits<std::int64_t>::min();
    identity.recipe = std::numeric_limits<std::int64_t>::max();
    identity.blend = BlendStep::unclamped(std::numeric_limits<std::int64_t>::min());

    EXPECT_EQ(identity.fingerprint(),
              digestOf({"v9223372036854775807", "sa3_medium_mlx_v2", "focus", "blend=-9223372036854775808/5",
                        "seed=-9223372036854775808", "warm pads", "soft pulse"}));
}

TEST_F(LoopIdentityTests, TextsOfAnyLengthAndContentCount) {
    for (const std::size_t length : {0U, 1U, 1900U, 1980U, 2048U, 5000U, 300000U}) {
        SCOPED_TRACE(length);
        identity.calmPrompt = std::string(length, 'x');
        identity.energeticPrompt = std::string("\0\xff\x1f", 3);
        EXPECT_EQ(identity.fingerprint(), digestOf({"v1", "sa3_medium_mlx_v2", "focus", "blend=2/5", "seed=42",
                                                    std::string(length, 'x'), std::string("\0\xff\x1f", 3)}));
    }
}

TEST_F(LoopIdentityTests, FingerprintIsSixteenLowerCaseHexadecimalDigits) {
    for (identity.seed = 0; identity.seed < 100; ++identity.seed) {
        const auto fingerprint = identity.fingerprint();
        EXPECT_EQ(fingerprint.size(), 16U);
        EXPECT_EQ(fingerprint.find_first_not_of("0123456789abcdef"), std::string::npos) << fingerprint;
    }
}

TEST_F(LoopIdentityTests, FingerprintNumberIsTheFingerprintReadAsHexadecimal) {
    for (identity.seed = 0; identity.seed < 100; ++identity.seed) {
        EXPECT_EQ(identity.fingerprintNumber(), std::stoull(identity.fingerprint(), nullptr, 16));
    }
}

TEST_F(LoopIdentityTests, EveryFieldChangesTheFingerprintTheEqualityAndTheHash) {
    const std::hash<LoopIdentity> hash;
    std::set<std::string> fingerprints{identity.fingerprint()};
    std::set<std::size_t> hashes{hash(identity)};
    for (const auto& change : changes()) {
        LoopIdentity changed = identity;
        EXPECT_EQ(hash(changed), hash(identity));
        change(changed);
        EXPECT_NE(changed, identity);
        fingerprints.insert(changed.fingerprint());
        hashes.insert(hash(changed));
    }
    EXPECT_EQ(fingerprints.size(), changes().size() + 1);
    EXPECT_EQ(hashes.size(), changes().size() + 1);
}

TEST_F(LoopIdentityTests, AnEmptyPromptIsNotAnAbsentOne) {
    LoopIdentity other = identity;
    other.prompt = "";

    EXPECT_NE(other.fingerprint(), identity.fingerprint());
    EXPECT_NE(other, identity);
}

TEST_F(LoopIdentityTests, ASeparatorInsideAPromptCanCollide) {
    identity.calmPrompt = "a";
    identity.energeticPrompt =
        "b\x1f"
        "prompt=c";
    LoopIdentity other = identity;
    other.energeticPrompt = "b";
    other.prompt = "c";

    EXPECT_EQ(other.fingerprint(), identity.fingerprint());
    EXPECT_NE(other, identity);
}

TEST_F(LoopIdentityTests, FileNameNamesMoodStepAndFingerprint) {
    identity.blend = BlendStep(3);

    EXPECT_EQ(identity.filename(), "focus_b3_" + identity.fingerprint());
    identity.moodID = "../odd mood";
    EXPECT_EQ(identity.filename(), "../odd mood_b3_" + identity.fingerprint());
}

TEST_F(LoopIdentityTests, TheMiddleStepCountsAsEnergetic) {
    const std::array expected = {Anchor::calm, Anchor::calm, Anchor::energetic, Anchor::energetic, Anchor::energetic};
    for (std::size_t index = 0; index < expected.size(); ++index) {
        identity.blend = BlendStep(static_cast<std::int64_t>(index));
        EXPECT_EQ(identity.anchor(), expected[index]) << index;
    }
}

TEST_F(LoopIdentityTests, OnlyAudioOfTheKindRecordingMakesARecording) {
    EXPECT_FALSE(identity.isRecording());
    identity.audio = audio;
    EXPECT_FALSE(identity.isRecording());
    identity.audio->kind = AudioUse::Kind::recording;
    EXPECT_TRUE(identity.isRecording());
}

TEST_F(LoopIdentityTests, NewIdentitiesCarryTheCurrentRecipe) {
    EXPECT_EQ(LoopIdentity::currentRecipe, 1);
    EXPECT_EQ(LoopIdentity{}.recipe, 1);
}

TEST_F(LoopIdentityTests, JSONHasTheFieldsInOrderWithoutAbsentOnes) {
    const auto text = encodeJSON(identity, JSONWriter::Form::compact);
    EXPECT_EQ(text, R"({"moodID":"focus","blend":{"index":2},"calmPrompt":"warm pads","energeticPrompt":"soft pulse",)"
                    R"("seed":42,"model":"sa3_medium_mlx_v2","recipe":1})");
    EXPECT_EQ(decodeJSON<LoopIdentity>(text), identity);

    identity.prompt = "deep";
    identity.audio = audio;
    EXPECT_EQ(encodeJSON(identity, JSONWriter::Form::compact),
              R"({"moodID":"focus","blend":{"index":2},"calmPrompt":"warm pads","energeticPrompt":"soft pulse",)"
              R"("seed":42,"model":"sa3_medium_mlx_v2","prompt":"deep","audio":)" +
                  encodeJSON(audio, JSONWriter::Form::compact) + R"(,"recipe":1})");
}

TEST_F(LoopIdentityTests, EveryIdentityIsReadBackAsItWasWritten) {
    for (const auto& change : changes()) {
        LoopIdentity changed = identity;
        change(changed);
        for (const auto form : {JSONWriter::Form::compact, JSONWriter::Form::sorted, JSONWriter::Form::pretty}) {
            const auto text = encodeJSON(changed, form);
            EXPECT_EQ(decodeJSON<LoopIdentity>(text), changed) << text;
        }
    }
}

TEST_F(LoopIdentityTests, JSONRequiresAllButPromptAndAudio) {
    const std::string text = encodeJSON(identity, JSONWriter::Form::compact);
    for (const std::string key : {"moodID", "blend", "calmPrompt", "energeticPrompt", "seed", "model", "recipe"}) {
        SCOPED_TRACE(key);
        std::string without = text;
        without.replace(without.find('"' + key + "\":"), key.size() + 2, "\"other\"");
        try {
            (void)decodeJSON<LoopIdentity>(without);
            ADD_FAILURE() << "accepted";
        } catch (const JSONError& error) {
            EXPECT_EQ(error.path(), key);
        }
    }
}

TEST_F(LoopIdentityTests, NullIsAbsentForPromptAndAudioAlone) {
    std::string text = encodeJSON(identity, JSONWriter::Form::compact);
    text.insert(1, R"("prompt":null,"audio":null,)");
    EXPECT_EQ(decodeJSON<LoopIdentity>(text), identity);

    text.replace(text.find("42"), 2, "null");
    EXPECT_THROW((void)decodeJSON<LoopIdentity>(text), JSONError);
}

TEST_F(LoopIdentityTests, AWrongTypeIsNamedByItsPath) {
    std::string text = encodeJSON(identity, JSONWriter::Form::compact);
    text.replace(text.find(R"({"index":2})"), 11, R"({"index":2.5})");
    try {
        (void)decodeJSON<LoopIdentity>(text);
        FAIL() << "accepted";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "blend.index");
    }
}

}  // namespace
}  // namespace quillmere
