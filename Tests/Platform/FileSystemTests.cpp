#include "QuillmereKit/Platform/FileSystem.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t plenty = 1 << 20;

/// The error that `action` throws; the test fails if it throws none.
template <typename Action>
FileError errorOf(Action action) {
    try {
        action();
    } catch (const FileError& error) {
        return error;
    }
    ADD_FAILURE() << "no FileError";
    return {"", "", {}};
}

mode_t permissionsOf(const path& file) {
    struct stat status {};
    EXPECT_EQ(::lstat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
}

/// A limit of the process, lowered as long as the object lives.
class LoweredLimit {
public:
    LoweredLimit(__rlimit_resource limit, rlim_t value) : limit_(limit) {
        ::getrlimit(limit_, &old_);
        const rlimit lowered{value, old_.rlim_max};
        ::setrlimit(limit_, &lowered);
    }
    ~LoweredLimit() { ::setrlimit(limit_, &old_); }
    LoweredLimit(const LoweredLimit&) = delete;
    LoweredLimit& operator=(const LoweredLimit&) = delete;

private:
    __rlimit_resource limit_;
    rlimit old_{};
};

void makeFifo(const path& file) { ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0); }

void makeSocket(const path& file) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(file.native().size(), sizeof(address.sun_path));
    file.native().copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
}

struct WriteDurablyTests : testing::Test {
    TemporaryFolder folder;
    path file = folder.path() / "list.json";
};

TEST_F(WriteDurablyTests, MakesANewFileWithAllItsBytes) {
    const std::string bytes("a\0b\n\xFF", 5);

    writeDurably(file, bytes);

    EXPECT_EQ(folder.content("list.json"), bytes);
    EXPECT_THAT(folder.names(), ElementsAre("list.json"));
}

TEST_F(WriteDurablyTests, WritesNothingAndMuch) {
    const std::string much(std::size_t{5} << 20, 'x');

    writeDurably(file, much);
    EXPECT_EQ(folder.content("list.json"), much);
    writeDurably(file, "");
    EXPECT_EQ(folder.content("list.json"), "");
}

TEST_F(WriteDurablyTests, NewFileGetsTheUsualPermissionsLessTheMask) {
    const mode_t mask = ::umask(027);
    writeDurably(file, "new");
    ::umask(mask);

    EXPECT_EQ(permissionsOf(file), mode_t{0640});
}

TEST_F(WriteDurablyTests, ReplacedFileKeepsItsPermissionsWhateverTheMask) {
    for (const mode_t mode : {0600U, 0666U, 0440U, 0755U}) {
        writeDurably(file, "old");
        ASSERT_EQ(::chmod(file.c_str(), mode), 0);

        writeDurably(file, "new");

        EXPECT_EQ(permissionsOf(file), mode);
        EXPECT_EQ(folder.content("list.json"), "new");
    }
}

TEST_F(WriteDurablyTests, AReaderOfTheOldFileKeepsTheOldContent) {
    writeDurably(file, "old");
    const Descriptor reader = openRegularFile(file);

    writeDurably(file, "new");

    char bytes[8] = {};
    EXPECT_EQ(::read(reader.number(), bytes, sizeof(bytes)), 3);
    EXPECT_STREQ(bytes, "old");
}

