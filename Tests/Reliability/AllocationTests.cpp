// What is left when memory runs out in the middle of an operation: each request for memory in turn is refused, alone or
// with all that follow it.

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <semaphore>
#include <stop_token>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "QuillmereKit/Generation/GenerationQueue.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/FileSHA256.hpp"
#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/Persona.hpp"
#include "QuillmereKit/Moods/TagVocabulary.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"
#include "Renderers/EngineProtocol.hpp"
#include "Renderers/ProcessRenderer.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Checks.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"
#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/RefusedMemory.hpp"
#include "Tests/Support/Sanitizer.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

#ifdef QUILLMERE_HOST
#include "App/DigestBook.hpp"
#include "App/KeptRecords.hpp"
#include "App/SettingsFile.hpp"
#include "Renderers/Tonebed/EngineRequest.hpp"
#endif

namespace quillmere::test {
namespace {

using Source = RefusedMemory::Source;
using Plan = RefusedMemory::Plan;

/// How memory can run out. A sanitizer needs malloc for itself.
const std::vector<Plan>& shortages() {
    static const std::vector<Plan> ofCpp = {{.source = Source::cpp}, {.source = Source::cpp, .persists = true}};
    static const std::vector<Plan> all = {{.source = Source::cpp},
                                          {.source = Source::cpp, .persists = true},
                                          {.source = Source::c},
                                          {.source = Source::c, .persists = true}};
    return isSanitized ? ofCpp : all;
}

std::string nameOf(const Plan& plan) {
    return std::string(plan.source == Source::cpp ? "operator new " : "malloc ") + std::to_string(plan.refused) +
           (plan.persists ? " and all after it" : "");
}

/// Each of an operation's thousands of requests would take minutes: all of the first ones, then ever fewer; of those
/// that persist, which are told at the same places, fewer still. Every one, where the environment asks for it.
Plan next(Plan plan, bool isEach = false) {
    if (std::getenv("QUILLMERE_EVERY_FAULT") != nullptr) isEach = true;
    plan.refused += isEach ? 1 : 1 + plan.refused / (plan.persists || isSanitized ? 3 : 12);
    return plan;
}

/// Does it under a plan; what it throws is the library's own, or says that memory ran out.
template <class Act>
Stage::Outcome actRefusing(const Plan& plan, const Act& act) {
    Stage::Outcome outcome;
    const RefusedMemory refused(plan);
    try {
        act();
        RefusedMemory::end();
    } catch (const std::bad_alloc&) {
        RefusedMemory::end();
        outcome.isOutOfMemory = true;
        outcome.error = "out of memory";
    } catch (const FileError& error) {
        RefusedMemory::end();
        outcome.error = error.what();
        outcome.isInPlace = error.isInPlace();
    } catch (const Error& error) {
        RefusedMemory::end();
        outcome.error = error.what();
    }
    outcome.isDisturbed = RefusedMemory::wasRefused();
    outcome.isShortForGood = outcome.isDisturbed && plan.persists;
    return outcome;
}

TEST(RefusedMemoryTests, EveryWayToAskForMemoryIsRefused) {
    SystemCallFaults::syncNothing();
    struct alignas(4096) Page {
        char bytes[4096];
    };
    const TemporaryFolder folder;
    const auto isRefused = [](Plan plan, const std::function<bool()>& isGiven) {
        for (const bool isWanted : {false, true}) {
            const long before = RefusedMemory::live(plan.source);
            plan.refused = isWanted ? 0 : 1;
            const RefusedMemory refused(plan);
            const bool given = isGiven();
            RefusedMemory::end();
            if (given == isWanted || RefusedMemory::wasRefused() != isWanted) return false;
            if (RefusedMemory::live(plan.source) != before) return false;
        }
        return true;
    };
    const auto isMade = [](const auto& make) {
        return [=] {
            try {
                return make() != nullptr;
            } catch (const std::bad_alloc&) {
                return false;
            }
        };
    };
    const auto isTaken = [](const auto& take) {
        return [=] {
            void* const bytes = take();
            std::free(bytes);
            return bytes != nullptr;
        };
    };

    const Plan cpp{.source = Source::cpp};
    EXPECT_TRUE(isRefused(cpp, isMade([] { return std::make_unique<int>(1); })));
    EXPECT_TRUE(isRefused(cpp, isMade([] { return std::make_unique<int[]>(3); })));
    EXPECT_TRUE(isRefused(cpp, isMade([] { return std::make_unique<Page>(); })));
    EXPECT_TRUE(isRefused(cpp, isMade([] { return std::make_unique<Page[]>(2); })));
    EXPECT_TRUE(isRefused(cpp, isMade([] { return std::unique_ptr<int>(new (std::nothrow) int); })));
    EXPECT_TRUE(isRefused(cpp, isMade([] { return std::unique_ptr<Page>(new (std::nothrow) Page); })));
    if (isSanitized) return;
    const Plan c{.source = Source::c};
    EXPECT_TRUE(isRefused(c, isTaken([] { return std::malloc(10); })));
    EXPECT_TRUE(isRefused(c, isTaken([] { return std::calloc(3, 10); })));
    EXPECT_TRUE(isRefused(c, isTaken([] { return std::realloc(nullptr, 10); })));
    EXPECT_TRUE(isRefused(c, isTaken([] { return std::aligned_alloc(64, 64); })));
    EXPECT_TRUE(isRefused(c, isTaken([]() -> void* {
                              void* bytes = nullptr;
                              return ::posix_memalign(&bytes, 64, 64) == 0 ? bytes : nullptr;
                          })));
    EXPECT_TRUE(isRefused(c, isTaken([] { return ::strdup("as the C library asks itself"); })));
    EXPECT_TRUE(isRefused(c, [&] {
        DIR* const stream = ::opendir(folder.path().c_str());
        return stream != nullptr && ::closedir(stream) == 0;
    }));
}

TEST(RefusedMemoryTests, WhatIsMadeLargerKeepsItsBytesWhenThatIsRefused) {
    if (isSanitized) return;
    auto* const bytes = static_cast<char*>(std::malloc(10));
    ASSERT_NE(bytes, nullptr);
    std::strcpy(bytes, "ten bytes");
    {
        const RefusedMemory refused({.source = Source::c});
        EXPECT_EQ(std::realloc(bytes, 1 << 20), nullptr);
        RefusedMemory::end();
    }
    EXPECT_STREQ(bytes, "ten bytes");
    std::free(bytes);
}

TEST(RefusedMemoryTests, FromThenOnMeansEveryRequestUntilMemoryIsBack) {
    const RefusedMemory refused({.refused = 1, .persists = true});
    const auto first = std::unique_ptr<int>(new (std::nothrow) int);
    const auto second = std::unique_ptr<int>(new (std::nothrow) int);
    const auto third = std::unique_ptr<int>(new (std::nothrow) int);
    RefusedMemory::end();
    const auto fourth = std::unique_ptr<int>(new (std::nothrow) int);

    EXPECT_TRUE(first && !second && !third && fourth);
}

class RefusedAllocations : public testing::TestWithParam<Operation> {};

TEST_P(RefusedAllocations, LeaveTheOldOrTheNewAndAStoreThatGoesOn) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    int runs = 0;
    for (auto plan : shortages()) {
        for (;; plan = next(plan)) {
            SCOPED_TRACE(nameOf(plan));
            const auto act = [&](Session& session) { return actRefusing(plan, [&] { session.act(); }); };
            const long before = RefusedMemory::live(plan.source);
            static_cast<void>(act(*stage.begin()));
            EXPECT_LE(RefusedMemory::live(plan.source), before) << "memory was kept";

            auto session = stage.begin();
            auto outcome = act(*session);
            // What a migration makes the host discards, who needs memory for it.
            outcome.mayLeaveRests = outcome.isShortForGood && GetParam().keepsAudio;
            stage.checkAfterFailure(std::move(session), outcome);
            if (HasFailure()) return;
            ++runs;
            if (!outcome.isDisturbed) break;
        }
    }
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) {
        std::cout << GetParam().name << ": " << runs << " refused allocations\n";
    }
}

