#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"

namespace quillmere {
namespace {

using test::byFingerprint;
using test::fingerprints;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr AudioLoudness measured{.integratedLUFS = -18.0, .peak = 0.5, .seconds = 120.0};

struct LoopStoreHousekeepingTests : test::LoopStoreFixture {
    LoopStore store = open();

    LoopArtifact added(LoopIdentity identity) {
        auto artifact = piece(std::move(identity));
        store.add(artifact);
        return artifact;
    }
    LoopArtifact added(std::string moodID, std::int64_t seed = 1) {
        return added(identity(std::move(moodID), 2, seed));
    }
    LoopArtifact addedOutside() {
        auto artifact =
            artifactAt(identity("deepcode", 2, 77), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF")));
        store.add(artifact);
        return artifact;
    }

    [[nodiscard]] static bool isThere(const LoopArtifact& artifact) {
        return std::filesystem::exists(artifact.url.path());
    }

    // Times the manifest back, so that any later write shows.
    void expectNoSave(const std::function<void()>& action) const {
        const auto file = folder / "manifest.json";
        const auto before = manifestText();
        std::filesystem::remove(file);
        action();
        EXPECT_FALSE(std::filesystem::exists(file)) << "the manifest was written";
        home.putFile("Loops/manifest.json", before);
    }
};

// MARK: prune

TEST_F(LoopStoreHousekeepingTests, PruneDeletesWhatIsNotKept) {
    const auto kept = added("deepcode", 1);
    const auto gone = added("deepcode", 2);

    EXPECT_EQ(store.prune({kept.id(), "not a fingerprint"}), 1);

    EXPECT_THAT(store.pool("deepcode"), ElementsAre(kept));
    EXPECT_TRUE(isThere(kept));
    EXPECT_FALSE(isThere(gone));
    EXPECT_THAT(listedURLs(), ElementsAre(kept.url.text()));
    EXPECT_THAT(discarded, IsEmpty()) << "pruning deletes, it does not discard";
}

TEST_F(LoopStoreHousekeepingTests, PruneWithNothingToKeepDeletesEverythingButRecordings) {
    for (std::int64_t seed = 1; seed <= 6; ++seed) added(seed % 2 == 0 ? "deepcode" : "sprint", seed);
    const auto taken = added(recording("deepcode"));

    EXPECT_EQ(store.prune({}), 6);

    EXPECT_EQ(store.count(), 1U);
    EXPECT_EQ(store.count("sprint"), 0U);
    EXPECT_TRUE(isThere(taken));
    EXPECT_THAT(open().pool("deepcode"), ElementsAre(taken));
}

TEST_F(LoopStoreHousekeepingTests, PruneWithoutVictimsDoesNotWrite) {
    const auto kept = added("deepcode");
    added(recording("sprint"));

    expectNoSave([&] { EXPECT_EQ(store.prune({kept.id()}), 0); });
}

TEST_F(LoopStoreHousekeepingTests, PruneLeavesPiecesElsewhere) {
    const auto outside = addedOutside();

    EXPECT_EQ(store.prune({}), 0);
    EXPECT_TRUE(store.contains(outside.identity));
    EXPECT_TRUE(isThere(outside));
}

TEST_F(LoopStoreHousekeepingTests, PruneDropsAnEntryWhoseFileIsGone) {
    const auto gone = added("deepcode");
    std::filesystem::remove(gone.url.path());

    EXPECT_EQ(store.prune({}), 1);
    EXPECT_EQ(store.count(), 0U);
    EXPECT_EQ(manifestText(), "[]");
}

TEST_F(LoopStoreHousekeepingTests, PruneSurvivesAFailingSave) {
    const auto gone = added("deepcode");
    std::filesystem::remove(folder / "manifest.json");
    std::filesystem::create_directory(folder / "manifest.json");

    EXPECT_EQ(store.prune({}), 1);

    EXPECT_EQ(store.count(), 0U);
    EXPECT_FALSE(isThere(gone));
    EXPECT_TRUE(store.lastSaveError());
}

TEST_F(LoopStoreHousekeepingTests, PrunedPieceCanBeAddedAgain) {
    const auto rain = added("deepcode");
    store.prune({});
    home.putFile("Loops/" + rain.url.path().filename().native(), "RIFF");

    store.add(rain);

    EXPECT_THAT(store.pool("deepcode"), ElementsAre(rain));
    EXPECT_THAT(listedURLs(), ElementsAre(rain.url.text()));
}

// MARK: trash

TEST_F(LoopStoreHousekeepingTests, TrashMovesWhatThePredicateNamesAndReturnsIt) {
    const auto kept = added("sprint");
    const auto first = added("deepcode", 1);
    const auto second = added("deepcode", 2);

    const auto trashed =
        store.trash([](const LoopArtifact& artifact) { return artifact.identity.moodID == "deepcode"; });

    EXPECT_EQ(trashed, byFingerprint({first, second}));
    EXPECT_THAT(discarded, UnorderedElementsAre(first.url, second.url));
    EXPECT_EQ(store.count(), 1U);
    EXPECT_THAT(listedURLs(), ElementsAre(kept.url.text()));
}

TEST_F(LoopStoreHousekeepingTests, TrashTakesRecordingsToo) {
    const auto taken = added(recording("deepcode"));

    EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), ElementsAre(taken));
}

TEST_F(LoopStoreHousekeepingTests, TrashThatAlwaysFailsChangesNothing) {
    const auto rain = added("deepcode");
    discards = false;

    expectNoSave([&] { EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), IsEmpty()); });

    EXPECT_THAT(discarded, ElementsAre(rain.url));
    EXPECT_TRUE(store.contains(rain.identity));
    EXPECT_TRUE(isThere(rain));
}

