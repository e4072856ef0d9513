#include "QuillmereKit/Platform/OwnFolder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;
using testing::ElementsAre;

/// A folder "Loops" with a file, a neighbour whose name begins the same, and links in all directions.
struct OwnFolderTests : testing::Test {
    TemporaryFolder folder;
    path loops = folder.path() / "Loops";
    path file = folder.putFile("Loops/piece.wav", "own");
    path deep = folder.putFile("Loops/Render-1/sub/audio.wav", "own too");
    path neighbour = folder.putFile("Loops-old/piece.wav", "not ours");
    path outside = folder.putFile("outside.wav", "not ours");
    OwnFolder own{loops};

    OwnFolderTests() {
        std::filesystem::create_symlink(outside, loops / "link.wav");
        std::filesystem::create_symlink("piece.wav", loops / "inner link.wav");
        std::filesystem::create_directory_symlink(folder.path() / "Loops-old", loops / "old");
        std::filesystem::create_directory_symlink("Render-1", loops / "render link");
        if (::mkfifo((loops / "fifo").c_str(), 0600) != 0) std::abort();
    }

    /// Paths that are not the folder's own regular files, each for a reason of its own.
    [[nodiscard]] std::vector<path> strangers() const {
        return {neighbour,
                outside,
                loops,
                loops / "",
                loops / ".",
                loops / "..",
                loops / "../Loops-old/piece.wav",
                loops / "../outside.wav",
                loops / "Render-1/../../outside.wav",
                loops / "link.wav",
                loops / "inner link.wav",
                loops / "old" / "piece.wav",
                loops / "render link" / "sub" / "audio.wav",
                loops / "fifo",
                loops / "Render-1",
                loops / "piece.wav" / "inner",
                loops / "missing",
                loops / "missing" / "file",
                path(file.native() + std::string("\0.bak", 5)),
                path("piece.wav"),
                path("Loops/piece.wav"),
                path("/"),
                path()};
    }

    void expectNothingIsLost() const {
        EXPECT_EQ(folder.content("Loops/piece.wav"), "own");
        EXPECT_EQ(folder.content("Loops/Render-1/sub/audio.wav"), "own too");
        EXPECT_EQ(folder.content("Loops-old/piece.wav"), "not ours");
        EXPECT_EQ(folder.content("outside.wav"), "not ours");
        EXPECT_TRUE(std::filesystem::is_symlink(loops / "link.wav"));
        EXPECT_TRUE(std::filesystem::is_symlink(loops / "inner link.wav"));
        EXPECT_TRUE(std::filesystem::exists(loops / "fifo"));
    }
};

TEST_F(OwnFolderTests, NamesWhatLiesBelowItByTextAlone) {
    EXPECT_TRUE(own.names(file));
    EXPECT_TRUE(own.names(loops / "missing" / "deep"));
    EXPECT_TRUE(own.names(loops / "link.wav"));
    EXPECT_TRUE(own.names(loops / "." / "x" / ".." / "piece.wav"));
    EXPECT_TRUE(own.names(folder.path() / "elsewhere" / ".." / "Loops" / "piece.wav"));
    EXPECT_TRUE(own.names(path(loops.native() + "//piece.wav")));

    EXPECT_FALSE(own.names(loops));
    EXPECT_FALSE(own.names(loops / ""));
    EXPECT_FALSE(own.names(loops / "."));
    EXPECT_FALSE(own.names(neighbour));
    EXPECT_FALSE(own.names(loops / ".." / "outside.wav"));
    EXPECT_FALSE(own.names("piece.wav"));
    EXPECT_FALSE(own.names(""));
    EXPECT_FALSE(own.names(path(file.native() + std::string("\0", 1))));
}

TEST_F(OwnFolderTests, OwnsTheRegularFilesBelowItAndNothingElse) {
    EXPECT_TRUE(own.owns(file));
    EXPECT_TRUE(own.owns(deep));
    EXPECT_TRUE(own.owns(loops / "missing" / ".." / "piece.wav"));
    ASSERT_TRUE(own.facts(deep));
    EXPECT_EQ(own.facts(deep)->size, 7U);

    for (const auto& stranger : strangers()) EXPECT_FALSE(own.owns(stranger)) << stranger;
}

