#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <nlohmann/json.hpp>
#include <thread>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"

namespace quillmere {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// Names of working folders, as renderers give them.
const std::string firstWork = "Render-01234567-89AB-4DEF-8123-456789ABCDE1";
const std::string secondWork = "Render-01234567-89AB-4DEF-8123-456789ABCDE2";

struct LoopStoreSafetyTests : test::LoopStoreFixture {};

// MARK: manifests that cannot be read

TEST_F(LoopStoreSafetyTests, UnreadableManifestLoadsNothingAndIsKeptAsideBeforeTheFirstSave) {
    const auto good = encodeJSON(piece("deepcode"), JSONWriter::Form::compact);
    const std::string deep(100'000, '[');
    const std::string texts[] = {
        "",
        "{}",
        "null",
        "garbage",
        "[" + good,
        "[" + good + "] more",
        "[" + good + ",{}]",
        "[" + good + ",null]",
        "[" + good + ",{\"identity\":1,\"url\":\"file:///x\",\"seconds\":1}]",
        "[\"\xff\"]",
        "[\"\\ud800\"]",
        std::string("[]\0", 3),
        deep,
    };
    for (const auto& text : texts) {
        SCOPED_TRACE(text.substr(0, 300));
        std::filesystem::remove_all(folder);
        writeManifest(text);
        auto store = open();
        EXPECT_EQ(store.count(), 0U);
        EXPECT_TRUE(store.manifestProblem());
        EXPECT_EQ(manifestText(), text);
        EXPECT_THAT(namesBeginning("manifest"), SizeIs(1));

        store.add(piece("sprint"));
        EXPECT_EQ(store.lastSaveError(), std::nullopt);
        const auto kept = namesBeginning("manifest.unreadable-");
        ASSERT_THAT(kept, SizeIs(1));
        EXPECT_EQ(home.content("Loops/" + kept.front()), text);
        EXPECT_THAT(listedURLs(), SizeIs(1));

        store.add(piece("sprint", 1));
        EXPECT_THAT(namesBeginning("manifest.unreadable-"), SizeIs(1)) << "kept once";
    }
}

TEST_F(LoopStoreSafetyTests, WhatWasAddedBesideAnUnreadManifestStaysInMemoryWhenMoreIsAdded) {
    writeManifest("");
    std::filesystem::resize_file(folder / "manifest.json", (std::uintmax_t{1} << 30) + 1);  // too large to be read
    auto store = open();
    auto unwritable = piece("deepcode");
    unwritable.identity.moodID = "\xff";
    const auto later = piece("sprint");

    store.add(unwritable);
    ASSERT_NE(store.lastSaveError(), std::nullopt);
    store.add(later);

    EXPECT_TRUE(store.contains(unwritable.identity));
    EXPECT_TRUE(store.contains(later.identity));
    EXPECT_NE(store.lastSaveError(), std::nullopt) << "the first is still not saved";
    EXPECT_THAT(listedURLs(), ElementsAre(later.url.text()));
}

TEST_F(LoopStoreSafetyTests, ManifestThatCannotBeKeptAsideIsNotReplaced) {
    std::filesystem::create_directories(folder / "manifest.json" / "precious");
    auto store = open();

    EXPECT_THROW(store.addPersistent(piece("deepcode")), FileError);
    EXPECT_TRUE(std::filesystem::exists(folder / "manifest.json" / "precious"));

    std::filesystem::remove_all(folder / "manifest.json");
    store.addPersistent(piece("sprint"));
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSafetyTests, ManifestThatIsADeviceOrAFifoOrALinkIsNeitherOpenedNorReplaced) {
    const auto target = home.putFile("elsewhere.json", "[]");
    std::filesystem::create_directory(folder);
    const auto manifest = folder / "manifest.json";
    const std::function<void()> makers[] = {
        [&] { ASSERT_EQ(mkfifo(manifest.c_str(), 0600), 0); },
        [&] { std::filesystem::create_symlink("/dev/zero", manifest); },
        [&] { std::filesystem::create_symlink(target, manifest); },
        [&] { std::filesystem::create_symlink("manifest.json", manifest); },
    };
    for (std::size_t index = 0; index < std::size(makers); ++index) {
        SCOPED_TRACE(index);
        makers[index]();
        auto store = open();
        EXPECT_EQ(store.count(), 0U);
        EXPECT_THROW(store.addPersistent(piece("deepcode")), FileError);
        EXPECT_FALSE(std::filesystem::is_regular_file(std::filesystem::symlink_status(manifest)));
        std::filesystem::remove(manifest);
    }
    EXPECT_EQ(home.content("elsewhere.json"), "[]");
}

TEST_F(LoopStoreSafetyTests, DroppedEntryKeepsTheManifestAsFoundOnce) {
    const auto gone = piece("deepcode");
    const auto there = piece("sprint");
    writeManifest({gone, there});
    const auto before = manifestText();
    std::filesystem::remove(gone.url.path());
    auto store = open();
    EXPECT_THAT(namesBeginning("manifest."), ElementsAre("manifest.json")) << "nothing is replaced yet";

    store.add(there);
    store.add(there);

    const auto kept = namesBeginning("manifest.before-");
    ASSERT_THAT(kept, SizeIs(1));
    EXPECT_EQ(home.content("Loops/" + kept.front()), before);
}

TEST_F(LoopStoreSafetyTests, EntryThatTheOrdinarySaveLeavesOutKeepsTheManifestAsFound) {
    open().addPersistent(artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF"))));
    const auto before = manifestText();

    open().add(piece("sprint"));

    const auto kept = namesBeginning("manifest.before-");
    ASSERT_THAT(kept, SizeIs(1));
    EXPECT_EQ(home.content("Loops/" + kept.front()), before);
}

TEST_F(LoopStoreSafetyTests, EntryElsewhereCostsNoCopyAsLongAsItStaysListed) {
    const auto elsewhere = artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF")));
    const auto gone = piece("winddown");
    writeManifest({elsewhere, gone});
    const auto before = manifestText();
    std::filesystem::remove(gone.url.path());

    for (std::int64_t seed = 0; seed < 5; ++seed) open().addPersistent(piece("sprint", 2, seed));

    const auto kept = namesBeginning("manifest.before-");
    ASSERT_THAT(kept, SizeIs(1)) << "only the first save lost an entry";
    EXPECT_EQ(home.content("Loops/" + kept.front()), before) << "and its copy has not made room for others";
    EXPECT_EQ(open().count(), 6U);
}

TEST_F(LoopStoreSafetyTests, EntryElsewhereIsKeptAsideByTheSaveThatLeavesItOut) {
    const auto elsewhere = artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF")));
    writeManifest({elsewhere});
    auto store = open();
    store.addPersistent(piece("sprint"));
    EXPECT_THAT(namesBeginning("manifest.before-"), IsEmpty());
    const auto before = manifestText();

    store.add(piece("winddown"));
    store.add(piece("winddown", 3));

    const auto kept = namesBeginning("manifest.before-");
    ASSERT_THAT(kept, SizeIs(1));
    EXPECT_EQ(home.content("Loops/" + kept.front()), before);
    EXPECT_TRUE(store.contains(elsewhere.identity));
}

TEST_F(LoopStoreSafetyTests, ManifestThatSomebodyChangedMeanwhileIsKeptAside) {
    auto store = open();
    store.add(piece("deepcode"));
    writeManifest("a person's own edit");

    store.add(piece("sprint"));

    const auto kept = namesBeginning("manifest.before-");
    ASSERT_THAT(kept, SizeIs(1));
    EXPECT_EQ(home.content("Loops/" + kept.front()), "a person's own edit");
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSafetyTests, PieceWhoseAudioCannotBeMadeSafeStopsNoOther) {
    const auto unsafe = artifactAt(identity("deepcode"), FileURL::fromPath(folder / std::string(300, 'x')));
    const auto first = piece("sprint");
    const auto second = piece("winddown");
    const auto third = piece("recovery");
    {
        auto store = open();
        store.add(unsafe);
        EXPECT_NE(store.lastSaveError(), std::nullopt);
        EXPECT_THROW(store.addPersistent(unsafe), FileError);
        store.add(first);
        EXPECT_THAT(store.lastSaveError().value_or(""), HasSubstr("xxx")) << "of the one that is not saved";
        store.addPersistent(second);
        store.add({unsafe, third});
        EXPECT_TRUE(store.setLoudness({.integratedLUFS = -18.0, .peak = 1, .seconds = 1}, first));
        EXPECT_EQ(store.prune({unsafe.id(), first.id(), third.id()}), 1);
        EXPECT_THAT(store.lastSaveError().value_or(""), HasSubstr("xxx"));
        EXPECT_TRUE(store.contains(unsafe.identity));
    }
    const auto store = open();
    EXPECT_EQ(store.count(), 2U);
    EXPECT_TRUE(store.contains(first.identity));
    EXPECT_TRUE(store.contains(third.identity));
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreSafetyTests, PieceStaysListedAsItWasWhereItsNewAudioCannotBeMadeSafe) {
    const auto listed = piece("deepcode");
    writeManifest(std::vector{listed});
    auto store = open();
    store.add(listed.withURL(FileURL::fromPath(folder / std::string(300, 'x'))));
    store.add(piece("sprint"));
    EXPECT_NE(store.lastSaveError(), std::nullopt);
    EXPECT_THAT(listedURLs(), testing::UnorderedElementsAre(listed.url.text(), piece("sprint").url.text()));
}

TEST_F(LoopStoreSafetyTests, OrdinaryUseKeepsNoCopies) {
    {
        auto store = open();
        for (std::int64_t seed = 0; seed < 5; ++seed) store.add(piece("deepcode", 2, seed));
        store.addPersistent(piece("sprint"));
    }
    auto store = open();
    store.add(piece("winddown"));

    EXPECT_EQ(store.count(), 7U);
    EXPECT_THAT(namesBeginning("manifest"), ElementsAre("manifest.json"));
}

TEST_F(LoopStoreSafetyTests, OfTheKeptCopiesTheNewestThreeStay) {
    for (int round = 0; round < 5; ++round) {
        writeManifest("damage " + std::to_string(round));
        open().add(piece("deepcode"));
    }

    std::vector<std::string> kept;
    for (const auto& name : namesBeginning("manifest.unreadable-")) kept.push_back(home.content("Loops/" + name));
    EXPECT_THAT(kept, UnorderedElementsAre("damage 2", "damage 3", "damage 4"));
}

// MARK: entries that point where they should not

struct LoopStoreHostileTests : test::LoopStoreFixture {
    std::filesystem::path sentinel = home.putFile("Elsewhere/sentinel.wav", "precious");

    [[nodiscard]] static FileURL url(const std::string& text) { return *FileURL::fromText(text); }

    // Everything that removes or moves, on a library whose manifest is this.
    void removeAllThatCanBe(const std::vector<LoopArtifact>& manifest) {
        writeManifest(manifest);
        auto store = open();
        for (const auto& artifact : manifest) store.discardUnstored(artifact.url);
        store.trash([](const LoopArtifact&) { return true; });
        store.prune({});
        store.add(piece("winddown"));
    }
};

TEST_F(LoopStoreHostileTests, NothingOutsideIsTouchedWhateverItsURLLooksLike) {
    const auto prefixed = home.putFile("Loops-old/sentinel.wav", "precious");
    std::filesystem::create_directories(folder / "sub");
    std::filesystem::create_directory_symlink(home.path() / "Elsewhere", folder / "linked");
    std::filesystem::create_directory_symlink(home.path() / "Elsewhere", folder / "Render-linked");
    std::filesystem::create_symlink(sentinel, folder / "link.wav");
    const auto base = "file://" + folder.native();
    const std::string texts[] = {
        "file://" + sentinel.native(),
        base + "/../Elsewhere/sentinel.wav",
        base + "/%2E%2E/Elsewhere/sentinel.wav",
        base + "/..%2FElsewhere%2fsentinel.wav",
        base + "/sub/../../Elsewhere/sentinel.wav",
        base + "/sub/%2e%2e/%2e%2e/Elsewhere/sentinel.wav",
        base + "%2F..%2FElsewhere/sentinel.wav",
        base + "-old/sentinel.wav",
        base + "/../Loops-old/sentinel.wav",
        base + "/link.wav",
        base + "/./link.wav",
        base + "/linked/sentinel.wav",
        base + "/linked/../../Elsewhere/sentinel.wav",
        base + "/Render-linked/sentinel.wav",
        "FILE://LOCALHOST" + sentinel.native(),
    };
    std::vector<LoopArtifact> manifest;
    std::int64_t seed = 0;
    for (const auto& text : texts) manifest.push_back(artifactAt(identity("deepcode", 2, ++seed), url(text)));

    removeAllThatCanBe(manifest);

    EXPECT_EQ(home.content("Elsewhere/sentinel.wav"), "precious");
    EXPECT_EQ(home.content("Loops-old/sentinel.wav"), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link.wav"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "linked"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "Render-linked"));
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(prefixed));
}

TEST_F(LoopStoreHostileTests, PiecesElsewhereAreLoadedAndPlayedButNotCountedInBytes) {
    std::filesystem::create_directories(folder);
    std::filesystem::create_symlink(sentinel, folder / "link.wav");
    const auto outside = artifactAt(identity("deepcode", 2, 1), FileURL::fromPath(sentinel));
    const auto linked = artifactAt(identity("deepcode", 2, 2), FileURL::fromPath(folder / "link.wav"));
    writeManifest({outside, linked});

    auto store = open();

    EXPECT_TRUE(store.contains(outside.identity));
    EXPECT_TRUE(store.contains(linked.identity));
    EXPECT_THAT(store.playbackPool("deepcode", std::nullopt, {}), SizeIs(2));
    EXPECT_EQ(store.bytesOnDisk(), 0);
    EXPECT_EQ(store.prune({}), 0);
    EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), IsEmpty());
    EXPECT_EQ(store.count(), 2U);
}

TEST_F(LoopStoreHostileTests, OnlyRegularFilesCountAsPieces) {
    std::filesystem::create_directories(folder / "folder.wav");
    ASSERT_EQ(mkfifo((folder / "fifo.wav").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", folder / "device.wav");
    std::filesystem::create_symlink("nowhere", folder / "dangling.wav");
    std::filesystem::create_symlink("loop.wav", folder / "loop.wav");
    home.putFile("Loops/file.wav", "RIFF");
    const auto base = "file://" + folder.native();
    const std::string texts[] = {base + "/folder.wav",
                                 base + "/fifo.wav",
                                 base + "/device.wav",
                                 base + "/dangling.wav",
                                 base + "/loop.wav",
                                 base,
                                 base + "/",
                                 "file:///dev/null",
                                 "file:///dev/zero",
                                 "file:///",
                                 "http://example.com" + folder.native() + "/file.wav",
                                 folder.native() + "/file.wav",
                                 "file.wav",
                                 base + "/file.wav%00.wav",
                                 base + "/file.wav/x",
                                 base + "/" + std::string(300, 'x'),
                                 base + "/fi%6Ce.wav"};
    std::vector<LoopArtifact> manifest;
    for (const auto& text : texts) {
        manifest.push_back(artifactAt(identity("deepcode", 2, std::ssize(manifest)), url(text)));
    }
    writeManifest(manifest);

    const auto store = open();

    EXPECT_EQ(store.count(), 1U);
    EXPECT_EQ(store.artifact(manifest.back().identity), manifest.back()) << "the text of the URL is kept";
}

TEST_F(LoopStoreHostileTests, EntriesThatNameTheUsersListsCostNothingWhereTheLibraryIsKeptBesideOrAroundThem) {
    const std::vector<std::string> lists = {"Moods.json",
                                            "saved.json",
                                            "settings.json",
                                            ".saved.lock",
                                            "Moods.unreadable-2024-05-01T10-20-30Z.json",
                                            "Quillmere/Moods.json",
                                            "Quillmere/saved.json",
                                            "Quillmere/.saved.lock"};
    std::vector<LoopArtifact> manifest;
    for (const auto& name : lists) {
        const auto file = home.putFile("Loops/" + name, "precious");
        manifest.push_back(artifactAt(identity("deepcode", 2, std::ssize(manifest)), FileURL::fromPath(file)));
    }

    removeAllThatCanBe(manifest);

    for (const auto& name : lists) EXPECT_EQ(home.content("Loops/" + name), "precious") << name;
    EXPECT_FALSE(open().discardUnstored(FileURL::fromPath(folder / "Moods.json")));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreHostileTests, EntriesThatNameTheStoresOwnRecordsCostNothing) {
    open();  // makes the folder and its lock file
    const auto copy = home.putFile("Loops/manifest.before-2024-05-01T10-20-30Z.json", "kept");
    home.putFile("Loops/digests.json", "digests");
    std::vector<LoopArtifact> manifest;
    for (const auto* name : {"manifest.json", ".lock", "manifest.before-2024-05-01T10-20-30Z.json", "digests.json"}) {
        manifest.push_back(artifactAt(identity("deepcode", 2, std::ssize(manifest)), FileURL::fromPath(folder / name)));
    }

    removeAllThatCanBe(manifest);

    EXPECT_EQ(home.content("Loops/manifest.before-2024-05-01T10-20-30Z.json"), "kept");
    EXPECT_EQ(home.content("Loops/digests.json"), "digests");
    EXPECT_TRUE(std::filesystem::exists(folder / "manifest.json"));
    EXPECT_TRUE(std::filesystem::exists(folder / ".lock"));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreHostileTests, FileThatARecordingUsesOutlivesTheLoopThatClaimsItToo) {
    const auto kept = piece(recording("deepcode"));
    const auto thief = artifactAt(identity("deepcode", 2, 5), kept.url);
    const auto escaped = artifactAt(identity("deepcode", 2, 6),
                                    url("file://" + folder.native() + "/./" + kept.url.path().filename().native()));
    writeManifest({kept, thief, escaped});
    auto store = open();
    ASSERT_EQ(store.count(), 3U);

    EXPECT_THAT(store.trash([](const LoopArtifact& artifact) { return !artifact.identity.isRecording(); }), IsEmpty());
    EXPECT_EQ(store.prune({}), 2);

    EXPECT_EQ(store.count(), 1U);
    EXPECT_TRUE(std::filesystem::exists(kept.url.path()));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreHostileTests, LinkPutInAFilesPlaceMeanwhileIsNotFollowed) {
    auto store = open();
    const auto first = piece("deepcode", 2, 1);
    const auto second = piece("deepcode", 2, 2);
    store.add(first);
    store.add(second);
    for (const auto& artifact : {first, second}) {
        std::filesystem::remove(artifact.url.path());
        std::filesystem::create_symlink(sentinel, artifact.url.path());
    }

    EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), IsEmpty());
    EXPECT_EQ(store.prune({}), 0);
    EXPECT_EQ(store.bytesOnDisk(), 0);

    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_EQ(home.content("Elsewhere/sentinel.wav"), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(first.url.path()));
}

TEST_F(LoopStoreHostileTests, FileIsLookedAtAgainWhenItsTurnComes) {
    std::vector<FileURL> asked;
    std::vector<LoopArtifact> pieces;
    LoopStore store(folder, ResourceBundle(home.path() / "App"), [&](const FileURL& gone) {
        asked.push_back(gone);
        for (const auto& artifact : pieces) {
            std::filesystem::remove(artifact.url.path());
            std::filesystem::create_symlink(sentinel, artifact.url.path());
        }
        return true;
    });
    pieces = {piece("deepcode", 2, 1), piece("deepcode", 2, 2)};
    for (const auto& artifact : pieces) store.add(artifact);

    EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), SizeIs(1));
    EXPECT_THAT(asked, SizeIs(1));
    EXPECT_EQ(store.count(), 1U);
}

