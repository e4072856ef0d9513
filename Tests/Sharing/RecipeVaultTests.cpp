#include "QuillmereKit/Sharing/RecipeVault.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <latch>
#include <limits>
#include <optional>
#include <set>
#include <thread>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"
#include "Tests/Support/OtherProcess.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere {
namespace {

using test::builtInRecipe;
using test::customRecipe;
using test::guidedSpec;

struct RecipeVaultTests : testing::Test {
    test::TemporaryFolder folder;
    std::filesystem::path place = folder.path() / "vault";

    [[nodiscard]] RecipeBundle file() const { return RecipeBundle::decode(folder.content("vault/saved.json")); }
    [[nodiscard]] std::vector<std::string> keptAside() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(place)) {
            const std::string name = entry.path().filename();
            if (name.find("unreadable-") != std::string::npos) names.push_back(name);
        }
        return names;
    }
};

TEST_F(RecipeVaultTests, SavingTwiceHoldsItOnce) {
    RecipeVault vault(place);

    EXPECT_TRUE(vault.save(builtInRecipe()));
    EXPECT_FALSE(vault.save(builtInRecipe()));
    EXPECT_EQ(vault.count(), 1U);
    EXPECT_EQ(file().recipes, std::vector{builtInRecipe()});
}

TEST_F(RecipeVaultTests, SavedRecipesAreThereAfterReopening) {
    {
        RecipeVault vault(place);
        vault.save(builtInRecipe(1));
        vault.save(customRecipe(guidedSpec()));
    }

    const RecipeVault again(place);

    EXPECT_EQ(again.saved(), (std::vector{builtInRecipe(1), customRecipe(guidedSpec())}));
    EXPECT_TRUE(again.contains(builtInRecipe(1).fingerprint));
    EXPECT_FALSE(again.contains("0000000000000000"));
    EXPECT_EQ(again.lastSaveError(), std::nullopt);
}

TEST_F(RecipeVaultTests, TheFileIsAPrettyBundleOfTheRecipesAsTheyAre) {
    RecipeVault vault(place);
    vault.save(customRecipe(guidedSpec()));

    EXPECT_EQ(folder.content("vault/saved.json"),
              encodeJSON(RecipeBundle{.recipes = {customRecipe(guidedSpec())}}, JSONWriter::Form::pretty));
}

TEST_F(RecipeVaultTests, RemovingKeepsTheOrderOfTheRest) {
    RecipeVault vault(place);
    for (int seed = 1; seed <= 3; ++seed) vault.save(builtInRecipe(seed));

    EXPECT_TRUE(vault.remove(builtInRecipe(2).fingerprint));
    EXPECT_EQ(vault.saved(), (std::vector{builtInRecipe(1), builtInRecipe(3)}));
    EXPECT_EQ(file().recipes, vault.saved());
}

TEST_F(RecipeVaultTests, RemovingWhatIsNotHeldWritesNothing) {
    RecipeVault vault(place);

    EXPECT_FALSE(vault.remove("0000000000000000"));
    EXPECT_FALSE(std::filesystem::exists(vault.file()));
    vault.save(builtInRecipe());
    folder.putFile("vault/saved.json", "untouched");
    EXPECT_FALSE(vault.remove("0000000000000000"));
    EXPECT_FALSE(vault.save(builtInRecipe()));
    EXPECT_EQ(folder.content("vault/saved.json"), "untouched");
}

TEST_F(RecipeVaultTests, ImportSortsABundleOut) {
    RecipeVault vault(place);
    vault.save(builtInRecipe(1));
    LoopRecipe edited = builtInRecipe(3);
    edited.fingerprint = "edited";
    const RecipeBundle bundle{.recipes = {builtInRecipe(1), builtInRecipe(2), edited, builtInRecipe(2)}};

    const auto result = vault.importing(encodeJSON(bundle, JSONWriter::Form::pretty));

    EXPECT_EQ(result.added, std::vector{builtInRecipe(2)});
    EXPECT_EQ(result.duplicates, (std::vector{builtInRecipe(1), builtInRecipe(2)}));
    ASSERT_EQ(result.rejected.size(), 1U);
    EXPECT_EQ(result.rejected[0].recipe, edited);
    EXPECT_EQ(result.summary(), "1 added \u00b7 2 already saved \u00b7 1 unusable");
    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2)}));
}

