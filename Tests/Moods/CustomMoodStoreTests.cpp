#include "QuillmereKit/Moods/CustomMoodStore.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "Tests/Support/OtherProcess.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere {
namespace {

MoodSpec mood(std::string id, std::string name = "Mood") {
    return {
        .id = std::move(id),
        .name = std::move(name),
        .glyph = MoodGlyph::grain,
        .calm = {{{TagCategory::nature, "rain"}}, "", 60},
        .energetic = {{}, "driving", std::nullopt},
        .soundGuide = std::nullopt,
    };
}

constexpr const char* asideName = "Moods.unreadable-2024-05-01T10-20-30Z.json";

std::vector<std::string> ids(const CustomMoodStore& store) {
    std::vector<std::string> ids;
    for (const auto& spec : store.all()) ids.push_back(spec.id);
    return ids;
}

/// What is in a folder, besides the lock file.
std::vector<std::string> names(const test::TemporaryFolder& folder) {
    auto names = folder.names();
    std::erase(names, ".Moods.lock");
    return names;
}

struct CustomMoodStoreTests : testing::Test {
    test::TemporaryFolder folder;
    std::filesystem::path file = folder.path() / "Moods.json";

    /// The first of May 2024 at 10:20:30 UTC.
    static Date now() { return Date(std::chrono::seconds(1714558830)); }

    CustomMoodStore open() const { return CustomMoodStore(file, &now); }
};

TEST_F(CustomMoodStoreTests, AMissingFileIsAnEmptyListAndStaysMissing) {
    const CustomMoodStore store(file);

    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(store.spec("my-a"), std::nullopt);
    EXPECT_EQ(store.url(), file);
    EXPECT_TRUE(names(folder).empty());
}

TEST_F(CustomMoodStoreTests, ASavedMoodIsThereAfterReopening) {
    CustomMoodStore{file}.save(mood("my-a"));

    const CustomMoodStore reopened(file);
    EXPECT_EQ(reopened.all(), std::vector{mood("my-a")});
    EXPECT_EQ(reopened.spec("my-a"), mood("my-a"));
    EXPECT_EQ(reopened.spec("my-A"), std::nullopt);
}

TEST_F(CustomMoodStoreTests, ANewMoodComesFirstAndAKnownOneKeepsItsPlace) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    store.save(mood("my-b"));
    store.save(mood("my-c"));
    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-c", "my-b", "my-a"}));

    store.save(mood("my-b", "Renamed"));
    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-c", "my-b", "my-a"}));
    EXPECT_EQ(store.spec("my-b")->name, "Renamed");
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
}

TEST_F(CustomMoodStoreTests, TheFileIsPrettyWithSortedKeysAndVersionOne) {
    CustomMoodStore store(file);
    MoodSpec empty = MoodSpec::blank(MoodGlyph::wave);
    empty.id = "my-b";
    store.save(mood("my-a"));
    store.save(empty);

    EXPECT_EQ(folder.content("Moods.json"), R"({
  "moods" : [
    {
      "calm" : {
        "tags" : [

        ],
        "text" : ""
      },
      "energetic" : {
        "tags" : [

        ],
        "text" : ""
      },
      "glyph" : "wave",
      "id" : "my-b",
      "lively" : false,
      "name" : "Untitled mood"
    },
    {
      "calm" : {
        "bpm" : 60,
        "tags" : [
          {
            "category" : "nature",
            "value" : "rain"
          }
        ],
        "text" : ""
      },
      "energetic" : {
        "tags" : [

        ],
        "text" : "driving"
      },
      "glyph" : "grain",
      "id" : "my-a",
      "lively" : false,
      "name" : "Mood"
    }
  ],
  "version" : 1
})");
}

TEST_F(CustomMoodStoreTests, RemovingTakesEveryMoodWithTheIdAndKeepsTheOrder) {
    {
        CustomMoodStore store(file);
        for (const char* id : {"my-c", "my-x", "my-b", "my-y", "my-a"}) store.save(mood(id));
    }
    auto text = folder.content("Moods.json");
    for (const char* other : {"my-x", "my-y"}) text.replace(text.find(other), 4, "my-d");
    folder.putFile("Moods.json", text);
    CustomMoodStore store(file);
    ASSERT_EQ(ids(store), (std::vector<std::string>{"my-a", "my-d", "my-b", "my-d", "my-c"}));

    store.remove("my-d");

    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-a", "my-b", "my-c"}));
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
}

