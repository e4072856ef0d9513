// What one refused call makes of the lock, of what others wrote, and of the copies that are kept.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Support/OtherProcess.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

using testing::SizeIs;

struct LoopFolderFaults : LoopStoreFixture {
    LoopFolderFaults() { std::filesystem::create_directory(folder); }
};

TEST_F(LoopFolderFaults, WhatAnotherWroteIsTakenInThoughTheManifestCannotBeLookedAtOnce) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        const auto mine = piece("deepcode");
        std::optional<LoopStore> store;
        {
            const OtherProcess other(folder / ".lock");
            store.emplace(folder, ResourceBundle(home.path() / "App"));
        }
        const auto theirs = piece("sprint");
        writeManifest(std::vector{theirs});  // the first there is, and then the other ended
        std::string struck;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "fstatat"});
            store->add(mine);
            struck = faults.struck();
        }
        if (store->lastSaveError()) store->add(mine);

        EXPECT_EQ(store->lastSaveError(), std::nullopt);
        EXPECT_EQ(store->all(), byFingerprint({mine, theirs}));
        EXPECT_THAT(listedURLs(), SizeIs(2));
        store.reset();
        if (struck.empty() || HasFailure()) break;
    }
}

TEST_F(LoopFolderFaults, LockIsNotGivenAwayWhereItCannotBeLookedAt) {
    for (const bool persists : {false, true}) {
        auto store = open();
        ASSERT_TRUE(FolderLock::isHeld(folder / ".lock"));
        {
            const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "fstatat", .persists = persists});
            store.add(piece("deepcode"));
        }
        EXPECT_TRUE(FolderLock::isHeld(folder / ".lock"));
    }
}

TEST_F(LoopFolderFaults, CopiesThatCountOutliveTheTriesOfASaveThatFails) {
    const std::vector<std::string> old = {"manifest.before-2024-05-01T10-20-30Z.json",
                                          "manifest.before-2024-06-01T10-20-30Z.json"};
    for (const char* call : {"renameat", "fsync"}) {
        for (int failing = 1;; ++failing) {
            SCOPED_TRACE(call + (" " + std::to_string(failing)));
            std::filesystem::remove_all(folder);
            std::filesystem::create_directory(folder);
            for (const auto& name : old) home.putFile("Loops/" + name, "[]");
            const auto mine = piece("deepcode");
            const auto theirs = piece("sprint");
            writeManifest(std::vector{mine});
            auto store = open();
            writeManifest(std::vector{mine, theirs});
            const auto foreign = manifestText();
            const auto added = piece("winddown");
            bool hasFailed = false;
            for (int tries = 0; tries < 5; ++tries) {
                const SystemCallFaults faults({.failing = failing, .error = EIO, .call = call, .persists = true});
                store.add(added);
                hasFailed = store.lastSaveError().has_value();
            }
            store.add(added);
            EXPECT_EQ(store.lastSaveError(), std::nullopt);

            auto copies = namesBeginning("manifest.before-");
            std::ranges::sort(copies);
            ASSERT_THAT(copies, SizeIs(3));
            EXPECT_EQ(std::vector(copies.begin(), copies.begin() + 2), old);
            EXPECT_EQ(home.content("Loops/" + copies.back()), foreign);
            if (!hasFailed || HasFailure()) break;
        }
    }
}

