#include "App/DigestBook.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "App/Host.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/ResourceBundle.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::app {
namespace {

using test::SystemCallFaults;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string first = "0000000000000001";
const std::string second = "0000000000000002";
const std::string third = "0000000000000003";

std::string digestOf(char digit) { return std::string(64, digit); }

bool isStored(const std::string&) { return true; }

struct DigestBookTests : testing::Test {
    test::TemporaryFolder folder;

    void putTwo() const {
        std::filesystem::remove(folder.path() / "digests.json");
        DigestBook book(folder.path());
        book.set(first, digestOf('a'));
        book.set(second, digestOf('b'));
        book.save(&isStored);
    }

    /// The digests of the three pieces in the file; of one that is not there, nothing.
    [[nodiscard]] std::vector<std::optional<std::string>> saved() const {
        const DigestBook book(folder.path());
        EXPECT_EQ(book.problem(), std::nullopt);
        return {book.digest(first), book.digest(second), book.digest(third)};
    }
};

TEST_F(DigestBookTests, LookingMakesNothingAndNeitherDoesForgettingWhatIsNotThere) {
    DigestBook book(folder.path());
    book.forget(first);
    book.save(&isStored);

    EXPECT_EQ(book.digest(first), std::nullopt);
    EXPECT_THAT(folder.names(), IsEmpty());
}

TEST_F(DigestBookTests, WhatIsNotedIsReadAtOnceAndSavedLater) {
    putTwo();
    DigestBook book(folder.path());
    book.set(third, digestOf('c'));
    book.forget(first);

    EXPECT_EQ(book.digest(third), digestOf('c'));
    EXPECT_EQ(book.digest(first), std::nullopt);
    EXPECT_THAT(saved(), ElementsAre(digestOf('a'), digestOf('b'), std::nullopt));
    book.save(&isStored);
    EXPECT_THAT(saved(), ElementsAre(std::nullopt, digestOf('b'), digestOf('c')));
}

TEST_F(DigestBookTests, AFileThatCouldNotBeReadAtFirstIsReadBeforeItIsReplaced) {
    int struck = 0;
    for (int call = 1;; ++call) {
        putTwo();
        std::optional<DigestBook> book;
        bool isOver = false;
        {
            const SystemCallFaults faults({.failing = call, .error = EIO});
            book.emplace(folder.path());
            isOver = faults.struck().empty();
        }
        SCOPED_TRACE("call " + std::to_string(call));
        if (book->problem()) ++struck;
        book->set(third, digestOf('c'));
        book->forget(first);
        book->save(&isStored);

        EXPECT_EQ(book->problem(), std::nullopt);
        EXPECT_EQ(book->digest(second), digestOf('b'));
        EXPECT_THAT(saved(), ElementsAre(std::nullopt, digestOf('b'), digestOf('c')));
        EXPECT_THAT(folder.names(), ElementsAre("digests.json"));
        if (isOver || HasFailure()) break;
    }
    EXPECT_GT(struck, 2);
}

TEST_F(DigestBookTests, VerbsAskTwiceForAFileThatTheDiskDidNotGive) {
    putTwo();
    const LoopStore store(folder.path(), ResourceBundle(folder.path()), {}, LoopStore::Access::reading);
    int struck = 0;
    for (int call = 1;; ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        const SystemCallFaults faults({.failing = call, .error = EIO});
        const auto book = Host::digests(store);
        EXPECT_EQ(book.problem(), std::nullopt);
        EXPECT_EQ(book.digest(first), digestOf('a'));
        if (faults.struck().empty() || HasFailure()) break;
        ++struck;
    }
    EXPECT_GT(struck, 2);

    const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
    EXPECT_TRUE(Host::digests(store).problem());
}

TEST_F(DigestBookTests, SavingFailsAsLongAsTheFileCannotBeRead) {
    putTwo();
    std::optional<DigestBook> book;
    {
        const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
        book.emplace(folder.path());
        EXPECT_TRUE(book->problem());
        book->set(third, digestOf('c'));
        EXPECT_THROW(book->save(&isStored), FileError);
    }

    EXPECT_EQ(book->digest(third), digestOf('c'));
    EXPECT_THAT(saved(), ElementsAre(digestOf('a'), digestOf('b'), std::nullopt));
    EXPECT_THAT(folder.names(), ElementsAre("digests.json"));
    book->save(&isStored);
    EXPECT_THAT(saved(), ElementsAre(digestOf('a'), digestOf('b'), digestOf('c')));
}

TEST_F(DigestBookTests, WhatAnotherProcessHasWrittenSinceIsKept) {
    DigestBook book(folder.path());
    putTwo();
    book.set(third, digestOf('c'));
    book.save(&isStored);

    EXPECT_THAT(saved(), ElementsAre(digestOf('a'), digestOf('b'), digestOf('c')));
    EXPECT_EQ(book.digest(first), digestOf('a'));
}

TEST_F(DigestBookTests, OfADamagedFileThatCannotBeReplacedOneCopyIsKept) {
    const std::string odd = R"({"version":1,"digests":{"x":"y",")" + first + "\":\"" + digestOf('a') + "\"}}";
    for (const auto& text : {std::string("{torn"), odd}) {
        SCOPED_TRACE(text);
        const test::TemporaryFolder place;
        place.putFile("digests.json", text);
        DigestBook book(place.path());
        EXPECT_TRUE(book.problem());
        book.set(third, digestOf('c'));
        for (int time = 0; time < 3; ++time) {
            const SystemCallFaults faults({.failing = 1, .error = EIO, .call = "renameat", .persists = true});
            EXPECT_THROW(book.save(&isStored), FileError);
        }
        EXPECT_EQ(place.content("digests.json"), text);
        book.save(&isStored);

        const auto names = place.names();
        ASSERT_EQ(names.size(), 2U) << "the file and its copy";
        EXPECT_EQ(std::ranges::count(names, text, [&](const auto& name) { return place.content(name); }), 1);
        EXPECT_EQ(DigestBook(place.path()).digest(third), digestOf('c'));
    }
}