TEST_F(CustomMoodStoreTests, OfTwoMoodsWithOneIdTheFirstIsFoundAndReplaced) {
    {
        CustomMoodStore store(file);
        store.save(mood("my-2", "second"));
        store.save(mood("my-1", "first"));
    }
    auto text = folder.content("Moods.json");
    text.replace(text.find("my-2"), 4, "my-1");
    folder.putFile("Moods.json", text);
    CustomMoodStore store(file);

    EXPECT_EQ(store.spec("my-1")->name, "first");
    store.save(mood("my-1", "changed"));
    EXPECT_EQ(store.all(), (std::vector{mood("my-1", "changed"), mood("my-1", "second")}));
}

TEST_F(CustomMoodStoreTests, RemovingAnUnknownIdWritesTheFileAgain) {
    CustomMoodStore store(file);
    store.remove("my-nobody");

    EXPECT_EQ(folder.content("Moods.json"), "{\n  \"moods\" : [\n\n  ],\n  \"version\" : 1\n}");
}

TEST_F(CustomMoodStoreTests, MissingFoldersAreMadeForTheFile) {
    CustomMoodStore store(folder.path() / "a" / "b" / "Moods.json");
    EXPECT_TRUE(names(folder).empty());
    store.save(mood("my-a"));

    EXPECT_EQ(CustomMoodStore(folder.path() / "a" / "b" / "Moods.json").all(), store.all());
}

TEST_F(CustomMoodStoreTests, AFileWhereTheFolderShouldBeFailsTheSaveAndKeepsTheList) {
    CustomMoodStore store(folder.path() / "sub" / "Moods.json");
    folder.putFile("sub", "a file");

    EXPECT_THROW(store.save(mood("my-a")), FileError);
    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(folder.content("sub"), "a file");
}

TEST_F(CustomMoodStoreTests, AFailedWriteLeavesListAndFileAsTheyWere) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    const auto before = folder.content("Moods.json");

    try {
        const test::SystemCallFaults faults({.failing = 1, .error = ENOSPC, .call = "write"});
        store.save(mood("my-b"));
        FAIL() << "saved";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), std::errc::no_space_on_device);
        EXPECT_EQ(error.path(), file);
        EXPECT_FALSE(error.isInPlace());
    }
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "fsync"});
        EXPECT_THROW(store.remove("my-a"), FileError);
    }
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
    EXPECT_EQ(folder.content("Moods.json"), before);
    EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
}

TEST_F(CustomMoodStoreTests, WhereOnlyTheFoldersSyncFailsTheListFollowsTheFileAndTheErrorIsReported) {
    CustomMoodStore store(file);
    const auto failsAtTheFolder = [](const auto& change) {
        // The first sync is the file's, the second its folder's.
        const test::SystemCallFaults faults({.failing = 2, .error = EIO, .call = "fsync"});
        try {
            change();
        } catch (const FileError& error) {
            return error.isInPlace();
        }
        return false;
    };

    EXPECT_TRUE(failsAtTheFolder([&] { store.save(mood("my-a")); }));
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
    EXPECT_TRUE(failsAtTheFolder([&] { store.remove("my-a"); }));
    EXPECT_TRUE(store.all().empty());
    EXPECT_TRUE(CustomMoodStore(file).all().empty());
}

TEST_F(CustomMoodStoreTests, WhicheverSystemCallFailsListAndFileAgreeAndTheErrorIsReported) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        const test::TemporaryFolder place;
        const auto nested = place.path() / "a" / "Moods.json";
        CustomMoodStore store(nested);
        bool isReported = false;
        std::string struck;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            try {
                store.save(mood("my-a"));
            } catch (const FileError& error) {
                isReported = true;
                EXPECT_EQ(ids(store).size(), error.isInPlace() ? 1U : 0U);
            }
            struck = faults.struck();
        }
        EXPECT_EQ(CustomMoodStore(nested).all(), store.all()) << struck;
        if (struck.empty()) {
            EXPECT_FALSE(isReported);
            EXPECT_GT(failing, 8);
            break;
        }
        if (!isReported) {
            EXPECT_EQ(ids(store).size(), 1U) << struck << " was survived, but the mood is not there";
        }
    }
}

TEST_F(CustomMoodStoreTests, WhicheverSystemCallFailsWhileADamagedFileIsMovedAsideItsContentIsKept) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        const test::TemporaryFolder place;
        place.putFile("Moods.json", "damaged");
        std::string struck;
        std::optional<CustomMoodStore> store;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            store.emplace(place.path() / "Moods.json", &now);
            struck = faults.struck();
        }
        EXPECT_TRUE(store->all().empty());
        store->save(mood("my-a"));
        EXPECT_EQ(place.content(asideName), "damaged") << struck;
        EXPECT_EQ(CustomMoodStore(place.path() / "Moods.json").all(), store->all());
        if (struck.empty()) break;
    }
}