// Two threads: one puts a link in a folder's place and the folder back, the other has the store remove what is in it.
TEST_F(LoopStoreHostileTests, FolderSwappedForALinkAllTheTimeLeadsNowhere) {
    const auto own = home.putFile("Loops/sub/sentinel.wav", "own");
    const int sub = ::open(own.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(sub, 0);
    std::filesystem::create_directory_symlink(sentinel.parent_path(), home.path() / "trap");
    auto store = open();
    std::atomic<bool> isOver = false;
    std::jthread swapper([&] {
        while (!isOver) {
            std::error_code ignored;
            std::filesystem::rename(folder / "sub", home.path() / "aside", ignored);
            std::filesystem::rename(home.path() / "trap", folder / "sub", ignored);
            std::filesystem::rename(folder / "sub", home.path() / "trap", ignored);
            std::filesystem::rename(home.path() / "aside", folder / "sub", ignored);
        }
    });

    const auto artifact = artifactAt(identity("deepcode"), FileURL::fromPath(own));
    for (int round = 0; round < 100; ++round) {
        const int file = ::openat(sub, "sentinel.wav", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(file, 0);
        ::close(file);
        store.add(artifact);
        static_cast<void>(store.bytesOnDisk());
        static_cast<void>(store.losslessMigrationCandidates());
        store.prune({});
    }
    isOver = true;
    swapper.join();
    ::close(sub);

    EXPECT_EQ(home.content("Elsewhere/sentinel.wav"), "precious");
}

// MARK: one writer at a time

struct LoopStoreSharingTests : test::LoopStoreFixture {
    LoopStoreSharingTests() { std::filesystem::create_directory(folder); }

    [[nodiscard]] LoopStore openForReading() const {
        return LoopStore(folder, ResourceBundle(home.path() / "App"), {}, LoopStore::Access::reading);
    }

    [[nodiscard]] static std::string seedText(const LoopIdentity& identity) {
        return R"({"file":"seed","seconds":1,"identity":)" + encodeJSON(identity, JSONWriter::Form::compact) + "}";
    }
};

TEST_F(LoopStoreSharingTests, LibraryHeldByAnotherProcessIsReadButNotWritten) {
    const auto stored = piece("deepcode");
    writeManifest({stored});
    const auto before = manifestText();
    const test::OtherProcess other(folder / ".lock");
    auto store = open();
    EXPECT_EQ(store.artifact(stored.identity), stored);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);

    const auto added = piece("sprint");
    store.add(added);
    EXPECT_TRUE(store.contains(added.identity));
    ASSERT_TRUE(store.lastSaveError());
    EXPECT_THAT(*store.lastSaveError(), HasSubstr(std::to_string(other.id())));
    try {
        store.addPersistent(added);
        ADD_FAILURE() << "saved into a library in use";
    } catch (const LibraryInUse& error) {
        EXPECT_EQ(error.folder(), folder);
        EXPECT_THAT(error.holder(), HasSubstr(std::to_string(other.id())));
    }
    EXPECT_THROW(store.setLoudness({.integratedLUFS = -18.0, .peak = 1, .seconds = 1}, stored), LibraryInUse);
    EXPECT_EQ(manifestText(), before);
}

TEST_F(LoopStoreSharingTests, StoreOpenedForReadingMakesAndChangesNothing) {
    std::filesystem::remove(folder);
    EXPECT_EQ(openForReading().count(), 0U);
    EXPECT_FALSE(std::filesystem::exists(folder));

    const auto stored = piece("deepcode");
    writeManifest({stored});
    home.putFile("Loops/.quillmere-" + UUID::random().text() + ".tmp", "half");
    home.putFile("Loops/" + firstWork + "/.lock", "");
    home.putFile("App/seeds.json", "[" + seedText(identity("sprint")) + "]");
    home.putFile("App/seed.m4a", "audio");
    const auto store = openForReading();

    EXPECT_EQ(store.all(), std::vector{stored});
    EXPECT_THAT(store.bundledFingerprints(), ElementsAre(identity("sprint").fingerprint()));
    EXPECT_THAT(namesBeginning(""), testing::UnorderedElementsAre("manifest.json", stored.url.path().filename(),
                                                                  testing::StartsWith(".quillmere-"), firstWork));
}

TEST_F(LoopStoreSharingTests, WhoHasLostTheLockLeavesTheFolderToWhoHasIt) {
    auto store = open();
    store.add(piece("deepcode"));
    home.putFile("App/seeds.json", "[" + seedText(identity("sprint")) + "]");
    home.putFile("App/seed.m4a", "audio");
    std::filesystem::remove(folder / ".lock");
    const test::OtherProcess other(folder / ".lock");
    store.add(piece("recovery"));
    ASSERT_NE(store.lastSaveError(), std::nullopt);
    const auto names = namesBeginning("");

    const auto second = open();

    EXPECT_EQ(namesBeginning(""), names);
    EXPECT_NE(second.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreSharingTests, StoreOpenedForReadingLeavesTheLibraryToOthersUntilItChangesIt) {
    writeManifest({piece("deepcode")});
    auto store = openForReading();
    EXPECT_FALSE(FolderLock::isHeld(folder / ".lock"));
    const auto written = piece("sprint");
    writeManifest({piece("deepcode"), written});

    store.add(std::vector{piece("recovery"), piece("winddown")});

    EXPECT_TRUE(FolderLock::isHeld(folder / ".lock"));
    EXPECT_TRUE(store.contains(written.identity)) << "what was written meanwhile is taken in";
    EXPECT_THAT(listedURLs(), SizeIs(4));
}

TEST_F(LoopStoreSharingTests, LibraryHeldByAnotherProcessIsNotCleanedPrunedOrTrashed) {
    const auto stored = piece("deepcode");
    writeManifest({stored});
    const auto temporary = home.putFile("Loops/.quillmere-" + UUID::random().text() + ".tmp", "half");
    home.putFile("Loops/" + firstWork + "/.lock", "");
    const auto stray = home.putFile("Loops/stray.wav", "RIFF");
    const auto names = [&] {
        auto list = namesBeginning("");
        std::ranges::sort(list);
        return list;
    };
    {
        const test::OtherProcess other(folder / ".lock");
        const auto before = names();
        auto store = open();
        EXPECT_EQ(store.prune({}), 0);
        EXPECT_THAT(store.trash([](const LoopArtifact&) { return true; }), IsEmpty());
        EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(stray)));
        EXPECT_EQ(store.count(), 1U);
        EXPECT_TRUE(store.lastSaveError());
        EXPECT_EQ(names(), before);
    }
    EXPECT_THAT(discarded, IsEmpty());

    open();
    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_FALSE(std::filesystem::exists(folder / firstWork));
}

