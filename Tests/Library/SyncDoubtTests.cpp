#include "QuillmereKit/Library/SyncDoubt.hpp"

#include <gtest/gtest.h>

#include <system_error>

namespace quillmere::test {
namespace {

FileError failureOf(const char* step) { return {step, "/library/file", std::make_error_code(std::errc::io_error)}; }

TEST(SyncDoubtTests, AFilesFailedSyncThrowsDoubtOnThatFileAlone) {
    SyncDoubt doubt;
    doubt.remember(SyncDoubt::reachOfFile("in/file"), failureOf("fsync"));
    EXPECT_TRUE(doubt.isOf("in/file"));
    EXPECT_FALSE(doubt.isOf("in/other"));
    EXPECT_FALSE(doubt.isOf("file"));
}

TEST(SyncDoubtTests, AFoldersThrowsDoubtOnAllNamesInItAndAboveIt) {
    SyncDoubt doubt;
    doubt.remember(SyncDoubt::reachOfFolder("in"), failureOf("sync folder"));
    EXPECT_TRUE(doubt.isOf("in/file"));
    EXPECT_TRUE(doubt.isOf("file"));
    EXPECT_FALSE(doubt.isOf("elsewhere/file"));
}

TEST(SyncDoubtTests, WhatIsNoSyncThrowsNone) {
    SyncDoubt doubt;
    doubt.remember(SyncDoubt::reachOfFile("in/file"), failureOf("rename"));
    EXPECT_FALSE(doubt.isOf("in/file"));
}

TEST(SyncDoubtTests, WhatWasWrittenAnewIsInDoubtAgainWhenASyncOfItsFolderFails) {
    SyncDoubt doubt;
    doubt.remember(SyncDoubt::reachOfFile("file"), failureOf("sync folder"));
    doubt.forget({"file"});
    EXPECT_FALSE(doubt.isOf("file"));
    EXPECT_TRUE(doubt.isOf("other"));
    doubt.remember(SyncDoubt::reachOfFolder({}), failureOf("sync folder"));
    EXPECT_TRUE(doubt.isOf("file"));
}

TEST(SyncDoubtTests, WhatAnotherOneKnowsIsKnownBesides) {
    SyncDoubt first;
    SyncDoubt second;
    SyncDoubt third;
    first.remember(SyncDoubt::reachOfFile("a"), failureOf("fsync"));
    second.remember(SyncDoubt::reachOfFile("in/b"), failureOf("fsync"));
    third.remember(SyncDoubt::reachOfFolder("in"), failureOf("sync folder"));

    first.takeIn(second);
    first.takeIn(first);
    EXPECT_TRUE(first.isOf("a"));
    EXPECT_TRUE(first.isOf("in/b"));
    EXPECT_FALSE(first.isOf("c"));

    first.forget({"c"});
    first.takeIn(third);
    EXPECT_TRUE(first.isOf("c"));
    EXPECT_TRUE(first.isOf("in/c"));
    EXPECT_FALSE(second.isOf("a"));
}

TEST(SyncDoubtTests, WhatIsForgottenHereStaysInDoubtForWhoKnowsOfAFolderSince) {
    SyncDoubt first;
    SyncDoubt second;
    first.remember(SyncDoubt::reachOfFolder({}), failureOf("sync folder"));
    first.forget({"a"});
    second.remember(SyncDoubt::reachOfFolder({}), failureOf("sync folder"));
    first.takeIn(second);
    EXPECT_TRUE(first.isOf("a"));
}

}  // namespace
}  // namespace quillmere::test