TEST_F(CustomMoodStoreTests, AMoodThatJSONCannotHoldIsRefusedAndNothingChanges) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    const auto before = folder.content("Moods.json");

    EXPECT_THROW(store.save(mood("my-b", "\xff")), EncodingError);
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
    EXPECT_EQ(folder.content("Moods.json"), before);
    EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
}

TEST_F(CustomMoodStoreTests, AFileThatCouldNotBeReadAgainIsNeverWritten) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    const auto before = folder.content("Moods.json");

    try {
        store.save(mood("my-b", std::string(CustomMoodStore::mostBytes, 'x')));
        FAIL() << "saved";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), std::errc::file_too_large);
    }
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
    EXPECT_EQ(folder.content("Moods.json"), before);
}

TEST_F(CustomMoodStoreTests, ADamagedFileIsMovedAsideAndTheNextSaveMakesAFreshOne) {
    folder.putFile("Moods.json", "{\"moods\": [");
    auto store = open();

    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(names(folder), std::vector<std::string>{asideName});
    EXPECT_EQ(folder.content(asideName), "{\"moods\": [");

    store.save(mood("my-a"));
    EXPECT_EQ(open().all(), std::vector{mood("my-a")});
    EXPECT_EQ(folder.content(asideName), "{\"moods\": [");
}

TEST_F(CustomMoodStoreTests, WhateverIsNoMoodFileIsKeptByteForByte) {
    const std::string spec =
        R"({"id":"my-a","name":"A","glyph":"wave","calm":{"tags":[],"text":""},"energetic":{"tags":[],"text":""}})";
    const std::vector<std::string> texts = {
        "",
        "null",
        "[]",
        "[" + spec + "]",
        R"({"moods":[]})",
        R"({"version":1})",
        R"({"version":"1","moods":[]})",
        R"({"version":1.5,"moods":[]})",
        R"({"version":null,"moods":[]})",
        R"({"version":1,"moods":null})",
        R"({"version":1,"moods":{}})",
        R"({"version":1,"moods":[null]})",
        R"({"version":1,"moods":[{"id":"my-a"}]})",
        R"({"version":1,"moods":[)" + spec + R"(,{}]})",
        R"({"version":1,"moods":[{"id":"my-a","name":"A","glyph":"star","calm":{"tags":[],"text":""},"energetic":{"tags":[],"text":""}}]})",
        R"({"version":1,"moods":[]} x)",
        R"({"version":1,"moods":[],})",
        "{\"version\":1,\"moods\":[],\"x\":\"\xff\"}",
        R"({"version":1,"moods":[],"x":"\ud800"})",
        std::string("\0", 1),
        std::string(100'000, '['),
    };
    for (const auto& text : texts) {
        SCOPED_TRACE(text.substr(0, 100));
        const test::TemporaryFolder place;
        place.putFile("Moods.json", text);
        const CustomMoodStore store(place.path() / "Moods.json", &now);

        EXPECT_TRUE(store.all().empty());
        EXPECT_EQ(names(place), std::vector<std::string>{asideName});
        EXPECT_EQ(place.content(asideName), text);
    }
}

TEST_F(CustomMoodStoreTests, AnotherVersionUnknownKeysAndAByteOrderMarkAreReadAllTheSame) {
    folder.putFile("Moods.json",
                   "\xef\xbb\xbf{\"future\":[1,{}],\"version\":-7,\"moods\":[{\"id\":\"my-a\",\"name\":\"A\","
                   "\"glyph\":\"wave\",\"x\":1,\"calm\":{\"tags\":[],\"text\":\"\"},"
                   "\"energetic\":{\"tags\":[],\"text\":\"\"}}]}");
    const auto store = open();

    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
    EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
}

TEST_F(CustomMoodStoreTests, AFileBeyondTheLimitIsMovedAsideUnread) {
    folder.putFile("Moods.json", R"({"version":1,"moods":[]})");
    std::filesystem::resize_file(file, CustomMoodStore::mostBytes + 1);  // sparse
    const auto store = open();

    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(names(folder), std::vector<std::string>{asideName});
    EXPECT_EQ(std::filesystem::file_size(folder.path() / asideName), CustomMoodStore::mostBytes + 1);
}

TEST_F(CustomMoodStoreTests, WhatIsNoRegularFileIsLeftInPlaceAndNothingIsSavedOverIt) {
    folder.putFile("Moods.json/inside", "precious");
    const auto refuses = [&] {
        auto store = open();
        EXPECT_TRUE(store.all().empty());
        try {
            store.save(mood("my-a"));
            ADD_FAILURE() << "saved";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), FileFault::fileNotRegular);
            EXPECT_EQ(error.path(), file);
        }
        EXPECT_TRUE(store.all().empty());
        EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
    };

    refuses();
    EXPECT_EQ(folder.content("Moods.json/inside"), "precious");

    std::filesystem::remove_all(file);
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    std::vector<test::RecordedCall> calls;
    {
        const test::SystemCallFaults recording({.record = &calls});
        refuses();
    }
    EXPECT_TRUE(std::filesystem::is_fifo(file));
    for (const auto& call : calls) EXPECT_FALSE(call.kind == test::RecordedCall::Kind::open && call.path == file);

    std::filesystem::remove(file);
    auto store = open();
    store.save(mood("my-a"));
    EXPECT_EQ(open().all(), store.all());
}