TEST_F(LoopStoreSharingTests, LibraryHeldByAnotherProcessTakesNoSeeds) {
    home.putFile("App/Loops/seeds.json", "[{\"file\":\"one\",\"seconds\":1,\"identity\":" +
                                             encodeJSON(identity("deepcode"), JSONWriter::Form::compact) + "}]");
    home.putFile("App/Loops/one.m4a", "shipped");
    {
        const test::OtherProcess other(folder / ".lock");
        EXPECT_EQ(open().count(), 0U);
        EXPECT_THAT(namesBeginning(""), ElementsAre(".lock"));
    }
    EXPECT_EQ(open().count(), 1U);
}

TEST_F(LoopStoreSharingTests, StoreThatCameLateTakesInWhatTheOtherProcessWrote) {
    const auto both = piece("deepcode", 2, 1);
    const auto pruned = piece("deepcode", 2, 2);
    const auto mine = piece("deepcode", 2, 3);
    const auto theirs = piece("sprint");
    writeManifest({both, pruned});
    auto other = std::make_optional<test::OtherProcess>(folder / ".lock");
    auto late = open();
    late.add(mine);
    ASSERT_TRUE(late.lastSaveError());
    writeManifest({both, theirs});
    std::filesystem::remove(pruned.url.path());
    other.reset();

    const auto added = piece("winddown");
    late.addPersistent(added);

    EXPECT_THAT(listedURLs(),
                UnorderedElementsAre(both.url.text(), mine.url.text(), theirs.url.text(), added.url.text()));
    EXPECT_TRUE(late.contains(theirs.identity));
    EXPECT_FALSE(late.contains(pruned.identity));
    EXPECT_EQ(late.lastSaveError(), std::nullopt);
    EXPECT_THAT(namesBeginning("manifest"), ElementsAre("manifest.json"));
}