TEST_F(WriteDurablyTests, ALinkAtTheFileIsRefusedAndWhatItPointsToIsUntouched) {
    folder.putFile("elsewhere", "precious");
    std::filesystem::create_symlink("elsewhere", file);

    EXPECT_EQ(errorOf([&] { writeDurably(file, "new"); }).code(), FileFault::fileNotRegular);

    EXPECT_EQ(folder.content("elsewhere"), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_THAT(folder.names(), ElementsAre("elsewhere", "list.json"));
}

TEST_F(WriteDurablyTests, ADanglingLinkAtTheFileIsRefusedToo) {
    std::filesystem::create_symlink(folder.path() / "nowhere", file);

    EXPECT_EQ(errorOf([&] { writeDurably(file, "new"); }).code(), FileFault::fileNotRegular);

    EXPECT_THAT(folder.names(), ElementsAre("list.json"));
}

TEST_F(WriteDurablyTests, AFolderOrAFifoAtTheFileIsRefused) {
    std::filesystem::create_directory(file);
    EXPECT_EQ(errorOf([&] { writeDurably(file, "new"); }).code(), FileFault::fileNotRegular);
    std::filesystem::remove(file);
    makeFifo(file);
    EXPECT_EQ(errorOf([&] { writeDurably(file, "new"); }).code(), FileFault::fileNotRegular);

    EXPECT_THAT(folder.names(), ElementsAre("list.json"));
}

TEST_F(WriteDurablyTests, ALinkOnTheWayIsFollowed) {
    std::filesystem::create_directory(folder.path() / "real");
    std::filesystem::create_directory_symlink("real", folder.path() / "link");

    writeDurably(folder.path() / "link" / "list.json", "new");

    EXPECT_EQ(folder.content("real/list.json"), "new");
}

TEST_F(WriteDurablyTests, AMissingFolderIsAnErrorThatNamesStepAndPath) {
    const auto error = errorOf([&] { writeDurably(folder.path() / "gone" / "list.json", "new"); });

    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    EXPECT_EQ(error.step(), "open folder");
    EXPECT_EQ(error.path(), folder.path() / "gone");
    EXPECT_FALSE(error.isInPlace());
}

TEST_F(WriteDurablyTests, AFileWhereTheFolderShouldBeIsAnError) {
    folder.putFile("list.json", "a file");

    EXPECT_EQ(errorOf([&] { writeDurably(file / "inner", "new"); }).code(), std::errc::not_a_directory);

    EXPECT_EQ(folder.content("list.json"), "a file");
}

TEST_F(WriteDurablyTests, PathsThatNameNoFileAreErrors) {
    for (const path& bad : {path(), path("/"), folder.path() / "", folder.path() / ".", folder.path() / ".."}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(errorOf([&] { writeDurably(bad, "new"); }).code(), std::errc::invalid_argument);
    }
    EXPECT_THAT(folder.names(), IsEmpty());
}

TEST_F(WriteDurablyTests, AZeroByteInThePathDoesNotCutItOff) {
    folder.putFile("list.json", "old");
    const path bad = file.native() + std::string("\0.bak", 5);

    EXPECT_EQ(errorOf([&] { writeDurably(bad, "new"); }).code(), std::errc::invalid_argument);

    EXPECT_EQ(folder.content("list.json"), "old");
}

TEST_F(WriteDurablyTests, TheLongestNameIsWrittenAndALongerOneRefused) {
    writeDurably(folder.path() / std::string(255, 'n'), "new");
    EXPECT_EQ(folder.content(std::string(255, 'n')), "new");

    EXPECT_EQ(errorOf([&] { writeDurably(folder.path() / std::string(256, 'n'), "new"); }).code(),
              std::errc::filename_too_long);
    EXPECT_EQ(folder.names().size(), 1U);
}

TEST_F(WriteDurablyTests, AFullDiskLeavesTheOldFileAndNothingElse) {
    folder.putFile("list.json", "old");
    ::signal(SIGXFSZ, SIG_IGN);
    const LoweredLimit limit(RLIMIT_FSIZE, 10'000);  // the first write comes back short, the next one fails

    const auto error = errorOf([&] { writeDurably(file, std::string(100'000, 'x')); });

    EXPECT_EQ(error.code(), std::errc::file_too_large);
    EXPECT_EQ(error.step(), "write");
    EXPECT_EQ(error.path(), file);
    EXPECT_EQ(folder.content("list.json"), "old");
    EXPECT_THAT(folder.names(), ElementsAre("list.json"));
}

TEST_F(WriteDurablyTests, WithoutAFreeDescriptorTheOldFileStays) {
    folder.putFile("list.json", "old");
    {
        const LoweredLimit limit(RLIMIT_NOFILE, 0);
        EXPECT_EQ(errorOf([&] { writeDurably(file, "new"); }).code(), std::errc::too_many_files_open);
    }
    EXPECT_EQ(folder.content("list.json"), "old");
}

TEST_F(WriteDurablyTests, LeavesNoDescriptorOpen) {
    const auto before = listFolder("/proc/self/fd").size();

    for (int round = 0; round < 10; ++round) {
        writeDurably(file, "new");
        EXPECT_THROW(writeDurably(file / "inner", "new"), FileError);
        EXPECT_EQ(readFile(file, plenty), "new");
    }

    EXPECT_EQ(listFolder("/proc/self/fd").size(), before);
}

TEST_F(WriteDurablyTests, ManyWritersAtOnceLeaveOneWholeFile) {
    constexpr int writers = 4;
    std::latch start(writers);
    std::vector<std::jthread> threads;
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&, writer] {
            start.arrive_and_wait();
            for (int round = 0; round < 20; ++round) {
                writeDurably(file, std::string(10'000, static_cast<char>('a' + writer)));
            }
        });
    }
    threads.clear();

    const auto content = folder.content("list.json");
    EXPECT_EQ(content, std::string(10'000, content.front()));
    EXPECT_THAT(folder.names(), ElementsAre("list.json"));
}

TEST(TemporaryFileNames, AreToldFromAllOthers) {
    EXPECT_TRUE(isTemporaryFileName(".quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E5F.tmp"));
    for (const char* name :
         {"", ".tmp", ".quillmere-", ".quillmere-.tmp", "manifest.json", ".quillmere-x.tmp",
          "quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E5F.tmp", ".quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
          ".quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E5F.tmp.wav",
          ".quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E5G.tmp"}) {
        EXPECT_FALSE(isTemporaryFileName(name)) << name;
    }
}

TEST(TemporaryFileNames, FilesUnderThemAreRemovedOnceNobodyCanBeWritingThem) {
    const TemporaryFolder folder;
    const std::string fresh = ".quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E5F.tmp";
    const std::string old = ".quillmere-E621E1F8-C36C-495A-93FC-0C247A3E6E60.tmp";
    for (const auto& name : {fresh, old, std::string("file")}) folder.putFile(name, "content");
    const auto yesterday = std::filesystem::file_time_type::clock::now() - std::chrono::hours(24);
    for (const auto& name : {old, std::string("file")}) {
        std::filesystem::last_write_time(folder.path() / name, yesterday);
    }

    removeOldTemporaries(folder.path());

    EXPECT_EQ(folder.names(), (std::vector{fresh, std::string("file")}));
}

struct ReadFileTests : testing::Test {
    TemporaryFolder folder;
};

TEST_F(ReadFileTests, ReadsUpToTheLimitAndNotAByteMore) {
    const auto file = folder.putFile("five", "12345");

    EXPECT_EQ(readFile(file, 5), "12345");
    EXPECT_EQ(errorOf([&] { static_cast<void>(readFile(file, 4)); }).code(), FileFault::fileReadTooLarge);
    EXPECT_EQ(errorOf([&] { static_cast<void>(readFile(file, 0)); }).code(), FileFault::fileReadTooLarge);
    EXPECT_EQ(readFile(folder.putFile("empty", ""), 0), "");
}

TEST_F(ReadFileTests, AFileThatSaysItIsEmptyIsReadToItsEndAndHeldToTheLimit) {
    EXPECT_THAT(readFile("/proc/self/status", plenty), testing::HasSubstr("Pid:"));
    EXPECT_EQ(errorOf([&] { static_cast<void>(readFile("/proc/self/status", 10)); }).code(),
              FileFault::fileReadTooLarge);
}

TEST_F(ReadFileTests, AHugeSparseFileIsRefusedBeforeItIsRead) {
    const auto file = folder.putFile("huge", "");
    std::filesystem::resize_file(file, std::uintmax_t{1} << 40);

    EXPECT_EQ(errorOf([&] { static_cast<void>(readFile(file, plenty)); }).code(), FileFault::fileReadTooLarge);
}

TEST_F(ReadFileTests, WhatIsNoRegularFileIsRefusedAtOnce) {
    std::filesystem::create_directory(folder.path() / "folder");
    makeFifo(folder.path() / "fifo");
    makeSocket(folder.path() / "socket");
    std::filesystem::create_symlink(folder.putFile("file", "content"), folder.path() / "link");
    std::filesystem::create_symlink("nowhere", folder.path() / "dangling");

    for (const path& bad : {folder.path() / "folder", folder.path() / "fifo", folder.path() / "socket",
                            folder.path() / "link", folder.path() / "dangling", path("/dev/null"), path("/dev/zero")}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(errorOf([&] { static_cast<void>(readFile(bad, plenty)); }).code(), FileFault::fileNotRegular);
        EXPECT_EQ(errorOf([&] { static_cast<void>(readFileIfPresent(bad, plenty)); }).code(),
                  FileFault::fileNotRegular);
        EXPECT_EQ(errorOf([&] { static_cast<void>(openRegularFile(bad)); }).code(), FileFault::fileNotRegular);
    }
}

TEST_F(ReadFileTests, ALinkThatTheUserNamedIsFollowedToARegularFileOnly) {
    std::filesystem::create_symlink(folder.putFile("file", "content"), folder.path() / "link");
    makeFifo(folder.path() / "fifo");
    std::filesystem::create_symlink("fifo", folder.path() / "to fifo");

    EXPECT_EQ(readFile(folder.path() / "link", plenty, FinalLink::followed), "content");
    EXPECT_EQ(
        errorOf([&] { static_cast<void>(readFile(folder.path() / "to fifo", plenty, FinalLink::followed)); }).code(),
        FileFault::fileNotRegular);
}

TEST_F(ReadFileTests, ALinkOnTheWayIsFollowed) {
    folder.putFile("real/file", "content");
    std::filesystem::create_directory_symlink("real", folder.path() / "link");

    EXPECT_EQ(readFile(folder.path() / "link" / "file", plenty), "content");
}

TEST_F(ReadFileTests, AMissingFileIsAbsentWhereThatIsAskedAndAnErrorElsewhere) {
    for (const path& missing : {folder.path() / "missing", folder.path() / "missing" / "too"}) {
        EXPECT_EQ(readFileIfPresent(missing, plenty), std::nullopt);
        EXPECT_EQ(errorOf([&] { static_cast<void>(readFile(missing, plenty)); }).code(),
                  std::errc::no_such_file_or_directory);
    }
    EXPECT_EQ(readFileIfPresent(folder.putFile("there", "content"), plenty), "content");
}

TEST_F(ReadFileTests, AFileOnTheWayIsNotAbsence) {
    const auto file = folder.putFile("file", "content");

    EXPECT_EQ(errorOf([&] { static_cast<void>(readFileIfPresent(file / "inner", plenty)); }).code(),
              std::errc::not_a_directory);
}

TEST_F(ReadFileTests, AZeroByteInThePathNamesNothing) {
    const path bad = folder.putFile("file", "content").native() + std::string("\0x", 2);

    EXPECT_EQ(errorOf([&] { static_cast<void>(readFileIfPresent(bad, plenty)); }).code(), std::errc::invalid_argument);
    EXPECT_FALSE(fileExists(bad));
    EXPECT_EQ(factsOf(bad), std::nullopt);
    EXPECT_THROW(removeFile(bad), FileError);
    EXPECT_EQ(folder.content("file"), "content");
}

struct FolderTests : testing::Test {
    TemporaryFolder folder;
};

TEST_F(FolderTests, FoldersAreMadeWithTheirParentsForTheUserAlone) {
    createFolders(folder.path() / "a" / "b" / "c");
    createFolders(folder.path() / "d" / "e" / "");

    EXPECT_EQ(permissionsOf(folder.path() / "a" / "b" / "c"), mode_t{0700});
    EXPECT_EQ(permissionsOf(folder.path() / "a"), mode_t{0700});
    EXPECT_TRUE(std::filesystem::is_directory(folder.path() / "d" / "e"));
}

TEST_F(FolderTests, AFolderThatIsThereStaysAsItIs) {
    folder.putFile("a/file", "content");
    ASSERT_EQ(::chmod((folder.path() / "a").c_str(), 0750), 0);
    std::filesystem::create_directory_symlink("a", folder.path() / "link");

    createFolders(folder.path() / "a");
    createFolders(folder.path() / "link");
    createFolders(folder.path() / "link" / "b");
    createFolders("/");

    EXPECT_EQ(permissionsOf(folder.path() / "a"), mode_t{0750});
    EXPECT_EQ(folder.content("a/file"), "content");
    EXPECT_TRUE(std::filesystem::is_directory(folder.path() / "a" / "b"));
}

TEST_F(FolderTests, WhatIsInTheWayOfAFolderStaysAndIsAnError) {
    folder.putFile("file", "content");
    std::filesystem::create_symlink("nowhere", folder.path() / "dangling");

    EXPECT_EQ(errorOf([&] { createFolders(folder.path() / "file"); }).code(), std::errc::not_a_directory);
    EXPECT_EQ(errorOf([&] { createFolders(folder.path() / "file" / "a"); }).code(), std::errc::not_a_directory);
    EXPECT_EQ(errorOf([&] { createFolders(folder.path() / "dangling"); }).code(), std::errc::file_exists);
    EXPECT_THROW(createFolders(folder.path() / "dangling" / "a"), FileError);
    EXPECT_EQ(errorOf([&] { createFolders(""); }).code(), std::errc::invalid_argument);
    EXPECT_EQ(folder.content("file"), "content");
    EXPECT_THAT(folder.names(), ElementsAre("dangling", "file"));
}

TEST_F(FolderTests, ManyThreadsMayMakeTheSameFoldersAtOnce) {
    constexpr int threadCount = 4;
    std::latch start(threadCount);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int round = 0; round < 50; ++round) createFolders(folder.path() / std::to_string(round) / "b" / "c");
        });
    }
    threads.clear();

    EXPECT_TRUE(std::filesystem::is_directory(folder.path() / "49" / "b" / "c"));
}

TEST_F(FolderTests, AListingHasEveryKindAndNoDots) {
    folder.putFile(".hidden", "");
    folder.putFile("sub/file", "");
    makeFifo(folder.path() / "fifo");
    std::filesystem::create_symlink("nowhere", folder.path() / "link");

    std::vector<std::pair<std::string, FileFacts::Kind>> found;
    for (const auto& entry : listFolder(folder.path())) found.emplace_back(entry.name, entry.kind);

    using Kind = FileFacts::Kind;
    EXPECT_THAT(found,
                testing::UnorderedElementsAre(std::pair{".hidden", Kind::regular}, std::pair{"sub", Kind::folder},
                                              std::pair{"fifo", Kind::other}, std::pair{"link", Kind::link}));
}

TEST_F(FolderTests, WhatIsNoFolderCannotBeListed) {
    const auto file = folder.putFile("file", "");

    EXPECT_EQ(errorOf([&] { static_cast<void>(listFolder(file)); }).code(), std::errc::not_a_directory);
    EXPECT_EQ(errorOf([&] { static_cast<void>(listFolder(file.native() + "-missing")); }).code(),
              std::errc::no_such_file_or_directory);
}

TEST_F(FolderTests, FactsAreThoseOfTheLinkItself) {
    const auto file = folder.putFile("file", "12345");
    std::filesystem::create_symlink("file", folder.path() / "link");
    std::filesystem::create_symlink("nowhere", folder.path() / "dangling");
    std::filesystem::create_hard_link(file, folder.path() / "twin");

    ASSERT_TRUE(factsOf(file));
    EXPECT_EQ(factsOf(file)->kind, FileFacts::Kind::regular);
    EXPECT_EQ(factsOf(file)->size, 5U);
    EXPECT_EQ(factsOf(folder.path() / "twin")->inode, factsOf(file)->inode);
    EXPECT_EQ(factsOf(folder.path())->kind, FileFacts::Kind::folder);
    EXPECT_EQ(factsOf(folder.path())->size, 0U);
    EXPECT_EQ(factsOf(folder.path() / "link")->kind, FileFacts::Kind::link);
    EXPECT_EQ(factsOf(folder.path() / "dangling")->kind, FileFacts::Kind::link);
    EXPECT_EQ(factsOf("/dev/null")->kind, FileFacts::Kind::other);
    EXPECT_EQ(factsOf(folder.path() / "missing"), std::nullopt);

    EXPECT_TRUE(fileExists(folder.path() / "link"));
    EXPECT_FALSE(fileExists(folder.path() / "dangling"));
    EXPECT_FALSE(fileExists(file / "inner"));
}

TEST_F(FolderTests, FactsHaveTheTimeOfTheLastChange) {
    const auto file = folder.putFile("file", "");
    const timespec times[2] = {{1, 0}, {1'714'558'830, 500'000'000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);

    EXPECT_EQ(factsOf(file)->modified.time_since_epoch(), std::chrono::milliseconds(1'714'558'830'500));
}

TEST_F(FolderTests, ATimeThatNoDateCanHoldIsTheNearestOne) {
    const auto file = folder.putFile("file", "");
    const timespec times[2] = {{1, 0}, {15'000'000'000, 0}};  // in the year 2445
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);

    EXPECT_EQ(factsOf(file)->modified, Date::max());
}

TEST_F(FolderTests, FilesAndFoldersAreSynced) {
    syncFile(folder.putFile("file", "content"));
    syncFolder(folder.path());

    EXPECT_EQ(errorOf([&] { syncFile(folder.path()); }).code(), FileFault::fileNotRegular);
    EXPECT_EQ(errorOf([&] { syncFolder(folder.path() / "file"); }).code(), std::errc::not_a_directory);
    EXPECT_THROW(syncFile(folder.path() / "missing"), FileError);
}

struct MoveAndCopyTests : testing::Test {
    TemporaryFolder folder;
    path from = folder.putFile("from", "content");
    path to = folder.path() / "to";
};

TEST_F(MoveAndCopyTests, AFileIsMovedAlsoBetweenFolders) {
    moveFile(from, to);
    EXPECT_THAT(folder.names(), ElementsAre("to"));
    std::filesystem::create_directory(folder.path() / "sub");
    moveFile(to, folder.path() / "sub" / "to");

    EXPECT_EQ(folder.content("sub/to"), "content");
    EXPECT_THAT(folder.names(), ElementsAre("sub"));
}

TEST_F(MoveAndCopyTests, NothingIsEverMovedOrCopiedOverAnything) {
    const auto expectRefusal = [&] {
        for (const auto& change : {moveFile, copyFile}) {
            const auto error = errorOf([&] { change(from, to); });
            EXPECT_EQ(error.code(), std::errc::file_exists);
            EXPECT_EQ(error.path(), to);
            EXPECT_EQ(folder.content("from"), "content");
            EXPECT_THAT(folder.names(), ElementsAre("from", "to"));
        }
    };
    folder.putFile("to", "precious");
    expectRefusal();
    EXPECT_EQ(folder.content("to"), "precious");
    std::filesystem::remove(to);
    std::filesystem::create_symlink("nowhere", to);
    expectRefusal();
    std::filesystem::remove(to);
    std::filesystem::create_directory(to);
    expectRefusal();
}

TEST_F(MoveAndCopyTests, WhatIsMissingCannotBeMovedOrCopied) {
    for (const auto& change : {moveFile, copyFile}) {
        EXPECT_EQ(errorOf([&] { change(folder.path() / "missing", to); }).code(), std::errc::no_such_file_or_directory);
        EXPECT_EQ(errorOf([&] { change(from, folder.path() / "missing" / "to"); }).code(),
                  std::errc::no_such_file_or_directory);
        EXPECT_EQ(errorOf([&] { change(from, folder.path() / ".."); }).code(), std::errc::invalid_argument);
    }
    EXPECT_THAT(folder.names(), ElementsAre("from"));
}

TEST_F(MoveAndCopyTests, ACopyHasTheContentAndTheOriginalStays) {
    const auto large = folder.putFile("large", std::string(1'000'001, 'x'));

    copyFile(large, to);
    copyFile(folder.putFile("empty", ""), folder.path() / "empty too");

    EXPECT_EQ(folder.content("to"), folder.content("large"));
    EXPECT_EQ(folder.content("empty too"), "");
    EXPECT_THAT(folder.names(), ElementsAre("empty", "empty too", "from", "large", "to"));
}

TEST_F(MoveAndCopyTests, ACopyThatDoesNotFitLeavesNothing) {
    const auto large = folder.putFile("large", std::string(1'000'000, 'x'));
    ::signal(SIGXFSZ, SIG_IGN);
    const LoweredLimit limit(RLIMIT_FSIZE, 300'000);

    EXPECT_EQ(errorOf([&] { copyFile(large, to); }).code(), std::errc::file_too_large);

    EXPECT_THAT(folder.names(), ElementsAre("from", "large"));
}

TEST_F(MoveAndCopyTests, OnlyRegularFilesAreCopied) {
    makeFifo(folder.path() / "fifo");
    std::filesystem::create_symlink("from", folder.path() / "link");

    EXPECT_EQ(errorOf([&] { copyFile(folder.path() / "fifo", to); }).code(), FileFault::fileNotRegular);
    EXPECT_EQ(errorOf([&] { copyFile(folder.path() / "link", to); }).code(), FileFault::fileNotRegular);
}

struct RemoveTests : testing::Test {
    TemporaryFolder folder;
};

TEST_F(RemoveTests, AFileGoesAndALinkGoesWithoutWhatItPointsTo) {
    folder.putFile("precious", "content");
    std::filesystem::create_symlink("precious", folder.path() / "link");

    EXPECT_TRUE(removeFile(folder.path() / "link"));
    EXPECT_TRUE(removeFile(folder.putFile("file", "")));
    EXPECT_FALSE(removeFile(folder.path() / "file"));
    EXPECT_FALSE(removeFile(folder.path() / "missing" / "file"));
    EXPECT_THAT(folder.names(), ElementsAre("precious"));
}

TEST_F(RemoveTests, AFolderIsNoFile) {
    std::filesystem::create_directory(folder.path() / "empty");

    EXPECT_EQ(errorOf([&] { removeFile(folder.path() / "empty"); }).code(), std::errc::is_a_directory);
    EXPECT_THAT(folder.names(), ElementsAre("empty"));
}

TEST_F(RemoveTests, AFolderGoesWithAllItHoldsAndNoLinkIsFollowed) {
    folder.putFile("precious/file", "content");
    folder.putFile("work/a/b/c/file", "");
    folder.putFile("work/a/.hidden", "");
    folder.putFile("work/file", "");
    makeFifo(folder.path() / "work" / "fifo");
    std::filesystem::create_directory_symlink(folder.path() / "precious", folder.path() / "work" / "link");
    std::filesystem::create_directory_symlink(folder.path() / "precious", folder.path() / "work" / "a" / "link");
    std::filesystem::create_directory_symlink("..", folder.path() / "work" / "a" / "b" / "up");

    EXPECT_TRUE(removeFolder(folder.path() / "work" / ""));

    EXPECT_THAT(folder.names(), ElementsAre("precious"));
    EXPECT_EQ(folder.content("precious/file"), "content");
    EXPECT_FALSE(removeFolder(folder.path() / "work"));
    EXPECT_FALSE(removeFolder(folder.path() / "work" / "a"));
}

TEST_F(RemoveTests, ALinkOrAFileIsNoFolder) {
    folder.putFile("precious/file", "content");
    std::filesystem::create_directory_symlink("precious", folder.path() / "link");

    EXPECT_THROW(removeFolder(folder.path() / "link"), FileError);
    EXPECT_THROW(removeFolder(folder.path() / "precious" / "file"), FileError);
    EXPECT_EQ(folder.content("precious/file"), "content");
    EXPECT_THAT(folder.names(), ElementsAre("link", "precious"));
}

TEST_F(RemoveTests, AFolderGoesHoweverDeepItIs) {
    const std::string name = "deep";
    const int top = ::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Descriptor level(top);
    for (int depth = 0; depth < 300; ++depth) {
        ASSERT_EQ(::mkdirat(level.number(), name.c_str(), 0700), 0);
        level = Descriptor(::openat(level.number(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(level.isOpen());
    }

    const LoweredLimit limit(RLIMIT_NOFILE, 64);
    EXPECT_TRUE(removeFolder(folder.path() / name));

    EXPECT_THAT(folder.names(), IsEmpty());
}

struct KeepAsideTests : testing::Test {
    TemporaryFolder folder;
    path file = folder.putFile("manifest.json", "damaged");
    /// 2024-05-01T10:20:30Z and so many seconds.
    static Date at(int seconds) { return Date(std::chrono::seconds(1'714'558'830 + seconds)); }
};

TEST_F(KeepAsideTests, ACopyIsNamedAfterTheReasonAndTheTime) {
    const auto copy = keepCopyAside(file, "unreadable", at(0));

    EXPECT_EQ(copy, folder.path() / "manifest.unreadable-2024-05-01T10-20-30Z.json");
    EXPECT_EQ(folder.content("manifest.unreadable-2024-05-01T10-20-30Z.json"), "damaged");
    EXPECT_EQ(folder.content("manifest.json"), "damaged");
}

TEST_F(KeepAsideTests, ATakenNameGetsANumber) {
    folder.putFile("manifest.unreadable-2024-05-01T10-20-30Z.json", "first");

    EXPECT_EQ(keepCopyAside(file, "unreadable", at(0)).filename(), "manifest.unreadable-2024-05-01T10-20-30Z-2.json");
    EXPECT_EQ(moveAside(file, "unreadable", at(0)).filename(), "manifest.unreadable-2024-05-01T10-20-30Z-3.json");

    EXPECT_EQ(folder.content("manifest.unreadable-2024-05-01T10-20-30Z.json"), "first");
    EXPECT_FALSE(fileExists(file));
}

TEST_F(KeepAsideTests, TheNewestThreeCopiesOfAReasonStayAndEverythingElse) {
    const std::vector<std::string> others = {
        "manifest.before-2020-01-01T00-00-00Z.json",       "manifest.unreadable-.json",
        "manifest.unreadable-2020-01-01T00-00-00Z.txt",    "manifest.unreadable-2020-01-01T00-00-00Z-x.json",
        "manifest.unreadable-2020-01-01T00-00-00Zmy.json", "manifest.unreadable-mine.json",
        "other.unreadable-2020-01-01T00-00-00Z.json",      "manifest.unreadable-2020-01-01T00:00:00Z.json"};
    for (const auto& other : others) folder.putFile(other, "other");
    std::filesystem::create_directory(folder.path() / "manifest.unreadable-2019-01-01T00-00-00Z.json");

    for (int round = 0; round < 12; ++round) keepCopyAside(file, "unreadable", at(round / 11 * 5));

    auto expected = others;
    expected.insert(expected.end(), {"manifest.json", "manifest.unreadable-2019-01-01T00-00-00Z.json",
                                     "manifest.unreadable-2024-05-01T10-20-30Z-10.json",
                                     "manifest.unreadable-2024-05-01T10-20-30Z-11.json",
                                     "manifest.unreadable-2024-05-01T10-20-35Z.json"});
    EXPECT_THAT(folder.names(), testing::UnorderedElementsAreArray(expected));
}

TEST_F(KeepAsideTests, TheLatestCopyStaysEvenWhenTheClockWasSetBack) {
    for (int round = 0; round < 3; ++round) keepCopyAside(file, "before", at(100 + round));

    const auto copy = keepCopyAside(file, "before", at(0));

    EXPECT_TRUE(fileExists(copy));
    EXPECT_THAT(folder.names(),
                ElementsAre("manifest.before-2024-05-01T10-20-30Z.json", "manifest.before-2024-05-01T10-22-11Z.json",
                            "manifest.before-2024-05-01T10-22-12Z.json", "manifest.json"));
}

TEST_F(KeepAsideTests, AFileWithoutExtensionIsNamedTheSameWay) {
    EXPECT_EQ(keepCopyAside(folder.putFile("notes", "x"), "before", at(0)).filename(),
              "notes.before-2024-05-01T10-20-30Z");
}

TEST_F(KeepAsideTests, WhatCannotBeKeptIsAnErrorAndStays) {
    EXPECT_THROW(keepCopyAside(folder.path() / "missing", "before", at(0)), FileError);
    EXPECT_THROW(moveAside(folder.path() / "missing", "before", at(0)), FileError);
    std::filesystem::create_symlink("manifest.json", folder.path() / "link.json");
    EXPECT_EQ(errorOf([&] { keepCopyAside(folder.path() / "link.json", "before", at(0)); }).code(),
              FileFault::fileNotRegular);
    EXPECT_THAT(folder.names(), ElementsAre("link.json", "manifest.json"));
}

}  // namespace
}  // namespace quillmere::test
