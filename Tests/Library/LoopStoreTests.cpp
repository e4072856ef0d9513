#include "QuillmereKit/Library/LoopStore.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <limits>
#include <nlohmann/json.hpp>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"

namespace quillmere {
namespace {

using test::byFingerprint;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

struct LoopStoreTests : test::LoopStoreFixture {
    // A piece with every field set, and texts that need escaping.
    [[nodiscard]] LoopArtifact fullPiece() const {
        auto result = piece("designflow", 3, -42);
        result.identity.prompt = "say \"hi\" / \u266b";
        result.identity.audio = AudioUse{.guide = {.format = "sa3.latents/1",
                                                   .assetID = std::string(64, 'a'),
                                                   .storageID = "my-mood",
                                                   .model = GenerationModel::smallMusic,
                                                   .sampleCount = 44100,
                                                   .latentCount = 11,
                                                   .sourceName = "rain.wav",
                                                   .sourceOffset = 0.5,
                                                   .strength = 0.25},
                                         .offset = 3,
                                         .kind = AudioUse::Kind::song};
        result.seamDB = -41.5;
        result.quality = {.brightness = 0.31, .makeupDB = 0.8, .loudness = AudioLoudness{-18.25, 0.5, 120.0}};
        result.leadIn = 0.25;
        result.engineBuild = "tonebed-1";
        result.origin = RecipeOrigin{"chip"};
        return result;
    }
};

TEST_F(LoopStoreTests, NewStoreMakesItsFolderAndWritesNothingElse) {
    const auto store = open();

    EXPECT_EQ(store.directory(), folder);
    EXPECT_EQ(store.count(), 0U);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_THAT(home.names(), ElementsAre("Loops"));
    EXPECT_THAT(namesBeginning("manifest"), IsEmpty());
}

TEST_F(LoopStoreTests, AddedPieceIsFoundByItsIdentity) {
    auto store = open();
    const auto rain = piece("deepcode");

    store.add(rain);

    EXPECT_TRUE(store.contains(rain.identity));
    EXPECT_EQ(store.artifact(rain.identity), rain);
    EXPECT_FALSE(store.contains(identity("deepcode", 2, 2)));
    EXPECT_EQ(store.artifact(identity("deepcode", 2, 2)), std::nullopt);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreTests, PieceIsFoundByItsExactFingerprint) {
    auto store = open();
    const auto rain = piece("deepcode");
    store.add(rain);

    EXPECT_EQ(store.artifact(rain.id()), rain);
    EXPECT_EQ(store.artifact(rain.id().substr(0, 15)), std::nullopt);
    EXPECT_EQ(store.artifact(rain.id() + " "), std::nullopt);
    EXPECT_EQ(store.artifact(identity("deepcode", 2, 2).fingerprint()), std::nullopt);
}

TEST_F(LoopStoreTests, AllPiecesComeByFingerprintWhateverTheirMood) {
    auto store = open();
    EXPECT_THAT(store.all(), IsEmpty());
    std::vector<LoopArtifact> pieces = {piece("deepcode", 0), piece("my-unknown", 1), piece("sprint", 2)};
    for (const auto& one : pieces) store.add(one);

    EXPECT_EQ(store.all(), byFingerprint(pieces));
}

TEST_F(LoopStoreTests, CountsPiecesOfAMoodByItsExactName) {
    auto store = open();
    store.add(piece("deepcode", 0));
    store.add(piece("deepcode", 1));
    store.add(piece("sprint"));

    EXPECT_EQ(store.count(), 3U);
    EXPECT_EQ(store.count("deepcode"), 2U);
    EXPECT_EQ(store.count("deep"), 0U);
    EXPECT_EQ(store.count("DeepCode"), 0U);
}

TEST_F(LoopStoreTests, KnowsHowMuchMusicOfEachMoodThereIs) {
    auto store = open();
    EXPECT_THAT(store.material(), IsEmpty());
    const auto add = [&](const char* moodID, std::int64_t seed, double seconds) {
        auto artifact = piece(moodID, 2, seed);
        artifact.seconds = seconds;
        store.add(artifact);
    };
    add("deepcode", 0, 90);
    add("deepcode", 1, 0.5);
    add("my-unknown", 2, 120);

    const auto material = store.material();

    ASSERT_THAT(material, SizeIs(2));
    EXPECT_EQ(material.at("deepcode").pieces, 2U);
    EXPECT_EQ(material.at("deepcode").seconds, 90.5);
    EXPECT_EQ(material.at("my-unknown").pieces, 1U);
    EXPECT_EQ(material.at("my-unknown").seconds, 120);
}

TEST_F(LoopStoreTests, LengthsThatAreNoneAddNothingToTheMaterial) {
    auto store = open();
    constexpr auto most = std::numeric_limits<double>::max();
    for (const double seconds : {120.0, -1000.0, std::numeric_limits<double>::infinity(), std::nan("")}) {
        auto artifact = piece("deepcode", 2, static_cast<std::int64_t>(store.count()));
        artifact.seconds = seconds;
        store.add(artifact);
    }
    EXPECT_EQ(store.material().at("deepcode").pieces, 4U);
    EXPECT_EQ(store.material().at("deepcode").seconds, 120);

    for (int i = 0; i < 2; ++i) {
        auto artifact = piece("sprint", 2, i);
        artifact.seconds = most;
        store.add(artifact);
    }
    EXPECT_EQ(store.material().at("sprint").seconds, most);
}

// Large enough for threads to share the work.
TEST_F(LoopStoreTests, ALargeLibraryIsLoadedAndCountedToTheLastPiece) {
    constexpr std::int64_t count = 1201;
    std::vector<LoopArtifact> pieces;
    std::int64_t bytes = 0;
    for (std::int64_t i = 0; i < count; ++i) {
        pieces.push_back(piece("deepcode", i % 5, i));
        const auto size = static_cast<std::size_t>(i % 7);
        home.putFile("Loops/" + pieces.back().url.path().filename().native(), std::string(size, 'x'));
        bytes += i % 7;
    }
    writeManifest(pieces);
    ASSERT_GT(manifestText().size(), 262'144U);
    std::filesystem::remove(pieces[700].url.path());
    std::filesystem::remove(pieces[3].url.path());
    bytes -= 700 % 7 + 3;

    const auto large = open();

    EXPECT_EQ(large.count(), static_cast<std::size_t>(count - 2));
    EXPECT_FALSE(large.contains(pieces[700].identity));
    EXPECT_EQ(large.bytesOnDisk(), bytes);
}

TEST_F(LoopStoreTests, EveryFieldComesBackAfterReopening) {
    const auto full = fullPiece();
    open().add(full);

    EXPECT_EQ(open().artifact(full.identity), full);
}

TEST_F(LoopStoreTests, EveryFieldComesBackFromTheFormMeantForPeople) {
    const auto full = fullPiece();
    open().addPersistent(full);

    EXPECT_EQ(open().artifact(full.identity), full);
}

TEST_F(LoopStoreTests, AddingTheSameFingerprintReplacesThePiece) {
    auto store = open();
    const auto first = piece("deepcode");
    auto second = first;
    second.engineBuild = "newer";
    store.add(first);

    store.add(second);

    EXPECT_EQ(store.count(), 1U);
    EXPECT_EQ(store.count("deepcode"), 1U);
    EXPECT_EQ(store.artifact(first.identity), second);
    EXPECT_EQ(open().artifact(first.identity), second);
    EXPECT_THAT(listedURLs(), ElementsAre(second.url.text()));
}

TEST_F(LoopStoreTests, OrdinaryManifestIsACompactArrayWithKeysInDeclarationOrder) {
    const auto full = fullPiece();
    open().add(full);

    EXPECT_EQ(manifestText(), "[" + encodeJSON(full, JSONWriter::Form::compact) + "]");
    EXPECT_THAT(manifestText(), HasSubstr("\"eventfulness\":0"));
}

TEST_F(LoopStoreTests, PersistentManifestIsPrettyWithSortedKeys) {
    const auto full = fullPiece();
    open().addPersistent(full);

    EXPECT_EQ(manifestText(), encodeJSON(std::vector{full}, JSONWriter::Form::pretty));
    EXPECT_THAT(manifestText(),
                testing::StartsWith("[\n  {\n    \"engineBuild\" : \"tonebed-1\",\n    \"identity\" : {"));
}

TEST_F(LoopStoreTests, ManifestListsEveryPieceOnceWhateverHappenedBefore) {
    auto store = open();
    std::vector<LoopArtifact> all;
    for (std::int64_t seed = 0; seed < 20; ++seed) {
        all.push_back(piece("deepcode", seed % 5, seed));
        store.add(all.back());
    }
    for (std::size_t index = 0; index < all.size(); index += 3) {
        all[index].engineBuild = "newer";
        store.add(all[index]);
    }
    store.addPersistent(all[4]);
    all.push_back(piece("sprint"));
    store.add(all.back());

    const auto reopened = open();
    EXPECT_EQ(listedURLs().size(), all.size());
    EXPECT_EQ(reopened.count(), all.size());
    for (const auto& artifact : all) EXPECT_EQ(reopened.artifact(artifact.identity), artifact);
}

TEST_F(LoopStoreTests, ReadsAnyKeyOrderAnyBlanksAndUnknownKeys) {
    const auto rain = piece("deepcode");
    const auto url = nlohmann::json(rain.url.text()).dump();
    writeManifest("\xEF\xBB\xBF [ {\"later\": {\"x\": [1, 2]}, \"seconds\" :1.2e2,\n\t\"url\":" + url +
                  ", \"seamDB\":null, \"identity\":{\"recipe\":1,\"seed\":1,\"model\":\"sa3_medium_mlx_v2\","
                  "\"energeticPrompt\":\"driving pulse\",\"calmPrompt\":\"calm pads\",\"blend\":{\"index\":2},"
                  "\"moodID\":\"deepcode\"}} ]\n");

    EXPECT_EQ(open().artifact(rain.identity), rain);
}

TEST_F(LoopStoreTests, LaterEntryWithTheSameFingerprintWins) {
    const auto first = piece("deepcode");
    auto second = first;
    second.seconds = 60;
    writeManifest({first, second});

    const auto store = open();
    EXPECT_EQ(store.count(), 1U);
    EXPECT_EQ(store.artifact(first.identity)->seconds, 60);
}

TEST_F(LoopStoreTests, EntryWhoseFileIsGoneIsNotLoadedAndTheNextSaveDropsIt) {
    const auto gone = piece("deepcode");
    const auto there = piece("sprint");
    writeManifest({gone, there});
    std::filesystem::remove(gone.url.path());
    const auto before = manifestText();

    auto store = open();
    EXPECT_FALSE(store.contains(gone.identity));
    EXPECT_TRUE(store.contains(there.identity));
    EXPECT_EQ(manifestText(), before) << "loading alone must not write";

    store.add(piece("sprint", 1));
    EXPECT_THAT(listedURLs(), testing::Not(testing::Contains(gone.url.text())));
    EXPECT_EQ(listedURLs().size(), 2U);
}

TEST_F(LoopStoreTests, PieceOutsideTheFolderIsInTheManifestOnlyAfterAPersistentAdd) {
    auto store = open();
    const auto outside = artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF")));
    const auto inside = piece("sprint");

    store.add(outside);
    store.add(inside);
    EXPECT_TRUE(store.contains(outside.identity));
    EXPECT_THAT(listedURLs(), ElementsAre(inside.url.text()));

    store.addPersistent(inside);
    EXPECT_THAT(listedURLs(), UnorderedElementsAre(inside.url.text(), outside.url.text()));
    EXPECT_EQ(open().artifact(outside.identity), outside);

    store.add(inside);
    EXPECT_THAT(listedURLs(), ElementsAre(inside.url.text()));
    EXPECT_TRUE(store.contains(outside.identity));
}

TEST_F(LoopStoreTests, WhatAPersistentAddListedOutsideTheFolderIsKeptAsideOnceWhenItIsLeftOut) {
    auto store = open();
    const auto outside = artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF")));
    const auto inside = piece("sprint");
    store.addPersistent(outside);

    for (int turn = 0; turn < 3; ++turn) {
        store.add(inside);
        store.addPersistent(inside);
    }

    ASSERT_THAT(namesBeginning("manifest.before-"), SizeIs(1));
    const auto copy = home.content("Loops/" + namesBeginning("manifest.before-").front());
    EXPECT_EQ(decodeJSON<LoopArtifact>(copy.substr(1, copy.rfind(']') - 1)), outside);
}

TEST_F(LoopStoreTests, FolderWhoseNameExtendsTheStoresIsOutside) {
    auto store = open();
    store.add(artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Loops-old/a.wav", "RIFF"))));

    EXPECT_EQ(manifestText(), "[]");
}

TEST_F(LoopStoreTests, RelativeFolderIsMadeAbsoluteOnce) {
    const auto store =
        LoopStore(std::filesystem::relative(home.path()) / "x" / ".." / "Loops/", ResourceBundle(home.path() / "App"));

    EXPECT_EQ(store.directory(), folder);
}

TEST_F(LoopStoreTests, SharedStoreOfTheHarnessLivesAmongTheTemporaryFiles) {
    const auto& store = LoopStore::shared();

    EXPECT_EQ(store->directory(), UserFolders::temporary() / ("quillmere-loops-" + std::to_string(getpid())));
    EXPECT_EQ(store, LoopStore::shared());
}

TEST_F(LoopStoreTests, DefaultFolderLiesInTheApplicationsData) {
    const LoopStore store(std::nullopt, ResourceBundle(home.path() / "App"));

    EXPECT_EQ(store.directory(), *UserFolders::applicationData() / "Loops");
}

// MARK: failing saves

TEST_F(LoopStoreTests, FailedSaveOfAddIsKeptAsLastSaveErrorUntilOneSucceeds) {
    auto store = open();
    std::filesystem::create_directories(folder / "manifest.json" / "in the way");

    const auto rain = piece("deepcode");
    store.add(rain);
    EXPECT_TRUE(store.contains(rain.identity));
    ASSERT_TRUE(store.lastSaveError());
    EXPECT_THAT(*store.lastSaveError(), HasSubstr("manifest.json"));

    std::filesystem::remove_all(folder / "manifest.json");
    store.add(piece("sprint"));
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_EQ(listedURLs().size(), 2U);
}

TEST_F(LoopStoreTests, FailedPersistentAddThrowsAndKeepsThePieceInMemory) {
    auto store = open();
    std::filesystem::create_directories(folder / "manifest.json" / "in the way");
    const auto rain = piece("deepcode");

    EXPECT_THROW(store.addPersistent(rain), FileError);

    EXPECT_TRUE(store.contains(rain.identity));
    EXPECT_TRUE(store.lastSaveError());
}

TEST_F(LoopStoreTests, FolderThatCannotBeMadeLeavesAnEmptyStoreWhoseSavesFail) {
    home.putFile("Loops", "a file where the folder should be");
    auto store = open();
    EXPECT_EQ(store.count(), 0U);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);

    const auto rain = artifactAt(identity("deepcode"), FileURL::fromPath(folder / "a.wav"));
    EXPECT_THROW(store.addPersistent(rain), FileError);
    EXPECT_TRUE(store.contains(rain.identity));

    std::filesystem::remove(folder);
    store.addPersistent(rain);
    EXPECT_EQ(listedURLs().size(), 1U);
}

TEST_F(LoopStoreTests, FolderTakenAwayAndPutBackIsSavedToAgain) {
    auto store = open();
    const auto rain = piece("deepcode");
    std::filesystem::remove_all(folder);
    home.putFile("Loops", "a file where the folder should be");
    store.add(rain);
    ASSERT_TRUE(store.lastSaveError());

    std::filesystem::remove(folder);
    store.addPersistent(rain);

    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_THAT(listedURLs(), ElementsAre(rain.url.text()));
}

TEST_F(LoopStoreTests, PieceThatCannotBeEncodedIsLeftOutAndNamedAndStopsNoOther) {
    auto store = open();
    auto infinite = piece("deepcode");
    infinite.seconds = std::numeric_limits<double>::infinity();
    auto notUTF8 = piece("sprint");
    notUTF8.engineBuild = "\xff";
    const auto good = piece("winddown");

    store.add(infinite);
    store.add(notUTF8);
    store.add(good);

    EXPECT_EQ(store.count(), 3U);
    EXPECT_THAT(listedURLs(), ElementsAre(good.url.text()));
    ASSERT_TRUE(store.lastSaveError());
    EXPECT_THAT(*store.lastSaveError(), HasSubstr(infinite.identity.filename()));
    EXPECT_THAT(*store.lastSaveError(), HasSubstr(notUTF8.identity.filename()));
    EXPECT_THAT(*store.lastSaveError(), testing::Not(HasSubstr(good.identity.filename())));

    store.addPersistent(good);
    EXPECT_THAT(listedURLs(), ElementsAre(good.url.text()));

    infinite.seconds = 1;
    notUTF8.engineBuild = "x";
    store.add(infinite);
    store.add(notUTF8);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_EQ(listedURLs().size(), 3U);
}

TEST_F(LoopStoreTests, PersistentAddOfAPieceThatCannotBeEncodedThrowsAndSavesTheOthers) {
    auto store = open();
    const auto good = piece("winddown");
    std::filesystem::create_directories(folder / "manifest.json");
    store.add(good);
    std::filesystem::remove_all(folder / "manifest.json");
    auto bad = piece("deepcode");
    bad.leadIn = std::numeric_limits<double>::quiet_NaN();

    EXPECT_THROW(store.addPersistent(bad), EncodingError);

    EXPECT_TRUE(store.contains(bad.identity));
    EXPECT_TRUE(store.lastSaveError());
    EXPECT_THAT(listedURLs(), ElementsAre(good.url.text()));
}

// MARK: seeds

/// As long as it lives no file can be written beyond a size.
class FullDisk {
public:
    explicit FullDisk(rlim_t size) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &old_);
        const rlimit lowered{size, old_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &old_); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit old_{};
};

struct LoopStoreSeedTests : test::LoopStoreFixture {
    [[nodiscard]] static nlohmann::ordered_json seed(const LoopIdentity& identity, std::string_view file) {
        return {{"file", file},
                {"identity", nlohmann::ordered_json::parse(encodeJSON(identity, JSONWriter::Form::compact))},
                {"seconds", 30}};
    }
    void ship(const std::vector<nlohmann::ordered_json>& seeds, std::string_view place = "App/Loops/") const {
        home.putFile(std::string(place) + "seeds.json", nlohmann::ordered_json(seeds).dump());
    }
    void shipAudio(std::string_view file, std::string_view content = "shipped") const {
        home.putFile("App/Loops/" + std::string(file) + ".m4a", content);
    }
};

TEST_F(LoopStoreSeedTests, SeedIsCopiedUnderItsFileNameAndSaved) {
    const auto id = identity("deepcode");
    auto entry = seed(id, "one");
    entry["seamDB"] = -40;
    entry["quality"] = {{"brightness", 0.5}, {"makeupDB", 1}};
    entry["leadIn"] = 0.5;
    ship({entry});
    shipAudio("one");

    const auto store = open();

    auto expected = artifactAt(id, FileURL::fromPath(folder / (id.filename() + ".m4a")));
    expected.seconds = 30;
    expected.seamDB = -40;
    expected.quality = LoopQuality{.brightness = 0.5, .makeupDB = 1, .loudness = std::nullopt};
    expected.leadIn = 0.5;
    EXPECT_EQ(store.artifact(id), expected);
    EXPECT_EQ(home.content("Loops/" + id.filename() + ".m4a"), "shipped");
    EXPECT_THAT(listedURLs(), ElementsAre(expected.url.text()));
}

TEST_F(LoopStoreSeedTests, ListAndAudioAreAlsoFoundAtTheTopOfTheResources) {
    const auto id = identity("deepcode");
    ship({seed(id, "one")}, "App/");
    home.putFile("App/one.m4a", "top");

    EXPECT_TRUE(open().contains(id));
}

TEST_F(LoopStoreSeedTests, LoopsFolderOfTheResourcesGoesBeforeTheirTop) {
    const auto id = identity("deepcode");
    ship({seed(id, "one")});
    ship({}, "App/");
    shipAudio("one");
    home.putFile("App/one.m4a", "top");

    open();

    EXPECT_EQ(home.content("Loops/" + id.filename() + ".m4a"), "shipped");
}

TEST_F(LoopStoreSeedTests, FileThatIsAlreadyThereIsNotCopiedOver) {
    const auto id = identity("deepcode");
    ship({seed(id, "one")});
    shipAudio("one");
    home.putFile("Loops/" + id.filename() + ".m4a", "mine");

    const auto store = open();

    EXPECT_TRUE(store.contains(id));
    EXPECT_EQ(home.content("Loops/" + id.filename() + ".m4a"), "mine");
}

TEST_F(LoopStoreSeedTests, StoredPieceIsNeitherCopiedNorRefreshedButStillReplaces) {
    const auto stored = piece("deepcode");
    const auto old = piece("deepcode", 2, 99);
    writeManifest({stored, old});
    auto entry = seed(stored.identity, "one");
    entry["replaces"] = {old.id()};
    ship({entry});
    shipAudio("one");

    const auto store = open();

    EXPECT_EQ(store.artifact(stored.identity), stored);
    EXPECT_FALSE(std::filesystem::exists(folder / (stored.identity.filename() + ".m4a")));
    EXPECT_FALSE(store.contains(old.identity));
    EXPECT_TRUE(std::filesystem::exists(old.url.path())) << "only the entry goes";
    EXPECT_THAT(listedURLs(), ElementsAre(stored.url.text()));
}

TEST_F(LoopStoreSeedTests, SeedThatReplacesItselfStays) {
    const auto id = identity("deepcode");
    auto entry = seed(id, "one");
    entry["replaces"] = {id.fingerprint(), "no fingerprint", ""};
    ship({entry});
    shipAudio("one");

    EXPECT_TRUE(open().contains(id));
}

TEST_F(LoopStoreSeedTests, SeedWithoutAudioIsSkippedWithWhatItReplaces) {
    const auto old = piece("deepcode", 2, 99);
    writeManifest({old});
    auto missing = seed(identity("deepcode"), "missing");
    missing["replaces"] = {old.id()};
    const auto other = identity("sprint");
    ship({missing, seed(other, "one")});
    shipAudio("one");

    const auto store = open();

    EXPECT_TRUE(store.contains(old.identity));
    EXPECT_FALSE(store.contains(identity("deepcode")));
    EXPECT_TRUE(store.contains(other));
}

TEST_F(LoopStoreSeedTests, UnchangedLibraryIsNotWrittenAgain) {
    const auto stored = piece("deepcode");
    writeManifest({stored});
    ship({seed(stored.identity, "one")});
    shipAudio("one");
    const auto before = std::filesystem::last_write_time(folder / "manifest.json") - std::chrono::hours(1);
    std::filesystem::last_write_time(folder / "manifest.json", before);

    open();

    EXPECT_EQ(std::filesystem::last_write_time(folder / "manifest.json"), before);
}

TEST_F(LoopStoreSeedTests, ManifestThatSeedsReplaceIsToldToHaveBeenUnreadable) {
    writeManifest(std::string("[{\"identity\":"));
    ship({seed(identity("deepcode"), "one")});
    shipAudio("one");
    {
        const auto store = open();
        EXPECT_EQ(store.count(), 1U);
        EXPECT_TRUE(store.manifestProblem());
    }

    EXPECT_EQ(open().manifestProblem(), std::nullopt) << "the new one can be read";
}

TEST_F(LoopStoreSeedTests, SeedThatCannotBeCopiedIsToldAndBroughtInWhenItCan) {
    const auto small = identity("deepcode");
    const auto large = identity("sprint");
    ship({seed(large, "large"), seed(small, "small")});
    shipAudio("large", std::string(100'000, 'x'));
    shipAudio("small");
    {
        const FullDisk disk(50'000);
        auto store = open();
        EXPECT_THAT(listedURLs(), SizeIs(1)) << "the others are saved";
        EXPECT_TRUE(store.contains(small));
        ASSERT_TRUE(store.lastSaveError());
        EXPECT_THAT(*store.lastSaveError(), HasSubstr(large.filename()));

        store.add(piece("winddown"));
        EXPECT_EQ(store.lastSaveError(), std::nullopt) << "a save has succeeded since";
    }

    const auto store = open();

    EXPECT_TRUE(store.contains(large));
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreSeedTests, SeedsThatCannotBeBroughtInSilentlyStaySo) {
    const auto blocked = identity("sprint");
    std::filesystem::create_directories(folder / (blocked.filename() + ".m4a"));
    std::filesystem::create_directories(home.path() / "App/Loops/folder.m4a");
    shipAudio("one");
    ship({seed(identity("deepcode"), "missing"), seed(identity("winddown"), "folder"), seed(blocked, "one")});

    const auto store = open();

    EXPECT_EQ(store.count(), 0U);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreSeedTests, DamagedListImportsNothing) {
    shipAudio("one");
    for (const auto* text : {"", "{", "{}", "[{}]", "[{\"file\":\"one\"}]", "null", "[1]"}) {
        SCOPED_TRACE(text);
        home.putFile("App/Loops/seeds.json", text);
        EXPECT_EQ(open().count(), 0U);
    }
    auto entry = seed(identity("deepcode"), "one");
    entry["replaces"] = "not a list";
    ship({seed(identity("sprint"), "one"), entry});
    EXPECT_EQ(open().count(), 0U);
}

TEST_F(LoopStoreSeedTests, MoodThatCannotBePartOfAFileNameIsRefused) {
    shipAudio("one");
    home.putFile("victim.txt", "precious");
    std::filesystem::create_directories(folder / "sub");
    ship({seed(identity("../victim"), "one"), seed(identity("sub/x"), "one"), seed(identity("/tmp/x"), "one"),
          seed(identity(std::string("a\0b", 3)), "one"), seed(identity("."), "one"), seed(identity(".."), "one"),
          seed(identity(std::string(300, 'x')), "one"), seed(identity("good"), "one")});

    const auto store = open();

    EXPECT_EQ(store.count(), 1U);
    EXPECT_TRUE(store.contains(identity("good")));
    EXPECT_THAT(home.names(), ElementsAre("App", "Loops", "victim.txt"));
    EXPECT_TRUE(std::filesystem::is_empty(folder / "sub"));
}

TEST_F(LoopStoreSeedTests, WhateverStandsAtTheTargetIsLeftAlone) {
    shipAudio("one");
    const auto blocked = identity("deepcode");
    const auto linked = identity("sprint");
    std::filesystem::create_directories(folder / (blocked.filename() + ".m4a") / "precious");
    std::filesystem::create_symlink(home.path() / "nowhere", folder / (linked.filename() + ".m4a"));
    ship({seed(blocked, "one"), seed(linked, "one")});

    EXPECT_EQ(open().count(), 0U);
    EXPECT_TRUE(std::filesystem::exists(folder / (blocked.filename() + ".m4a") / "precious"));
    EXPECT_FALSE(std::filesystem::exists(home.path() / "nowhere"));
}

TEST_F(LoopStoreSeedTests, FingerprintsOfSeedsAreToldWithAllTheirDigits) {
    auto id = identity("deepcode");
    while (!id.fingerprint().starts_with('0')) ++id.seed;
    ship({seed(id, "one")});
    shipAudio("one");

    EXPECT_EQ(open().bundledFingerprints(), std::set{id.fingerprint()});
}

TEST_F(LoopStoreSeedTests, EveryStoreOnAFolderBringsItsOwnSeeds) {
    const auto first = open();
    const auto id = identity("deepcode");
    ship({seed(id, "one")});
    shipAudio("one");

    const auto second = open();

    EXPECT_TRUE(first.contains(id));
    EXPECT_TRUE(second.contains(id));
}

// MARK: discardUnstored

struct LoopStoreDiscardTests : test::LoopStoreFixture {
    FileURL stray(std::string_view name) const {
        return FileURL::fromPath(home.putFile("Loops/" + std::string(name), "RIFF"));
    }
};

TEST_F(LoopStoreDiscardTests, StrayFileIsDiscarded) {
    auto store = open();
    const auto url = stray("cancelled.wav");

    EXPECT_TRUE(store.discardUnstored(url));
    EXPECT_THAT(discarded, ElementsAre(url));
    EXPECT_FALSE(store.discardUnstored(url)) << "nothing is left to remove";
}

TEST_F(LoopStoreDiscardTests, AFileThatNoPieceUsesIsMovedAsideAndKept) {
    auto store = open();
    const auto url = stray("rain.wav");

    EXPECT_TRUE(store.moveUnstoredAside(url));

    EXPECT_FALSE(std::filesystem::exists(url.path()));
    std::vector<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().filename().native().starts_with("rain.unlisted-")) kept.push_back(entry.path().filename());
    }
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_TRUE(kept[0].ends_with(".wav"));
    EXPECT_EQ(home.content("Loops/" + kept[0]), "RIFF");
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_FALSE(store.moveUnstoredAside(url)) << "nothing is left to move";
}

TEST_F(LoopStoreDiscardTests, WhatIsNotDiscardedIsNotMovedAsideEither) {
    auto store = open();
    const auto rain = piece("deepcode");
    store.add(rain);
    const auto outside = home.putFile("outside.wav", "RIFF");
    std::filesystem::create_symlink(outside, folder / "link.wav");

    for (const auto& file : {rain.url.path(), outside, folder / "link.wav", folder / "manifest.json"}) {
        SCOPED_TRACE(file);
        EXPECT_FALSE(store.moveUnstoredAside(FileURL::fromPath(file)));
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(file)));
    }
}

TEST_F(LoopStoreDiscardTests, AnswersWhatDiscardAnswers) {
    auto store = open();
    discards = false;

    EXPECT_FALSE(store.discardUnstored(stray("cancelled.wav")));
    EXPECT_EQ(discarded.size(), 1U);
}

TEST_F(LoopStoreDiscardTests, ThrowingDiscardCountsAsNotRemoved) {
    LoopStore store(folder, ResourceBundle(home.path() / "App"),
                    [](const FileURL&) -> bool { throw std::runtime_error("no trash today"); });

    EXPECT_FALSE(store.discardUnstored(stray("cancelled.wav")));
}

TEST_F(LoopStoreDiscardTests, ADiscardThatThrowsWhatIsNoExceptionCountsAsNotRemoved) {
    const auto stray = home.putFile("Loops/Render-1/stray.wav", "RIFF");
    const auto kept = piece("kept");
    writeManifest(std::vector{kept});
    LoopStore store(folder, ResourceBundle(home.path() / "App"), [](const FileURL&) -> bool { throw 42; });

    EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(stray)));
    EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), testing::IsEmpty());

    EXPECT_TRUE(std::filesystem::exists(stray));
    EXPECT_EQ(store.artifact(kept.identity), kept);
}