TEST_F(LoopStoreSharingTests, TakingInPrefersTheFileThatIsThere) {
    const auto wav = piece("deepcode");
    const auto moved = wav.withURL(FileURL::fromPath(home.putFile("Loops/moved.m4a", "RIFF")));
    const auto fileless = artifactAt(identity("sprint"), FileURL::fromPath(folder / "none.wav"));
    writeManifest({wav});
    auto other = std::make_optional<test::OtherProcess>(folder / ".lock");
    auto late = open();
    EXPECT_THROW(late.setLoudness({.integratedLUFS = -18.0, .peak = 1, .seconds = 1}, wav), LibraryInUse);
    writeManifest({moved});
    std::filesystem::remove(wav.url.path());
    other.reset();

    late.addPersistent(fileless);

    EXPECT_EQ(late.artifact(wav.identity), moved);
    EXPECT_EQ(late.artifact(fileless.identity), fileless);
}

TEST_F(LoopStoreSharingTests, PieceThatTheOtherProcessBroughtIntoTheFolderIsNotSentOutAgain) {
    const auto outside = artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Elsewhere/a.wav", "RIFF")));
    const auto inside = piece(outside.identity);
    writeManifest({outside});
    auto other = std::make_optional<test::OtherProcess>(folder / ".lock");
    auto late = open();
    writeManifest({inside});
    other.reset();

    late.add(piece("sprint"));

    EXPECT_EQ(late.artifact(inside.identity), inside);
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSharingTests, PieceThatCouldNotBeSavedYetGuardsItsWorkingFolder) {
    auto other = std::make_optional<test::OtherProcess>(folder / ".lock");
    auto late = open();
    home.putFile("Loops/" + firstWork + "/.lock", "");
    home.putFile("Loops/" + secondWork + "/.lock", "");
    const auto mine =
        artifactAt(identity("sprint"), FileURL::fromPath(home.putFile("Loops/" + firstWork + "/a.wav", "RIFF")));
    late.add(mine);
    writeManifest("[]");
    other.reset();

    late.add(piece("deepcode"));

    EXPECT_TRUE(std::filesystem::exists(mine.url.path()));
    EXPECT_FALSE(std::filesystem::exists(folder / secondWork));
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSharingTests, PieceThatTheOtherProcessRemovedDoesNotComeBackWithAMeasurement) {
    const auto removed = piece("deepcode");
    const auto remade = piece("winddown");
    writeManifest(std::vector{removed, remade});
    std::optional<LoopStore> store;
    {
        const test::OtherProcess other(folder / ".lock");
        store.emplace(folder, ResourceBundle(home.path() / "App"));
        for (const auto& measured : {removed, remade}) {
            EXPECT_THROW(store->setLoudness({.integratedLUFS = -18.0, .peak = 1, .seconds = 1}, measured),
                         LibraryInUse);
        }
        std::filesystem::remove(removed.url.path());
        writeManifest("[]");
    }
    store->add(piece("sprint"));
    EXPECT_EQ(store->lastSaveError(), std::nullopt);
    EXPECT_FALSE(store->contains(removed.identity));
    EXPECT_TRUE(store->contains(remade.identity)) << "its file is there";
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSharingTests, PieceWhoseAudioCannotBeMadeSafeIsNotConfirmedThoughAnotherWaitsToBeSaved) {
    const auto unsafe = artifactAt(identity("deepcode"), FileURL::fromPath(folder / std::string(300, 'x')));
    const auto waiting = piece("sprint");
    std::optional<LoopStore> store;
    {
        const test::OtherProcess other(folder / ".lock");
        store.emplace(folder, ResourceBundle(home.path() / "App"));
        store->add(waiting);
        EXPECT_THAT(store->lastSaveError().value_or(""), HasSubstr("process"));
    }
    EXPECT_THROW(store->addPersistent(unsafe), FileError);
    store->add(piece("winddown"));
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSharingTests, SecondStoreThatIsToWriteTakesTheLockThatTheFirstDidNot) {
    home.putFile("App/seeds.json", R"([{"file":"seed","seconds":1,"identity":)" +
                                       encodeJSON(identity("sprint"), JSONWriter::Form::compact) + "}]");
    home.putFile("App/seed.m4a", "audio");
    for (const bool isRefused : {false, true}) {
        SCOPED_TRACE(isRefused);
        std::filesystem::remove_all(folder);
        const auto temporary = home.putFile("Loops/.quillmere-" + UUID::random().text() + ".tmp", "half");
        std::optional<LoopStore> first;
        if (isRefused) {
            const test::OtherProcess other(folder / ".lock");
            first.emplace(folder, ResourceBundle(home.path() / "App"));
        } else {
            first.emplace(folder, ResourceBundle(home.path() / "App"), nullptr, LoopStore::Access::reading);
        }
        EXPECT_EQ(first->count(), 0U);
        EXPECT_FALSE(FolderLock::isHeld(folder / ".lock"));

        const auto second = open();
        EXPECT_TRUE(FolderLock::isHeld(folder / ".lock"));
        EXPECT_FALSE(std::filesystem::exists(temporary));
        EXPECT_TRUE(second.contains(identity("sprint")));
        EXPECT_TRUE(first->contains(identity("sprint")));
        EXPECT_THAT(listedURLs(), SizeIs(1));
    }
}

