// Runs that begin while another process cleans up after those that died, and what is left when calls fail.

#include "Renderers/RenderFolder.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

/// A lock as another process takes it: one that this process's own handles do not share.
Descriptor lockAsAnother(const path& file) {
    const int before = errno;  // is the interrupted call's business
    Descriptor opened(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    struct flock wanted {};
    wanted.l_type = F_WRLCK;
    wanted.l_whence = SEEK_SET;
    struct stat mine {};
    struct stat there {};
    const bool isLocked = opened.isOpen() && ::fcntl(opened.number(), F_OFD_SETLK, &wanted) == 0 &&
                          ::fstat(opened.number(), &mine) == 0 && ::stat(file.c_str(), &there) == 0 &&
                          mine.st_ino == there.st_ino;
    errno = before;
    return isLocked ? std::move(opened) : Descriptor();
}

class RunThatBegins : public testing::TestWithParam<bool> {};

TEST_P(RunThatBegins, WhileOthersAreCleanedUpKeepsItsWork) {
    const bool isNamedAtOnce = GetParam();
    int kept = 0;
    for (int call = 1;; ++call) {
        SCOPED_TRACE("at call " + std::to_string(call));
        const TemporaryFolder store;
        const std::string id = "Render-" + UUID::random().text();
        const path making = store.path() / ("." + id);
        const path work = store.path() / id;
        std::filesystem::create_directory(making);
        Descriptor lock;
        const auto giveName = [&] {
            std::filesystem::rename(making, work);
            store.putFile(id + "/audio.wav", "half a piece");
        };
        const auto beginAsAnother = [&] {
            lock = lockAsAnother(making / ".lock");
            // Where it is taken, whoever cleans up came first, and another folder is made.
            if (lock.isOpen() && isNamedAtOnce) giveName();
        };

        bool isOver = false;
        {
            const SystemCallFaults calls({.failing = call, .meanwhile = beginAsAnother});
            RenderFolder::removeLeftovers(store.path());
            isOver = calls.struck().empty();
        }

        if (lock.isOpen()) {
            ++kept;
            if (!isNamedAtOnce) {
                ASSERT_NO_THROW(giveName());
            }
            EXPECT_EQ(store.content(id + "/audio.wav"), "half a piece");
            EXPECT_TRUE(std::filesystem::exists(work / ".lock"));
        } else {
            EXPECT_EQ(store.names(), std::vector<std::string>());
        }
        if (isOver || HasFailure()) break;
    }
    EXPECT_GT(kept, 2);
}

INSTANTIATE_TEST_SUITE_P(RenderFolderTests, RunThatBegins, testing::Bool(),
                         [](const auto& instance) { return instance.param ? "NamedAtOnce" : "NamedLater"; });

TEST(RenderFolderTests, FolderThatIsTakenForALeftoverWhileItIsMadeIsReplacedByAnother) {
    int replaced = 0;
    for (int call = 1;; ++call) {
        SCOPED_TRACE("at call " + std::to_string(call));
        const TemporaryFolder store;
        Descriptor lock;
        path taken;
        const auto cleanUpAsAnother = [&] {
            for (const auto& entry : std::filesystem::directory_iterator(store.path())) {
                if (!entry.path().filename().native().starts_with(".Render-")) continue;
                lock = lockAsAnother(entry.path() / ".lock");
                if (lock.isOpen()) taken = entry.path();
            }
        };

        bool isOver = false;
        {
            std::optional<RenderFolder> folder;
            {
                const SystemCallFaults calls({.failing = call, .meanwhile = cleanUpAsAnother});
                ASSERT_NO_THROW(folder.emplace(store.path()));
                isOver = calls.struck().empty();
            }
            EXPECT_TRUE(std::filesystem::is_directory(folder->path()));
            if (!taken.empty()) {
                ++replaced;
                EXPECT_NE("." + folder->path().filename().native(), taken.filename().native());
            }
        }
        if (isOver || HasFailure()) break;
    }
    EXPECT_GT(replaced, 0);
}

TEST(RenderFolderTests, LeftoverThatCannotBeRemovedDoesNotKeepTheOthers) {
    for (int call = 1;; ++call) {
        const TemporaryFolder store;
        for (int count = 0; count < 3; ++count) {
            store.putFile(".Render-" + UUID::random().text() + "/audio.wav", "half a piece");
        }

        std::string struck;
        {
            const SystemCallFaults calls({.failing = call, .error = EIO, .call = "unlinkat"});
            RenderFolder::removeLeftovers(store.path());
            struck = calls.struck();
        }

        EXPECT_LE(store.names().size(), struck.empty() ? 0U : 1U) << call;
        if (struck.empty() || HasFailure()) break;
    }
}

struct Fault {
    int error;
    bool persists;
};

const std::vector<Fault>& faults() {
    static const std::vector<Fault> all = {{EIO, false}, {ENOSPC, false}, {EIO, true}};
    return all;
}

/// A store's folder with what is not this process's to touch: a run that lives, one that is about to begin, and a
/// person's files.
class SharedStore {
public:
    SharedStore() : begins_(put(".Render-")), lives_(put("Render-")) {
        folder_.putFile(".Render-holiday/song.wav", "a person's, whatever the folder is called");
        folder_.putFile("song.wav", "a person's");
        names_ = folder_.names();
    }

    [[nodiscard]] const path& place() const noexcept { return folder_.path(); }
    [[nodiscard]] const TemporaryFolder& folder() const noexcept { return folder_; }

    /// What is there besides.
    [[nodiscard]] std::vector<std::string> others() const {
        std::vector<std::string> others;
        std::ranges::set_difference(folder_.names(), names_, std::back_inserter(others));
        return others;
    }

    void checkIsWhole() const {
        EXPECT_EQ(folder_.content(begins_.name + "/audio.wav"), "half a piece");
        EXPECT_EQ(folder_.content(lives_.name + "/audio.wav"), "half a piece");
        EXPECT_TRUE(FolderLock::isHeld(place() / begins_.name / ".lock"));
        EXPECT_TRUE(FolderLock::isHeld(place() / lives_.name / ".lock"));
        EXPECT_EQ(folder_.content(".Render-holiday/song.wav"), "a person's, whatever the folder is called");
        EXPECT_EQ(folder_.content("song.wav"), "a person's");
    }

    /// What a failure left is known as a dead run's: the next run removes it, or the library, by a free lock or
    /// because it is empty.
    void checkIsCleanedByTheNextRun() const {
        RenderFolder::removeLeftovers(place());
        for (const auto& name : others()) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(name.starts_with("Render-"));
            EXPECT_FALSE(FolderLock::isHeld(place() / name / ".lock"));
            EXPECT_TRUE(std::filesystem::exists(place() / name / ".lock") || std::filesystem::is_empty(place() / name));
        }
    }

private:
    struct Run {
        std::string name;
        Descriptor lock;
    };

    [[nodiscard]] Run put(const std::string& prefix) const {
        const auto name = prefix + UUID::random().text();
        folder_.putFile(name + "/audio.wav", "half a piece");
        return {name, lockAsAnother(folder_.path() / name / ".lock")};
    }

    TemporaryFolder folder_;
    const Run begins_;
    const Run lives_;
    std::vector<std::string> names_;
};