TEST_F(DigestBookTests, ADamagedFileIsKeptOrNotReplacedWhicheverCallFails) {
    for (int call = 1;; ++call) {
        const test::TemporaryFolder place;
        place.putFile("digests.json", "{torn");
        DigestBook book(place.path());
        book.set(first, digestOf('a'));
        std::string struck;
        {
            const SystemCallFaults faults({.failing = call, .error = EIO});
            try {
                book.save(&isStored);
            } catch (const FileError&) {
                EXPECT_FALSE(faults.struck().empty());
            }
            struck = faults.struck();
        }
        SCOPED_TRACE("call " + std::to_string(call) + ", " + struck);

        const auto names = place.names();
        EXPECT_TRUE(std::ranges::any_of(names, [&](const auto& name) { return place.content(name) == "{torn"; }));
        if (struck.empty() || HasFailure()) break;
    }
}

TEST_F(DigestBookTests, WhatIsInPlaceAndMayBeLostIsWrittenByTheNextSave) {
    putTwo();
    DigestBook book(folder.path());
    book.set(third, digestOf('c'));
    {
        // The first sync is the new file's, the second its folder's.
        const SystemCallFaults faults({.failing = 2, .error = EIO, .call = "fsync"});
        EXPECT_THROW(book.save(&isStored), FileError);
    }
    {
        const SystemCallFaults calls({.failing = 1, .call = "fsync"});
        book.save(&isStored);
        EXPECT_EQ(calls.count(), 2);
    }
    const SystemCallFaults calls({.failing = 1, .call = "fsync"});
    book.save(&isStored);
    EXPECT_EQ(calls.count(), 0);
}

}  // namespace
}  // namespace quillmere::app
