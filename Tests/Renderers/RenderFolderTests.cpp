// Runs that begin while another process cleans up after those that died.

#include "Renderers/RenderFolder.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
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

}  // namespace
}  // namespace quillmere::test