TEST(RenderFolderTests, WhicheverCallFailsAFolderIsMadeOrItThrowsAndLeavesNothingThatIsNotCleaned) {
    SystemCallFaults::syncNothing();
    for (const auto& fault : faults()) {
        int failures = 0;
        for (int call = 1;; ++call) {
            const SharedStore store;
            std::string struck;
            bool isRemovalStruck = false;
            std::optional<RenderFolder> folder;
            {
                const SystemCallFaults calls({.failing = call, .error = fault.error, .persists = fault.persists});
                try {
                    folder.emplace(store.place());
                } catch (const FileError& error) {
                    EXPECT_EQ(error.code().value(), fault.error) << error.what();
                    ++failures;
                }
                struck = calls.struck();
                isRemovalStruck = calls.struckARemoval();
            }
            SCOPED_TRACE("call " + std::to_string(call) + ", " + struck + (fault.persists ? " and all after it" : ""));

            store.checkIsWhole();
            if (folder) {
                EXPECT_EQ(store.others(), std::vector{folder->path().filename().native()});
                EXPECT_TRUE(FolderLock::isHeld(folder->path() / ".lock"));
                folder.reset();
                EXPECT_EQ(store.others(), std::vector<std::string>());
            } else {
                EXPECT_FALSE(struck.empty());
                EXPECT_TRUE(store.others().empty() || isRemovalStruck);
            }
            store.checkIsCleanedByTheNextRun();
            EXPECT_EQ(store.others(), std::vector<std::string>());
            if (struck.empty() || HasFailure()) break;
        }
        EXPECT_GT(failures, 3);
    }
}

