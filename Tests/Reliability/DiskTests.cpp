// The disk that the power cuts are tried on loses what a disk may lose, and nothing else.

#include "Tests/Reliability/Disk.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillmere::test {
namespace {

using Fate = Disk::Fate;
using Kind = RecordedCall::Kind;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct DiskTests : testing::Test {
    Disk disk = Disk("/home", {{"list", "old"}}, {});

    void open(int descriptor, const char* path) {
        disk.apply({.kind = Kind::open, .descriptor = descriptor, .path = path});
    }
    void write(int descriptor, const char* bytes) {
        disk.apply({.kind = Kind::write, .descriptor = descriptor, .bytes = bytes});
    }
    void failToSync(int descriptor) { disk.apply({.kind = Kind::failedSync, .descriptor = descriptor}); }
    void sync(int descriptor) { disk.apply({.kind = Kind::sync, .descriptor = descriptor}); }
    void rename(const char* from, const char* to) { disk.apply({.kind = Kind::rename, .path = from, .to = to}); }

    [[nodiscard]] Tree all(Fate fate) const {
        return disk.afterPowerCut([=](std::size_t, bool) { return fate; });
    }
};

TEST_F(DiskTests, WhatIsNotSyncedMayBeGoneOrThere) {
    open(3, "/home/new");
    write(3, "bytes");

    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old")));
    EXPECT_THAT(all(Fate::kept), ElementsAre(Pair("list", "old"), Pair("new", "bytes")));
    EXPECT_FALSE(disk.areBytesSafe("/home/new"));
}

TEST_F(DiskTests, AFilesSyncDoesNotKeepItsName) {
    open(3, "/home/new");
    write(3, "bytes");
    sync(3);

    EXPECT_TRUE(disk.areBytesSafe("/home/new"));
    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old")));
}

TEST_F(DiskTests, AFoldersSyncKeepsTheNameAndNotTheBytes) {
    open(3, "/home/new");
    write(3, "bytes");
    open(4, "/home");
    sync(4);

    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old"), Pair("new", "")));
    EXPECT_THAT(all(Fate::torn), ElementsAre(Pair("list", "old"), Pair("new", "by")));
    EXPECT_THAT(all(Fate::zeros), ElementsAre(Pair("list", "old"), Pair("new", std::string(5, '\0'))));
}

TEST_F(DiskTests, ARenameWithoutASyncBeforeItMayCostBothContents) {
    open(3, "/home/new");
    write(3, "bytes");
    rename("/home/new", "/home/list");
    open(4, "/home");
    sync(4);

    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "")));
}

TEST_F(DiskTests, ARenameWithinAFolderHappensWholeOrNotAtAll) {
    open(3, "/home/new");
    write(3, "bytes");
    sync(3);
    open(4, "/home");
    sync(4);
    rename("/home/new", "/home/list");

    EXPECT_THAT(all(Fate::lost), ElementsAre(Pair("list", "old"), Pair("new", "bytes")));
    EXPECT_THAT(all(Fate::kept), ElementsAre(Pair("list", "bytes")));
}

TEST_F(DiskTests, AFileThatChangesItsFolderIsNeverLost) {
    disk.apply({.kind = Kind::makeFolder, .path = "/home/sub"});
    open(4, "/home");
    sync(4);
    rename("/home/list", "/home/sub/list");

    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old"), Pair("sub/", "")));
    open(5, "/home");
    sync(5);
    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("sub/", ""), Pair("sub/list", "old")));
}

TEST_F(DiskTests, ARemovedNameMayComeBackUntilItsFolderIsSynced) {
    disk.apply({.kind = Kind::remove, .path = "/home/list"});
    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old")));

    open(4, "/home/");
    sync(4);
    EXPECT_THAT(disk.safeTree(), IsEmpty());
}

TEST_F(DiskTests, BytesThatAFailedSyncDroppedNoLaterOneBringsBack) {
    open(3, "/home/list");
    write(3, "newer");
    failToSync(3);
    EXPECT_FALSE(disk.areBytesSafe("/home/list"));

    open(4, "/home/list");
    sync(4);

    EXPECT_THAT(all(Fate::kept), ElementsAre(Pair("list", "old")));
    EXPECT_FALSE(disk.areBytesSafe("/home/list"));
}

TEST_F(DiskTests, WhatIsWrittenAfterAFailedSyncIsSafeAfterTheNext) {
    open(3, "/home/list");
    write(3, "new");
    failToSync(3);
    write(3, "again");
    sync(3);

    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "again")));
}

TEST_F(DiskTests, NamesThatAFailedSyncDroppedNoLaterOneBringsBack) {
    open(3, "/home/new");
    disk.apply({.kind = Kind::makeFolder, .path = "/home/sub"});
    open(4, "/home");
    failToSync(4);
    sync(4);
    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old"), Pair("sub/", "")));

    rename("/home/new", "/home/list");
    sync(4);
    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", ""), Pair("sub/", "")));
}

TEST_F(DiskTests, WhatIsInAFolderGoesWithIt) {
    disk.apply({.kind = Kind::makeFolder, .path = "/home/sub"});
    open(3, "/home/sub/new");
    sync(3);
    open(4, "/home/sub");
    sync(4);

    EXPECT_THAT(disk.safeTree(), ElementsAre(Pair("list", "old")));
}

}  // namespace
}  // namespace quillmere::test