TEST_F(CustomMoodStoreTests, AFileThatCannotBeReadAtTheStartStaysAndIsReadByTheFirstChange) {
    { CustomMoodStore(file).save(mood("my-a")); }
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        std::string struck;
        std::optional<CustomMoodStore> store;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            store.emplace(file);
            struck = faults.struck();
        }
        EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"}) << struck;
        store->save(mood("my-b"));

        EXPECT_EQ(ids(*store), (std::vector<std::string>{"my-b", "my-a"})) << struck;
        EXPECT_EQ(CustomMoodStore(file).all(), store->all());
        store->remove("my-b");
        EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"}) << struck;
        if (struck.empty()) break;
    }
}

TEST_F(CustomMoodStoreTests, AFileBehindALinkThatCannotBeReadAtTheStartIsReadByTheFirstChange) {
    CustomMoodStore(folder.path() / "Synced/real.json").save(mood("my-a"));
    std::filesystem::create_symlink("Synced/real.json", file);
    std::optional<CustomMoodStore> store;
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read"});
        store.emplace(file);
        ASSERT_EQ(faults.struck(), "read");
    }
    EXPECT_TRUE(store->all().empty());

    store->save(mood("my-b"));

    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(ids(*store), (std::vector<std::string>{"my-b", "my-a"}));
    EXPECT_EQ(CustomMoodStore(file).all(), store->all());
}

TEST_F(CustomMoodStoreTests, AFileThatCannotBeReadIsNeverReplaced) {
    CustomMoodStore(file).save(mood("my-a"));
    const auto before = folder.content("Moods.json");
    std::optional<CustomMoodStore> store;
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
        store.emplace(file);
        try {
            store->save(mood("my-b"));
            FAIL() << "saved";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), std::errc::io_error);
            EXPECT_FALSE(error.isInPlace());
        }
    }
    EXPECT_TRUE(store->all().empty());
    EXPECT_EQ(folder.content("Moods.json"), before);
    EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
}

TEST_F(CustomMoodStoreTests, AListThatCouldNotBeReadIsToldFromAnEmptyOne) {
    EXPECT_EQ(open().loadProblem(), std::nullopt);  // there is none

    const auto problemOf = [&] { return open().loadProblem().value_or("none"); };
    folder.putFile("Moods.json", "{");
    EXPECT_THAT(problemOf(), testing::HasSubstr(std::string("(kept as \"") + asideName + "\") cannot be read: "));
    EXPECT_EQ(problemOf(), "none");  // it is moved aside
    std::filesystem::create_directory(file);
    EXPECT_THAT(problemOf(), testing::HasSubstr("regular file"));
    std::filesystem::remove(file);
    for (const char* target : {"away/Moods.json", asideName}) {
        std::filesystem::create_symlink(target, file);
        EXPECT_THAT(problemOf(), testing::HasSubstr("Moods.json\" cannot be read: "));
        std::filesystem::remove(file);
    }

    CustomMoodStore(file).save(mood("my-a"));
    EXPECT_EQ(problemOf(), "none");
    const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read"});
    EXPECT_THAT(problemOf(), testing::HasSubstr("Input/output error"));
}

