#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"

namespace quillmere {
namespace {

using test::byFingerprint;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto mediumMLX = "sa3_medium_mlx_v2";
constexpr auto mediumCoreML = "sa3_medium_coreml_v1";
constexpr auto mediumLater = "sa3_medium_mlx_v7";
constexpr auto smallMLX = "sa3_small-music_mlx_v2";
constexpr auto strange = "some_other_model";

struct LoopStorePoolTests : test::LoopStoreFixture {
    LoopStore store = open();

    LoopArtifact added(LoopIdentity identity) {
        auto artifact = piece(std::move(identity));
        store.add(artifact);
        return artifact;
    }
    LoopArtifact added(std::string moodID, std::int64_t blend = 2, std::int64_t seed = 1,
                       std::string model = mediumMLX) {
        return added(identity(std::move(moodID), blend, seed, std::move(model)));
    }
};

TEST_F(LoopStorePoolTests, PoolIsSortedByFingerprintHoweverPiecesCame) {
    std::vector<LoopArtifact> all;
    for (std::int64_t seed = 0; seed < 40; ++seed) all.push_back(added("deepcode", seed % 5, seed));

    EXPECT_EQ(store.pool("deepcode"), byFingerprint(all));
    EXPECT_EQ(store.playbackPool("deepcode", std::nullopt, {}), byFingerprint(all));
    EXPECT_EQ(open().pool("deepcode"), byFingerprint(all));
}

TEST_F(LoopStorePoolTests, ReopenedLibraryHasTheSameOrder) {
    std::vector<LoopArtifact> all;
    for (std::int64_t seed = 0; seed < 40; ++seed) all.push_back(piece("deepcode", seed % 5, seed));
    home.putFile("Other/x", "");
    std::string text = "[";
    for (const auto& artifact : all)
        text += (text.size() > 1 ? "," : "") + encodeJSON(artifact, JSONWriter::Form::compact);
    home.putFile("Other/manifest.json", text + "]");

    const LoopStore other(home.path() / "Other", ResourceBundle(home.path() / "App"));
    EXPECT_EQ(other.pool("deepcode"), byFingerprint(all));
}

TEST_F(LoopStorePoolTests, PoolAsksForMoodBlendAndModelExactly) {
    const auto low = added("deepcode", 0);
    const auto middle = added("deepcode", 2);
    const auto other = added("deepcode", 2, 1, mediumCoreML);
    added("sprint", 2);

    EXPECT_EQ(store.pool("deepcode", BlendStep(2)), byFingerprint({middle, other}));
    EXPECT_THAT(store.pool("deepcode", BlendStep(2), mediumMLX), ElementsAre(middle));
    EXPECT_THAT(store.pool("deepcode", BlendStep(0), mediumMLX), ElementsAre(low));
    EXPECT_THAT(store.pool("deepcode", BlendStep(1)), IsEmpty());
    EXPECT_EQ(store.pool("deepcode", mediumMLX), byFingerprint({low, middle}));
    EXPECT_THAT(store.pool("deepcode", "sa3_medium"), IsEmpty());
    EXPECT_THAT(store.pool("deepcod"), IsEmpty());
    EXPECT_THAT(store.pool(""), IsEmpty());
}

TEST_F(LoopStorePoolTests, PoolCountsRecordingsLikeEverythingElse) {
    const auto taken = added(recording("deepcode"));

    EXPECT_THAT(store.pool("deepcode"), ElementsAre(taken));
    EXPECT_THAT(store.pool("deepcode", mediumMLX), IsEmpty());
}

TEST_F(LoopStorePoolTests, ExclusionLeavesOutExactlyTheListedPieces) {
    const auto first = added("deepcode", 2, 1);
    const auto second = added("deepcode", 2, 2);

    EXPECT_THAT(store.playbackPool("deepcode", std::nullopt, {first.id(), "", "not a fingerprint"}),
                ElementsAre(second));
    EXPECT_THAT(store.playbackPool("deepcode", std::nullopt, {first.id(), second.id()}), IsEmpty());
    EXPECT_THAT(store.playbackPool("deepcode", mediumMLX, {first.id(), second.id()}), IsEmpty());
}

TEST_F(LoopStorePoolTests, ExclusionAlsoHoldsForRecordings) {
    const auto taken = added(recording("deepcode"));

    EXPECT_THAT(store.playbackPool("deepcode", std::nullopt, {taken.id()}), IsEmpty());
}

TEST_F(LoopStorePoolTests, PreferredModelKeepsExactMatchesAndRecordings) {
    const auto exact = added("deepcode", 2, 1, mediumMLX);
    const auto taken = added(recording("deepcode", 2, strange));
    added("deepcode", 2, 3, mediumCoreML);
    added("deepcode", 2, 4, smallMLX);
    added("deepcode", 2, 5, strange);

    EXPECT_EQ(store.playbackPool("deepcode", mediumMLX, {}), byFingerprint({exact, taken}));
}

TEST_F(LoopStorePoolTests, WithoutExactMatchTheSameModelOfAnyEngineAndVersionIsTaken) {
    const auto other = added("deepcode", 2, 1, mediumCoreML);
    const auto later = added("deepcode", 2, 2, mediumLater);
    const auto taken = added(recording("deepcode", 3));
    added("deepcode", 2, 4, smallMLX);
    added("deepcode", 2, 5, strange);

    EXPECT_EQ(store.playbackPool("deepcode", mediumMLX, {}), byFingerprint({other, later, taken}));
}

TEST_F(LoopStorePoolTests, WithoutTheModelAnyKnownModelIsTaken) {
    const auto small = added("deepcode", 2, 1, smallMLX);
    const auto taken = added(recording("deepcode", 2));
    added("deepcode", 2, 3, strange);

    EXPECT_EQ(store.playbackPool("deepcode", mediumMLX, {}), byFingerprint({small, taken}));
}

TEST_F(LoopStorePoolTests, UnrecognisedPreferenceTakesKnownModels) {
    const auto medium = added("deepcode", 2, 1, mediumMLX);
    const auto small = added("deepcode", 2, 2, smallMLX);
    const auto taken = added(recording("deepcode", 3));
    added("deepcode", 2, 4, strange);

    EXPECT_EQ(store.playbackPool("deepcode", "unheard of", {}), byFingerprint({medium, small, taken}));
}

TEST_F(LoopStorePoolTests, UnrecognisedPreferenceThatMatchesExactlyIsExact) {
    const auto odd = added("deepcode", 2, 1, strange);
    added("deepcode", 2, 2, mediumMLX);

    EXPECT_THAT(store.playbackPool("deepcode", strange, {}), ElementsAre(odd));
}

TEST_F(LoopStorePoolTests, WhereNoModelIsKnownAllPiecesStay) {
    const auto odd = added("deepcode", 2, 1, strange);
    const auto odder = added("deepcode", 2, 2, "stranger");
    const auto taken = added(recording("deepcode", 3));

    EXPECT_EQ(store.playbackPool("deepcode", mediumMLX, {}), byFingerprint({odd, odder, taken}));
    EXPECT_EQ(store.playbackPool("deepcode", "unheard of", {}), byFingerprint({odd, odder, taken}));
}

TEST_F(LoopStorePoolTests, RecordingsAloneStayWhateverIsPreferred) {
    const auto taken = added(recording("deepcode", 1, smallMLX));

    EXPECT_THAT(store.playbackPool("deepcode", mediumMLX, {}), ElementsAre(taken));
    EXPECT_THAT(store.playbackPool("deepcode", std::nullopt, {}), ElementsAre(taken));
}

TEST_F(LoopStorePoolTests, NarrowingLooksAtWhatIsLeftAfterTheExclusions) {
    const auto exact = added("deepcode", 2, 1, mediumMLX);
    const auto small = added("deepcode", 2, 2, smallMLX);

    EXPECT_THAT(store.playbackPool("deepcode", mediumMLX, {exact.id()}), ElementsAre(small));
}

TEST_F(LoopStorePoolTests, NearestCachedTriesStepsByProximityAndTakesTheLowestFingerprint) {
    std::vector<LoopArtifact> low;
    for (std::int64_t seed = 0; seed < 8; ++seed) low.push_back(added("deepcode", 0, seed));
    added("deepcode", 4);
    const auto lowest = byFingerprint(low).front();

    EXPECT_EQ(store.nearestCached("deepcode", BlendStep(2)), lowest);
    EXPECT_EQ(store.nearestCached("deepcode", BlendStep(0)), lowest);
    EXPECT_EQ(store.nearestCached("deepcode", BlendStep(3))->identity.blend, BlendStep(4));

    const auto third = added("deepcode", 3);
    EXPECT_EQ(store.nearestCached("deepcode", BlendStep(2)), third);
    const auto first = added("deepcode", 1);
    EXPECT_EQ(store.nearestCached("deepcode", BlendStep(2)), first);
    EXPECT_EQ(store.nearestCached("sprint", BlendStep(2)), std::nullopt);
}

// MARK: user moods

struct LoopStoreUserMoodTests : LoopStorePoolTests {
    MoodSpec spec = [] {
        auto result = MoodSpec::blank(MoodGlyph::grain);
        result.calm.text = "soft rain";
        result.energetic.text = "heavy rain";
        return result;
    }();

