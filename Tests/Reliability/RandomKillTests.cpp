// One library that lives through many processes, each of which is killed somewhere in the middle of its work.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Checks.hpp"
#include "Tests/Reliability/Tree.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

constexpr int pieces = 24;
constexpr int stepsOfARun = 12;

/// What one process told before it died, in memory that outlives it.
struct Diary {
    enum class Promise : char { none, maybe, kept, unwanted, gone };
    // What is known of each piece: asked for and not confirmed; confirmed to be on disk; asked to be removed; confirmed
    // to be removed.
    std::array<Promise, pieces> promises;
    std::array<bool, pieces> hasAudio;  // its file was written, and nobody asked to remove it since
};

struct RandomKills : testing::Test {
    TemporaryFolder home;
    path folder = home.path() / "Loops";
    Diary* diary =
        static_cast<Diary*>(mmap(nullptr, sizeof(Diary), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

    ~RandomKills() override { munmap(diary, sizeof(Diary)); }

    [[nodiscard]] static LoopIdentity identity(int index) { return LoopStoreFixture::identity("rain", 2, index); }
    [[nodiscard]] static std::string audio(int index) { return "the sound of piece " + std::to_string(index); }
    [[nodiscard]] path fileOf(int index) const { return folder / (identity(index).filename() + ".wav"); }
    [[nodiscard]] LoopArtifact piece(int index) const {
        return LoopStoreFixture::artifactAt(identity(index), FileURL::fromPath(fileOf(index)));
    }
    [[nodiscard]] LoopStore open() const {
        return LoopStore(folder, ResourceBundle(home.path() / "App"),
                         [](const FileURL& url) { return removeFile(url.path()); });
    }

    /// As a renderer does: made elsewhere, then moved, and never over a file.
    void writeAudio(int index) const {
        const auto made = home.path() / "made.wav";
        std::ofstream(made, std::ios::binary) << audio(index);
        if (!fileExists(fileOf(index))) std::filesystem::rename(made, fileOf(index));
        diary->hasAudio[static_cast<std::size_t>(index)] = true;
    }

    /// Random work on the library, written down as it is done.
    void work(std::mt19937& random) const {
        auto store = open();
        for (int step = 0; step < stepsOfARun; ++step) {
            const int index = static_cast<int>(random() % pieces);
            auto& promise = diary->promises[static_cast<std::size_t>(index)];
            auto& hasAudio = diary->hasAudio[static_cast<std::size_t>(index)];
            switch (random() % 6) {
                case 0:
                    if (promise != Diary::Promise::kept) promise = Diary::Promise::maybe;
                    writeAudio(index);
                    store.add(piece(index));
                    if (!store.lastSaveError()) promise = Diary::Promise::kept;
                    break;
                case 1:
                case 2:
                    if (promise != Diary::Promise::kept) promise = Diary::Promise::maybe;
                    writeAudio(index);
                    store.addPersistent(piece(index));
                    promise = Diary::Promise::kept;
                    break;
                case 3: {
                    const auto stored = store.artifact(identity(index));
                    if (stored) store.setLoudness({.integratedLUFS = -20, .peak = 0.5, .seconds = 1}, *stored);
                    break;
                }
                case 4: {
                    promise = Diary::Promise::unwanted;
                    hasAudio = false;
                    store.trash([&](const LoopArtifact& each) { return each.identity == identity(index); });
                    if (store.contains(identity(index))) std::abort();
                    if (!store.lastSaveError()) promise = Diary::Promise::gone;
                    break;
                }
                default: {
                    std::set<std::string> keeping;
                    for (const auto& each : store.all()) keeping.insert(each.id());
                    if (!store.contains(identity(index))) break;
                    promise = Diary::Promise::unwanted;
                    hasAudio = false;
                    keeping.erase(identity(index).fingerprint());
                    store.prune(keeping);
                    if (!store.lastSaveError()) promise = Diary::Promise::gone;
                    break;
                }
            }
        }
    }

    void check() const {
        const auto store = open();
        std::set<std::string> listed;
        for (const auto& each : store.all()) {
            listed.insert(each.id());
            const auto index = static_cast<int>(each.identity.seed);
            std::ifstream in(each.url.path(), std::ios::binary);
            EXPECT_EQ(contentOf(in), audio(index)) << each.url.text();
            EXPECT_NE(diary->promises[static_cast<std::size_t>(index)], Diary::Promise::none);
        }
        for (int index = 0; index < pieces; ++index) {
            const auto promise = diary->promises[static_cast<std::size_t>(index)];
            if (promise == Diary::Promise::kept) {
                EXPECT_TRUE(listed.contains(identity(index).fingerprint())) << "piece " << index << " is lost";
            }
            if (promise == Diary::Promise::gone) {
                EXPECT_FALSE(listed.contains(identity(index).fingerprint())) << "piece " << index << " is back";
            }
            if (diary->hasAudio[static_cast<std::size_t>(index)]) {
                EXPECT_TRUE(fileExists(fileOf(index))) << "nobody asked to remove the audio of piece " << index;
            }
        }
        for (const auto& [name, content] : readTree(folder)) {
            EXPECT_FALSE(isRest(name)) << name;
            EXPECT_EQ(name.find("unreadable"), std::string::npos) << "a torn manifest";
        }
    }
};

TEST_F(RandomKills, LoseNothingThatWasConfirmedAndLeaveNothingBehind) {
    SystemCallFaults::syncNothing();
    std::filesystem::create_directories(folder);
    const char* wanted = std::getenv("QUILLMERE_RANDOM_KILLS");
    const int kills = wanted == nullptr ? 200 : std::atoi(wanted);
    int killed = 0;
    int runs = 0;  // some are done before their moment comes
    while (killed < kills && runs < 4 * kills && !HasFailure()) {
        const int run = runs++;
        SCOPED_TRACE("run " + std::to_string(run));
        const pid_t child = fork();
        if (child == 0) {
            try {
                std::mt19937 random(static_cast<unsigned>(run));
                const auto at = static_cast<int>(1 + random() % 500);
                const SystemCallFaults faults({.failing = at, .kills = SystemCallFaults::Plan::Kill::before});
                work(random);
                ::_exit(0);
            } catch (const std::exception& error) {
                std::cerr << error.what() << "\n";
            }
            ::_exit(3);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) ? WEXITSTATUS(status) == 0 : WTERMSIG(status) == SIGKILL) << status;
        killed += WIFSIGNALED(status) ? 1 : 0;
        check();
    }
    EXPECT_EQ(killed, kills);
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) {
        std::cout << killed << " of " << runs << " processes killed in their work\n";
    }
}

}  // namespace
}  // namespace quillmere::test