TEST_F(LoopStoreDiscardTests, FileOfAPieceIsRefusedHoweverItIsSpelled) {
    auto store = open();
    const auto rain = piece("deepcode");
    store.add(rain);
    const auto name = rain.url.path().filename().native();
    std::filesystem::create_directory(folder / "sub");

    std::string escaped;
    for (const char character : name) {
        constexpr auto digits = "0123456789abcdef";
        const auto c = static_cast<unsigned char>(character);
        escaped += {'%', digits[c >> 4], digits[c & 15]};
    }
    const auto base = "file://" + folder.native() + "/";
    for (const auto& text : {rain.url.text(), base + escaped, base + "./" + name, base + "sub/../" + name,
                             base + "/" + name, "FILE://localhost" + folder.native() + "/" + name}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(store.discardUnstored(*FileURL::fromText(text)));
    }
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(rain.url.path()));
}

TEST_F(LoopStoreDiscardTests, FileThatAPieceUsesThroughALinkIsRefused) {
    auto store = open();
    const auto real = stray("real.wav");
    std::filesystem::create_symlink("real.wav", folder / "link.wav");
    std::filesystem::create_directory(folder / "sub");
    std::filesystem::create_directory_symlink("sub", folder / "linked");
    const auto deep = stray("sub/deep.wav");
    store.add(artifactAt(identity("deepcode"), FileURL::fromPath(folder / "link.wav")));
    store.add(artifactAt(identity("sprint"), FileURL::fromPath(folder / "linked" / "deep.wav")));

    EXPECT_FALSE(store.discardUnstored(real));
    EXPECT_FALSE(store.discardUnstored(deep));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreDiscardTests, FolderItselfItsParentAndItsNeighboursAreRefused) {
    auto store = open();
    const auto sibling = home.putFile("Loops-old/a.wav", "precious");
    const auto above = home.putFile("a.wav", "precious");
    std::filesystem::create_directory(folder / "sub");

    for (const auto& path : {folder, folder / "", folder / ".", folder / "..", sibling, above, folder / "../a.wav",
                             folder / "sub" / "..", folder / "sub"}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(path)));
    }
    const auto base = "file://" + folder.native();
    for (const auto& text :
         {base + "/%2e%2e/a.wav", base + "/..%2Fa.wav", base + "%2F..%2fa.wav", base + "/sub/%2E%2E/../a.wav",
          base + "/x.wav%00", "http://host" + folder.native() + "/a.wav", std::string("a.wav"),
          std::string("file:a.wav"), base + "-old/a.wav"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(store.discardUnstored(*FileURL::fromText(text)));
    }
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(sibling));
    EXPECT_TRUE(std::filesystem::exists(above));
}