TEST_F(LoopStoreHousekeepingTests, StoreWithoutADiscardOfItsOwnMovesToTheUsersTrash) {
    const auto loop = added("deepcode");
    LoopStore plain(folder, ResourceBundle(home.path() / "App"));

    const auto trashed = plain.trash([](const LoopArtifact&) { return true; });

    // Where there is no service for it, the piece stays.
    const auto inTrash = UserFolders::applicationData()->parent_path() / "Trash/files" / loop.url.path().filename();
    EXPECT_NE(std::filesystem::exists(inTrash), isThere(loop)) << "the file is at one place";
    EXPECT_EQ(plain.contains(loop.identity), isThere(loop));
    EXPECT_THAT(trashed, SizeIs(isThere(loop) ? 0 : 1));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreHousekeepingTests, TrashDropsOnlyWhatWasMoved) {
    std::vector<LoopArtifact> pieces;
    LoopStore picky(home.path() / "Picky", ResourceBundle(home.path() / "App"),
                    [&](const FileURL& url) { return url == pieces[0].url && std::filesystem::remove(url.path()); });
    for (const std::int64_t seed : {1, 2}) {
        const auto id = identity("deepcode", 2, seed);
        pieces.push_back(artifactAt(id, FileURL::fromPath(home.putFile("Picky/" + id.filename() + ".wav", "RIFF"))));
        picky.add(pieces.back());
    }

    EXPECT_THAT(picky.trash([](const LoopArtifact&) { return true; }), ElementsAre(pieces[0]));
    EXPECT_THAT(picky.pool("deepcode"), ElementsAre(pieces[1]));
}

TEST_F(LoopStoreHousekeepingTests, TrashLeavesPiecesElsewhereAndDoesNotAskAboutThem) {
    const auto outside = addedOutside();
    int asked = 0;

    EXPECT_THAT(store.trash([&](const LoopArtifact&) { return ++asked > 0; }), IsEmpty());
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(isThere(outside));
}

