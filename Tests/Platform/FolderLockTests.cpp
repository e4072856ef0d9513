#include "QuillmereKit/Platform/FolderLock.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

/// Another process that tries to take a lock and holds it as long as the object lives.
class OtherProcess {
public:
    explicit OtherProcess(const std::string& lockFile) {
        int toChild[2];
        int fromChild[2];
        if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) std::abort();
        input_ = Descriptor(toChild[1]);
        const Descriptor childInput(toChild[0]);
        const Descriptor output(fromChild[0]);
        Descriptor childOutput(fromChild[1]);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, childInput.number(), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, childOutput.number(), STDOUT_FILENO);
        std::string program = FOLDER_LOCK_HOLDER;
        std::string argument = lockFile;
        char* const arguments[] = {program.data(), argument.data(), nullptr};
        if (::posix_spawn(&process_, program.c_str(), &actions, nullptr, arguments, environ) != 0) std::abort();
        posix_spawn_file_actions_destroy(&actions);
        childOutput.close();

        char bytes[16] = {};
        for (std::size_t count = 0; count < sizeof(bytes) - 1 && answer_.find('\n') == std::string::npos;) {
            const auto got = ::read(output.number(), bytes, sizeof(bytes) - 1);
            if (got <= 0) break;
            answer_.append(bytes, static_cast<std::size_t>(got));
            count += static_cast<std::size_t>(got);
        }
    }
    ~OtherProcess() {
        input_.close();
        wait();
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    [[nodiscard]] bool holdsTheLock() const { return answer_ == "held\n"; }
    [[nodiscard]] bool wasRefused() const { return answer_ == "refused\n"; }
    [[nodiscard]] pid_t id() const noexcept { return id_ = process_ > 0 ? process_ : id_; }

    void kill() {
        ::kill(process_, SIGKILL);
        wait();
    }

private:
    void wait() {
        if (process_ <= 0) return;
        int status = 0;
        while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
        }
        process_ = 0;
    }

    Descriptor input_;
    pid_t process_ = 0;
    mutable pid_t id_ = 0;
    std::string answer_;
};

struct FolderLockTests : testing::Test {
    TemporaryFolder folder;
    path file = folder.path() / ".lock";

    /// Why the lock cannot be had, where nobody holds it; no error if it can.
    static std::error_code reasonOfRefusal(const path& lockFile) {
        try {
            static_cast<void>(FolderLock::acquire(lockFile));
            return {};
        } catch (const FileError& error) {
            EXPECT_EQ(error.step(), "lock");
            EXPECT_EQ(error.path(), lockFile);
            return error.code();
        }
    }
};

TEST_F(FolderLockTests, IsSharedInOneProcessAndFreeWhenTheLastHandleGoes) {
    auto first = FolderLock::tryAcquire(file);
    ASSERT_NE(first, nullptr);
    auto second = FolderLock::tryAcquire(file);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(FolderLock::isHeld(file));

    first.reset();
    EXPECT_TRUE(FolderLock::isHeld(file));
    EXPECT_TRUE(OtherProcess(file).wasRefused());
    second.reset();
    EXPECT_FALSE(FolderLock::isHeld(file));
    EXPECT_TRUE(OtherProcess(file).holdsTheLock());
}

TEST_F(FolderLockTests, IsSharedWhateverTheFileIsCalled) {
    std::filesystem::create_directory_symlink(folder.path(), folder.path() / "link");
    const auto first = FolderLock::tryAcquire(file);
    auto second = FolderLock::tryAcquire(folder.path() / "link" / "." / ".lock");

    EXPECT_NE(second, nullptr);
    second.reset();
    EXPECT_TRUE(FolderLock::isHeld(file));
}

TEST_F(FolderLockTests, IsRefusedWhileAnotherProcessHoldsItAndSaysWho) {
    const OtherProcess other(file);
    ASSERT_TRUE(other.holdsTheLock());

    EXPECT_EQ(FolderLock::tryAcquire(file), nullptr);
    EXPECT_TRUE(FolderLock::isHeld(file));
    EXPECT_EQ(FolderLock::holder(file), "FolderLockHolder, process " + std::to_string(other.id()));
    try {
        static_cast<void>(FolderLock::acquire(file));
        FAIL() << "taken";
    } catch (const LibraryInUse& error) {
        EXPECT_EQ(error.folder(), folder.path());
        EXPECT_EQ(error.holder(), FolderLock::holder(file));
    }
}

TEST_F(FolderLockTests, IsFreeWhenItsHolderEndsOrDies) {
    { ASSERT_TRUE(OtherProcess(file).holdsTheLock()); }
    EXPECT_FALSE(FolderLock::isHeld(file));
    {
        OtherProcess other(file);
        ASSERT_TRUE(other.holdsTheLock());
        other.kill();
        EXPECT_FALSE(FolderLock::isHeld(file));
    }

    EXPECT_NE(FolderLock::tryAcquire(file), nullptr);
}