/// Whether a working folder goes whatever an engine shut up in it, and takes nothing else with it. For an ordinary
/// user.
bool isRemovedWhateverItsRights(const path& store) {
    namespace fs = std::filesystem;
    const auto allow = [](const path& folder, int rights) { fs::permissions(folder, static_cast<fs::perms>(rights)); };
    fs::create_directory(store / "mine");
    allow(store / "mine", 0555);
    path work;
    {
        const RenderFolder folder(store);
        work = folder.path();
        for (const char* name : {"readOnly", "unseen", "closed"}) {
            fs::create_directories(work / name / "deep");
            std::ofstream(work / name / "deep" / "model.bin") << "weights";
        }
        fs::create_directory_symlink(store / "mine", work / "link");
        for (const auto& [name, rights] : {std::pair("readOnly", 0555), {"unseen", 0333}, {"closed", 0}}) {
            allow(work / name / "deep", rights);
            allow(work / name, rights);
        }
        allow(work, 0);
    }
    return !fs::exists(work) && fs::status(store / "mine").permissions() == static_cast<fs::perms>(0555);
}

TEST(RenderFolderTests, FoldersThatNobodyMayWriteInGoWithTheRest) {
    // Root is kept out by no rights, and the tests' own folders keep others out.
    constexpr uid_t nobody = 65534;
    const bool isRoot = ::geteuid() == 0;
    std::string store = "/tmp/quillmere-test-XXXXXX";
    ASSERT_NE(::mkdtemp(store.data()), nullptr);
    if (isRoot) {
        ASSERT_EQ(::chown(store.c_str(), nobody, nobody), 0);
    }

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (isRoot && (::setgroups(0, nullptr) != 0 || ::setgid(nobody) != 0 || ::setuid(nobody) != 0)) ::_exit(2);
        try {
            ::_exit(isRemovedWhateverItsRights(store) ? 0 : 1);
        } catch (const std::exception&) {
            ::_exit(3);
        }
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    std::filesystem::remove_all(store);
}

TEST(RenderFolderTests, WhicheverCallFailsAFolderThatEndsIsRemovedOrKnownAsADeadRuns) {
    SystemCallFaults::syncNothing();
    for (const auto& fault : faults()) {
        int left = 0;
        for (int call = 1;; ++call) {
            const SharedStore store;
            std::string struck;
            {
                std::optional<RenderFolder> folder(std::in_place, store.place());
                store.folder().putFile(folder->path().filename().native() + "/audio.wav", "a piece");
                store.folder().putFile(folder->path().filename().native() + "/inner/notes", "an engine's own");
                const SystemCallFaults calls({.failing = call, .error = fault.error, .persists = fault.persists});
                folder.reset();
                struck = calls.struck();
            }
            SCOPED_TRACE("call " + std::to_string(call) + ", " + struck + (fault.persists ? " and all after it" : ""));

            store.checkIsWhole();
            if (!store.others().empty()) ++left;
            EXPECT_TRUE(store.others().empty() || !struck.empty());
            store.checkIsCleanedByTheNextRun();
            if (struck.empty() || HasFailure()) break;
        }
        EXPECT_GT(left, 3);
    }
}