TEST_F(RecipeVaultTests, SummaryLeavesOutWhatDidNotHappen) {
    EXPECT_EQ(RecipeVault::ImportResult{}.summary(), "0 added");
    EXPECT_EQ((RecipeVault::ImportResult{.added = {builtInRecipe()}, .duplicates = {}, .rejected = {}}.summary()),
              "1 added");
}

TEST_F(RecipeVaultTests, ImportingASingleRecipeFailsAndSavesNothing) {
    RecipeVault vault(place);

    try {
        vault.importing(builtInRecipe().encoded());
        FAIL();
    } catch (const ImportError& error) {
        EXPECT_EQ(error, ImportError(ImportError::UnsupportedSchema{"quillmere.recipe/2"}));
    }
    EXPECT_THROW(vault.importing("{"), JSONError);
    EXPECT_EQ(vault.count(), 0U);
}

TEST_F(RecipeVaultTests, ARecipeThatCannotBeRenderedHereIsStillSaved) {
    RecipeVault vault(place);
    LoopRecipe newer = builtInRecipe();
    newer.identity.recipe = 2;
    newer.fingerprint = newer.identity.fingerprint();

    EXPECT_EQ(vault.importing(RecipeBundle{.recipes = {newer}}.encoded()).added.size(), 1U);
}

TEST_F(RecipeVaultTests, ExportSharesEveryRecipe) {
    RecipeVault vault(place);
    vault.save(customRecipe(guidedSpec()));

    const auto shared = RecipeBundle::decode(vault.exported());

    ASSERT_EQ(shared.recipes.size(), 1U);
    EXPECT_EQ(shared.recipes[0], customRecipe(guidedSpec()).forSharing());
}

TEST_F(RecipeVaultTests, ExportFailsWithAPrivateRecording) {
    RecipeVault vault(place);
    LoopRecipe recording = customRecipe(guidedSpec());
    recording.identity.audio->kind = AudioUse::Kind::recording;
    vault.save(recording);

    EXPECT_THROW(static_cast<void>(vault.exported()), ImportError);
}

TEST_F(RecipeVaultTests, AFileThatCannotBeReadMakesAnEmptyVaultAndIsKept) {
    const std::string wrongSchema =
        encodeJSON(RecipeBundle{.schema = "other", .recipes = {}}, JSONWriter::Form::pretty);
    for (const std::string& content : {std::string("{not json"), std::string("\xff\xfe"), wrongSchema}) {
        SCOPED_TRACE(content);
        std::filesystem::remove_all(place);
        folder.putFile("vault/saved.json", content);

        RecipeVault vault(place);
        EXPECT_EQ(vault.count(), 0U);
        EXPECT_EQ(folder.content("vault/saved.json"), content);

        vault.save(builtInRecipe());
        EXPECT_EQ(file().recipes.size(), 1U);
        ASSERT_EQ(keptAside().size(), 1U);
        EXPECT_EQ(folder.content("vault/" + keptAside()[0]), content);

        vault.save(builtInRecipe(2));
        EXPECT_EQ(keptAside().size(), 1U);
    }
}

// Another process's view of the same vault: two objects know of each other only through the file.
struct SharedVaultTests : RecipeVaultTests {
    RecipeVault mine{place};
    RecipeVault theirs{place};
};

TEST_F(SharedVaultTests, WhatAnotherProcessSavedIsTakenInBeforeAChangeIsWritten) {
    theirs.save(builtInRecipe(1));
    mine.save(builtInRecipe(2));
    theirs.save(builtInRecipe(3));

    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2), builtInRecipe(3)}));
    EXPECT_EQ(mine.count(), 2U) << "reading the list never touches the disk";
    EXPECT_EQ(theirs.saved(), file().recipes);
    EXPECT_THAT(keptAside(), testing::IsEmpty());
}