TEST_F(FolderLockTests, AStartedProgramDoesNotKeepIt) {
    auto lock = FolderLock::tryAcquire(file);
    ASSERT_NE(lock, nullptr);
    const OtherProcess child("-");
    ASSERT_TRUE(child.wasRefused());

    lock.reset();

    EXPECT_FALSE(FolderLock::isHeld(file));
    EXPECT_TRUE(OtherProcess(file).holdsTheLock());
}

TEST_F(FolderLockTests, AskingForItNeitherTakesItNorMakesItsFile) {
    EXPECT_FALSE(FolderLock::isHeld(file));
    EXPECT_FALSE(FolderLock::isHeld(folder.path() / "missing" / ".lock"));
    EXPECT_FALSE(fileExists(file));

    folder.putFile(".lock", "");
    EXPECT_FALSE(FolderLock::isHeld(file));
    EXPECT_TRUE(OtherProcess(file).holdsTheLock());
}

TEST_F(FolderLockTests, WhatIsNoLockFileIsRefusedAndNotCalledFree) {
    folder.putFile("file", "content");
    std::filesystem::create_directory(folder.path() / "folder");
    std::filesystem::create_symlink("file", folder.path() / "link");
    ASSERT_EQ(::mkfifo((folder.path() / "fifo").c_str(), 0600), 0);

    for (const char* name : {"folder", "link", "fifo"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(FolderLock::tryAcquire(folder.path() / name), nullptr);
        EXPECT_EQ(reasonOfRefusal(folder.path() / name), FileFault::fileNotRegular);
        EXPECT_TRUE(FolderLock::isHeld(folder.path() / name));
        EXPECT_EQ(FolderLock::holder(folder.path() / name), "another process");
    }
    EXPECT_EQ(folder.content("file"), "content");
}

TEST_F(FolderLockTests, AStrangersFileIsRefusedAndStaysAsItIs) {
    for (const std::string& text :
         {std::string("my precious notes"), std::string("my precious notes\n"), std::string("\n"),
          std::string("notes\nmine, process 4\n"), std::string(", process 4\n"), std::string("FileTests, process 4x\n"),
          std::string("FileTests, process 4\n\n"), std::string("bell\a, process 4\n"), std::string("\xFF, process 4\n"),
          std::string(3, '\0') + "notes", std::string(10'000, '\0'), std::string(10'000, 'x')}) {
        SCOPED_TRACE(text.substr(0, 50));
        folder.putFile(".lock", text);

        EXPECT_EQ(FolderLock::tryAcquire(file), nullptr);
        EXPECT_EQ(reasonOfRefusal(file), FileFault::fileNotOwn);
        EXPECT_TRUE(FolderLock::isHeld(file));
        EXPECT_EQ(FolderLock::holder(file), "another process");
        EXPECT_EQ(folder.content(".lock"), text);
    }
}

TEST_F(FolderLockTests, AFileThatHasASecondNameIsLockedAndStaysAsItIs) {
    const TemporaryFolder elsewhere;
    for (const char* text : {"quillmere, process 4711\n", ""}) {
        SCOPED_TRACE(text);
        const auto outside = elsewhere.putFile("outside", text);
        std::filesystem::create_hard_link(outside, file);
        {
            const auto lock = FolderLock::acquire(file);
            EXPECT_TRUE(FolderLock::isHeld(file));
            EXPECT_EQ(elsewhere.content("outside"), text);
        }
        EXPECT_FALSE(FolderLock::isHeld(file));
        EXPECT_EQ(elsewhere.content("outside"), text);
        std::filesystem::remove(file);
    }
}

TEST_F(FolderLockTests, AStrangersFileThatHasASecondNameIsRefusedAndStaysAsItIs) {
    const TemporaryFolder elsewhere;
    const auto outside = elsewhere.putFile("outside", "my precious notes");
    std::filesystem::create_hard_link(outside, file);

    EXPECT_EQ(reasonOfRefusal(file), FileFault::fileNotOwn);
    EXPECT_TRUE(FolderLock::isHeld(file));
    EXPECT_EQ(elsewhere.content("outside"), "my precious notes");
}

TEST_F(FolderLockTests, AFileThatGetsASecondNameWhileItIsLockedStaysAsItIsThen) {
    auto lock = FolderLock::acquire(file);
    const auto text = folder.content(".lock");
    std::filesystem::create_hard_link(file, folder.path() / "copy");

    lock.reset();

    EXPECT_EQ(folder.content("copy"), text);
    EXPECT_FALSE(FolderLock::isHeld(file));
    EXPECT_EQ(FolderLock::holder(file), "another process") << "whoever holds it now, the text is of an earlier time";
}

TEST_F(FolderLockTests, WhatAKillOrAPowerCutLeavesInTheFileIsNoObstacle) {
    for (const std::string& text :
         {std::string(), std::string("quillmere, process 4711\n"), std::string("a program, of others, process 1\n"),
          std::string("quillmere, process 47"), std::string("quillmere, process "), std::string("FileTests, proc"),
          std::string("F"), std::string(24, '\0'), "FileTests, proc" + std::string(9, '\0')}) {
        SCOPED_TRACE(text);
        folder.putFile(".lock", text);

        EXPECT_FALSE(FolderLock::isHeld(file));
        EXPECT_NE(FolderLock::acquire(file), nullptr);
        EXPECT_EQ(folder.content(".lock"), "");
    }
}

TEST_F(FolderLockTests, WhatSomebodyWroteIntoTheFileMeanwhileOutlivesTheLock) {
    auto lock = FolderLock::acquire(file);
    folder.putFile(".lock", "my precious notes\n");

    lock.reset();

    EXPECT_EQ(folder.content(".lock"), "my precious notes\n");
}

TEST_F(FolderLockTests, CannotBeTakenWhereItsFileCannotBeMade) {
    const auto blocker = folder.putFile("file", "content");

    const auto zero = path(file.native() + std::string("\0x", 2));
    EXPECT_EQ(FolderLock::tryAcquire(zero), nullptr);
    EXPECT_EQ(reasonOfRefusal(zero), std::errc::invalid_argument);
    EXPECT_EQ(reasonOfRefusal(folder.path() / "missing" / ".lock"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(reasonOfRefusal(blocker / ".lock"), std::errc::not_a_directory);
    EXPECT_FALSE(FolderLock::isHeld(blocker / ".lock"));
}

TEST_F(FolderLockTests, NoticesThatItsFileWasReplaced) {
    const auto lock = FolderLock::tryAcquire(file);
    ASSERT_NE(lock, nullptr);
    EXPECT_TRUE(lock->isInForce());

    std::filesystem::remove(file);
    EXPECT_FALSE(lock->isInForce());
    {
        const OtherProcess other(file);
        EXPECT_TRUE(other.holdsTheLock());
        EXPECT_FALSE(lock->isInForce());
        EXPECT_EQ(FolderLock::tryAcquire(file), nullptr);
    }

    const auto renewed = FolderLock::tryAcquire(file);
    ASSERT_NE(renewed, nullptr);
    EXPECT_TRUE(renewed->isInForce());
}

TEST_F(FolderLockTests, ItsTextIsShownOnlyIfItIsALineOfText) {
    EXPECT_EQ(FolderLock::holder(file), "another process");
    for (const std::string& text :
         {std::string(), std::string("\n"), std::string("notes"), std::string("two\nlines, process 1"),
          std::string("bell\a"), std::string("zero\0byte", 9), std::string("\xFF"), std::string(10'000, 'x')}) {
        folder.putFile(".lock", text);
        EXPECT_EQ(FolderLock::holder(file), "another process");
    }
    folder.putFile(".lock", "quillmere, process 4711\n");
    EXPECT_EQ(FolderLock::holder(file), "quillmere, process 4711");
    folder.putFile(".lock", "quillmere, process ");
    EXPECT_EQ(FolderLock::holder(file), "quillmere, process");
}

TEST_F(FolderLockTests, AHolderBeforeLeavesNoName) {
    { ASSERT_NE(FolderLock::tryAcquire(file), nullptr); }

    EXPECT_EQ(FolderLock::holder(file), "another process");
}

TEST_F(FolderLockTests, ThreadsThatTakeAndGiveItBackAtOnceAllGetIt) {
    constexpr int threadCount = 4;
    std::latch start(threadCount);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int round = 0; round < 500; ++round) {
                const auto lock = FolderLock::tryAcquire(file);
                ASSERT_NE(lock, nullptr);
                ASSERT_TRUE(lock->isInForce());
            }
        });
    }
    threads.clear();

    EXPECT_FALSE(FolderLock::isHeld(file));
}

TEST_F(FolderLockTests, TheErrorNamesFolderAndHolder) {
    const LibraryInUse error("/music/Loops", "quillmere, process 4711");

    EXPECT_EQ(error.folder(), "/music/Loops");
    EXPECT_EQ(error.holder(), "quillmere, process 4711");
    EXPECT_STREQ(error.what(), "The folder \"/music/Loops\" is in use by quillmere, process 4711.");
}

}  // namespace
}  // namespace quillmere::test