TEST_F(LoopStoreDiscardTests, LinksAndWhatLiesBehindThemAreRefused) {
    auto store = open();
    const auto outside = home.putFile("Elsewhere/a.wav", "precious");
    std::filesystem::create_symlink(outside, folder / "link.wav");
    std::filesystem::create_directory_symlink(outside.parent_path(), folder / "linked");
    std::filesystem::create_directory_symlink(outside.parent_path(), folder / "Render-linked");

    EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(folder / "link.wav")));
    EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(folder / "linked" / "a.wav")));
    EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(folder / "Render-linked" / "a.wav")));
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(outside));
}

TEST_F(LoopStoreDiscardTests, StoresOwnRecordsAreRefused) {
    auto store = open();
    store.add(piece("deepcode"));
    const auto copy = stray("manifest.before-2024-05-01T10-20-30Z.json");

    EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(folder / "manifest.json")));
    EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(folder / ".lock")));
    EXPECT_FALSE(store.discardUnstored(copy));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreDiscardTests, LastFileOfAWorkingFolderTakesTheFolderWithIt) {
    auto store = open();
    const auto first = stray("Render-1/a.wav");
    const auto second = stray("Render-1/b.wav");

    EXPECT_TRUE(store.discardUnstored(first));
    EXPECT_TRUE(std::filesystem::exists(folder / "Render-1"));

    EXPECT_TRUE(store.discardUnstored(second));
    EXPECT_FALSE(std::filesystem::exists(folder / "Render-1"));
    EXPECT_THAT(discarded, ElementsAre(first, second, FileURL::fromPath(folder / "Render-1")));
}

