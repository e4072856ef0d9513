// The lossless migration against all that happens to a library meanwhile. The module of lossless files is a stand-in,
// so that what is watched is the library alone.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <stop_token>

#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Race.hpp"
#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/FastFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

constexpr std::uint32_t pieces = 8;  // of each mood

struct MigrationRaces : testing::Test {
    TemporaryFolder home = TemporaryFolder(fastParent());
    path folder = home.path() / "Loops";
    std::map<std::string, std::string> digests;  // by fingerprint; only read while threads run

    static void SetUpTestSuite() { ::setenv("QUILLMERE_LOSSLESS_MODULE", QUILLMERE_PLAIN_MODULE, 1); }

    LoopStore open() const {
        return LoopStore(folder, ResourceBundle(home.path() / "App"),
                         [](const FileURL& url) { return removeFile(url.path()); });
    }
    [[nodiscard]] static LoopIdentity identity(const std::string& mood, std::uint32_t index) {
        return LoopStoreFixture::identity(mood, 2, index);
    }
    /// The piece as a WAV file, which appears whole or not at all.
    [[nodiscard]] LoopArtifact wavPiece(const std::string& mood, std::uint32_t index, const std::string& by) const {
        const auto file = folder / (identity(mood, index).filename() + ".wav");
        const auto made = home.path() / ("made-by-" + by + ".wav");
        std::ofstream(made, std::ios::binary) << wavBytes(tones(index, 2, 600));
        std::filesystem::rename(made, file);
        return LoopStoreFixture::artifactAt(identity(mood, index), FileURL::fromPath(file));
    }
};

// "rain" is played and its files come back as WAV files; "sun" is pruned and rendered anew.
TEST_F(MigrationRaces, MigrationTakesNothingAwayThatIsPlayedAndRevivesNothingThatWasPruned) {
    auto store = open();
    for (std::uint32_t index = 0; index < pieces; ++index) {
        for (const std::string mood : {"rain", "sun"}) {
            const auto piece = wavPiece(mood, index, "test");
            digests[piece.id()] = AudioPCM::digest(piece.url);
            store.add(piece);
        }
    }

    std::atomic<int> migrated = 0;
    const Runner migrator = [&](std::mt19937& random) {
        for (const auto& each : store.losslessMigrationCandidates()) {
            std::stop_source stop;
            const bool givesUp = random() % 8 == 0;
            const auto encode = [&](const FileURL& source, const FileURL& destination) {
                encodeALAC(source, destination);
                if (givesUp) stop.request_stop();
            };
            try {
                if (store.migrateToLossless(each, encode, stop.get_token())) ++migrated;
            } catch (const CancellationError&) {
                EXPECT_TRUE(givesUp);
            } catch (const FileError& error) {
                EXPECT_EQ(each.identity.moodID, "sun") << error.what();  // only there files are taken away
            }
        }
    };
    const auto player = [&](std::uint8_t number) {
        UUID owner;
        owner.bytes.fill(number);
        return [&, owner](std::mt19937& random) {
            const auto pool = store.playbackPool("rain", "sa3_medium_mlx_v2", {});
            EXPECT_EQ(pool.size(), pieces);
            if (pool.empty()) return;
            const auto chosen = pool[random() % pool.size()].id();
            store.protectFromMigration({chosen}, owner);
            const auto piece = store.artifact(chosen);  // no migration takes its file from here on
            EXPECT_EQ(AudioPCM::digest(piece->url), digests.at(chosen));
            store.protectFromMigration({}, owner);
        };
    };
    const Runner restorer = [&](std::mt19937& random) {
        UUID owner;
        owner.bytes.fill(9);
        const auto index = static_cast<std::uint32_t>(random() % pieces);
        const auto fingerprint = identity("rain", index).fingerprint();
        store.protectFromMigration({fingerprint}, owner);
        store.add(wavPiece("rain", index, "restorer"));
        store.protectFromMigration({}, owner);
    };
    const Runner pruner = [&](std::mt19937& random) {
        const auto index = static_cast<std::uint32_t>(random() % pieces);
        const auto victim = identity("sun", index).fingerprint();
        std::set<std::string> keeping;
        for (const auto& [fingerprint, digest] : digests) {
            if (fingerprint != victim) keeping.insert(fingerprint);
        }
        store.prune(keeping);
        EXPECT_FALSE(store.artifact(victim)) << "nobody else renders it";
        store.add(wavPiece("sun", index, "pruner"));
    };
    // The lock is gone, and whoever is to change something takes it anew.
    const Runner unlocker = [&](std::mt19937&) {
        std::set<std::string> keeping;
        for (const auto& [fingerprint, digest] : digests) keeping.insert(fingerprint);
        std::filesystem::remove(folder / ".lock");
        store.prune(keeping);
    };
    race(150, {migrator, migrator, player(1), player(2), restorer, pruner, unlocker});

    EXPECT_GT(migrated, 0);
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
    EXPECT_EQ(store.count(), digests.size());
    for (const auto& each : store.all()) EXPECT_EQ(AudioPCM::digest(each.url), digests.at(each.id()));
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto name = entry.path().filename().native();
        EXPECT_FALSE(name.ends_with(".migration.m4a")) << name << " was left";
    }
    const auto manifest = JSONDocument::parse(home.content("Loops/manifest.json"));
    EXPECT_EQ(manifest.root().elements<LoopArtifact>().size(), digests.size());
}

}  // namespace
}  // namespace quillmere::test
