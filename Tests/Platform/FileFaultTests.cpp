// What is left on disk when the system refuses any one call of an operation, or serves it in small pieces.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using testing::ElementsAre;

constexpr std::size_t plenty = 1 << 20;

struct Outcome {
    std::string struck;              ///< The call that failed.
    std::optional<FileError> error;  ///< What the operation threw.
};

/// Runs `operation` in a fresh folder once for each of its system calls, with that call failing, and then `check`.
/// Returns how many calls there were.
int forEachFailingCall(const std::function<void(const TemporaryFolder& folder)>& prepare,
                       const std::function<void(const TemporaryFolder& folder)>& operation,
                       const std::function<void(const TemporaryFolder& folder, const Outcome& outcome)>& check) {
    for (int failing = 1; failing < 200; ++failing) {
        const TemporaryFolder folder;
        prepare(folder);
        Outcome outcome;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO});
            try {
                operation(folder);
            } catch (const FileError& error) {
                outcome.error = error;
            }
            outcome.struck = faults.struck();
        }
        SCOPED_TRACE("call " + std::to_string(failing) + ", " + outcome.struck);
        check(folder, outcome);
        if (outcome.struck.empty()) return failing - 1;
    }
    ADD_FAILURE() << "the operation does not end";
    return 0;
}

TEST(FileFaults, WriteDurablyHoldsTheOldContentOrTheNewWhateverFails) {
    const auto calls = forEachFailingCall(
        [](const TemporaryFolder& folder) { folder.putFile("list.json", "old"); },
        [](const TemporaryFolder& folder) { writeDurably(folder.path() / "list.json", "new"); },
        [](const TemporaryFolder& folder, const Outcome& outcome) {
            // Whether the permissions fit already is asked to save a call; closing the folder changes nothing.
            const bool mayPass = outcome.struck.empty() || outcome.struck == "fstat" || outcome.struck == "close";
            EXPECT_TRUE(outcome.error || mayPass);
            const bool isNew = !outcome.error || outcome.error->isInPlace();
            EXPECT_EQ(folder.content("list.json"), isNew ? "new" : "old");
            EXPECT_THAT(folder.names(), ElementsAre("list.json"));
            if (outcome.error) {
                EXPECT_EQ(outcome.error->code(), std::errc::io_error);
            }
        });

    EXPECT_GE(calls, 8);  // open, look, create, permissions, write, sync, close, rename, sync, close
}

TEST(FileFaults, AFailedCloseOfTheNewFileIsAFailedWrite) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("list.json", "old");
    const SystemCallFaults faults({.failing = 1, .error = ENOSPC, .call = "close"});

    try {
        writeDurably(file, "new");
        FAIL() << "no error";
    } catch (const FileError& error) {
        EXPECT_EQ(error.step(), "close");
        EXPECT_FALSE(error.isInPlace());
    }
    EXPECT_EQ(folder.content("list.json"), "old");
}

TEST(FileFaults, OnlyTheLastSyncFailingLeavesTheNewContentAndSaysSo) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("list.json", "old");
    const SystemCallFaults faults({.failing = 2, .error = EIO, .call = "fsync"});

    try {
        writeDurably(file, "new");
        FAIL() << "no error";
    } catch (const FileError& error) {
        EXPECT_EQ(error.step(), "sync folder");
        EXPECT_TRUE(error.isInPlace());
    }
    EXPECT_EQ(folder.content("list.json"), "new");
    EXPECT_EQ(faults.count(), 2);  // not tried again
}

TEST(FileFaults, ADiskThatIsFullHalfwayLeavesTheOldContentAndNothingElse) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("list.json", "old");
    const SystemCallFaults faults({.failing = 1, .error = ENOSPC, .call = "write", .persists = true, .shortens = true});

    try {
        writeDurably(file, "the new content");
        FAIL() << "no error";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), std::errc::no_space_on_device);
    }
    EXPECT_EQ(faults.count(), 2);  // half of it, and the refused rest
    EXPECT_EQ(folder.content("list.json"), "old");
    EXPECT_THAT(folder.names(), ElementsAre("list.json"));
}

