// What a function on files has done when it returns, no power cut undoes.

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Tests/Reliability/Disk.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

struct Durability : testing::Test {
    TemporaryFolder folder;
    path home = folder.path() / "home";
    Tree before = {{"file", "content"}, {"inner/", ""}, {"inner/other", "more"}};

    /// The disk after an operation on the tree, of which only what is not `unsynced` was safe before.
    Disk after(const std::function<void()>& operation, const std::set<std::string>& unsynced = {}) const {
        std::vector<RecordedCall> calls;
        {
            const SystemCallFaults recording({.record = &calls});
            operation();
        }
        Disk disk(home, before, unsynced);
        for (const auto& call : calls) disk.apply(call);
        return disk;
    }
    void expectDurable(const char* name, const std::function<void()>& operation) const {
        SCOPED_TRACE(name);
        writeTree(home, before);
        const auto disk = after(operation);
        EXPECT_NE(readTree(home), before) << "nothing happened";
        EXPECT_EQ(disk.safeTree(), readTree(home));
    }
};

TEST_F(Durability, OfEveryFunctionThatPromisesIt) {
    const OwnFolder own(home);
    const Date now;
    expectDurable("a new file", [&] { writeDurably(home / "new", "bytes"); });
    expectDurable("a replaced file", [&] { writeDurably(home / "file", "bytes"); });
    expectDurable("a copy", [&] { copyFile(home / "file", home / "inner" / "copy"); });
    expectDurable("a move", [&] { moveFile(home / "file", home / "inner" / "file"); });
    expectDurable("new folders", [&] { createFolders(home / "a" / "b"); });
    expectDurable("a copy kept aside", [&] { keepCopyAside(home / "file", "before", now); });
    expectDurable("a file moved aside", [&] { moveAside(home / "file", "unreadable", now); });
    expectDurable("an own file's removal", [&] { own.remove(home / "inner" / "other"); });
    expectDurable("an own file's move", [&] { own.move(home / "file", home / "inner" / "file"); });
}

// It reads as before; but now it is safe.
TEST_F(Durability, OfAFileWrittenAnew) {
    const OwnFolder own(home);
    writeTree(home, before);
    const std::set<std::string> unsynced = {"inner/other"};
    ASSERT_NE(after([] {}, unsynced).safeTree(), before);

    const auto disk = after([&] { own.rewrite(home / "inner" / "other"); }, unsynced);

    EXPECT_EQ(readTree(home), before);
    EXPECT_EQ(disk.safeTree(), before);
}

TEST_F(Durability, OfAFinishedAudioFilesBytes) {
    writeTree(home, before);
    const auto file = home / "audio.wav";
    const auto disk = after([&] {
        WAVWriter writer(file, 48000, 2);
        writer.write(std::vector<std::int16_t>(200, 1));
        writer.finish();
    });

    EXPECT_TRUE(disk.areBytesSafe(file));
}

}  // namespace
}  // namespace quillmere::test