TEST(RenderFolderTests, WhicheverCallFailsAPieceIsDeliveredOrNotInTheStoresFolder) {
    SystemCallFaults::syncNothing();
    for (const auto& fault : faults()) {
        int failures = 0;
        for (int call = 1;; ++call) {
            const SharedStore store;
            const RenderFolder folder(store.place());
            const auto work = folder.path().filename().native();
            store.folder().putFile(work + "/audio.wav", "a piece");
            const auto file = folder.open("audio.wav");
            std::string struck;
            bool isRemovalStruck = false;
            bool isDelivered = false;
            {
                const SystemCallFaults calls({.failing = call, .error = fault.error, .persists = fault.persists});
                try {
                    isDelivered = folder.moveOut("audio.wav", file, "piece.wav");
                    EXPECT_TRUE(isDelivered);
                } catch (const FileError& error) {
                    EXPECT_EQ(error.code().value(), fault.error);
                    ++failures;
                }
                struck = calls.struck();
                isRemovalStruck = calls.struckARemoval();
            }
            SCOPED_TRACE("call " + std::to_string(call) + ", " + struck + (fault.persists ? " and all after it" : ""));

            store.checkIsWhole();
            const bool isThere = std::filesystem::exists(store.place() / "piece.wav");
            EXPECT_TRUE(isThere == isDelivered || isRemovalStruck);
            EXPECT_TRUE(!isThere || store.folder().content("piece.wav") == "a piece");
            EXPECT_TRUE(isDelivered || !struck.empty());
            if (struck.empty() || HasFailure()) break;
        }
        EXPECT_GT(failures, 1);
    }
}

TEST(RenderFolderTests, WhatLayInTheFolderWhenItCouldNotBeSyncedIsWrittenAnewBeforeItIsListed) {
    enum class Folder { there, madeLate, replaced };
    for (const auto kind : {Folder::there, Folder::madeLate, Folder::replaced}) {
        SCOPED_TRACE(static_cast<int>(kind));
        const TemporaryFolder home;
        const auto place = home.path() / "Loops";
        // Where a file is in the way the library cannot be made until that is gone.
        if (kind == Folder::madeLate) home.putFile("Loops", "");
        LoopStore store(place, ResourceBundle(home.path() / "App"));
        if (kind == Folder::madeLate) std::filesystem::remove(place);
        if (kind == Folder::replaced) std::filesystem::rename(place, home.path() / "Gone");
        const auto other = home.putFile("Loops/other.wav", "RIFF");
        const auto inode = [&] {
            struct stat status {};
            EXPECT_EQ(::stat(other.c_str(), &status), 0);
            return status.st_ino;
        };
        const auto before = inode();
        {
            const RenderFolder folder(place);
            home.putFile("Loops/" + folder.path().filename().native() + "/audio.wav", "a piece");
            const auto file = folder.open("audio.wav");
            const SystemCallFaults calls({.failing = 2, .error = EIO, .call = "fsync"});
            EXPECT_THROW(static_cast<void>(folder.moveOut("audio.wav", file, "piece.wav")), FileError);
        }

        store.addPersistent(
            LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain", 2, 1), FileURL::fromPath(other)));

        EXPECT_NE(inode(), before);
        EXPECT_EQ(home.content("Loops/other.wav"), "RIFF");
    }
}

TEST(RenderFolderTests, WhicheverCallFailsNobodyElsesFilesAreCleanedUpAndTheNextRunRemovesTheRest) {
    SystemCallFaults::syncNothing();
    for (const auto& fault : faults()) {
        int left = 0;
        for (int call = 1;; ++call) {
            const SharedStore store;
            store.folder().putFile(".Render-" + UUID::random().text() + "/audio.wav", "half a piece");
            std::string struck;
            {
                const SystemCallFaults calls({.failing = call, .error = fault.error, .persists = fault.persists});
                RenderFolder::removeLeftovers(store.place());
                struck = calls.struck();
            }
            SCOPED_TRACE("call " + std::to_string(call) + ", " + struck + (fault.persists ? " and all after it" : ""));

            store.checkIsWhole();
            if (!store.others().empty()) ++left;
            EXPECT_TRUE(store.others().empty() || !struck.empty());
            RenderFolder::removeLeftovers(store.place());
            EXPECT_EQ(store.others(), std::vector<std::string>());
            if (struck.empty() || HasFailure()) break;
        }
        EXPECT_GT(left, 3);
    }
}

}  // namespace
}  // namespace quillmere::test