TEST_F(LoopFolderFaults, PieceThatIsListedStaysListedWhereItCannotBeWrittenAnew) {
    for (const bool removes : {false, true}) {
        SCOPED_TRACE(removes ? "prune" : "add");
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        const auto pieces = byFingerprint({piece("deepcode"), piece("sprint"), piece("winddown")});
        const auto &listed = pieces[0], &added = pieces[1], &removed = pieces[2];
        auto store = open();
        int syncs = 0;
        {
            const SystemCallFaults undisturbed({.call = "fsync"});
            store.add(removed);
            syncs = undisturbed.count();
        }
        {
            // The last one is that of the folder, for the manifest's name.
            const SystemCallFaults faults({.failing = syncs, .error = EIO, .call = "fsync"});
            store.add(listed);
        }
        ASSERT_NE(store.lastSaveError(), std::nullopt);
        ASSERT_THAT(listedURLs(), SizeIs(2));
        {
            // Behind that of the folder for the name that goes.
            const SystemCallFaults faults({.failing = removes ? 2 : 1, .error = EIO, .call = "fsync"});
            removes ? static_cast<void>(store.prune({listed.id()})) : store.add(added);
        }
        EXPECT_NE(store.lastSaveError(), std::nullopt);

        EXPECT_THAT(listedURLs(), testing::Contains(listed.url.text()));
        EXPECT_THAT(listedURLs(), SizeIs(removes ? 1 : 3));
        store.add(added);
        EXPECT_EQ(store.lastSaveError(), std::nullopt);
        EXPECT_THAT(listedURLs(), SizeIs(removes ? 2 : 3));
    }
}

TEST_F(LoopFolderFaults, WhatASeedReplacesIsListedUntilTheSeedIs) {
    const auto seed = identity("deepcode");
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        std::filesystem::remove_all(folder);
        const auto old = piece("deepcode", 2, 99);
        writeManifest(std::vector{old});
        const nlohmann::json seeds = {{{"file", "one"},
                                       {"identity", nlohmann::json::parse(encodeJSON(seed, JSONWriter::Form::compact))},
                                       {"seconds", 60.0},
                                       {"replaces", {old.id()}}}};
        home.putFile("App/Loops/seeds.json", seeds.dump());
        home.putFile("App/Loops/one.m4a", "music");
        const auto file = home.putFile("Loops/" + seed.filename() + ".m4a", "music that nobody has synced");
        std::optional<LoopStore> store;
        {
            const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "fsync", .persists = true});
            store.emplace(folder, ResourceBundle(home.path() / "App"));
        }
        ASSERT_EQ(store->all().size(), 1U);
        ASSERT_TRUE(store->contains(seed));
        std::string struck;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "fsync"});
            store->add(piece("sprint"));
            struck = faults.struck();
        }
        const auto isListed = [&](const FileURL& url) { return std::ranges::count(listedURLs(), url.text()) == 1; };
        EXPECT_NE(isListed(FileURL::fromPath(file)), isListed(old.url));

        store->add(piece("winddown"));
        EXPECT_EQ(store->lastSaveError(), std::nullopt);
        EXPECT_TRUE(isListed(FileURL::fromPath(file)));
        EXPECT_FALSE(isListed(old.url));
        store.reset();
        if (struck.empty() || HasFailure()) break;
    }
}

TEST_F(LoopFolderFaults, PiecesThatCannotBeMadeSafeAreNotAllWrittenAnewByEachSave) {
    auto store = open();
    {
        const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "fsync", .persists = true});
        int before = 0;
        for (std::int64_t seed = 1; seed <= 20; ++seed) {
            store.add(piece("deepcode", 2, seed));
            EXPECT_LE(faults.count() - before, 4) << seed;
            before = faults.count();
        }
    }
    EXPECT_NE(store.lastSaveError(), std::nullopt);

    store.add(piece("sprint"));

    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_THAT(listedURLs(), SizeIs(21));
}

TEST_F(LoopFolderFaults, PieceThatCanNeverBeMadeSafeKeepsNoOtherThatWasRefusedOnce) {
    auto pieces = byFingerprint({piece("deepcode"), piece("sprint"), piece("winddown"), piece("recovery")});
    pieces[0] = pieces[0].withURL(FileURL::fromPath(folder / std::string(300, 'x')));
    auto store = open();
    store.add(pieces[0]);
    {
        const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "fsync", .persists = true});
        store.add(pieces[1]);
    }
    store.add(pieces[2]);
    store.add(pieces[3]);

    EXPECT_NE(store.lastSaveError(), std::nullopt);
    EXPECT_THAT(listedURLs(), SizeIs(3));
}

}  // namespace
}  // namespace quillmere::test
