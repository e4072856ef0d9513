// What a later save makes of a sync that failed: the system may have dropped what it could not write, and says of the
// next sync that all is well.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Checks.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

class FailedSyncs : public testing::TestWithParam<Operation> {};

TEST_P(FailedSyncs, AreNotMadeGoodByTheNext) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    for (const bool persists : {false, true}) {
        for (int failing = 1;; ++failing) {
            SCOPED_TRACE("sync " + std::to_string(failing) + (persists ? " and all after it" : ""));
            auto session = stage.begin();
            std::vector<RecordedCall> calls;
            Stage::Outcome outcome;
            std::string struck;
            {
                const SystemCallFaults faults(
                    {.failing = failing, .error = EIO, .call = "fsync", .persists = persists, .record = &calls});
                outcome = stage.act(*session);
                struck = faults.struck();
            }
            {
                const SystemCallFaults undisturbed({.record = &calls});
                const bool isDone = outcome.error.empty() && session->isSaved();
                if (!isDone) static_cast<void>(stage.act(*session));
                session->change();
            }
            stage.checkListedIsSafe(calls);
            if (HasFailure()) return;
            if (struck.empty()) break;
        }
    }
}

// A file that lay there when the sync of its folder failed may have lost its name, though nobody had asked for it yet.
TEST_P(FailedSyncs, AreNotMadeGoodForWhatIsAddedLater) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("sync " + std::to_string(failing));
        auto session = stage.begin();
        std::vector<RecordedCall> calls;
        {
            const SystemCallFaults undisturbed({.record = &calls});
            session->prepareChange();
        }
        std::string struck;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "fsync", .record = &calls});
            static_cast<void>(stage.act(*session));
            struck = faults.struck();
        }
        {
            const SystemCallFaults undisturbed({.record = &calls});
            if (!session->isOpen()) static_cast<void>(stage.act(*session));
            session->change();
        }
        stage.checkListedIsSafe(calls);
        if (HasFailure() || struck.empty()) return;
    }
}

// The first sync of all fails, and when the file is written anew for that, another one does.
TEST_P(FailedSyncs, AreNotMadeGoodWhereWritingAnewFailedToo) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("sync " + std::to_string(failing) + " of the second attempt");
        auto session = stage.begin();
        std::vector<RecordedCall> calls;
        {
            const SystemCallFaults faults(
                {.failing = 1, .error = EIO, .call = "fsync", .persists = true, .record = &calls});
            static_cast<void>(stage.act(*session));
        }
        {
            const SystemCallFaults undisturbed({.record = &calls});
            session->prepareChange();  // what lies there unsynced may lose its name, too
        }
        std::string struck;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "fsync", .record = &calls});
            static_cast<void>(stage.act(*session));
            struck = faults.struck();
        }
        {
            const SystemCallFaults undisturbed({.record = &calls});
            static_cast<void>(stage.act(*session));
            session->change();
        }
        stage.checkListedIsSafe(calls);
        if (HasFailure() || struck.empty()) return;
    }
}

// What is known of the disk does not go with the last store that is open on the folder.
TEST_P(FailedSyncs, AreNotMadeGoodByOpeningTheFolderAnew) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("sync " + std::to_string(failing));
        auto session = stage.begin();
        std::vector<RecordedCall> calls;
        std::string struck;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "fsync", .record = &calls});
            static_cast<void>(stage.act(*session));
            struck = faults.struck();
        }
        {
            const SystemCallFaults undisturbed({.record = &calls});
            session.reset();
            session = stage.operation().begin(stage.home());
            static_cast<void>(stage.act(*session));
            session->change();
        }
        stage.checkListedIsSafe(calls);
        if (HasFailure() || struck.empty()) return;
    }
}

TEST(FailedSyncsOfAudio, WrittenAnewPutNoRecordInPlace) {
    const TemporaryFolder home;
    const auto file = home.putFile("Loops/piece.wav", "RIFF");
    const auto piece = LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain", 2, 1), FileURL::fromPath(file));
    LoopStore store(home.path() / "Loops", ResourceBundle(home.path() / "App"));
    {
        const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "fsync", .persists = true});
        EXPECT_THROW(store.addPersistent(piece), FileError);
    }

    // Now it is written anew: that is synced, and the folder with its new name is not.
    try {
        const SystemCallFaults faults({.failing = 2, .error = EIO, .call = "fsync"});
        store.addPersistent(piece);
        ADD_FAILURE() << "stored";
    } catch (const FileError& error) {
        EXPECT_FALSE(error.isInPlace());
    }

    EXPECT_FALSE(std::filesystem::exists(home.path() / "Loops" / "manifest.json"));
    store.addPersistent(piece);
    EXPECT_TRUE(std::filesystem::exists(home.path() / "Loops" / "manifest.json"));
}

INSTANTIATE_TEST_SUITE_P(Every, FailedSyncs, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace quillmere::test