TEST_F(SharedVaultTests, WhatEitherProcessRemovedStaysRemoved) {
    mine.importing(RecipeBundle{.recipes = {builtInRecipe(1), builtInRecipe(2), builtInRecipe(3)}}.encoded());
    theirs.save(builtInRecipe(4));

    EXPECT_TRUE(theirs.remove(builtInRecipe(1).fingerprint));
    EXPECT_TRUE(mine.remove(builtInRecipe(2).fingerprint));

    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(3), builtInRecipe(4)}));
    EXPECT_EQ(mine.saved(), file().recipes);
}

TEST_F(SharedVaultTests, TheSameRecipeSavedByBothIsHeldOnce) {
    theirs.save(builtInRecipe(1));
    EXPECT_TRUE(mine.save(builtInRecipe(1)));

    EXPECT_EQ(file().recipes, std::vector{builtInRecipe(1)});
    EXPECT_EQ(mine.saved(), std::vector{builtInRecipe(1)});
}

TEST_F(SharedVaultTests, DamageThatAnotherProcessLeftIsKeptAside) {
    mine.save(builtInRecipe(1));
    folder.putFile("vault/saved.json", "{damage");

    mine.save(builtInRecipe(2));

    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2)}));
    ASSERT_EQ(keptAside().size(), 1U);
    EXPECT_EQ(folder.content("vault/" + keptAside()[0]), "{damage");
}

TEST_F(SharedVaultTests, WhileAnotherProcessWritesTheChangeWaitsInMemory) {
    mine.save(builtInRecipe(1));
    {
        const test::OtherProcess other(place / ".saved.lock");
        EXPECT_TRUE(mine.save(builtInRecipe(2)));
        ASSERT_TRUE(mine.lastSaveError());
        EXPECT_THAT(*mine.lastSaveError(), testing::HasSubstr("in use by"));
        EXPECT_EQ(file().recipes, std::vector{builtInRecipe(1)});
    }
    mine.save(builtInRecipe(3));

    EXPECT_EQ(mine.lastSaveError(), std::nullopt);
    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2), builtInRecipe(3)}));
}

TEST_F(SharedVaultTests, WhicheverSystemCallFailsWhatAnotherProcessSavedIsNotLost) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        std::filesystem::remove_all(place);
        RecipeVault vault(place);
        vault.save(builtInRecipe(1));
        RecipeVault(place).save(builtInRecipe(2));
        std::string struck;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            vault.save(builtInRecipe(3));
            struck = faults.struck();
        }
        vault.save(builtInRecipe(4));

        const std::set<std::string> expected = {builtInRecipe(1).fingerprint, builtInRecipe(2).fingerprint,
                                                builtInRecipe(3).fingerprint, builtInRecipe(4).fingerprint};
        std::set<std::string> found;
        for (const auto& recipe : file().recipes) found.insert(recipe.fingerprint);
        EXPECT_EQ(found, expected) << struck;
        EXPECT_EQ(file().recipes, vault.saved()) << struck;
        EXPECT_EQ(vault.lastSaveError(), std::nullopt) << struck;
        EXPECT_THAT(keptAside(), testing::IsEmpty()) << struck;
        if (struck.empty()) break;
    }
}

TEST_F(SharedVaultTests, AFileTakenAwayWhileItIsReadRemovesNothing) {
    mine.save(builtInRecipe(1));
    theirs.save(builtInRecipe(2));
    {
        const test::SystemCallFaults faults(
            {.failing = 1, .call = "openat", .meanwhile = [&] { std::filesystem::remove(mine.file()); }});
        mine.save(builtInRecipe(3));
        ASSERT_EQ(faults.struck(), "openat");
    }

    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(3)}));
    EXPECT_EQ(mine.saved(), file().recipes);
}

TEST_F(RecipeVaultTests, AFileThatCannotBeReadAtTheStartIsReadByTheFirstChange) {
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        std::filesystem::remove_all(place);
        RecipeVault(place).save(builtInRecipe(1));
        std::string struck;
        std::optional<RecipeVault> vault;
        {
            const test::SystemCallFaults faults({.failing = failing, .error = EIO});
            try {
                vault.emplace(place);
            } catch (const FileError&) {
                EXPECT_EQ(failing, 1) << "only making the folder may fail";
            }
            struck = faults.struck();
        }
        if (!vault) continue;
        vault->save(builtInRecipe(2));

        EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2)})) << struck;
        EXPECT_EQ(vault->saved(), file().recipes) << struck;
        EXPECT_THAT(keptAside(), testing::IsEmpty()) << struck;
        if (struck.empty()) break;
    }
}

