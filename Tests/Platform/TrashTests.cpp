#include "QuillmereKit/Platform/Trash.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

struct TrashTests : testing::Test {
    TemporaryFolder folder;
};

TEST_F(TrashTests, WhatTheServiceRefusesStays) {
    EXPECT_FALSE(moveToTrash(folder.path() / "missing"));
    EXPECT_FALSE(moveToTrash(folder.path() / "missing" / "file"));
    EXPECT_FALSE(moveToTrash("/proc/self/status"));
    EXPECT_TRUE(fileExists("/proc/self/status"));
    EXPECT_FALSE(moveToTrash(""));
}

TEST_F(TrashTests, AZeroByteInThePathDoesNotCutItOff) {
    const auto file = folder.putFile("file", "content");

    EXPECT_FALSE(moveToTrash(file.native() + std::string("\0.bak", 5)));

    EXPECT_EQ(folder.content("file"), "content");
}

#ifdef QUILLMERE_TRASH

/// The trash of the test program's own home folder.
std::filesystem::path trashFolder() { return UserFolders::applicationData()->parent_path() / "Trash"; }

TEST_F(TrashTests, AFileAndAFolderAreKeptInTheTrash) {
    ASSERT_TRUE(moveToTrash(folder.putFile("piece of music.wav", "content")));
    folder.putFile("Render-1/audio.wav", "more content");
    ASSERT_TRUE(moveToTrash(folder.path() / "Render-1"));

    EXPECT_THAT(folder.names(), testing::IsEmpty());
    EXPECT_EQ(readFile(trashFolder() / "files" / "piece of music.wav", 100), "content");
    EXPECT_EQ(readFile(trashFolder() / "files" / "Render-1" / "audio.wav", 100), "more content");
    EXPECT_TRUE(fileExists(trashFolder() / "info" / "piece of music.wav.trashinfo"));
}

TEST_F(TrashTests, ALinkGoesWithoutWhatItPointsTo) {
    folder.putFile("precious", "content");
    std::filesystem::create_symlink("precious", folder.path() / "link");

    EXPECT_TRUE(moveToTrash(folder.path() / "link"));

    EXPECT_EQ(folder.content("precious"), "content");
    EXPECT_THAT(folder.names(), testing::ElementsAre("precious"));
}

#else

TEST_F(TrashTests, WithoutTheServiceNothingIsMoved) {
    EXPECT_FALSE(moveToTrash(folder.putFile("file", "content")));

    EXPECT_EQ(folder.content("file"), "content");
}

#endif

}  // namespace
}  // namespace quillmere::test