TEST_F(LoopStoreSharingTests, StoreThatCameLateNeitherPrunesNorTrashesWhatItHasNotSeen) {
    auto other = std::make_optional<test::OtherProcess>(folder / ".lock");
    auto late = open();
    const auto theirs = piece("sprint");
    const auto taken = piece(recording("sprint"));
    writeManifest({theirs, taken});
    other.reset();

    EXPECT_EQ(late.prune({}), 1);

    EXPECT_THAT(late.pool("sprint"), ElementsAre(taken));
    EXPECT_THAT(listedURLs(), ElementsAre(taken.url.text()));
}

TEST_F(LoopStoreSharingTests, DamageThatTheOtherProcessLeftIsKeptAside) {
    const auto stored = piece("deepcode");
    writeManifest({stored});
    auto other = std::make_optional<test::OtherProcess>(folder / ".lock");
    auto late = open();
    writeManifest("damage");
    other.reset();

    late.addPersistent(piece("sprint"));

    EXPECT_THAT(listedURLs(), SizeIs(2)) << "what this process remembers is all there is";
    const auto kept = namesBeginning("manifest.unreadable-");
    ASSERT_THAT(kept, SizeIs(1));
    EXPECT_EQ(home.content("Loops/" + kept.front()), "damage");
}

TEST_F(LoopStoreSharingTests, FolderReplacedByAnotherLibraryIsNotOverwrittenWithWhatIsRemembered) {
    auto store = open();
    store.add(piece("deepcode"));
    std::filesystem::rename(folder, home.path() / "Old");
    const auto theirs = piece("sprint");
    writeManifest({theirs});
    const auto added = piece("winddown");

    store.addPersistent(added);

    EXPECT_THAT(listedURLs(), UnorderedElementsAre(theirs.url.text(), added.url.text()));
    EXPECT_EQ(store.count(), 2U);
}