TEST_F(RecipeVaultTests, AFileBehindALinkThatCannotBeReadAtTheStartIsReadByTheFirstChange) {
    RecipeVault(folder.path() / "dotfiles").save(builtInRecipe(1));
    std::filesystem::create_directory(place);
    std::filesystem::create_symlink("../dotfiles/saved.json", place / "saved.json");
    std::optional<RecipeVault> vault;
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read"});
        vault.emplace(place);
        ASSERT_EQ(faults.struck(), "read");
    }
    EXPECT_EQ(vault->count(), 0U);

    vault->save(builtInRecipe(2));

    EXPECT_EQ(vault->lastSaveError(), std::nullopt);
    EXPECT_TRUE(std::filesystem::is_symlink(place / "saved.json"));
    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2)}));
    EXPECT_EQ(vault->saved(), file().recipes);
}

TEST_F(RecipeVaultTests, AFileThatCannotBeReadIsNeverReplaced) {
    RecipeVault(place).save(builtInRecipe(1));
    const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
    RecipeVault vault(place);

    EXPECT_TRUE(vault.save(builtInRecipe(2)));

    ASSERT_NE(vault.lastSaveError(), std::nullopt);
    EXPECT_THAT(*vault.lastSaveError(), testing::HasSubstr("Input/output error"));
    EXPECT_THAT(keptAside(), testing::IsEmpty());
}

TEST_F(RecipeVaultTests, AVaultThatCouldNotBeReadIsToldFromAnEmptyOne) {
    EXPECT_EQ(RecipeVault(place).loadProblem(), std::nullopt);  // there is none

    const auto problemOf = [&] { return RecipeVault(place).loadProblem().value_or("none"); };
    folder.putFile("vault/saved.json", "{");
    EXPECT_THAT(problemOf(), testing::HasSubstr("saved.json\" cannot be read: "));
    std::filesystem::remove(place / "saved.json");
    std::filesystem::create_directory(place / "saved.json");
    EXPECT_THAT(problemOf(), testing::HasSubstr("regular file"));
    std::filesystem::remove(place / "saved.json");
    std::filesystem::create_symlink("away.json", place / "saved.json");
    EXPECT_THAT(problemOf(), testing::HasSubstr("saved.json\" cannot be read: "));
    std::filesystem::remove(place / "saved.json");

    RecipeVault(place).save(builtInRecipe());
    EXPECT_EQ(problemOf(), "none");
    const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read"});
    EXPECT_THAT(problemOf(), testing::HasSubstr("Input/output error"));
}

TEST_F(RecipeVaultTests, AVaultThatCouldNotBeReadIsReadWhenItIsAskedForAgainOrChanged) {
    RecipeVault(place).save(builtInRecipe(1));
    for (const bool isChange : {false, true}) {
        SCOPED_TRACE(isChange);
        std::optional<RecipeVault> vault;
        {
            const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read", .persists = true});
            vault.emplace(place);
            vault->refresh();
            EXPECT_EQ(vault->count(), 0U);
            EXPECT_NE(vault->loadProblem(), std::nullopt);
        }

        isChange ? static_cast<void>(vault->save(builtInRecipe(2))) : vault->refresh();

        EXPECT_EQ(vault->saved().front(), builtInRecipe(1));
        EXPECT_EQ(vault->loadProblem(), std::nullopt);
    }
}