TEST_F(CustomMoodStoreTests, AListThatCouldNotBeReadIsReadWhenItIsAskedForAgainOrChanged) {
    CustomMoodStore(file).save(mood("my-a"));
    for (const bool isChange : {false, true}) {
        SCOPED_TRACE(isChange);
        std::optional<CustomMoodStore> store;
        {
            const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
            store.emplace(file);
            store->refresh();
            EXPECT_TRUE(store->all().empty());
            EXPECT_NE(store->loadProblem(), std::nullopt);
        }

        isChange ? store->save(mood("my-a")) : store->refresh();

        EXPECT_EQ(ids(*store), std::vector<std::string>{"my-a"});
        EXPECT_EQ(store->loadProblem(), std::nullopt);
    }
}

TEST_F(CustomMoodStoreTests, RefreshingTakesInWhatAnotherProcessWroteSince) {
    CustomMoodStore theirs(file);
    auto mine = open();
    theirs.save(mood("my-a"));
    EXPECT_TRUE(mine.all().empty());

    mine.refresh();
    EXPECT_EQ(ids(mine), std::vector<std::string>{"my-a"});

    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO});
        mine.refresh();
        EXPECT_NE(mine.loadProblem(), std::nullopt);
    }
    mine.refresh();
    EXPECT_EQ(mine.loadProblem(), std::nullopt) << "it is the file that was read before";

    theirs.save(mood("my-b"));
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read"});
        mine.refresh();
        EXPECT_EQ(faults.struck(), "read");
    }
    EXPECT_EQ(ids(mine), std::vector<std::string>{"my-a"});
    EXPECT_THAT(mine.loadProblem().value_or("none"), testing::HasSubstr("Input/output error"));

    folder.putFile("Moods.json", "{");
    mine.refresh();
    EXPECT_EQ(ids(mine), std::vector<std::string>{"my-a"});
    EXPECT_NE(mine.loadProblem(), std::nullopt);
    EXPECT_EQ(folder.content("Moods.json"), "{");

    mine.save(mood("my-c"));
    EXPECT_EQ(mine.loadProblem(), std::nullopt);
    EXPECT_EQ(folder.content(asideName), "{") << "kept before it is replaced";
}

TEST_F(CustomMoodStoreTests, WhatKeptTheListFromBeingReadIsSaidNoLongerThanItIsThere) {
    const auto problemOf = [](CustomMoodStore& store) {
        store.refresh();
        return store.loadProblem().value_or("none");
    };
    std::filesystem::create_directory(file);
    auto foundAFolder = open();
    EXPECT_THAT(problemOf(foundAFolder), testing::HasSubstr("regular file"));
    std::filesystem::remove(file);
    EXPECT_EQ(problemOf(foundAFolder), "none");

    folder.putFile("Moods.json", "{");
    std::optional<CustomMoodStore> foundDamage;
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "renameat2"});
        foundDamage.emplace(file, &now);
    }
    EXPECT_THAT(problemOf(*foundDamage), testing::HasSubstr("Moods.json\" cannot be read: "));
    std::filesystem::remove(file);
    EXPECT_EQ(problemOf(*foundDamage), "none");

    auto store = open();
    store.save(mood("my-a"));
    const auto good = folder.path() / "good.json";
    std::filesystem::rename(file, good);
    EXPECT_EQ(problemOf(store), "none");
    folder.putFile("Moods.json", "{");
    EXPECT_THAT(problemOf(store), testing::HasSubstr("cannot be read: "));
    std::filesystem::rename(good, file);
    EXPECT_EQ(problemOf(store), "none") << "it is the file that was read before";

    std::filesystem::rename(file, good);
    std::filesystem::create_directory(file);
    EXPECT_THAT(problemOf(store), testing::HasSubstr("regular file"));
    EXPECT_THROW(store.save(mood("my-b")), FileError);
    EXPECT_THAT(problemOf(store), testing::HasSubstr("regular file"));
    std::filesystem::remove(file);
    EXPECT_EQ(problemOf(store), "none");
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
}