TEST_F(LoopStoreSharingTests, LibraryWhoseLockFileCannotBeMadeIsReadAndItsSavesFail) {
    const auto stored = piece("deepcode");
    writeManifest({stored});
    const auto before = manifestText();
    std::filesystem::create_directory(folder / ".lock");
    auto store = open();

    EXPECT_TRUE(store.contains(stored.identity));
    EXPECT_THROW(store.addPersistent(piece("sprint")), FileError);
    EXPECT_EQ(store.prune({}), 0);
    EXPECT_EQ(manifestText(), before);

    std::filesystem::remove(folder / ".lock");
    store.addPersistent(piece("sprint", 1));
    EXPECT_THAT(listedURLs(), SizeIs(3));
}

TEST_F(LoopStoreSharingTests, LockIsFreeAgainWhenTheLastStoreIsClosed) {
    {
        const auto first = open();
        const auto second = open();
        EXPECT_TRUE(FolderLock::isHeld(folder / ".lock"));
    }
    EXPECT_FALSE(FolderLock::isHeld(folder / ".lock"));
}

TEST_F(LoopStoreSharingTests, StoresOfOneProcessSeeEachOthersPieces) {
    auto first = open();
    auto second = open();
    const auto rain = piece("deepcode");
    const auto wind = piece("sprint");

    first.add(rain);
    second.add(wind);

    EXPECT_TRUE(first.contains(wind.identity));
    EXPECT_TRUE(second.contains(rain.identity));
    EXPECT_THAT(listedURLs(), UnorderedElementsAre(rain.url.text(), wind.url.text()));
}

TEST_F(LoopStoreSharingTests, FolderUnderAnotherNameIsTheSameLibrary) {
    std::filesystem::create_directory_symlink(folder, home.path() / "Alias");
    auto first = open();
    LoopStore second(home.path() / "Alias", ResourceBundle(home.path() / "App"));
    first.add(piece("deepcode"));

    second.add(piece("sprint"));

    EXPECT_EQ(second.directory(), folder);
    EXPECT_THAT(listedURLs(), SizeIs(2));
}

TEST_F(LoopStoreSharingTests, FolderReachedThroughALinkIsAsGoodAsAnyOther) {
    std::filesystem::create_directory_symlink(folder, home.path() / "Alias");
    folder = home.path() / "Alias";
    auto store = open();
    auto rain = piece("deepcode");
    rain = rain.withURL(FileURL::fromPath(folder / rain.url.path().filename()));
    store.add(rain);

    EXPECT_THAT(listedURLs(), ElementsAre(rain.url.text()));
    EXPECT_EQ(store.bytesOnDisk(), 4);
    EXPECT_EQ(store.prune({}), 1);
    EXPECT_FALSE(std::filesystem::exists(rain.url.path()));
}

