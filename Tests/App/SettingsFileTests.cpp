#include "App/SettingsFile.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/FolderLock.hpp"
#include "Tests/Support/OtherProcess.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::app {
namespace {

using test::SystemCallFaults;
using testing::ElementsAre;
using testing::IsEmpty;

struct SettingsFileTests : testing::Test {
    test::TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "settings.json";

    /// What is in the folder, besides the lock file.
    [[nodiscard]] std::vector<std::string> names() const {
        auto names = folder.names();
        std::erase(names, ".settings.lock");
        return names;
    }
};

TEST_F(SettingsFileTests, LookingMakesNothing) {
    const auto missing = folder.path() / "missing" / "settings.json";
    SettingsFile settings(missing);
    settings.reset("pace");

    EXPECT_EQ(settings.settings(), Settings());
    EXPECT_THAT(folder.names(), IsEmpty());

    folder.putFile("settings.json", R"({"mode":"scheduled"})");
    SettingsFile present(file);
    present.reset("pace");

    EXPECT_EQ(folder.content("settings.json"), R"({"mode":"scheduled"})");
    EXPECT_THAT(folder.names(), ElementsAre("settings.json"));
}

TEST_F(SettingsFileTests, AFileThatCouldNotBeReadAtFirstIsReadBeforeAChange) {
    int struck = 0;
    for (int call = 1;; ++call) {
        folder.putFile("settings.json", R"({"mode":"scheduled","volume":0.5})");
        std::optional<SettingsFile> settings;
        bool isOver = false;
        {
            const SystemCallFaults faults({.failing = call, .error = EIO});
            settings.emplace(file);
            isOver = faults.struck().empty();
        }
        SCOPED_TRACE("call " + std::to_string(call));
        if (!settings->problems().empty()) ++struck;
        settings->set("pace", GenerationPace::gentle);

        EXPECT_EQ(settings->settings(), (Settings{.mode = GenerationMode::scheduled, .pace = GenerationPace::gentle}));
        EXPECT_THAT(settings->problems(), IsEmpty());
        EXPECT_EQ(folder.content("settings.json"),
                  "{\n  \"mode\" : \"scheduled\",\n  \"pace\" : \"gentle\",\n  \"volume\" : 0.5\n}");
        EXPECT_THAT(names(), ElementsAre("settings.json"));
        if (isOver || HasFailure()) break;
    }
    EXPECT_GT(struck, 2);
}

TEST_F(SettingsFileTests, AChangeFailsAsLongAsTheFileCannotBeRead) {
    folder.putFile("settings.json", R"({"mode":"scheduled"})");
    std::optional<SettingsFile> settings;
    {
        const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
        settings.emplace(file);
        EXPECT_EQ(settings->problems().size(), 1U);
        EXPECT_THROW(settings->set("pace", GenerationPace::gentle), FileError);
        EXPECT_THROW(settings->reset("mode"), FileError);
    }

    EXPECT_EQ(settings->settings(), Settings());
    EXPECT_EQ(folder.content("settings.json"), R"({"mode":"scheduled"})");
    EXPECT_THAT(names(), ElementsAre("settings.json"));
    settings->reset("mode");
    EXPECT_EQ(folder.content("settings.json"), "{\n\n}");
}

TEST_F(SettingsFileTests, AChangeKeepsWhatAnotherProgramHasChosenSince) {
    SettingsFile settings(file);
    SettingsFile theirs(file);
    theirs.set("mode", GenerationMode::scheduled);
    theirs.set("model", GenerationModel::smallMusic);
    settings.set("pace", GenerationPace::gentle);

    const Settings all{
        .mode = GenerationMode::scheduled, .model = GenerationModel::smallMusic, .pace = GenerationPace::gentle};
    EXPECT_EQ(settings.settings(), all);
    EXPECT_EQ(SettingsFile(file).settings(), all);

    theirs.reset("pace");
    EXPECT_EQ(SettingsFile(file).settings().pace, GenerationPace::fast) << "taken back, whoever chose it";
    settings.set("horizon", Horizon::threeHours);
    EXPECT_EQ(settings.settings().pace, GenerationPace::fast);
}

TEST_F(SettingsFileTests, AChangeWhileAnotherProcessWritesIsRefusedAndChangesNothing) {
    SettingsFile settings(file);
    settings.set("mode", GenerationMode::scheduled);
    const auto before = folder.content("settings.json");
    {
        const test::OtherProcess other(folder.path() / ".settings.lock");

        EXPECT_THROW(settings.set("pace", GenerationPace::gentle), LibraryInUse);
        EXPECT_THROW(settings.reset("mode"), LibraryInUse);
        EXPECT_EQ(SettingsFile(file).settings().mode, GenerationMode::scheduled);
    }

    EXPECT_EQ(settings.settings(), Settings{.mode = GenerationMode::scheduled});
    EXPECT_EQ(folder.content("settings.json"), before);
    settings.reset("mode");
    EXPECT_EQ(SettingsFile(file).settings(), Settings());
    EXPECT_FALSE(FolderLock::isHeld(folder.path() / ".settings.lock"));
}

TEST_F(SettingsFileTests, AFileThatIsGoneOrDamagedSinceIsWrittenAgain) {
    SettingsFile settings(file);
    settings.set("mode", GenerationMode::scheduled);
    std::filesystem::remove(file);
    settings.set("pace", GenerationPace::gentle);
    EXPECT_EQ(SettingsFile(file).settings(), settings.settings());
    EXPECT_EQ(settings.settings().mode, GenerationMode::scheduled);

    folder.putFile("settings.json", "{torn");
    settings.set("model", GenerationModel::smallMusic);

    EXPECT_EQ(SettingsFile(file).settings(), settings.settings());
    EXPECT_EQ(settings.settings(), (Settings{.mode = GenerationMode::scheduled,
                                             .model = GenerationModel::smallMusic,
                                             .pace = GenerationPace::gentle}));
    const auto names = this->names();
    ASSERT_EQ(names.size(), 2U);
    EXPECT_THAT(names[1], testing::StartsWith("settings.unreadable-"));
    EXPECT_EQ(folder.content(names[1]), "{torn");
}

TEST_F(SettingsFileTests, OfAFileThatCannotBeReplacedOneCopyIsKept) {
    for (const char* text : {"{torn", R"({"pace":"brisk"})"}) {
        SCOPED_TRACE(text);
        const test::TemporaryFolder place;
        SettingsFile settings(place.putFile("settings.json", text));
        for (int time = 0; time < 3; ++time) {
            const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "renameat", .persists = true});
            EXPECT_THROW(settings.set("pace", GenerationPace::gentle), FileError);
        }
        EXPECT_EQ(place.content("settings.json"), text);
        settings.set("pace", GenerationPace::gentle);