TEST_F(SharedVaultTests, RefreshingTakesInWhatAnotherProcessSavedAndWritesNothing) {
    mine.save(builtInRecipe(1));
    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO});
        mine.refresh();
        EXPECT_NE(mine.loadProblem(), std::nullopt);
    }
    mine.refresh();
    EXPECT_EQ(mine.loadProblem(), std::nullopt) << "it is the file that was read before";

    theirs.save(builtInRecipe(2));
    theirs.remove(builtInRecipe(1).fingerprint);
    const auto before = folder.content("vault/saved.json");

    {
        const test::SystemCallFaults faults({.failing = 1, .error = EIO, .call = "read"});
        mine.refresh();
        EXPECT_EQ(faults.struck(), "read");
    }
    EXPECT_EQ(mine.saved(), std::vector{builtInRecipe(1)});
    EXPECT_THAT(mine.loadProblem().value_or("none"), testing::HasSubstr("Input/output error"));

    mine.refresh();
    EXPECT_EQ(mine.saved(), std::vector{builtInRecipe(2)});
    EXPECT_EQ(mine.loadProblem(), std::nullopt);
    EXPECT_EQ(folder.content("vault/saved.json"), before);

    folder.putFile("vault/saved.json", "{");
    mine.refresh();
    EXPECT_EQ(mine.saved(), std::vector{builtInRecipe(2)});
    EXPECT_NE(mine.loadProblem(), std::nullopt);
    mine.save(builtInRecipe(3));
    EXPECT_EQ(mine.loadProblem(), std::nullopt);
    EXPECT_THAT(keptAside(), testing::SizeIs(1));
}

TEST_F(RecipeVaultTests, WhatKeptTheVaultFromBeingReadIsSaidNoLongerThanItIsThere) {
    const auto problemOf = [](RecipeVault& vault) {
        vault.refresh();
        return vault.loadProblem().value_or("none");
    };
    const auto saved = place / "saved.json";
    const auto away = place / "away.json";
    folder.putFile("vault/saved.json", "{");
    RecipeVault foundDamage(place);
    EXPECT_THAT(problemOf(foundDamage), testing::HasSubstr("saved.json\" cannot be read: "));
    std::filesystem::rename(saved, away);
    EXPECT_EQ(problemOf(foundDamage), "none");
    std::filesystem::rename(away, saved);
    EXPECT_THAT(problemOf(foundDamage), testing::HasSubstr("cannot be read: ")) << "it is damaged still";
    std::filesystem::remove(saved);

    std::filesystem::create_directory(saved);
    RecipeVault foundAFolder(place);
    EXPECT_THAT(problemOf(foundAFolder), testing::HasSubstr("regular file"));
    std::filesystem::remove(saved);
    EXPECT_EQ(problemOf(foundAFolder), "none");

    RecipeVault vault(place);
    vault.save(builtInRecipe(1));
    std::filesystem::rename(saved, away);
    EXPECT_EQ(problemOf(vault), "none");
    folder.putFile("vault/saved.json", "{");
    EXPECT_THAT(problemOf(vault), testing::HasSubstr("cannot be read: "));
    std::filesystem::rename(away, saved);
    EXPECT_EQ(problemOf(vault), "none");

    std::filesystem::rename(saved, away);
    std::filesystem::create_directory(saved);
    EXPECT_THAT(problemOf(vault), testing::HasSubstr("regular file"));
    std::filesystem::remove(saved);
    EXPECT_EQ(problemOf(vault), "none");
    EXPECT_EQ(vault.saved(), std::vector{builtInRecipe(1)});
    vault.save(builtInRecipe(2));
    EXPECT_EQ(file().recipes, (std::vector{builtInRecipe(1), builtInRecipe(2)}));
    EXPECT_THAT(keptAside(), testing::IsEmpty());
}

TEST_F(RecipeVaultTests, ALockThatCannotBeHadIsReportedWithItsCause) {
    RecipeVault vault(place);
    {
        const test::SystemCallFaults faults({.failing = 1, .error = ENOLCK, .call = "fcntl"});
        vault.save(builtInRecipe(1));
    }
    ASSERT_NE(vault.lastSaveError(), std::nullopt);
    EXPECT_THAT(*vault.lastSaveError(), testing::HasSubstr("No locks available"));

    folder.putFile("vault/.saved.lock", "my precious notes");
    vault.save(builtInRecipe(2));
    ASSERT_NE(vault.lastSaveError(), std::nullopt);
    EXPECT_THAT(*vault.lastSaveError(), testing::HasSubstr("it holds something else"));
    EXPECT_EQ(folder.content("vault/.saved.lock"), "my precious notes");
    EXPECT_FALSE(std::filesystem::exists(vault.file()));

    std::filesystem::remove(place / ".saved.lock");
    vault.save(builtInRecipe(3));
    EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    EXPECT_EQ(file().recipes.size(), 3U);
}