TEST_F(OwnFolderTests, TheFolderItselfMayBeReachedThroughALinkAndWrittenInAnyForm) {
    std::filesystem::create_directory_symlink("Loops", folder.path() / "link");

    EXPECT_TRUE(OwnFolder(folder.path() / "link").owns(folder.path() / "link" / "piece.wav"));
    EXPECT_FALSE(OwnFolder(folder.path() / "link").owns(file));
    EXPECT_TRUE(OwnFolder(loops / "").owns(file));
    EXPECT_TRUE(OwnFolder(loops / "x" / "..").owns(file));
    EXPECT_TRUE(OwnFolder("/").owns(file));
}

TEST_F(OwnFolderTests, ARelativeFolderIsTakenFromTheCurrentOne) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    const OwnFolder relative("Loops");
    std::filesystem::current_path(before);

    EXPECT_EQ(relative.path(), loops);
    EXPECT_TRUE(relative.owns(file));
}

TEST_F(OwnFolderTests, AFolderThatIsNotThereOwnsNothing) {
    const OwnFolder missing(folder.path() / "missing");
    const OwnFolder noFolder(outside);

    EXPECT_FALSE(missing.owns(missing.path() / "file"));
    EXPECT_FALSE(missing.remove(missing.path() / "file"));
    EXPECT_FALSE(noFolder.owns(outside / "file"));
}

TEST_F(OwnFolderTests, RemovesItsOwnFiles) {
    EXPECT_TRUE(own.remove(file));
    EXPECT_TRUE(own.remove(deep));

    EXPECT_FALSE(own.remove(file));
    EXPECT_FALSE(fileExists(file));
    EXPECT_FALSE(fileExists(deep));
}

TEST_F(OwnFolderTests, RemovesItsOwnFilesWithoutASyncToo) {
    EXPECT_TRUE(own.removeUnsynced(deep));

    EXPECT_FALSE(own.removeUnsynced(deep));
    EXPECT_FALSE(fileExists(deep));
}

TEST_F(OwnFolderTests, RemovesNothingThatIsNotItsOwn) {
    for (const auto& stranger : strangers()) {
        SCOPED_TRACE(stranger);
        EXPECT_FALSE(own.remove(stranger));
        EXPECT_FALSE(own.removeUnsynced(stranger));
    }
    expectNothingIsLost();
}

TEST_F(OwnFolderTests, OpensItsOwnFilesForReading) {
    const auto opened = own.open(deep);
    char bytes[16] = {};

    EXPECT_EQ(::read(opened.number(), bytes, sizeof(bytes)), 7);
    EXPECT_STREQ(bytes, "own too");
}

TEST_F(OwnFolderTests, OpensNothingThatIsNotItsOwn) {
    for (const auto& stranger : strangers()) {
        SCOPED_TRACE(stranger);
        EXPECT_THROW(static_cast<void>(own.open(stranger)), FileError);
    }
    const auto codeOf = [&](const path& stranger) {
        try {
            static_cast<void>(own.open(stranger));
        } catch (const FileError& error) {
            return error.code();
        }
        return std::error_code{};
    };
    EXPECT_EQ(codeOf(loops / "fifo"), FileFault::fileNotRegular);
    EXPECT_EQ(codeOf(loops / "link.wav"), FileFault::fileNotRegular);
    EXPECT_EQ(codeOf(loops / "old" / "piece.wav"), std::errc::operation_not_permitted);
    EXPECT_EQ(codeOf(outside), std::errc::operation_not_permitted);
    EXPECT_EQ(codeOf(loops / "missing"), std::errc::no_such_file_or_directory);
}

TEST_F(OwnFolderTests, MovesItsOwnFilesWithinItself) {
    own.move(deep, loops / "focus_b2_0123456789abcdef.wav");

    EXPECT_EQ(folder.content("Loops/focus_b2_0123456789abcdef.wav"), "own too");
    EXPECT_FALSE(fileExists(deep));
}