TEST_F(CustomMoodStoreTests, ADamagedFileThatWasMovedAsideIsToldOfUntilThereIsAListAgain) {
    for (const bool isSynced : {true, false}) {
        SCOPED_TRACE(isSynced);
        folder.putFile("Moods.json", "{");
        std::optional<CustomMoodStore> store;
        {
            const test::SystemCallFaults faults({.failing = isSynced ? 0 : 1, .error = EIO, .call = "fsync"});
            store.emplace(file, &now);
            EXPECT_EQ(faults.struck(), isSynced ? "" : "fsync");
        }
        const auto problem = [&] {
            store->refresh();
            return store->loadProblem().value_or("none");
        };
        const auto isTold = testing::HasSubstr(std::string("(kept as \"") + asideName + "\") cannot be read: ");
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_THAT(problem(), isTold);
        std::filesystem::create_directory(file);
        EXPECT_THAT(problem(), testing::HasSubstr("regular file"));
        std::filesystem::remove(file);
        EXPECT_THAT(problem(), isTold);

        CustomMoodStore(file).save(mood("my-a"));
        EXPECT_EQ(problem(), "none");
        std::filesystem::remove(file);
        EXPECT_EQ(problem(), "none");
        std::filesystem::remove(folder.path() / asideName);
    }
}

TEST_F(CustomMoodStoreTests, ALinkToAMoodFileIsFollowedByReadingAndSaving) {
    const auto real = folder.path() / "Synced" / "moods of mine.json";
    CustomMoodStore(real).save(mood("my-a"));
    std::filesystem::create_symlink("Synced/moods of mine.json", file);
    auto store = open();
    EXPECT_EQ(store.url(), file);
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});

    store.save(mood("my-b"));

    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(names(folder), (std::vector<std::string>{"Moods.json", "Synced"}));
    EXPECT_EQ(CustomMoodStore(real).all(), store.all());
    EXPECT_EQ(open().all(), store.all());
}

TEST_F(CustomMoodStoreTests, ALinkToNoMoodFileIsLeftAloneAndNothingIsSavedInItsPlace) {
    folder.putFile("damaged.json", "{");
    folder.putFile("folder/inside", "precious");
    const auto others = [&] {
        auto found = names(folder);
        std::erase(found, "Moods.json");
        return found;
    };
    const auto before = others();
    // What is away today may be back tomorrow.
    for (const char* target : {"away/Moods.json", "damaged.json", "folder", "Moods.json", "/dev/zero"}) {
        SCOPED_TRACE(target);
        std::filesystem::create_symlink(target, file);
        auto store = open();

        EXPECT_TRUE(store.all().empty());
        try {
            store.save(mood("my-a"));
            ADD_FAILURE() << "saved";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), FileFault::fileNotRegular);
            EXPECT_EQ(error.path(), file);
        }
        EXPECT_TRUE(store.all().empty());
        EXPECT_EQ(std::filesystem::read_symlink(file), target);
        EXPECT_EQ(others(), before);

        std::filesystem::remove(file);
        store.save(mood("my-a"));
        EXPECT_EQ(open().all(), store.all());
        std::filesystem::remove(file);
    }
    EXPECT_EQ(folder.content("damaged.json"), "{");
}

TEST_F(CustomMoodStoreTests, ALinkWhoseTargetWasAwayAtTheStartIsFollowedOnceItIsThere) {
    std::filesystem::create_symlink("Disk/Moods.json", file);
    auto store = open();
    EXPECT_THROW(store.save(mood("my-a")), FileError);

    CustomMoodStore(folder.path() / "Disk" / "Moods.json").save(mood("my-b"));
    store.save(mood("my-c"));

    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-c", "my-b"}));
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(open().all(), store.all());
}

TEST_F(CustomMoodStoreTests, AFileSystemWithoutLocksIsNoReasonNotToSave) {
    auto store = open();
    for (const int error : {ENOSYS, EOPNOTSUPP, EINVAL}) {
        const test::SystemCallFaults faults({.failing = 1, .error = error, .call = "fcntl", .persists = true});
        store.save(mood("my-a", std::to_string(error)));
        EXPECT_EQ(faults.struck(), "fcntl");
        EXPECT_EQ(open().all(), store.all());
    }
    const test::SystemCallFaults faults({.failing = 1, .error = ENOLCK, .call = "fcntl", .persists = true});
    EXPECT_THROW(store.save(mood("my-b")), FileError);
}

// Two stores of one file stand for two processes.
TEST_F(CustomMoodStoreTests, AnUpdateChangesWhatAnotherProcessWroteSince) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    CustomMoodStore other(file);
    other.save(mood("my-b"));
    other.remove("my-a");
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});

    store.save(mood("my-c"));

    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-c", "my-b"}));
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
}