TEST_F(LoopStoreDiscardTests, EmptyWorkingFolderGoesEvenIfItsFileIsGoneAlready) {
    auto store = open();
    std::filesystem::create_directory(folder / "Render-1");

    EXPECT_TRUE(store.discardUnstored(FileURL::fromPath(folder / "Render-1" / "a.wav")));
    EXPECT_FALSE(std::filesystem::exists(folder / "Render-1"));
}

TEST_F(LoopStoreDiscardTests, WorkingFoldersDeeperDownAndOtherFoldersStay) {
    auto store = open();

    EXPECT_TRUE(store.discardUnstored(stray("sub/Render-1/a.wav")));
    EXPECT_TRUE(store.discardUnstored(stray("Rendered/a.wav")));
    EXPECT_TRUE(store.discardUnstored(stray("render-1/a.wav")));

    EXPECT_TRUE(std::filesystem::exists(folder / "sub" / "Render-1"));
    EXPECT_TRUE(std::filesystem::exists(folder / "Rendered"));
    EXPECT_TRUE(std::filesystem::exists(folder / "render-1"));
}

TEST_F(LoopStoreDiscardTests, WorkingFolderWithNothingButAFreeLockFileCountsAsEmpty) {
    auto store = open();
    const auto url = stray("Render-1/a.wav");
    home.putFile("Loops/Render-1/.lock", "");

    EXPECT_TRUE(store.discardUnstored(url));
    EXPECT_FALSE(std::filesystem::exists(folder / "Render-1"));
}

TEST_F(LoopStoreDiscardTests, WorkingFolderThatSomebodyHoldsStays) {
    auto store = open();
    const auto url = stray("Render-1/a.wav");
    const test::OtherProcess renderer(folder / "Render-1" / ".lock");

    EXPECT_TRUE(store.discardUnstored(url));
    EXPECT_TRUE(std::filesystem::exists(folder / "Render-1" / ".lock"));
}

}  // namespace
}  // namespace quillmere
