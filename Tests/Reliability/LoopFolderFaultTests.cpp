// What one refused call makes of the lock, of what others wrote, and of the copies that are kept.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
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

}  // namespace
}  // namespace quillmere::test