TEST(FileFaults, AFailedSyncIsNeverTriedAgain) {
    for (const int error : {EIO, ENOSPC, EINTR, EINVAL}) {
        const TemporaryFolder folder;
        const auto file = folder.putFile("list.json", "old");
        const SystemCallFaults faults({.failing = 1, .error = error, .call = "fsync"});

        EXPECT_THROW(writeDurably(file, "new"), FileError);

        EXPECT_EQ(faults.count(), 1);
        EXPECT_EQ(folder.content("list.json"), "old");
        EXPECT_THAT(folder.names(), ElementsAre("list.json"));
    }
}

TEST(FileFaults, AFileSystemThatCannotSyncFoldersIsNoFailure) {
    const TemporaryFolder folder;
    const SystemCallFaults faults({.failing = 2, .error = EINVAL, .call = "fsync"});

    EXPECT_NO_THROW(writeDurably(folder.path() / "list.json", "new"));

    EXPECT_EQ(faults.struck(), "fsync");
}

TEST(FileFaults, ShortAndInterruptedCallsAreContinued) {
    const TemporaryFolder folder;
    const std::string bytes = "twenty-six bytes of a text";
    const SystemCallFaults faults({.mostBytes = 3, .interrupts = true});

    writeDurably(folder.path() / "list.json", bytes);

    EXPECT_EQ(readFile(folder.path() / "list.json", plenty), bytes);
    copyFile(folder.path() / "list.json", folder.path() / "copy");
    EXPECT_EQ(readFile(folder.path() / "copy", bytes.size()), bytes);
}

TEST(FileFaults, AReadGivesTheWholeContentOrAnError) {
    const std::string bytes = "some bytes";
    std::string read;
    const auto calls = forEachFailingCall(
        [&](const TemporaryFolder& folder) { folder.putFile("file", bytes); },
        [&](const TemporaryFolder& folder) {
            read = "nothing";
            read = readFile(folder.path() / "file", plenty);
        },
        [&](const TemporaryFolder&, const Outcome& outcome) { EXPECT_EQ(read, outcome.error ? "nothing" : bytes); });

    EXPECT_GE(calls, 5);
}

TEST(FileFaults, ACopyIsWholeOrNotThereAndTheOriginalStays) {
    const auto calls = forEachFailingCall(
        [](const TemporaryFolder& folder) { folder.putFile("from", "content"); },
        [](const TemporaryFolder& folder) { copyFile(folder.path() / "from", folder.path() / "to"); },
        [](const TemporaryFolder& folder, const Outcome& outcome) {
            EXPECT_EQ(folder.content("from"), "content");
            if (!outcome.error || outcome.error->isInPlace()) {
                EXPECT_EQ(folder.content("to"), "content");
            } else {
                EXPECT_THAT(folder.names(), ElementsAre("from"));
            }
        });

    EXPECT_GE(calls, 10);
}

TEST(FileFaults, AMovedFileIsAtOneOfItsTwoPlaces) {
    forEachFailingCall(
        [](const TemporaryFolder& folder) {
            folder.putFile("a/from", "content");
            folder.putFile("b/other", "other");
        },
        [](const TemporaryFolder& folder) { moveFile(folder.path() / "a" / "from", folder.path() / "b" / "to"); },
        [](const TemporaryFolder& folder, const Outcome& outcome) {
            const bool isMoved = !outcome.error || outcome.error->isInPlace();
            EXPECT_EQ(folder.content(isMoved ? "b/to" : "a/from"), "content");
            EXPECT_NE(fileExists(folder.path() / "a" / "from"), fileExists(folder.path() / "b" / "to"));
        });
}

TEST(FileFaults, WithoutTheNoReplaceFlagAMoveStillReplacesNothing) {
    const TemporaryFolder folder;
    folder.putFile("from", "content");
    {
        const SystemCallFaults faults({.failing = 1, .error = EINVAL, .call = "renameat2"});
        moveFile(folder.path() / "from", folder.path() / "to");
        EXPECT_EQ(faults.struck(), "renameat2");
    }
    EXPECT_THAT(folder.names(), ElementsAre("to"));
    folder.putFile("precious", "precious");
    const SystemCallFaults faults({.failing = 1, .error = EINVAL, .call = "renameat2"});

    EXPECT_THROW(moveFile(folder.path() / "to", folder.path() / "precious"), FileError);

    EXPECT_EQ(folder.content("precious"), "precious");
    EXPECT_EQ(folder.content("to"), "content");
}