TEST_F(OwnFolderTests, WritesItsOwnFilesAnewUnderTheSameName) {
    const std::string content(1'000'001, 'x');
    folder.putFile("Loops/Render-1/sub/audio.wav", content);
    std::filesystem::permissions(deep, std::filesystem::perms(0640));
    const auto before = factsOf(deep);

    own.rewrite(deep);

    EXPECT_EQ(folder.content("Loops/Render-1/sub/audio.wav"), content);
    EXPECT_NE(factsOf(deep)->inode, before->inode);
    EXPECT_EQ(std::filesystem::status(deep).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(listFolder(deep.parent_path()).size(), 1U);
}

TEST_F(OwnFolderTests, WritesNothingAnewThatIsNotItsOwn) {
    for (const auto& stranger : strangers()) {
        SCOPED_TRACE(stranger);
        EXPECT_THROW(own.rewrite(stranger), FileError);
    }
    expectNothingIsLost();
}

TEST_F(OwnFolderTests, NeverMovesOverAnything) {
    for (const auto& taken : {file, loops / "link.wav", loops / "fifo", loops / "Render-1"}) {
        SCOPED_TRACE(taken);
        try {
            own.move(deep, taken);
            ADD_FAILURE() << "no error";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), std::errc::file_exists);
            EXPECT_EQ(error.path(), taken);
        }
    }
    expectNothingIsLost();
}

TEST_F(OwnFolderTests, MovesNothingInOrOut) {
    for (const auto& stranger : strangers()) {
        SCOPED_TRACE(stranger);
        EXPECT_THROW(own.move(stranger, loops / "new.wav"), FileError);
    }
    for (const auto& place : {folder.path() / "new.wav", loops / ".." / "new.wav", loops / "old" / "new.wav",
                              loops / "render link" / "new.wav", loops / "missing" / "new.wav", loops}) {
        SCOPED_TRACE(place);
        EXPECT_THROW(own.move(file, place), FileError);
    }
    expectNothingIsLost();
    EXPECT_FALSE(fileExists(loops / "new.wav"));
}

TEST_F(OwnFolderTests, RemovesAFolderOfItsOwnWithAllItHolds) {
    std::filesystem::create_symlink(outside, loops / "Render-1" / "link");
    std::filesystem::create_directory_symlink(folder.path() / "Loops-old", loops / "Render-1" / "old");

    EXPECT_TRUE(own.removeFolder(loops / "Render-1"));

    EXPECT_FALSE(fileExists(loops / "Render-1"));
    EXPECT_EQ(folder.content("Loops-old/piece.wav"), "not ours");
    EXPECT_EQ(folder.content("outside.wav"), "not ours");
    EXPECT_FALSE(own.removeFolder(loops / "Render-1"));
}

TEST_F(OwnFolderTests, RemovesNoFolderThatIsNotItsOwn) {
    for (const auto& stranger : {loops, folder.path() / "Loops-old", loops / "..", loops / "old", loops / "render link",
                                 loops / "render link" / "sub", file, loops / "missing", folder.path()}) {
        SCOPED_TRACE(stranger);
        EXPECT_FALSE(own.removeFolder(stranger));
        EXPECT_FALSE(own.removeEmptyFolder(stranger));
    }
    expectNothingIsLost();
}

TEST_F(OwnFolderTests, RemovesAnEmptyFolderOnlyWhenItIsEmpty) {
    EXPECT_FALSE(own.removeEmptyFolder(loops / "Render-1" / "sub"));
    EXPECT_TRUE(own.remove(deep));

    EXPECT_TRUE(own.removeEmptyFolder(loops / "Render-1" / "sub"));
    EXPECT_TRUE(own.removeEmptyFolder(loops / "Render-1"));
    EXPECT_FALSE(own.removeEmptyFolder(loops / "Render-1"));
}

// The check and the deletion go through the same open folder, so that whatever the swapping thread does, only the
// folder's own file can be hit.
TEST_F(OwnFolderTests, AFolderSwappedForALinkMeanwhileLeadsNowhere) {
    const auto sub = loops / "sub";
    const auto target = folder.path() / "Loops-old";
    std::filesystem::create_directory(sub);
    std::filesystem::create_directory_symlink(target, folder.path() / "trap");
    std::atomic<bool> stop = false;
    std::jthread swapper([&] {
        while (!stop) {
            std::error_code ignored;
            std::filesystem::rename(sub, folder.path() / "aside", ignored);
            std::filesystem::rename(folder.path() / "trap", sub, ignored);
            std::filesystem::rename(sub, folder.path() / "trap", ignored);
            std::filesystem::rename(folder.path() / "aside", sub, ignored);
        }
    });

    for (int round = 0; round < 5000; ++round) {
        EXPECT_FALSE(own.remove(sub / "piece.wav"));
        EXPECT_FALSE(own.owns(sub / "piece.wav"));
    }
    stop = true;
    swapper.join();

    expectNothingIsLost();
}

}  // namespace
}  // namespace quillmere::test