TEST_F(LoopStoreSharingTests, ClosedLibraryIsReadAfresh) {
    const auto rain = piece("deepcode");
    open().add(rain);
    std::filesystem::remove(rain.url.path());

    EXPECT_EQ(open().count(), 0U);
}

// MARK: leftovers

struct LoopStoreLeftoverTests : test::LoopStoreFixture {
    [[nodiscard]] std::string temporaryName() const { return ".quillmere-" + UUID::random().text() + ".tmp"; }
};

TEST_F(LoopStoreLeftoverTests, TemporaryFilesOfDeadProcessesAreRemovedAtOpening) {
    const auto rain = piece("deepcode");
    writeManifest({rain});
    const auto name = temporaryName();
    ASSERT_TRUE(isTemporaryFileName(name));
    home.putFile("Loops/" + name, "half");
    home.putFile("Loops/sub/" + name, "not directly in the folder");
    home.putFile("Loops/stray.wav", "nobody's, but not provably dead");
    home.putFile("Loops/.hidden", "somebody's");

    const auto store = open();

    EXPECT_FALSE(std::filesystem::exists(folder / name));
    EXPECT_TRUE(std::filesystem::exists(folder / "sub" / name));
    EXPECT_TRUE(std::filesystem::exists(folder / "stray.wav"));
    EXPECT_TRUE(std::filesystem::exists(folder / ".hidden"));
    EXPECT_TRUE(store.contains(rain.identity));
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreLeftoverTests, FileThatAnEntryUsesIsNoLeftover) {
    const auto name = temporaryName();
    const auto odd = artifactAt(identity("deepcode"), FileURL::fromPath(home.putFile("Loops/" + name, "RIFF")));
    const auto work =
        artifactAt(identity("sprint"), FileURL::fromPath(home.putFile("Loops/" + firstWork + "/a.wav", "RIFF")));
    home.putFile("Loops/" + firstWork + "/.lock", "");
    writeManifest({odd, work});

    const auto store = open();

    EXPECT_EQ(store.count(), 2U);
    EXPECT_TRUE(std::filesystem::exists(folder / name));
    EXPECT_TRUE(std::filesystem::exists(folder / firstWork / "a.wav"));
}

TEST_F(LoopStoreLeftoverTests, FileThatAnEntryReachesThroughALinkInTheFolderIsNoLeftover) {
    const auto inWork = home.putFile("Loops/" + firstWork + "/audio.wav", "precious");
    home.putFile("Loops/" + firstWork + "/.lock", "");
    const auto migrated = home.putFile("Loops/.take.wav.migration.m4a", "precious");
    std::filesystem::create_directory_symlink(firstWork, folder / "folder");
    std::filesystem::create_symlink(firstWork + "/audio.wav", folder / "file.wav");
    std::filesystem::create_symlink(".take.wav.migration.m4a", folder / "take.m4a");
    for (const auto& [name, audio] :
         {std::pair("folder/audio.wav", inWork), std::pair("file.wav", inWork), std::pair("take.m4a", migrated)}) {
        SCOPED_TRACE(name);
        const auto listed = artifactAt(identity("deepcode"), FileURL::fromPath(folder / name));
        writeManifest(std::vector{listed});
        const auto store = open();
        EXPECT_EQ(store.all(), std::vector{listed});
        EXPECT_TRUE(std::filesystem::exists(audio));
        // The next name is for a folder with both files again.
        home.putFile("Loops/" + firstWork + "/audio.wav", "precious");
        home.putFile("Loops/" + firstWork + "/.lock", "");
        home.putFile("Loops/.take.wav.migration.m4a", "precious");
    }
}

TEST_F(LoopStoreLeftoverTests, FileThatADroppedEntryNamesIsNoLeftoverAsLongAsTheManifestNamesIt) {
    const auto audio = home.putFile("Loops/" + firstWork + "/audio.wav", "precious");
    home.putFile("Loops/" + firstWork + "/.lock", "");
    const auto temporary = home.putFile("Loops/.quillmere-" + UUID::random().text() + ".tmp", "half");
    const auto later = piece("deepcode");
    writeManifest(std::vector{later.withURL(FileURL::fromPath(audio)), later});
    {
        auto store = open();
        EXPECT_EQ(store.all(), std::vector{later}) << "of equal fingerprints the last counts";
        EXPECT_TRUE(std::filesystem::exists(audio));
        EXPECT_FALSE(std::filesystem::exists(temporary));
        store.add(piece("sprint"));
    }
    static_cast<void>(open());
    EXPECT_FALSE(std::filesystem::exists(audio)) << "no manifest names it any more, but for a copy";
}

TEST_F(LoopStoreLeftoverTests, TemporaryFilesStayWhileSomebodyWritesAListOfTheUsersInTheFolder) {
    const auto temporary = home.putFile("Loops/.quillmere-" + UUID::random().text() + ".tmp", "moods, half written");
    {
        const test::OtherProcess other(folder / ".Moods.lock");
        static_cast<void>(open());
        EXPECT_TRUE(std::filesystem::exists(temporary));
    }
    static_cast<void>(open());
    EXPECT_FALSE(std::filesystem::exists(temporary));
}

TEST_F(LoopStoreLeftoverTests, DeadRunsFolderThatAPathLeadsThroughStays) {
    home.putFile("Loops/piece.wav", "RIFF");
    std::filesystem::create_directory_symlink(folder, home.path() / "linked");
    for (const bool isLocked : {true, false}) {
        for (const auto& way : {folder / firstWork, home.path() / "linked" / firstWork}) {
            SCOPED_TRACE(way.string() + (isLocked ? " with a lock" : ""));
            std::filesystem::remove_all(folder / firstWork);
            std::filesystem::create_directory(folder / firstWork);
            if (isLocked) home.putFile("Loops/" + firstWork + "/.lock", "");
            const auto roundabout = artifactAt(identity("deepcode"), FileURL::fromPath(way / "../piece.wav"));
            writeManifest({roundabout});

            auto store = open();
            store.discardUnstored(FileURL::fromPath(folder / firstWork / "audio.wav"));

            EXPECT_TRUE(open().contains(roundabout.identity));
            EXPECT_TRUE(std::filesystem::exists(roundabout.url.path()));
        }
    }
}