TEST(FileFaults, AKeptCopyIsWholeOrTheErrorTells) {
    const Date now(std::chrono::seconds(1'714'558'830));
    forEachFailingCall(
        [](const TemporaryFolder& folder) { folder.putFile("manifest.json", "damaged"); },
        [&](const TemporaryFolder& folder) { keepCopyAside(folder.path() / "manifest.json", "unreadable", now); },
        [](const TemporaryFolder& folder, const Outcome& outcome) {
            EXPECT_EQ(folder.content("manifest.json"), "damaged");
            if (outcome.error && !outcome.error->isInPlace()) return;
            EXPECT_EQ(folder.content("manifest.unreadable-2024-05-01T10-20-30Z.json"), "damaged");
        });
}

TEST(FileFaults, AnOwnFileIsDeletedOrStillThere) {
    bool wasRemoved = false;
    forEachFailingCall([](const TemporaryFolder& folder) { folder.putFile("sub/file", "content"); },
                       [&](const TemporaryFolder& folder) {
                           wasRemoved = false;
                           wasRemoved = OwnFolder(folder.path()).remove(folder.path() / "sub" / "file");
                       },
                       [&](const TemporaryFolder& folder, const Outcome& outcome) {
                           const bool isGone = wasRemoved || (outcome.error && outcome.error->isInPlace());
                           EXPECT_EQ(fileExists(folder.path() / "sub" / "file"), !isGone);
                       });
}

TEST(FileFaults, AnOwnFileIsMovedOrStillThere) {
    forEachFailingCall(
        [](const TemporaryFolder& folder) { folder.putFile("Render-1/audio.wav", "content"); },
        [](const TemporaryFolder& folder) {
            OwnFolder(folder.path()).move(folder.path() / "Render-1" / "audio.wav", folder.path() / "piece.wav");
        },
        [](const TemporaryFolder& folder, const Outcome& outcome) {
            const bool isMoved = !outcome.error || outcome.error->isInPlace();
            EXPECT_EQ(folder.content(isMoved ? "piece.wav" : "Render-1/audio.wav"), "content");
        });
}

TEST(FileFaults, AnOwnFileWrittenAnewHoldsWhatItHeldAndAnErrorTells) {
    std::optional<FileFacts> before;
    std::set<std::string> told;
    forEachFailingCall(
        [&](const TemporaryFolder& folder) { before = factsOf(folder.putFile("sub/file", "content")); },
        [](const TemporaryFolder& folder) { OwnFolder(folder.path()).rewrite(folder.path() / "sub" / "file"); },
        [&](const TemporaryFolder& folder, const Outcome& outcome) {
            const bool isNew = !outcome.error || outcome.error->isInPlace();
            EXPECT_EQ(factsOf(folder.path() / "sub" / "file")->inode != before->inode, isNew);
            EXPECT_EQ(folder.content("sub/file"), "content");
            EXPECT_EQ(listFolder(folder.path() / "sub").size(), 1U);
            if (outcome.error) told.insert(outcome.struck);
        });
    EXPECT_THAT(told, testing::IsSupersetOf({"openat", "read", "write", "fsync", "close", "renameat", "fstatat"}));
}

TEST(FileFaults, AnOwnFileThatChangesWhileItIsWrittenAnewKeepsTheChange) {
    for (const bool isReplaced : {false, true}) {
        SCOPED_TRACE(isReplaced);
        const TemporaryFolder folder;
        folder.putFile("file", "content");
        folder.putFile("other", "another");
        const auto file = folder.path() / "file";
        std::error_code code;
        {
            const SystemCallFaults faults({.failing = 1, .call = "fsync", .meanwhile = [&] {
                                               if (isReplaced) std::filesystem::rename(folder.path() / "other", file);
                                               if (!isReplaced) folder.putFile("file", "more content");
                                           }});
            try {
                OwnFolder(folder.path()).rewrite(file);
            } catch (const FileError& error) {
                code = error.code();
            }
        }
        EXPECT_EQ(code, std::errc::resource_unavailable_try_again);
        EXPECT_EQ(folder.content("file"), isReplaced ? "another" : "more content");
    }
}

TEST(FileFaults, AWAVFileIsFinishedOrAnErrorTells) {
    const std::vector<std::int16_t> samples(200'000, 7);
    forEachFailingCall([](const TemporaryFolder&) {},
                       [&](const TemporaryFolder& folder) {
                           WAVWriter writer(folder.path() / "audio.wav", 48000, 2);
                           writer.write(samples);
                           writer.flushHeader();
                           writer.write(samples);
                           writer.finish();
                       },
                       [](const TemporaryFolder& folder, const Outcome& outcome) {
                           if (outcome.error) return;
                           EXPECT_EQ(WAVFile(folder.path() / "audio.wav").frames(), 200'000);
                       });
}

TEST(FileFaults, AWAVFileThatCannotBeBegunLeavesNothing) {
    const TemporaryFolder folder;
    const SystemCallFaults faults({.failing = 1, .error = ENOSPC, .call = "pwrite"});

    EXPECT_THROW(WAVWriter(folder.path() / "audio.wav", 48000, 2), FileError);

    EXPECT_EQ(faults.struck(), "pwrite");
    EXPECT_THAT(folder.names(), testing::IsEmpty());
}

TEST(FileFaults, FoldersAreMadeOrTheErrorTells) {
    const auto calls =
        forEachFailingCall([](const TemporaryFolder&) {},
                           [](const TemporaryFolder& folder) { createFolders(folder.path() / "a" / "b" / "c"); },
                           [](const TemporaryFolder& folder, const Outcome& outcome) {
                               const bool isThere = fileExists(folder.path() / "a" / "b" / "c");
                               EXPECT_TRUE(isThere || outcome.error);
                           });

    EXPECT_GE(calls, 12);  // each of the three: make, open the parent, sync it, close it
}

TEST(FileFaults, AFolderIsRemovedOrTheErrorTellsAndTheNextTryRemovesIt) {
    forEachFailingCall(
        [](const TemporaryFolder& folder) {
            folder.putFile("work/a/b/file", "");
            folder.putFile("work/file", "");
        },
        [](const TemporaryFolder& folder) { removeFolder(folder.path() / "work"); },
        [](const TemporaryFolder& folder, const Outcome& outcome) {
            if (outcome.error) {
                removeFolder(folder.path() / "work");
            }
            EXPECT_THAT(folder.names(), testing::IsEmpty());
        });
}

TEST(FileFaults, AudioIsReadWholeInSmallPieces) {
    const TemporaryFolder folder;
    std::vector<std::int16_t> samples(1001 * 2);
    for (std::size_t index = 0; index < samples.size(); ++index) samples[index] = static_cast<std::int16_t>(index * 31);
    const SystemCallFaults faults({.mostBytes = 7, .interrupts = true});
    WAVWriter writer(folder.path() / "audio.wav", 48000, 2);
    writer.write(samples);
    writer.finish();

    WAVFile file(folder.path() / "audio.wav");
    std::vector<std::int16_t> read(samples.size());
    EXPECT_EQ(file.read(read), 1001U);

    EXPECT_EQ(read, samples);
}

TEST(FileFaults, AudioIsBegunThoughItsOpeningIsInterrupted) {
    const TemporaryFolder folder;
    const SystemCallFaults faults({.failing = 1, .error = EINTR, .call = "open"});

    WAVWriter(folder.path() / "audio.wav", 48000, 2).finish();

    EXPECT_EQ(faults.struck(), "open");
    EXPECT_THAT(folder.names(), testing::ElementsAre("audio.wav"));
}

TEST(FileFaults, ALinkPutInAFilesPlaceBetweenTheLookAndTheOpeningIsNotFollowed) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("Own/file", "own");
    const auto stranger = folder.putFile("stranger", "a stranger's");
    const OwnFolder own(folder.path() / "Own");
    const auto swap = [&] {
        std::filesystem::remove(file);
        std::filesystem::create_symlink(stranger, file);
    };
    const auto isRefused = [&](int calls, const std::function<void()>& open) {
        std::filesystem::remove(file);
        folder.putFile("Own/file", "own");
        const SystemCallFaults faults({.failing = calls, .call = "openat", .meanwhile = swap});
        try {
            open();
        } catch (const FileError& error) {
            return error.code() == std::errc::too_many_symbolic_link_levels;
        }
        return false;
    };

    EXPECT_TRUE(isRefused(1, [&] { static_cast<void>(readFile(file, plenty)); }));
    EXPECT_TRUE(isRefused(1, [&] { static_cast<void>(own.open(file)); }));
    EXPECT_EQ(readFile(stranger, plenty), "a stranger's");
}

TEST(FileFaults, AListingThatDoesNotTellKindsIsAsTrueAsOneThatDoes) {
    const TemporaryFolder folder;
    folder.putFile("Folder/file", "content");
    folder.putFile("file", "content");
    std::filesystem::create_symlink(folder.path() / "file", folder.path() / "link");
    ASSERT_EQ(::mkfifo((folder.path() / "fifo").c_str(), 0600), 0);
    const auto listed = [&] {
        std::map<std::string, FileFacts::Kind> kinds;
        for (const auto& entry : listFolder(folder.path())) kinds[entry.name] = entry.kind;
        return kinds;
    };
    const auto told = listed();
    const SystemCallFaults faults({.failing = 1, .call = "fstatat", .hidesKinds = true});

    EXPECT_EQ(listed(), told);

    EXPECT_EQ(faults.count(), 4);  // each entry was looked at
}

TEST(FileFaults, AListingLeavesOutWhatIsGoneSinceAndNotWhatCannotBeLookedAt) {
    const TemporaryFolder folder;
    folder.putFile("precious", "content");
    const auto listedAfter = [&](int error) {
        const SystemCallFaults faults({.failing = 1, .error = error, .call = "fstatat", .hidesKinds = true});
        return listFolder(folder.path());
    };

    EXPECT_THAT(listedAfter(ENOENT), testing::IsEmpty());
    for (const int error : {EIO, EACCES, ENOMEM}) EXPECT_THROW(listedAfter(error), FileError) << error;
}

TEST(FileFaults, AFolderOfUntoldKindsIsRemovedWithAllItHolds) {
    const TemporaryFolder folder;
    folder.putFile("work/a/b/file", "");
    folder.putFile("work/.lock", "");
    const SystemCallFaults faults({.hidesKinds = true});

    EXPECT_TRUE(removeFolder(folder.path() / "work"));

    EXPECT_THAT(folder.names(), testing::IsEmpty());
}

TEST(FileFaults, WhereALinkLeadsIsAskedByCallsThatCanFail) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("file", "content");
    const auto link = folder.path() / "link";
    std::filesystem::create_symlink(file, link);
    const auto errorOf = [](const char* call, const auto& ask) {
        const SystemCallFaults faults({.failing = 1, .error = EIO, .call = call});
        std::error_code error;
        ask(error);
        return error;
    };

    EXPECT_EQ(errorOf("realpath", [&](auto& error) { static_cast<void>(std::filesystem::canonical(link, error)); }),
              std::errc::io_error);
    EXPECT_EQ(errorOf("readlink", [&](auto& error) { static_cast<void>(std::filesystem::read_symlink(link, error)); }),
              std::errc::io_error);
    EXPECT_EQ(std::filesystem::canonical(link), std::filesystem::canonical(file));
    EXPECT_EQ(std::filesystem::read_symlink(link), file);
}

TEST(FileFaults, ALockFileReplacedBeforeItIsLockedIsLockedAnew) {
    const TemporaryFolder folder;
    const auto file = folder.putFile(".lock", "");
    const SystemCallFaults faults({.failing = 1, .call = "fcntl", .meanwhile = [&] {
                                       std::filesystem::remove(file);
                                       folder.putFile(".lock", "");
                                   }});

    const auto lock = FolderLock::tryAcquire(file);

    ASSERT_NE(lock, nullptr);
    EXPECT_TRUE(lock->isInForce());
}

TEST(FileFaults, ALockThatCannotBeHadForAnyOtherCauseIsNotCalledInUse) {
    const TemporaryFolder folder;
    const auto file = folder.putFile(".lock", "quillmere, process 4711\n");  // who is dead
    struct Fault {
        const char* call;
        int error;
    };
    for (const auto fault : {Fault{"open", EROFS}, Fault{"open", ENOSPC}, Fault{"open", EACCES}, Fault{"open", ENFILE},
                             Fault{"fstatat", EIO}, Fault{"fstat", EIO}, Fault{"fcntl", ENOLCK}, Fault{"fcntl", EIO},
                             Fault{"pread", EIO}}) {
        SCOPED_TRACE(std::string(fault.call) + ": " + std::strerror(fault.error));
        const SystemCallFaults faults({.failing = 1, .error = fault.error, .call = fault.call});
        try {
            static_cast<void>(FolderLock::acquire(file));
            ADD_FAILURE() << "taken";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), std::error_code(fault.error, std::system_category()));
            EXPECT_EQ(error.path(), file);
        }
    }
    EXPECT_FALSE(FolderLock::isHeld(file));
    EXPECT_EQ(folder.content(".lock"), "quillmere, process 4711\n");
}