    LoopStoreUserMoodTests() { CustomMoodStore::shared().save(spec); }
    ~LoopStoreUserMoodTests() override { CustomMoodStore::shared().remove(spec.id); }

    LoopArtifact addedToday(std::int64_t blend, std::int64_t seed, const std::string& model = mediumMLX) {
        return added(*Mood(spec).identity(BlendStep(blend), seed, model));
    }
};

TEST_F(LoopStoreUserMoodTests, PiecesThatTheMoodWouldMakeTodayArePlayed) {
    std::vector<LoopArtifact> all;
    for (std::int64_t seed = 0; seed < 20; ++seed)
        all.push_back(addedToday(seed % 5, seed, seed < 10 ? mediumMLX : smallMLX));

    EXPECT_EQ(store.playbackPool(spec.id, std::nullopt, {}), byFingerprint(all));
}

TEST_F(LoopStoreUserMoodTests, PieceFromBeforeAnEditIsNotPlayedButStillCounted) {
    const auto old = addedToday(2, 1);
    spec.calm.text = "drizzle";
    CustomMoodStore::shared().save(spec);
    const auto fresh = addedToday(2, 1);

    EXPECT_THAT(store.playbackPool(spec.id, std::nullopt, {}), ElementsAre(fresh));
    EXPECT_EQ(store.pool(spec.id), byFingerprint({old, fresh}));
    EXPECT_EQ(store.nearestCached(spec.id, BlendStep(2)), byFingerprint({old, fresh}).front());
}

TEST_F(LoopStoreUserMoodTests, RenamingAMoodKeepsItsPieces) {
    const auto made = addedToday(2, 1);
    spec.name = "Renamed";
    CustomMoodStore::shared().save(spec);

    EXPECT_THAT(store.playbackPool(spec.id, std::nullopt, {}), ElementsAre(made));
}

TEST_F(LoopStoreUserMoodTests, DeletedMoodLeavesOnlyItsRecordings) {
    addedToday(2, 1);
    const auto taken = added(recording(spec.id));
    CustomMoodStore::shared().remove(spec.id);

    EXPECT_THAT(store.playbackPool(spec.id, std::nullopt, {}), ElementsAre(taken));
    EXPECT_EQ(store.count(spec.id), 2U);
}

TEST_F(LoopStoreUserMoodTests, EachFieldOfTheIdentityCounts) {
    const auto made = *Mood(spec).identity(BlendStep(2), 1, mediumMLX);
    auto otherRecipe = made;
    otherRecipe.recipe = 2;
    auto otherCalm = made;
    otherCalm.calmPrompt += "!";
    auto otherEnergetic = made;
    otherEnergetic.energeticPrompt += "!";
    auto noPrompt = made;
    noPrompt.prompt.reset();
    auto withAudio = made;
    withAudio.audio.emplace();
    for (const auto& stale : {otherRecipe, otherCalm, otherEnergetic, noPrompt, withAudio}) added(stale);
    EXPECT_THAT(store.playbackPool(spec.id, std::nullopt, {}), IsEmpty());

    const auto good = added(made);
    EXPECT_THAT(store.playbackPool(spec.id, std::nullopt, {}), ElementsAre(good));
}

TEST_F(LoopStoreUserMoodTests, AgreesWithTheCatalogueForMoodsWithAGuide) {
    spec.soundGuide = SoundGuide{.format = std::string(SoundGuide::currentFormat),
                                 .assetID = std::string(64, 'a'),
                                 .storageID = spec.id,
                                 .model = GenerationModel::smallMusic,
                                 .sampleCount = 44100 * 600,
                                 .latentCount = 44100 * 600 / 4096 + 1,
                                 .sourceName = "rain.wav",
                                 .sourceOffset = 0,
                                 .strength = 0.5};
    ASSERT_TRUE(spec.isPlayable());
    CustomMoodStore::shared().save(spec);
    for (std::int64_t seed = 1; seed < 8; ++seed) {
        addedToday(2, seed);
        auto shifted = *Mood(spec).identity(BlendStep(2), seed, mediumMLX);
        shifted.audio->offset += 1;
        added(shifted);
    }

    std::vector<LoopArtifact> expected;
    for (const auto& artifact : store.pool(spec.id)) {
        if (MoodCatalog::isCurrent(artifact.identity, CustomMoodStore::shared())) expected.push_back(artifact);
    }
    EXPECT_EQ(expected.size(), 7U);
    EXPECT_EQ(store.playbackPool(spec.id, std::nullopt, {}), expected);
}

TEST_F(LoopStoreUserMoodTests, BuiltInMoodsAreAlwaysCurrent) {
    const auto old = added("writing");

    EXPECT_THAT(store.playbackPool("writing", std::nullopt, {}), ElementsAre(old));
}

}  // namespace
}  // namespace quillmere