        const auto names = place.names();
        ASSERT_EQ(names.size(), 3U) << "the lock, the file and its copy";
        EXPECT_EQ(std::ranges::count(names, text, [&](const auto& name) { return place.content(name); }), 1);
    }
}

TEST_F(SettingsFileTests, AChoiceWhoseFolderCouldNotBeSyncedIsWrittenByTheNextTry) {
    SettingsFile settings(file);
    settings.set("pace", GenerationPace::gentle);
    {
        // The first sync is the new file's, the second its folder's.
        const SystemCallFaults faults({.failing = 2, .error = EIO, .call = "fsync"});
        try {
            settings.reset("pace");
            ADD_FAILURE() << "the folder was not synced";
        } catch (const FileError& error) {
            EXPECT_TRUE(error.isInPlace());
        }
    }
    EXPECT_EQ(settings.settings(), Settings());

    const SystemCallFaults calls({.failing = 1, .call = "fsync"});
    settings.reset("pace");
    EXPECT_EQ(calls.count(), 2);
}

TEST_F(SettingsFileTests, AHalfWrittenFileOfACrashIsRemovedByAChange) {
    const std::string half = ".quillmere-01234567-89AB-4DEF-8123-456789ABCDEF.tmp";
    folder.putFile(half, "{half");
    std::filesystem::last_write_time(folder.path() / half,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(24));
    SettingsFile settings(file);
    EXPECT_THAT(names(), ElementsAre(half));
    settings.set("pace", GenerationPace::gentle);

    EXPECT_THAT(names(), ElementsAre("settings.json"));
}

}  // namespace
}  // namespace quillmere::app
