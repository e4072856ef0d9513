// Stores and the registry of engines, asked and changed by many threads at once.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>
#include <set>
#include <stop_token>

#include "QuillmereKit/Generation/GenerationBackends.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"
#include "Tests/Generation/Samples.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Race.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"
#include "Tests/Support/FastFolder.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

constexpr std::uint32_t pieces = 16;  // the last of them a seed that ships with the application

struct LoopStoreRaces : testing::Test {
    TemporaryFolder home = TemporaryFolder(fastParent());
    path folder = home.path() / "Loops";

    LoopStore open() const {
        return LoopStore(folder, ResourceBundle(home.path() / "App"),
                         [](const FileURL& url) { return removeFile(url.path()); });
    }
    [[nodiscard]] static LoopIdentity identity(std::uint32_t index) {
        return LoopStoreFixture::identity(index % 2 == 0 ? "rain" : "sun", index % 5, index);
    }
    /// A piece whose audio is there, at least now.
    [[nodiscard]] LoopArtifact piece(std::uint32_t index) const {
        const auto file = folder / (identity(index).filename() + ".wav");
        std::ofstream(file) << "audio";
        return LoopStoreFixture::artifactAt(identity(index), FileURL::fromPath(file));
    }
    void shipASeed() const {
        const auto seed = encodeJSON(identity(pieces - 1), JSONWriter::Form::compact);
        home.putFile("App/seeds.json", R"([{"file":"seed","identity":)" + seed + R"(,"seconds":120}])");
        home.putFile("App/seed.m4a", "audio");
    }
};

TEST_F(LoopStoreRaces, EverythingAtOnceLeavesALibraryThatAgreesWithItsManifest) {
    shipASeed();
    auto store = open();
    auto alias = open();

    const auto any = [](std::mt19937& random) { return static_cast<std::uint32_t>(random() % pieces); };
    const Runner adder = [&](std::mt19937& random) { store.add(piece(any(random))); };
    const Runner keeper = [&](std::mt19937& random) { alias.addPersistent(piece(any(random))); };
    const Runner player = [&](std::mt19937& random) {
        const auto pool = alias.playbackPool("rain", "sa3_medium_mlx_v2", {identity(any(random)).fingerprint()});
        EXPECT_TRUE(std::ranges::is_sorted(pool, {}, &LoopArtifact::id));
        for (const auto& each : pool) EXPECT_EQ(each.identity.moodID, "rain");
        static_cast<void>(store.pool("sun", BlendStep(1)));
        static_cast<void>(store.nearestCached("sun", BlendStep(3)));
    };
    const Runner listener = [&](std::mt19937& random) {
        const auto playing = identity(any(random)).fingerprint();
        alias.protectFromMigration({playing}, UUID());
        for (const auto& each : store.losslessMigrationCandidates()) EXPECT_NE(each.id(), playing);
        alias.protectFromMigration({}, UUID());
    };
    const Runner measurer = [&](std::mt19937& random) {
        for (const auto& each : alias.loudnessCandidates()) {
            if (random() % 4 == 0) store.setLoudness({.integratedLUFS = -18, .peak = 0.5, .seconds = 120}, each);
        }
    };
    const Runner pruner = [&](std::mt19937& random) {
        std::set<std::string> keeping;
        for (std::uint32_t index = 0; index < pieces; ++index) {
            if (random() % 4 != 0) keeping.insert(identity(index).fingerprint());
        }
        switch (random() % 3) {
            case 0: alias.prune(keeping); break;
            case 1: store.trash([&](const LoopArtifact& each) { return !keeping.contains(each.id()); }); break;
            default: alias.discardUnstored(FileURL::fromPath(folder / (identity(any(random)).filename() + ".wav")));
        }
    };
    const Runner asker = [&](std::mt19937& random) {
        const auto all = store.all();
        EXPECT_TRUE(std::ranges::is_sorted(all, {}, &LoopArtifact::id));
        static_cast<void>(alias.artifact(identity(any(random)).fingerprint()));
        static_cast<void>(alias.count("rain"));
        static_cast<void>(store.bytesOnDisk());
        EXPECT_EQ(store.bundledFingerprints(), std::set{identity(pieces - 1).fingerprint()});
        EXPECT_EQ(alias.lastSaveError(), std::nullopt);
    };
    const Runner opener = [&](std::mt19937&) { EXPECT_EQ(open().directory(), folder); };
    race(400, {adder, keeper, player, listener, measurer, pruner, asker, opener});

    store.add(piece(0));
    std::vector<std::string> listed;
    const auto manifest = JSONDocument::parse(home.content("Loops/manifest.json"));
    for (const auto& each : manifest.root().elements<LoopArtifact>()) listed.push_back(each.id());
    std::vector<std::string> held;
    for (const auto& each : store.all()) held.push_back(each.id());
    EXPECT_EQ(std::set(listed.begin(), listed.end()), std::set(held.begin(), held.end()));
    EXPECT_EQ(listed.size(), held.size());
}