TEST_F(CustomMoodStoreTests, WhicheverSystemCallFailsWhatAnotherProcessWroteIsNotLost) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        const test::TemporaryFolder place;
        const auto there = place.path() / "Moods.json";
        CustomMoodStore store(there, &now);
        store.save(mood("my-a"));
        CustomMoodStore(there).save(mood("my-b"));
        std::string struck;
        bool isInPlace = true;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            try {
                store.save(mood("my-c"));
            } catch (const FileError& error) {
                isInPlace = error.isInPlace();
            }
            struck = faults.struck();
        }
        const auto expected =
            isInPlace ? std::vector<std::string>{"my-c", "my-b", "my-a"} : std::vector<std::string>{"my-a"};
        EXPECT_EQ(ids(store), expected) << struck;
        EXPECT_EQ(ids(CustomMoodStore(there)).size(), isInPlace ? 3U : 2U) << struck;

        store.save(mood("my-c"));
        EXPECT_EQ(ids(store), (std::vector<std::string>{"my-c", "my-b", "my-a"})) << struck;
        EXPECT_EQ(CustomMoodStore(there).all(), store.all());
        EXPECT_EQ(place.names(), (std::vector<std::string>{".Moods.lock", "Moods.json"})) << struck;
        if (struck.empty()) break;
    }
}

TEST_F(CustomMoodStoreTests, AnUpdateWhileAnotherProcessWritesIsRefusedAndChangesNothing) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    const auto before = folder.content("Moods.json");
    {
        const test::OtherProcess other(folder.path() / ".Moods.lock");
        try {
            store.save(mood("my-b"));
            FAIL() << "saved";
        } catch (const LibraryInUse& error) {
            EXPECT_EQ(error.folder(), folder.path());
        }
        EXPECT_THROW(store.remove("my-a"), LibraryInUse);
        EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
        EXPECT_EQ(folder.content("Moods.json"), before);
    }

    store.save(mood("my-b"));
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
    EXPECT_FALSE(FolderLock::isHeld(folder.path() / ".Moods.lock"));
}

TEST_F(CustomMoodStoreTests, AStrangersFileUnderTheLocksNameStaysAsItIs) {
    folder.putFile(".Moods.lock", "my precious notes");
    CustomMoodStore store(file);

    try {
        store.save(mood("my-a"));
        FAIL() << "saved";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), FileFault::fileNotOwn);
        EXPECT_EQ(error.path(), folder.path() / ".Moods.lock");
    }
    EXPECT_EQ(folder.content(".Moods.lock"), "my precious notes");
    EXPECT_TRUE(names(folder).empty());
}

TEST_F(CustomMoodStoreTests, WhatAnotherProcessWroteInADamagedFilesPlaceIsNotMovedAside) {
    CustomMoodStore(folder.path() / "good" / "Moods.json").save(mood("my-a"));
    folder.putFile("Moods.json", "damaged");
    {
        // Between the reading and the locking.
        const test::SystemCallFaults faults({.failing = 1, .call = "fcntl", .meanwhile = [&] {
                                                 std::filesystem::rename(folder.path() / "good" / "Moods.json", file);
                                             }});
        auto store = open();
        EXPECT_EQ(faults.struck(), "fcntl");
        EXPECT_EQ(names(folder), (std::vector<std::string>{"Moods.json", "good"}));
        store.save(mood("my-b"));
    }

    EXPECT_EQ(ids(open()), (std::vector<std::string>{"my-b", "my-a"}));
}

TEST_F(CustomMoodStoreTests, AFileThatAnotherProcessDamagedIsKeptAndTheListWrittenAgain) {
    auto store = open();
    store.save(mood("my-a"));
    folder.putFile("Moods.json", "damaged");

    store.save(mood("my-b"));

    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-b", "my-a"}));
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
    EXPECT_EQ(folder.content(asideName), "damaged");
}

TEST_F(CustomMoodStoreTests, AFileThatWasTakenAwayIsWrittenAgainWhole) {
    CustomMoodStore store(file);
    store.save(mood("my-a"));
    std::filesystem::remove(file);

    store.save(mood("my-b"));

    EXPECT_EQ(ids(store), (std::vector<std::string>{"my-b", "my-a"}));
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
}

TEST_F(CustomMoodStoreTests, AFileKeptEarlierUnderTheSameNameStays) {
    folder.putFile(asideName, "an earlier one");
    folder.putFile("Moods.json", "damaged");
    const auto store = open();

    EXPECT_EQ(folder.content(asideName), "an earlier one");
    EXPECT_EQ(folder.content("Moods.unreadable-2024-05-01T10-20-30Z-2.json"), "damaged");
}