INSTANTIATE_TEST_SUITE_P(Every, RefusedAllocations, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

// Pieces of two moods that are not there yet: memory may run out when the first has its place and the second has not.
TEST(RefusedAllocationsOfAdding, PiecesAreStoredTogetherOrNothingIsLeftOfThem) {
    SystemCallFaults::syncNothing();
    const auto piece = [](const TemporaryFolder& home, const char* mood) {
        const auto identity = LoopStoreFixture::identity(mood, 2, 1);
        const auto file = home.putFile("Loops/" + identity.filename() + ".wav", "audio");
        return LoopStoreFixture::artifactAt(identity, FileURL::fromPath(file));
    };
    for (Plan plan;; plan = next(plan)) {
        SCOPED_TRACE(nameOf(plan));
        const TemporaryFolder home;
        LoopStore store(home.path() / "Loops", ResourceBundle(home.path()), {});
        store.add(piece(home, "rain"));
        const std::vector added = {piece(home, "snow"), piece(home, "wind")};
        const auto outcome = actRefusing(plan, [&] { store.add(added); });
        const bool wasRefused = RefusedMemory::wasRefused();

        const bool isAdded = outcome.error.empty();
        EXPECT_EQ(store.count(), isAdded ? 3U : 1U);
        EXPECT_EQ(store.material().size(), isAdded ? 3U : 1U);
        if (!wasRefused || HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfAdding, APieceThatFoundNoRoomIsNoPieceOfThisProcess) {
    SystemCallFaults::syncNothing();
    for (Plan plan;; plan = next(plan)) {
        SCOPED_TRACE(nameOf(plan));
        const TemporaryFolder home;
        const auto identity = LoopStoreFixture::identity("rain", 2, 1);
        const auto placed = [&](const char* name) {
            return LoopStoreFixture::artifactAt(identity, FileURL::fromPath(home.putFile(name, "audio")));
        };
        const auto old = placed("Loops/old.wav");
        home.putFile("Loops/manifest.json", encodeJSON(std::vector{old}, JSONWriter::Form::compact));
        LoopStore store(home.path() / "Loops", ResourceBundle(home.path()), {});
        const std::vector added = {placed("Loops/new.wav")};
        const auto outcome = actRefusing(plan, [&] { store.add(added); });
        const bool wasRefused = RefusedMemory::wasRefused();

        // Another process replaces the library, and the piece in it.
        const auto theirs = placed("Loops/theirs.wav");
        std::filesystem::remove(home.path() / "Loops/.lock");
        home.putFile("Loops/manifest.json", encodeJSON(std::vector{theirs}, JSONWriter::Form::compact));
        store.add(LoopStoreFixture::artifactAt(LoopStoreFixture::identity("snow", 2, 2),
                                               FileURL::fromPath(home.putFile("Loops/more.wav", "audio"))));
        if (!outcome.error.empty()) {
            EXPECT_EQ(store.artifact(identity), theirs);
        }
        if (!wasRefused || HasFailure()) break;
    }
}

/// Returns a piece at once; from the first one on memory is refused.
class ScarceRenderer final : public GenerationService {
public:
    ScarceRenderer(LoopArtifact piece, Plan plan) : piece_(std::move(piece)), plan_(plan) {}

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
        auto piece = piece_;
        if (const auto plan = std::exchange(plan_, std::nullopt)) refused_.emplace(*plan);
        return piece;
    }

private:
    const LoopArtifact piece_;
    std::optional<Plan> plan_;
    std::optional<RefusedMemory> refused_;
};

TEST(RefusedAllocationsOfTheQueue, AFinishedPieceIsStoredOrItsFileStaysAndIsTold) {
    SystemCallFaults::syncNothing();
    using Progress = GenerationQueue::Progress;
    int failures = 0;
    for (Plan plan;; plan = next(plan, true)) {
        SCOPED_TRACE(nameOf(plan));
        const TemporaryFolder home;
        const auto identity = LoopStoreFixture::identity("rain", 2, 1);
        const auto file = home.putFile("Loops/" + identity.filename() + ".wav", "audio");
        const auto piece = LoopStoreFixture::artifactAt(identity, FileURL::fromPath(file));
        const auto store = std::make_shared<LoopStore>(home.path() / "Loops", ResourceBundle(home.path()),
                                                       [](const FileURL&) { return false; });
        std::counting_semaphore<> ended(0);
        std::vector<Progress> ends;
        GenerationQueue queue(std::make_shared<ScarceRenderer>(piece, plan), store, 120);
        queue.observe([&](const Progress& progress) {
            if (std::holds_alternative<Progress::Rendering>(progress.value())) return;
            RefusedMemory::end();
            ends.push_back(progress);
            ended.release();
        });

        queue.request(identity, GenerationPace::fast);
        ended.acquire();
        const bool wasRefused = RefusedMemory::wasRefused();

        ASSERT_EQ(ends.size(), 1U);
        EXPECT_TRUE(std::filesystem::exists(file));
        if (const auto* failed = std::get_if<Progress::Failed>(&ends[0].value())) {
            ++failures;
            EXPECT_EQ(failed->identity, identity);
            EXPECT_THAT(failed->message, testing::HasSubstr(file.string()));
            EXPECT_FALSE(store->contains(identity));
        } else {
            EXPECT_EQ(ends[0], Progress(Progress::Finished{piece}));
            EXPECT_TRUE(store->contains(identity));
        }
        queue.request(identity, GenerationPace::fast);
        ended.acquire();
        EXPECT_EQ(ends.back(), Progress(Progress::Finished{piece}));
        if (!wasRefused || HasFailure()) break;
    }
    EXPECT_GT(failures, 3);
}

TEST(RefusedAllocationsOfAnEngine, ItsBuildIsAskedForAgain) {
    SystemCallFaults::syncNothing();
    const TemporaryFolder home;
    const auto identity = LoopStoreFixture::identity("rain", 2, 1);
    const auto store = std::make_shared<LoopStore>(home.path() / "Loops", ResourceBundle(home.path()),
                                                   [](const FileURL&) { return false; });
    for (Plan plan;; plan = next(plan, true)) {
        SCOPED_TRACE(nameOf(plan));
        ProcessRenderer renderer({"echo", R"(result {"engineBuild":"an answer that is longer than a short text"})"},
                                 store);
        const auto outcome = actRefusing(plan, [&] { static_cast<void>(renderer.engineBuild(identity)); });
        const bool wasRefused = RefusedMemory::wasRefused();

        EXPECT_TRUE(outcome.error.empty() || outcome.isOutOfMemory) << outcome.error;
        EXPECT_EQ(renderer.engineBuild(identity), "an answer that is longer than a short text");
        if (!wasRefused || HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfLateStores, AnotherProcessesPieceIsNotLost) {
    SystemCallFaults::syncNothing();
    const auto piece = [](const TemporaryFolder& home, std::int64_t seed) {
        const auto identity = LoopStoreFixture::identity("rain", 2, seed);
        const auto file = home.putFile("Loops/" + identity.filename() + ".wav", "audio");
        return LoopStoreFixture::artifactAt(identity, FileURL::fromPath(file));
    };
    for (Plan plan;; plan = next(plan)) {
        SCOPED_TRACE(nameOf(plan));
        const TemporaryFolder home;
        const auto theirs = piece(home, 1);
        const auto own = piece(home, 2);
        LoopStore store(home.path() / "Loops", ResourceBundle(home.path()), {}, LoopStore::Access::reading);
        home.putFile("Loops/manifest.json", encodeJSON(std::vector{theirs}, JSONWriter::Form::compact));
        static_cast<void>(actRefusing(plan, [&] { store.addPersistent(own); }));  // tried again below
        const bool wasRefused = RefusedMemory::wasRefused();
        store.addPersistent(piece(home, 3));

        const auto manifest = home.content("Loops/manifest.json");
        EXPECT_NE(manifest.find(theirs.identity.filename()), std::string::npos);
        if (!wasRefused || HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfLateStores, AnotherProcessesMoodIsNotLost) {
    SystemCallFaults::syncNothing();
    for (Plan plan;; plan = next(plan)) {
        SCOPED_TRACE(nameOf(plan));
        const TemporaryFolder home;
        const auto file = home.path() / "Moods.json";
        CustomMoodStore store(file);
        store.save(sampleSpec("my-1"));
        CustomMoodStore(file).save(sampleSpec("my-2"));
        static_cast<void>(actRefusing(plan, [&] { store.save(sampleSpec("my-3")); }));  // tried again below
        const bool wasRefused = RefusedMemory::wasRefused();
        store.save(sampleSpec("my-3"));

        const auto kept = CustomMoodStore(file).all();
        EXPECT_EQ(kept.size(), 3U);
        EXPECT_EQ(kept, store.all());
        if (!wasRefused || HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfLateStores, AnotherProcessesRecipeIsNotLostAndARemovalNotUndone) {
    SystemCallFaults::syncNothing();
    for (Plan plan;; plan = next(plan)) {
        SCOPED_TRACE(nameOf(plan));
        const TemporaryFolder home;
        RecipeVault vault(home.path());
        vault.save(builtInRecipe(1));
        vault.save(builtInRecipe(2));
        {
            RecipeVault other(home.path());
            other.save(builtInRecipe(3));
            other.remove(builtInRecipe(1).fingerprint);
        }
        static_cast<void>(actRefusing(plan, [&] { vault.save(builtInRecipe(4)); }));  // tried again below
        const bool wasRefused = RefusedMemory::wasRefused();
        vault.save(builtInRecipe(5));

        EXPECT_EQ(vault.lastSaveError(), std::nullopt);
        const RecipeVault kept(home.path());
        EXPECT_TRUE(kept.contains(builtInRecipe(3).fingerprint)) << "another process's recipe is lost";
        EXPECT_FALSE(kept.contains(builtInRecipe(1).fingerprint)) << "another process's removal is undone";
        EXPECT_TRUE(kept.contains(builtInRecipe(5).fingerprint));
        EXPECT_EQ(kept.saved(), vault.saved());
        if (!wasRefused || HasFailure()) break;
    }
}

/// Refuses each request for memory of a reader in turn: it throws, or gives what it gives undisturbed, and keeps
/// nothing. One whose value can tell of a failure gives such a one, too.
template <class Read, class Tells>
void refuseEach(const Read& read, const Tells& tells, bool isEach = false) {
    const auto undisturbed = read();
    static_cast<void>(read());
    for (auto plan : shortages()) {
        for (;; plan = next(plan, isEach && !isSanitized)) {
            SCOPED_TRACE(nameOf(plan));
            const auto readOnce = [&] {
                bool isRight = true;
                const auto outcome = actRefusing(plan, [&] {
                    const auto value = read();
                    RefusedMemory::end();
                    isRight = value == undisturbed || tells(value);
                });
                EXPECT_TRUE(isRight) << "neither the value nor an error";
                return outcome.isDisturbed;
            };
            static_cast<void>(readOnce());  // libraries keep what they need for their first failure
            const long before = RefusedMemory::live(plan.source);
            const bool isDisturbed = readOnce();
            EXPECT_EQ(RefusedMemory::live(plan.source), before) << "memory was kept";
            if (!isDisturbed || testing::Test::HasFailure()) break;
        }
    }
}

template <class Read>
void refuseEach(const Read& read) {
    refuseEach(read, [](const auto&) { return false; });
}

TEST(RefusedAllocationsOfReaders, APieceIsReadOrItThrows) {
    const auto piece = LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain"), FileURL::fromPath("/a.wav"));
    const auto text = encodeJSON(piece, JSONWriter::Form::compact);

    refuseEach([&] { return decodeJSON<LoopArtifact>(text); });
}

TEST(RefusedAllocationsOfReaders, AURLIsReadOrItThrows) {
    const std::string text = "file:///a%20folder/whose%20name/is%20longer/../than%20a%20short%20text.wav";
    const auto url = FileURL::fromText(text).value();

    refuseEach([&] { return FileURL::fromText(text); });
    refuseEach([&] { return url.path(); });
    refuseEach([&] { return url.standardPath(); });
    refuseEach([&] { return FileURL::fromPath("/a folder/whose name/is longer/than a short text.wav"); });
}

TEST(RefusedAllocationsOfReaders, ARecipeIsReadOrItThrows) {
    const auto text = builtInRecipe().encoded();

    refuseEach([&] { return LoopRecipe::decode(text); });
}

TEST(RefusedAllocationsOfReaders, ABundleIsReadOrItThrows) {
    const auto text = RecipeBundle{.recipes = {builtInRecipe(1), customRecipe()}}.encoded();

    refuseEach([&] { return RecipeBundle::decode(text); });
    refuseEach([&] { return RecipeBundle::decode(text).partition(); });
}

TEST(RefusedAllocationsOfReaders, AWAVFileIsReadOrItThrows) {
    const TemporaryFolder folder;
    const auto file = folder.path() / "audio.wav";
    const std::vector<std::int16_t> samples(2 * 1000, 7);
    WAVWriter writer(file, 48000, 2);
    writer.write(samples);
    writer.finish();

    refuseEach([&] {
        WAVFile audio(file);
        std::vector<std::int16_t> read(samples.size());
        static_cast<void>(audio.read(read));
        return read;
    });
}

TEST(RefusedAllocationsOfReaders, MoodsAreReadOrItThrows) {
    const TemporaryFolder folder;
    const auto file = folder.path() / "Moods.json";
    CustomMoodStore(file).save(sampleSpec("my-1"));

    refuseEach([&] { return CustomMoodStore(file).all(); });
    EXPECT_THAT(folder.names(), testing::UnorderedElementsAre("Moods.json", ".Moods.lock"));
}

TEST(RefusedAllocationsOfReaders, AVocabularyIsReadOrItThrows) {
    const TemporaryFolder folder;
    const auto file = folder.putFile(
        "tags.json",
        R"({"sections":[{"category":"genre","tags":[{"tag":"a tag that is longer than a short text","source":""}]}]})");

    refuseEach([&] { return TagVocabulary::load(file); });
}

TEST(RefusedAllocationsOfReaders, PersonasAreReadOrItThrows) {
    const TemporaryFolder folder;
    folder.putFile("personas.json", R"({"personas":[{"id":"a","name":"a name that is longer than a short text",)"
                                    R"("symbol":"wave","prompts":{"calm":"a prompt that is longer, too"}}]})");

    refuseEach([&] { return PersonaCatalog(ResourceBundle(folder.path())).personas(); });
}

#ifdef QUILLMERE_HOST
TEST(RefusedAllocationsOfReaders, SettingsAreReadOrAProblemIsTold) {
    const TemporaryFolder folder;
    const auto file = folder.putFile(
        "settings.json", R"({"schedule":{"startMinute":1,"endMinute":2},"model":"small","a key of tomorrow":[1,2,3]})");
    using Read = std::pair<app::Settings, std::vector<std::string>>;

    refuseEach(
        [&] {
            const app::SettingsFile settings(file);
            return Read(settings.settings(), settings.problems());
        },
        [](const Read& read) { return !read.second.empty(); });
}

TEST(RefusedAllocationsOfReaders, DigestsAreReadOrTheProblemIsTold) {
    const TemporaryFolder folder;
    const std::string fingerprint = "0123456789abcdef";
    folder.putFile("digests.json",
                   R"({"version":1,"digests":{")" + fingerprint + "\":\"" + std::string(64, 'a') + "\"}}");
    using Read = std::pair<std::optional<std::string>, std::optional<std::string>>;

    refuseEach(
        [&] {
            const app::DigestBook book(folder.path());
            return Read(book.digest(fingerprint), book.problem());
        },
        [](const Read& read) { return read.second.has_value(); });
}

TEST(RefusedAllocationsOfReaders, EntriesAreSalvagedOrItThrows) {
    const auto piece = LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain"), FileURL::fromPath("/a.wav"));
    const auto entry = encodeJSON(piece, JSONWriter::Form::compact);
    const auto text = "[" + entry + R"(,{"identity":"of another form"},)" + entry + R"(,{"cut off)";
    ASSERT_EQ(app::salvagedEntries(text).size(), 2U);

    refuseEach([&] { return app::salvagedEntries(text); });
}

TEST(RefusedAllocationsOfReaders, KeptRecordsAreFoundOrAProblemIsTold) {
    const TemporaryFolder home;
    const auto piece = [&](std::int64_t seed) {
        const auto identity = LoopStoreFixture::identity("rain", 2, seed);
        const auto file = home.path() / "Loops" / (identity.filename() + ".wav");
        return LoopStoreFixture::artifactAt(identity, FileURL::fromPath(file));
    };
    const auto damaged = "[" + encodeJSON(piece(1), JSONWriter::Form::compact) + ",{\"cut off";
    home.putFile("Loops/manifest.unreadable-2026-11-21T07-00-00Z.json", damaged);
    home.putFile("Loops/" + piece(1).identity.filename() + ".wav", wavBytes(tones(1, 2, 100)));
    home.putFile("Loops/manifest.before-2026-11-21T07-00-00Z.json",
                 encodeJSON(std::vector{piece(2)}, JSONWriter::Form::compact));
    home.putFile("Data/Moods.unreadable-2026-11-21T07-00-00Z.json", "[");
    const LoopStore store(home.path() / "Loops", ResourceBundle(home.path()), {}, LoopStore::Access::reading);
    struct Read {
        std::vector<std::filesystem::path> unreadable;
        std::vector<LoopArtifact> recoverable;
        std::vector<LoopArtifact> missing;
        bool operator==(const Read&) const = default;
    };
    const auto undisturbed = app::KeptRecords::find(store, {home.path() / "Data"});
    ASSERT_EQ(undisturbed.unreadable.size(), 2U);
    ASSERT_EQ(undisturbed.recoverable.size(), 1U);
    ASSERT_EQ(undisturbed.missing.size(), 1U);

    refuseEach(
        [&] {
            auto records = app::KeptRecords::find(store, {home.path() / "Data"});
            Read read{std::move(records.unreadable), {}, {}};
            for (auto& entry : records.recoverable) read.recoverable.push_back(std::move(entry.piece));
            for (auto& entry : records.missing) read.missing.push_back(std::move(entry.piece));
            return read;
        },
        [&](const Read& read) {
            // A record or a folder that could not be read is told as such, and a piece whose audio could not be.
            const auto isNew = [&](const auto& place) { return !std::ranges::count(undisturbed.unreadable, place); };
            return std::ranges::any_of(read.unreadable, isNew) || read.missing.size() == 2;
        });
}

TEST(RefusedAllocationsOfReaders, ARequestToTonebedIsReadOrItThrows) {
    const auto identity = LoopStoreFixture::identity("a mood whose name is longer than a short text");
    const auto line = engineProtocol::line({identity, 1, 48'000, GenerationPace::fast, "/a folder/of a longer name"});
    const auto question = engineProtocol::buildQuestion(identity);  // an end of the line is white space to a reader
    using tonebed::EngineRequest;

    refuseEach([&] {
        auto request = EngineRequest::parse(line);
        const auto& piece = request.piece;
        return std::tuple(request.kind, piece.moodID, piece.calmPrompt, piece.energeticPrompt, piece.prompt,
                          piece.blendIndex, piece.seed, piece.frames, request.dutyCycle, request.folder, request.file);
    });
    refuseEach([&] { return EngineRequest::parse(question).kind; });
}
#endif

/// What a line of an engine's brings, read whole.
template <class Line, class Value>
Value readLine(const std::string& line) {
    return decodeJSON<Value>(std::get<Line>(engineProtocol::report(line).value()).json);
}

TEST(RefusedAllocationsOfReaders, AnEnginesLineIsReadOrItThrows) {
    using engineProtocol::AudioLine;
    using engineProtocol::ResultLine;
    const std::string progress = "progress sampling 3/8 1/2 waiting 2";
    refuseEach([&] { return std::get<GenerationStage>(engineProtocol::report(progress).value()); });

    const std::string audio = R"(audio {"file":"a name that is longer than a short text.wav","seconds":0.5})";
    refuseEach([&] {
        auto value = readLine<AudioLine, engineProtocol::PartialAudio>(audio);
        return std::tuple(std::move(value.file), value.seconds);
    });
    const std::string result = R"(result {"file":"a name that is longer than a short text.wav","seconds":1.5,)"
                               R"("seamDB":-40,"brightness":0.25,"makeupDB":3,"leadIn":0.5})";
    refuseEach([&] {
        auto value = readLine<ResultLine, engineProtocol::Result>(result);
        return std::tuple(std::move(value.file), value.seconds, value.seamDB, value.quality, value.leadIn);
    });
    const std::string build = R"(result {"engineBuild":"a build whose name is longer than a short text"})";
    refuseEach([&] { return readLine<ResultLine, engineProtocol::Build>(build).text; });
}

TEST(RefusedAllocationsOfReaders, ADigestOfAFileIsItsOwnOrItThrows) {
    const TemporaryFolder folder;
    const auto file = FileURL::fromPath(folder.putFile("file", std::string(200'000, 'a')));

    refuseEach([&] { return FileSHA256::digest(file); });
}

TEST(RefusedAllocationsOfReaders, ADigestOfAWAVFileIsItsOwnOrItThrows) {
    const TemporaryFolder folder;
    const auto file = FileURL::fromPath(folder.putFile("audio.wav", wavBytes(tones(1, 2, 20'000))));

    refuseEach([&] { return AudioPCM::digest(file); });
}

#ifdef QUILLMERE_LOSSLESS
TEST(RefusedAllocationsOfReaders, ADigestOfALosslessFileIsItsOwnOrItThrows) {
    const TemporaryFolder folder;
    const auto wav = FileURL::fromPath(folder.putFile("audio.wav", wavBytes(tones(1, 2, 20'000))));
    const auto file = FileURL::fromPath(folder.path() / "audio.m4a");
    encodeALAC(wav, file);

    refuseEach([&] { return AudioPCM::digest(file); });
    EXPECT_EQ(AudioPCM::digest(file), AudioPCM::digest(wav));
}

TEST(RefusedAllocationsOfReaders, AGoodLosslessFileIsNotCalledDamaged) {
    const TemporaryFolder folder;
    const auto file = folder.path() / "audio.m4a";
    writeALAC(file, tones(1, 2, 5000));
    static_cast<void>(AudioPCM::digest(FileURL::fromPath(file)));

    for (Plan plan;; ++plan.refused) {
        SCOPED_TRACE(nameOf(plan));
        std::error_code error;
        const auto url = FileURL::fromPath(file);
        {
            const RefusedMemory refused(plan);
            try {
                static_cast<void>(AudioPCM::digest(url));
            } catch (const FileError& told) {
                error = told.code();
            } catch (const std::bad_alloc&) {
                error = std::make_error_code(std::errc::not_enough_memory);
            }
        }
        if (!RefusedMemory::wasRefused()) break;
        EXPECT_EQ(error, std::errc::not_enough_memory);
    }
}

// Each of FFmpeg's requests: it leaves out a part of the file where some of them are refused, and says nothing.
TEST(RefusedAllocationsOfReaders, AnEncodedFileIsTheSameOrItThrowsAndLeavesNone) {
    const TemporaryFolder folder;
    const auto wav = FileURL::fromPath(folder.putFile("audio.wav", wavBytes(tones(1, 2, 5000))));
    const auto file = folder.path() / "audio.m4a";
    const auto encode = [&] {
        std::filesystem::remove(file);
        try {
            encodeALAC(wav, FileURL::fromPath(file));
        } catch (...) {
            RefusedMemory::end();
            EXPECT_THAT(folder.names(), testing::ElementsAre("audio.wav"));
            throw;
        }
        RefusedMemory::end();
        return folder.content("audio.m4a");
    };

    refuseEach(
        encode, [](const auto&) { return false; }, true);
}
#endif

}  // namespace
}  // namespace quillmere::test