TEST_F(RecipeVaultTests, AVaultOfManyMegabytesIsReadAgain) {
    std::vector<LoopRecipe> large;
    for (int seed = 1; seed <= 20; ++seed) {
        large.push_back(builtInRecipe(seed));
        large.back().name.assign(std::size_t{1} << 20, 'n');
    }
    RecipeVault(place).importing(encodeJSON(RecipeBundle{.recipes = large}, JSONWriter::Form::compact));

    EXPECT_EQ(RecipeVault(place).count(), large.size());
}

TEST_F(RecipeVaultTests, WhatCouldNotBeReadAgainIsNotWritten) {
    RecipeVault vault(place);
    vault.save(builtInRecipe(1));
    LoopRecipe huge = builtInRecipe(2);
    huge.name.assign(RecipeVault::mostBytes, 'n');

    EXPECT_TRUE(vault.save(huge));

    EXPECT_NE(vault.lastSaveError(), std::nullopt);
    EXPECT_EQ(vault.count(), 2U);
    EXPECT_EQ(RecipeVault(place).saved(), std::vector{builtInRecipe(1)});
}

TEST_F(RecipeVaultTests, OfRecipesWithOneFingerprintInTheFileTheFirstIsHeldAndTheFileKept) {
    LoopRecipe renamed = builtInRecipe(1);
    renamed.name = "Another name";
    const RecipeBundle found{.recipes = {builtInRecipe(1), renamed, builtInRecipe(2)}};
    folder.putFile("vault/saved.json", encodeJSON(found, JSONWriter::Form::pretty));
    RecipeVault vault(place);

    EXPECT_EQ(vault.saved(), (std::vector{builtInRecipe(1), builtInRecipe(2)}));

    vault.save(builtInRecipe(3));
    ASSERT_EQ(keptAside().size(), 1U);
    EXPECT_EQ(RecipeBundle::decode(folder.content("vault/" + keptAside()[0])), found);
}

TEST_F(RecipeVaultTests, TheDefaultFolderIsTheApplicationsData) {
    EXPECT_EQ(RecipeVault().file(), *UserFolders::applicationData() / "saved.json");
}

TEST_F(RecipeVaultTests, ARelativeFolderIsTakenFromTheCurrentOneOnce) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    RecipeVault vault("vault");
    std::filesystem::current_path(before);

    vault.save(builtInRecipe());

    EXPECT_EQ(vault.file(), place / "saved.json");
    EXPECT_EQ(file().recipes.size(), 1U);
    EXPECT_DEATH((void)RecipeVault(std::filesystem::path{}), "folder has a path");
}

TEST_F(RecipeVaultTests, ALinkToAVaultsFileIsFollowed) {
    const RecipeBundle found{.recipes = {builtInRecipe(1)}};
    folder.putFile("dotfiles/recipes.json", encodeJSON(found, JSONWriter::Form::pretty));
    std::filesystem::create_directory(place);
    std::filesystem::create_symlink("../dotfiles/recipes.json", place / "saved.json");
    RecipeVault vault(place);

    vault.save(builtInRecipe(2));

    EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    EXPECT_TRUE(std::filesystem::is_symlink(place / "saved.json"));
    EXPECT_EQ(RecipeBundle::decode(folder.content("dotfiles/recipes.json")).recipes,
              (std::vector{builtInRecipe(1), builtInRecipe(2)}));
}

TEST_F(RecipeVaultTests, ALinkThatNamesAnythingElseIsLeftAlone) {
    folder.putFile("dotfiles/notes.txt", "precious");
    std::filesystem::create_directory(place);
    for (const char* target : {"../dotfiles/notes.txt", "../dotfiles/away.json", "../dotfiles"}) {
        SCOPED_TRACE(target);
        std::filesystem::remove(place / "saved.json");
        std::filesystem::create_symlink(target, place / "saved.json");
        RecipeVault vault(place);

        EXPECT_TRUE(vault.save(builtInRecipe()));

        EXPECT_NE(vault.lastSaveError(), std::nullopt);
        EXPECT_EQ(std::filesystem::read_symlink(place / "saved.json"), target);
        EXPECT_EQ(folder.content("dotfiles/notes.txt"), "precious");
        EXPECT_FALSE(std::filesystem::exists(folder.path() / "dotfiles/away.json"));
    }
}