TEST_F(CustomMoodStoreTests, ADamagedFileThatCannotBeKeptIsNeverOverwritten) {
    // So long a name leaves no room for any other name beside it.
    const std::string name = std::string(245, 'm') + ".json";
    folder.putFile(name, "damaged");
    CustomMoodStore store(folder.path() / name);
    ASSERT_TRUE(store.all().empty());

    EXPECT_THROW(store.save(mood("my-a")), FileError);
    EXPECT_THROW(store.remove("my-a"), FileError);
    EXPECT_EQ(folder.content(name), "damaged");
    EXPECT_TRUE(store.all().empty());

    std::filesystem::remove(folder.path() / name);
    store.save(mood("my-a"));
    EXPECT_EQ(ids(store), std::vector<std::string>{"my-a"});
}

TEST_F(CustomMoodStoreTests, AnUnreadableFileLeftInPlaceIsCopiedAsideOnceBeforeItIsReplaced) {
    folder.putFile("Moods.json", "damaged");
    std::optional<CustomMoodStore> store;
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "renameat2"});
        store.emplace(file, &now);
    }
    ASSERT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
    ASSERT_EQ(folder.content("Moods.json"), "damaged");

    store->save(mood("my-a"));
    EXPECT_EQ(folder.content(asideName), "damaged");
    EXPECT_EQ(CustomMoodStore(file).all(), std::vector{mood("my-a")});
    store->save(mood("my-b"));
    EXPECT_EQ(names(folder), (std::vector<std::string>{"Moods.json", asideName}));
}

TEST_F(CustomMoodStoreTests, WhicheverSystemCallFailsWhileADamagedFileIsReplacedItsContentIsKept) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        const test::TemporaryFolder place;
        place.putFile("Moods.json", "damaged");
        std::optional<CustomMoodStore> store;
        {
            const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "renameat2"});
            store.emplace(place.path() / "Moods.json", &now);
        }
        ASSERT_EQ(place.content("Moods.json"), "damaged");
        std::string struck;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            try {
                store->save(mood("my-a"));
            } catch (const FileError& error) {
                EXPECT_EQ(store->all().size(), error.isInPlace() ? 1U : 0U);
                EXPECT_EQ(place.content("Moods.json") == "damaged", !error.isInPlace());
            }
            struck = faults.struck();
        }
        store->save(mood("my-b"));
        EXPECT_EQ(place.content(asideName), "damaged") << struck;
        EXPECT_EQ(CustomMoodStore(place.path() / "Moods.json").all(), store->all());
        if (struck.empty()) break;
    }
}

TEST_F(CustomMoodStoreTests, TheDefaultPlaceIsMoodsInTheApplicationsData) {
    const auto data = UserFolders::applicationData();
    ASSERT_TRUE(data);
    EXPECT_EQ(CustomMoodStore().url(), *data / "Moods.json");
    EXPECT_TRUE(data->native().ends_with("/Quillmere"));
}

TEST_F(CustomMoodStoreTests, UnderTheHarnessTheSharedStoreIsATemporaryFileOfThisProcess) {
    ASSERT_TRUE(UserFolders::isAutomatedHarness());
    EXPECT_EQ(CustomMoodStore::shared().url(),
              UserFolders::temporary() / ("quillmere-moods-" + std::to_string(::getpid()) + ".json"));
    EXPECT_EQ(&CustomMoodStore::shared(), &CustomMoodStore::shared());
}

TEST_F(CustomMoodStoreTests, ARelativeFileStaysWhereItWasWhenTheWorkingFolderChanges) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    CustomMoodStore store("Moods.json");
    std::filesystem::current_path(before);
    store.save(mood("my-a"));

    EXPECT_EQ(names(folder), std::vector<std::string>{"Moods.json"});
}

TEST_F(CustomMoodStoreTests, ChangesFromManyThreadsAreAllKept) {
    CustomMoodStore store(file);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&store, thread] {
            for (int i = 0; i < 10; ++i) {
                const std::string id = "my-" + std::to_string(thread) + "-" + std::to_string(i);
                store.save(mood(id));
                if (i % 2 == 1) store.remove(id);
                (void)store.all();
            }
        });
    }
    for (auto& thread : threads) thread.join();

    const auto found = ids(store);
    std::set<std::string> expected;
    for (int thread = 0; thread < 4; ++thread) {
        for (int i = 0; i < 10; i += 2) expected.insert("my-" + std::to_string(thread) + "-" + std::to_string(i));
    }
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()), expected);
    EXPECT_EQ(found.size(), expected.size());
    EXPECT_EQ(CustomMoodStore(file).all(), store.all());
}

}  // namespace
}  // namespace quillmere