TEST(MoodAndRecipeRaces, EverythingAtOnceLeavesFilesThatSayWhatMemorySays) {
    const TemporaryFolder home(fastParent());
    CustomMoodStore moods(home.path() / "Moods.json");
    RecipeVault vault(home.path() / "Vault");
    const auto aMood = [](std::mt19937& random) { return sampleSpec("my-0000000" + std::to_string(random() % 8)); };

    const Runner writer = [&](std::mt19937& random) {
        auto changed = aMood(random);
        changed.name = std::to_string(random());
        moods.save(changed);
        vault.save(builtInRecipe(random() % 8));
    };
    const Runner remover = [&](std::mt19937& random) {
        moods.remove(aMood(random).id);
        vault.remove(builtInRecipe(random() % 8).fingerprint);
    };
    const Runner reader = [&](std::mt19937& random) {
        const auto id = aMood(random).id;
        const auto found = MoodCatalog::mood(id, moods);
        if (found) {
            EXPECT_EQ(found->id, id);
        }
        EXPECT_GE(MoodCatalog::all(moods).size(), MoodCatalog::builtIn().size());
        EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    };
    const Runner refresher = [&](std::mt19937&) {
        moods.refresh();
        vault.refresh();
        EXPECT_EQ(moods.loadProblem(), std::nullopt);
        EXPECT_EQ(vault.loadProblem(), std::nullopt);
    };
    const Runner sharer = [&](std::mt19937&) {
        const auto result = vault.importing(vault.exported());
        EXPECT_EQ(result.rejected.size(), 0U);
    };
    race(300, {writer, writer, remover, reader, refresher, sharer});

    EXPECT_EQ(CustomMoodStore(home.path() / "Moods.json").all(), moods.all());
    EXPECT_EQ(RecipeVault(home.path() / "Vault").saved(), vault.saved());
}

// Counts how many of its kind there are.
class CountedService : public GenerationService {
public:
    explicit CountedService(std::atomic<int>& living) : living_(living) { ++living_; }
    ~CountedService() override { --living_; }

    using GenerationService::render;
    std::optional<std::string> engineBuild(const LoopIdentity&) override { return "build"; }
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler&, std::stop_token) override {
        EXPECT_GT(living_, 0) << "a service lives until its render ends";
        return samplePiece(identity, FileURL::fromPath("/audio.wav"), seconds);
    }

private:
    std::atomic<int>& living_;
};

TEST(RegistryRaces, EnginesAreReplacedWhileTheyRenderAndAnswer) {
    std::atomic<int> living = 0;
    {
        GenerationBackends engines;
        const Runner installer = [&](std::mt19937& random) {
            const auto engine = random() % 2 == 0 ? GenerationEngine::mlx : GenerationEngine::stableAudioCoreML;
            engines.registerService(std::make_shared<CountedService>(living), engine);
        };
        const Runner renderer = [&](std::mt19937& random) {
            const auto identity = sampleIdentity(random() % 10);
            try {
                const GenerationService::PartialHandler onPartial = [](const FileURL&, double) {};
                EXPECT_EQ(engines.render(identity, 200, onPartial, {}).seconds, trackSeconds);
            } catch (const GenerationBackends::Failure&) {
                // Not there yet.
            }
        };
        const Runner asker = [&](std::mt19937& random) {
            const bool wasThere = engines.isAvailable(GenerationEngine::mlx);
            const auto build = engines.engineBuild(sampleIdentity(random() % 10));
            if (wasThere) {
                EXPECT_EQ(build, "build");
            }
            static_cast<void>(engines.isEmpty());
        };
        race(3000, {installer, installer, renderer, renderer, asker});
    }
    EXPECT_EQ(living, 0);
}

}  // namespace
}  // namespace quillmere::test