TEST_F(RecipeVaultTests, ALinkWhoseTargetWasAwayAtTheStartIsFollowedOnceItIsThere) {
    std::filesystem::create_directory(place);
    std::filesystem::create_symlink("../disk/saved.json", place / "saved.json");
    RecipeVault vault(place);
    vault.save(builtInRecipe(1));
    EXPECT_NE(vault.lastSaveError(), std::nullopt);

    RecipeVault(folder.path() / "disk").save(builtInRecipe(2));
    vault.save(builtInRecipe(3));

    EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    EXPECT_EQ(vault.saved(), (std::vector{builtInRecipe(2), builtInRecipe(1), builtInRecipe(3)}));
    EXPECT_TRUE(std::filesystem::is_symlink(place / "saved.json"));
    EXPECT_EQ(file().recipes, vault.saved());
}

TEST_F(RecipeVaultTests, AFileSystemWithoutLocksIsNoReasonNotToSave) {
    RecipeVault vault(place);
    const test::SystemCallFaults faults({.failing = 1, .error = ENOSYS, .call = "fcntl", .persists = true});
    vault.save(builtInRecipe());
    EXPECT_EQ(faults.struck(), "fcntl");
    EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    EXPECT_EQ(file().recipes.size(), 1U);
}

TEST_F(RecipeVaultTests, AFailedWriteIsKeptAsAnErrorUntilOneSucceeds) {
    RecipeVault vault(place);
    std::filesystem::remove(place);
    folder.putFile("vault", "a file where the folder should be");

    EXPECT_TRUE(vault.save(builtInRecipe(1)));
    EXPECT_NE(vault.lastSaveError(), std::nullopt);
    EXPECT_EQ(vault.count(), 1U);

    std::filesystem::remove(place);
    std::filesystem::create_directory(place);
    EXPECT_TRUE(vault.save(builtInRecipe(2)));
    EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    EXPECT_EQ(file().recipes, vault.saved());
}

TEST_F(RecipeVaultTests, ARecipeThatCannotBeWrittenNeverStopsTheOthers) {
    RecipeVault vault(place);
    LoopRecipe broken = builtInRecipe(1);
    broken.seconds = std::numeric_limits<double>::quiet_NaN();

    vault.save(broken);
    vault.save(builtInRecipe(2));

    EXPECT_EQ(file().recipes, std::vector{builtInRecipe(2)});
    ASSERT_NE(vault.lastSaveError(), std::nullopt);
    EXPECT_NE(vault.lastSaveError()->find(broken.fingerprint), std::string::npos);
}

TEST_F(RecipeVaultTests, AFolderThatCannotBeMadeIsReported) {
    folder.putFile("vault", "a file where the folder should be");

    EXPECT_THROW(RecipeVault{place}, FileError);
}

TEST_F(RecipeVaultTests, TheSharedVaultStaysAwayFromTheUsersUnderTheHarness) {
    EXPECT_EQ(RecipeVault::shared().file(),
              UserFolders::temporary() / ("quillmere-vault-" + std::to_string(getpid())) / "saved.json");
    std::filesystem::remove_all(RecipeVault::shared().file().parent_path());
}

TEST_F(RecipeVaultTests, ManyThreadsLoseNothing) {
    RecipeVault vault(place);
    constexpr int threads = 4;
    constexpr int each = 10;
    std::latch ready(threads);
    {
        std::vector<std::jthread> workers;
        for (int worker = 0; worker < threads; ++worker) {
            workers.emplace_back([&, worker] {
                ready.arrive_and_wait();
                for (int i = 0; i < each; ++i) vault.save(builtInRecipe(worker * each + i));
            });
        }
    }

    EXPECT_EQ(vault.count(), static_cast<std::size_t>(threads * each));
    EXPECT_EQ(file().recipes, vault.saved());
}

}  // namespace
}  // namespace quillmere