TEST_F(LoopStoreHousekeepingTests, ThrowingPredicateChangesNothing) {
    const auto first = added("deepcode", 1);
    const auto second = added("deepcode", 2);
    int asked = 0;

    EXPECT_THROW(store.trash([&](const LoopArtifact&) { return ++asked == 2 ? throw std::runtime_error("no") : true; }),
                 std::runtime_error);

    EXPECT_EQ(store.count(), 2U);
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_TRUE(isThere(first) && isThere(second));
}

TEST_F(LoopStoreHousekeepingTests, TrashSurvivesAFailingSave) {
    const auto rain = added("deepcode");
    std::filesystem::remove(folder / "manifest.json");
    std::filesystem::create_directory(folder / "manifest.json");

    EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), ElementsAre(rain));
    EXPECT_EQ(store.count(), 0U);
    EXPECT_TRUE(store.lastSaveError());
}

TEST_F(LoopStoreHousekeepingTests, PiecesThatShareAFileAreTrashedTogether) {
    const auto first = added("deepcode");
    const auto second = artifactAt(identity("deepcode", 2, 9), first.url);
    store.add(second);

    EXPECT_EQ(store.trash([](const LoopArtifact&) { return true; }), byFingerprint({first, second}));
    EXPECT_THAT(discarded, SizeIs(1));
}

// MARK: disk use

TEST_F(LoopStoreHousekeepingTests, BytesOnDiskAreThoseOfTheStoresOwnPieces) {
    EXPECT_EQ(store.bytesOnDisk(), 0);
    const auto rain = added("deepcode");
    added("sprint");
    addedOutside();
    home.putFile("Loops/stray.wav", "not counted");
    EXPECT_EQ(store.bytesOnDisk(), 8);

    home.putFile("Loops/" + rain.url.path().filename().native(), std::string(1000, 'x'));
    EXPECT_EQ(store.bytesOnDisk(), 1004);

    std::filesystem::remove(rain.url.path());
    EXPECT_EQ(store.bytesOnDisk(), 4);
}

TEST_F(LoopStoreHousekeepingTests, BytesOnDiskTakesSizesThatAreKnownAndAsksForTheOthers) {
    const auto early = added("deepcode");
    const FileSizes sizes(store.directory());
    added("sprint");
    home.putFile("Loops/" + early.url.path().filename().native(), std::string(1000, 'x'));

    EXPECT_EQ(store.bytesOnDisk(sizes), 8);
}

TEST_F(LoopStoreHousekeepingTests, BooksAreNoPieces) {
    store.add(artifactAt(identity("deepcode"), FileURL::fromPath(store.directory() / "manifest.json")));

    EXPECT_EQ(store.bytesOnDisk(), 0);
}

