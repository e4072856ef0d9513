// What is left when memory runs out in the middle of an operation: each allocation of each in turn is refused.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Checks.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace {

std::atomic<long> untilRefused = -1;  // how many allocations from now one is refused; negative for none
std::atomic<long> live = 0;           // how many are not given back
std::atomic<bool> wasRefused = false;

void* allocated(std::size_t size) {
    if (untilRefused.load(std::memory_order_relaxed) >= 0 && untilRefused-- == 0) {
        wasRefused = true;
        throw std::bad_alloc();
    }
    void* const bytes = std::malloc(size == 0 ? 1 : size);
    if (bytes == nullptr) throw std::bad_alloc();
    ++live;
    return bytes;
}

void giveBack(void* bytes) noexcept {
    if (bytes == nullptr) return;
    --live;
    std::free(bytes);
}

}  // namespace

void* operator new(std::size_t size) { return allocated(size); }
void* operator new[](std::size_t size) { return allocated(size); }
void operator delete(void* bytes) noexcept { giveBack(bytes); }
void operator delete[](void* bytes) noexcept { giveBack(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { giveBack(bytes); }
void operator delete[](void* bytes, std::size_t) noexcept { giveBack(bytes); }

namespace quillmere::test {
namespace {

/// While it lives, one allocation is refused.
class Refusal {
public:
    explicit Refusal(long index) {
        wasRefused = false;
        untilRefused = index;
    }
    ~Refusal() { untilRefused = -1; }
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;
};

/// Each of an operation's thousands of allocations would take minutes: all of the first ones, then ever fewer. Every
/// one, where the environment asks for it.
long next(long index) {
    const bool isEach = std::getenv("QUILLMERE_EVERY_FAULT") != nullptr;
    return index + (isEach ? 1 : 1 + index / 12);
}

class RefusedAllocations : public testing::TestWithParam<Operation> {};

TEST_P(RefusedAllocations, LeaveTheOldOrTheNewAndAStoreThatGoesOn) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    int runs = 0;
    const auto actRefusing = [](Session& session, long index) {
        const Refusal refusal(index);
        try {
            session.act();
            return false;
        } catch (const std::bad_alloc&) {
            return true;
        } catch (const Error&) {
            return true;
        }
    };
    for (long index = 0;; index = next(index)) {
        SCOPED_TRACE("allocation " + std::to_string(index));
        const long before = live;
        static_cast<void>(actRefusing(*stage.begin(), index));
        EXPECT_LE(live, before) << "memory was kept";

        auto session = stage.begin();
        Stage::Outcome outcome;
        outcome.isOutOfMemory = actRefusing(*session, index);
        outcome.isDisturbed = wasRefused;
        if (outcome.isOutOfMemory) outcome.error = "out of memory";
        outcome.mayLeaveRests = wasRefused;
        stage.checkAfterFailure(std::move(session), outcome);
        if (HasFailure()) return;
        ++runs;
        if (!wasRefused) break;
    }
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) {
        std::cout << GetParam().name << ": " << runs << " refused allocations\n";
    }
}

INSTANTIATE_TEST_SUITE_P(Every, RefusedAllocations, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

TEST(RefusedAllocationsOfLateStores, AnotherProcessesPieceIsNotLost) {
    SystemCallFaults::syncNothing();
    const auto piece = [](const TemporaryFolder& home, std::int64_t seed) {
        const auto identity = LoopStoreFixture::identity("rain", 2, seed);
        const auto file = home.putFile("Loops/" + identity.filename() + ".wav", "audio");
        return LoopStoreFixture::artifactAt(identity, FileURL::fromPath(file));
    };
    for (long index = 0;; index = next(index)) {
        SCOPED_TRACE("allocation " + std::to_string(index));
        const TemporaryFolder home;
        const auto theirs = piece(home, 1);
        const auto own = piece(home, 2);
        LoopStore store(home.path() / "Loops", ResourceBundle(home.path()), {}, LoopStore::Access::reading);
        home.putFile("Loops/manifest.json", encodeJSON(std::vector{theirs}, JSONWriter::Form::compact));
        try {
            const Refusal refusal(index);
            store.addPersistent(own);
        } catch (const std::exception&) {
            // Tried again below.
        }
        store.addPersistent(piece(home, 3));

        const auto manifest = home.content("Loops/manifest.json");
        EXPECT_NE(manifest.find(theirs.identity.filename()), std::string::npos);
        if (!wasRefused || HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfLateStores, AnotherProcessesMoodIsNotLost) {
    SystemCallFaults::syncNothing();
    for (long index = 0;; index = next(index)) {
        SCOPED_TRACE("allocation " + std::to_string(index));
        const TemporaryFolder home;
        const auto file = home.path() / "Moods.json";
        CustomMoodStore store(file);
        store.save(sampleSpec("my-1"));
        CustomMoodStore(file).save(sampleSpec("my-2"));
        try {
            const Refusal refusal(index);
            store.save(sampleSpec("my-3"));
        } catch (const std::exception&) {
            // Tried again below.
        }
        store.save(sampleSpec("my-3"));

        const auto kept = CustomMoodStore(file).all();
        EXPECT_EQ(kept.size(), 3U);
        EXPECT_EQ(kept, store.all());
        if (!wasRefused || HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfLateStores, AnotherProcessesRecipeIsNotLostAndARemovalNotUndone) {
    SystemCallFaults::syncNothing();
    for (long index = 0;; index = next(index)) {
        SCOPED_TRACE("allocation " + std::to_string(index));
        const TemporaryFolder home;
        RecipeVault vault(home.path());
        vault.save(builtInRecipe(1));
        vault.save(builtInRecipe(2));
        {
            RecipeVault other(home.path());
            other.save(builtInRecipe(3));
            other.remove(builtInRecipe(1).fingerprint);
        }
        try {
            const Refusal refusal(index);
            vault.save(builtInRecipe(4));
        } catch (const std::exception&) {
            // Tried again below.
        }
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

/// Refuses each allocation of a reader in turn: it throws, or gives what it gives undisturbed, and keeps nothing.
template <class Read>
void refuseEach(const Read& read) {
    const auto undisturbed = read();
    static_cast<void>(read());
    for (long index = 0;; index = next(index)) {
        SCOPED_TRACE("allocation " + std::to_string(index));
        const long before = live;
        bool isSame = true;
        bool isThrown = false;
        {
            const Refusal refusal(index);
            try {
                const auto value = read();
                untilRefused = -1;
                isSame = value == undisturbed;
            } catch (const std::bad_alloc&) {
                isThrown = true;
            } catch (const Error&) {
                isThrown = true;
            }
        }
        EXPECT_TRUE(isSame || isThrown);
        EXPECT_EQ(live, before) << "memory was kept";
        if (!wasRefused || testing::Test::HasFailure()) break;
    }
}

TEST(RefusedAllocationsOfReaders, APieceIsReadOrItThrows) {
    const auto piece = LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain"), FileURL::fromPath("/a.wav"));
    const auto text = encodeJSON(piece, JSONWriter::Form::compact);

    refuseEach([&] { return decodeJSON<LoopArtifact>(text); });
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

}  // namespace
}  // namespace quillmere::test