TEST(FileFaults, ALockThatItsHolderLetsGoJustNowIsTaken) {
    const TemporaryFolder folder;
    for (const int error : {EAGAIN, EACCES}) {
        const SystemCallFaults faults({.failing = 1, .error = error, .call = "fcntl"});

        EXPECT_NE(FolderLock::acquire(folder.path() / ".lock"), nullptr);
    }
}

TEST(FileFaults, ALockThatIsNeverToBeHadIsInUse) {
    const TemporaryFolder folder;
    const SystemCallFaults faults({.failing = 1, .error = EAGAIN, .call = "fcntl", .persists = true});

    EXPECT_THROW(static_cast<void>(FolderLock::acquire(folder.path() / ".lock")), Error);
}

TEST(FileFaults, NothingButARegularFileIsOpenedForALock) {
    const TemporaryFolder folder;
    folder.putFile("file", "content");
    const auto fifo = folder.path() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_directory(folder.path() / "folder");
    std::filesystem::create_symlink("file", folder.path() / "link");
    std::filesystem::create_symlink("fifo", folder.path() / "link to a fifo");
    std::filesystem::create_symlink("away", folder.path() / "dangling");
    for (const char* name : {"fifo", "folder", "link", "link to a fifo", "dangling"}) {
        SCOPED_TRACE(name);
        std::vector<RecordedCall> calls;
        {
            const SystemCallFaults recording({.record = &calls});
            EXPECT_EQ(FolderLock::tryAcquire(folder.path() / name), nullptr);
            EXPECT_TRUE(FolderLock::isHeld(folder.path() / name));
            EXPECT_EQ(FolderLock::holder(folder.path() / name), "another process");
        }
        for (const auto& call : calls) EXPECT_NE(call.kind, RecordedCall::Kind::open) << call.path;
    }
    EXPECT_FALSE(fileExists(folder.path() / "away"));
}

TEST(FileFaults, AHolderWhoseNameCannotBeWrittenNamesNobodyElse) {
    const TemporaryFolder folder;
    const auto file = folder.putFile(".lock", "quillmere, process 4711\n");
    const std::vector<SystemCallFaults::Plan> plans = {
        {.failing = 1, .error = ENOSPC, .call = "pwrite"},
        {.failing = 3, .error = ENOSPC, .call = "pwrite", .mostBytes = 5},
    };
    for (const auto& plan : plans) {
        std::shared_ptr<FolderLock> lock;
        {
            const SystemCallFaults faults(plan);
            lock = FolderLock::acquire(file);
        }
        EXPECT_TRUE(FolderLock::isHeld(file));
        EXPECT_EQ(folder.content(".lock"), "");
        EXPECT_EQ(FolderLock::holder(file), "another process");
    }
}

}  // namespace
}  // namespace quillmere::test