TEST_F(LoopStoreHousekeepingTests, FoldersBelowTheStoresCount) {
    store.add(artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Loops/Render-1/a.wav", "12345"))));

    EXPECT_EQ(store.bytesOnDisk(), 5);
}

// MARK: loudness

TEST_F(LoopStoreHousekeepingTests, CandidatesAreThePiecesWithoutAMeasurementByFingerprint) {
    std::vector<LoopArtifact> without;
    for (std::int64_t seed = 1; seed < 9; ++seed) without.push_back(added("deepcode", seed));
    auto half = piece("sprint");
    half.quality = LoopQuality{.brightness = 0.5, .makeupDB = 1, .loudness = std::nullopt};
    store.add(half);
    without.push_back(half);
    auto full = piece("winddown");
    full.quality = LoopQuality{.brightness = 0.5, .makeupDB = 1, .loudness = measured};
    store.add(full);
    without.push_back(addedOutside());

    EXPECT_EQ(store.loudnessCandidates(), byFingerprint(without));
}

TEST_F(LoopStoreHousekeepingTests, LoudnessIsStoredAndSavedAndThePieceIsNoCandidateAnyMore) {
    const auto rain = added("deepcode");

    EXPECT_TRUE(store.setLoudness(measured, rain));

    EXPECT_EQ(store.artifact(rain.identity), rain.withLoudness(measured));
    EXPECT_THAT(store.loudnessCandidates(), IsEmpty());
    EXPECT_EQ(open().artifact(rain.identity)->quality,
              (LoopQuality{.brightness = 0, .makeupDB = 0, .loudness = measured}));
    EXPECT_FALSE(store.setLoudness(measured, rain)) << "the stored piece is another one now";
}

TEST_F(LoopStoreHousekeepingTests, LoudnessKeepsTheRestOfTheQuality) {
    auto rain = piece("deepcode");
    rain.quality = LoopQuality{.brightness = 0.25, .makeupDB = -1, .loudness = std::nullopt};
    store.add(rain);

    EXPECT_TRUE(store.setLoudness(measured, rain));
    EXPECT_EQ(store.artifact(rain.identity)->quality,
              (LoopQuality{.brightness = 0.25, .makeupDB = -1, .loudness = measured}));
}

TEST_F(LoopStoreHousekeepingTests, StaleCopyIsRefusedWhicheverFieldDiffers) {
    const auto rain = added("deepcode");
    std::vector<LoopArtifact> stale(7, rain);
    stale[0].seconds = 1;
    stale[1].seamDB = 1;
    stale[2].quality.emplace();
    stale[3].leadIn = 0;
    stale[4].engineBuild = "";
    stale[5].origin.emplace();
    stale[6].url = FileURL::fromPath(folder / "other.wav");

    for (const auto& copy : stale) EXPECT_FALSE(store.setLoudness(measured, copy));
    EXPECT_FALSE(store.setLoudness(measured, piece("sprint")));

    EXPECT_EQ(store.artifact(rain.identity), rain);
}

TEST_F(LoopStoreHousekeepingTests, LoudnessOfAPieceWithoutItsFileIsRefused) {
    const auto rain = added("deepcode");
    std::filesystem::remove(rain.url.path());

    EXPECT_FALSE(store.setLoudness(measured, rain));
    EXPECT_EQ(store.artifact(rain.identity), rain);
}

TEST_F(LoopStoreHousekeepingTests, FailedSaveOfALoudnessThrowsAndKeepsItInMemory) {
    const auto rain = added("deepcode");
    std::filesystem::remove(folder / "manifest.json");
    std::filesystem::create_directory(folder / "manifest.json");

    EXPECT_THROW(store.setLoudness(measured, rain), FileError);
    EXPECT_EQ(store.artifact(rain.identity), rain.withLoudness(measured));

    std::filesystem::remove(folder / "manifest.json");
    store.add(added("sprint"));
    EXPECT_EQ(open().artifact(rain.identity), rain.withLoudness(measured));
}

TEST_F(LoopStoreHousekeepingTests, MeasurementThatIsNotFiniteIsRefusedBeforeAnythingChanges) {
    const auto rain = added("deepcode");
    constexpr auto infinity = std::numeric_limits<double>::infinity();
    const auto before = manifestText();

    for (const auto& bad : {AudioLoudness{infinity, 1, 1}, AudioLoudness{std::nullopt, std::nan(""), 1},
                            AudioLoudness{std::nullopt, 1, -infinity}}) {
        EXPECT_THROW(store.setLoudness(bad, rain), EncodingError);
    }

    EXPECT_EQ(store.artifact(rain.identity), rain);
    EXPECT_EQ(manifestText(), before);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreHousekeepingTests, LoudnessOfAPieceElsewhereIsKeptInMemory) {
    const auto outside = addedOutside();

    EXPECT_TRUE(store.setLoudness(measured, outside));
    EXPECT_EQ(store.artifact(outside.identity), outside.withLoudness(measured));
    EXPECT_TRUE(isThere(outside));
}

}  // namespace
}  // namespace quillmere