TEST_F(LoopStoreLeftoverTests, WhatIsNoLockOfAListKeepsNoTemporaryFile) {
    const auto temporary = home.putFile("Loops/.quillmere-" + UUID::random().text() + ".tmp", "half a piece");
    home.putFile("Loops/notes.lock", "a person's");
    std::filesystem::create_directory(folder / ".folder.lock");

    static_cast<void>(open());

    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_EQ(home.content("Loops/notes.lock"), "a person's");
}

TEST_F(LoopStoreLeftoverTests, LinkOrFolderUnderATemporaryNameIsLeftAlone) {
    const auto sentinel = home.putFile("sentinel", "precious");
    const auto link = temporaryName();
    const auto sub = temporaryName();
    std::filesystem::create_directories(folder / sub / "x");
    std::filesystem::create_symlink(sentinel, folder / link);

    open();

    EXPECT_TRUE(std::filesystem::is_symlink(folder / link));
    EXPECT_TRUE(std::filesystem::exists(folder / sub / "x"));
    EXPECT_EQ(home.content("sentinel"), "precious");
}

TEST_F(LoopStoreLeftoverTests, WorkingFolderIsRemovedOnlyWhenItsLockIsThereAndFree) {
    const auto work = [](const char* last) { return firstWork.substr(0, firstWork.size() - 1) + last; };
    const auto dead = work("0"), live = work("1"), strange = work("2"), file = work("3"), odd = work("4"),
               linked = work("5");
    home.putFile("Loops/" + dead + "/.lock", "");
    home.putFile("Loops/" + dead + "/sub/audio.wav", "half");
    home.putFile("Loops/" + live + "/.lock", "");
    home.putFile("Loops/" + live + "/audio.wav", "half");
    home.putFile("Loops/" + strange + "/audio.wav", "another program's");
    home.putFile("Loops/Other/.lock", "");
    home.putFile("Loops/" + file, "no folder");
    std::filesystem::create_directories(folder / odd / ".lock");
    home.putFile("Elsewhere/.lock", "");
    std::filesystem::create_directory_symlink(home.path() / "Elsewhere", folder / linked);
    const test::OtherProcess renderer(folder / live / ".lock");

    open();

    EXPECT_THAT(namesBeginning("Render-"), UnorderedElementsAre(live, strange, file, odd, linked));
    EXPECT_TRUE(std::filesystem::exists(folder / live / "audio.wav"));
    EXPECT_TRUE(std::filesystem::exists(folder / "Other" / ".lock"));
    EXPECT_TRUE(std::filesystem::exists(home.path() / "Elsewhere" / ".lock"));
}

TEST_F(LoopStoreLeftoverTests, FolderThatIsOnlyNamedLikeARenderersIsLeftAlone) {
    const std::vector<std::string> names = {"Render-holiday",        "Render-",       "Render-1", firstWork + "x",
                                            firstWork.substr(0, 42), "." + firstWork, "Rendering"};
    for (const auto& name : names) {
        home.putFile("Loops/" + name + "/.lock", "");
        home.putFile("Loops/" + name + "/song.wav", "the user's own");
    }
    std::filesystem::create_directory(folder / "Render-empty");

    open();

    for (const auto& name : names) {
        EXPECT_EQ(home.content("Loops/" + name + "/song.wav"), "the user's own") << name;
        EXPECT_TRUE(std::filesystem::exists(folder / name / ".lock")) << name;
    }
    EXPECT_TRUE(std::filesystem::exists(folder / "Render-empty"));
}

TEST_F(LoopStoreLeftoverTests, WorkingFolderThatThisProcessHoldsIsNotDead) {
    home.putFile("Loops/" + firstWork + "/audio.wav", "half");
    const auto lock = FolderLock::tryAcquire(folder / firstWork / ".lock");
    ASSERT_TRUE(lock);

    open();

    EXPECT_TRUE(std::filesystem::exists(folder / firstWork / "audio.wav"));
}

TEST_F(LoopStoreLeftoverTests, NothingIsCleanedWhileTheManifestCannotBeRead) {
    writeManifest("damaged");
    home.putFile("Loops/" + firstWork + "/.lock", "");
    const auto name = temporaryName();
    home.putFile("Loops/" + name, "half");

    open();

    EXPECT_TRUE(std::filesystem::exists(folder / firstWork));
    EXPECT_TRUE(std::filesystem::exists(folder / name));
}

TEST_F(LoopStoreLeftoverTests, SecondStoreOfTheProcessCleansNothing) {
    const auto first = open();
    const auto name = temporaryName();
    home.putFile("Loops/" + name, "being written");

    const auto second = open();

    EXPECT_TRUE(std::filesystem::exists(folder / name));
}

TEST_F(LoopStoreSafetyTests, EmptyPathIsAProgrammingError) {
    EXPECT_DEATH(LoopStore(std::filesystem::path(), ResourceBundle(home.path())), "folder has a path");
}

// MARK: threads

TEST_F(LoopStoreSafetyTests, AnyThreadMayCallAnything) {
    auto store = open();
    auto alias = open();
    constexpr int rounds = 12;
    std::latch start(5);
    std::vector<LoopArtifact> pieces;
    for (std::int64_t seed = 0; seed < rounds; ++seed) pieces.push_back(piece("deepcode", seed % 5, seed));
    const auto run = [&](const std::function<void(std::size_t)>& work) {
        return std::jthread([&start, work] {
            start.arrive_and_wait();
            for (std::size_t round = 0; round < rounds; ++round) work(round);
        });
    };
    {
        const auto adder = run([&](std::size_t round) { store.add(pieces[round]); });
        const auto player = run([&](std::size_t) {
            for (const auto& artifact : alias.playbackPool("deepcode", "sa3_medium_mlx_v2", {})) {
                EXPECT_EQ(artifact.identity.moodID, "deepcode");
            }
            static_cast<void>(alias.nearestCached("deepcode", BlendStep(1)));
            static_cast<void>(alias.lastSaveError());
        });
        const auto keeper = run([&](std::size_t) {
            for (const auto& artifact : alias.loudnessCandidates()) {
                alias.setLoudness({.integratedLUFS = -18.0, .peak = 0.5, .seconds = 120.0}, artifact);
            }
        });
        const auto pruner = run([&](std::size_t round) {
            if (round % 4 == 0) store.prune({pieces[0].id(), pieces[rounds - 1].id()});
            static_cast<void>(store.bytesOnDisk());
        });
        const auto opener = run([&](std::size_t) { EXPECT_EQ(open().directory(), folder); });
    }

    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_EQ(listedURLs().size(), store.count());
}

}  // namespace
}  // namespace quillmere
