// Many processes at work on one library, or on one list of moods and one vault, each of which may be killed at any
// moment.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Reliability/Checks.hpp"
#include "Tests/Reliability/Tree.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;

constexpr std::size_t processes = 3;
constexpr std::size_t mostPieces = 10'000;
constexpr int killsOfARound = 40;  // of one library
const AudioLoudness loudness{.integratedLUFS = -20.5, .peak = 0.5, .seconds = 120};

enum class Promise : char { none, maybe, kept, unwanted, gone };

/// What the processes told before they died, in memory that outlives them.
struct Diary {
    std::atomic<std::uint32_t> pieces;
    std::atomic<std::uint32_t> refusals;  // a library in use by another process
    std::array<std::atomic<Promise>, mostPieces> promises;
    std::array<std::atomic<Promise>, mostPieces> others;  // of the pieces' loudness, or of moods beside recipes

    void clear() {
        pieces = 0;
        refusals = 0;
        for (auto& promise : promises) promise = Promise::none;
        for (auto& promise : others) promise = Promise::none;
    }
};

/// Work of one process, one step after the other.
using Work = std::function<void(std::mt19937& dice)>;

struct ManyProcesses : testing::Test {
    TemporaryFolder home;
    path folder;
    std::function<Work()> begin;  ///< Called in each new process.
    std::mt19937 random = std::mt19937(11);
    unsigned seed = 0;
    std::uint32_t confirmed = 0;
    std::uint32_t gone = 0;  ///< Confirmed to be so.
    Diary* diary =
        static_cast<Diary*>(mmap(nullptr, sizeof(Diary), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::array<int, 2> steps{};  // every process writes a byte for every step that it has done
    std::vector<pid_t> children;

    ManyProcesses() {
        SystemCallFaults::syncNothing();
        EXPECT_EQ(pipe2(steps.data(), O_CLOEXEC), 0);
    }
    ~ManyProcesses() override {
        for (const auto child : children) {
            ::kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        ::close(steps[0]);
        ::close(steps[1]);
        munmap(diary, sizeof(Diary));
    }

    /// Every other piece is a recording, which no pruning takes.
    [[nodiscard]] static bool isRecording(std::uint32_t index) { return index % 2 == 1; }
    [[nodiscard]] static LoopIdentity identity(std::uint32_t index) {
        return isRecording(index) ? LoopStoreFixture::recording("rain", index)
                                  : LoopStoreFixture::identity("rain", 2, index);
    }
    [[nodiscard]] static std::string audio(std::uint32_t index) {
        return "the sound of piece " + std::to_string(index);
    }
    [[nodiscard]] LoopStore open() const {
        return LoopStore(folder, ResourceBundle(home.path() / "App"),
                         [](const FileURL& url) { return removeFile(url.path()); });
    }

    /// One render, as an engine's process does it: work in a folder of its own, a finished file, a stored piece.
    void renderOne(std::mt19937& dice) const {
        const auto index = diary->pieces++;
        if (index >= mostPieces) ::_exit(2);
        const auto making = folder / (".making-" + std::to_string(index));
        const auto work = folder / ("Render-" + UUID::random().text());
        const auto made = work / "audio.wav";
        createFolders(making);
        const auto lock = FolderLock::tryAcquire(making / ".lock");
        std::filesystem::rename(making, work);  // locked from the moment that it has a name others know
        std::ofstream(made, std::ios::binary) << audio(index);
        auto store = open();
        // However many others started meanwhile and cleaned up: nobody touches the work of one who lives.
        if (!lock || readFile(made, 1000) != audio(index)) ::_exit(3);

        const auto file = folder / (identity(index).filename() + ".wav");
        moveFile(made, file);
        diary->promises[index] = Promise::maybe;
        untilNotRefused(
            [&] { store.addPersistent(LoopStoreFixture::artifactAt(identity(index), FileURL::fromPath(file))); });
        // Another process may prune a piece that is none of its own as soon as it is there.
        if (isRecording(index)) diary->promises[index] = Promise::kept;
        switch (dice() % 8) {
            case 0:
            case 1:
                diary->promises[index] = Promise::unwanted;
                store.trash([&](const LoopArtifact& each) { return each.identity == identity(index); });
                if (!store.lastSaveError()) diary->promises[index] = Promise::gone;
                break;
            case 2:
                if (!isRecording(index)) diary->promises[index] = Promise::unwanted;
                store.prune({});
                if (!isRecording(index) && !store.lastSaveError()) diary->promises[index] = Promise::gone;
                break;
            case 3:
            case 4: {
                bool isSet = false;
                untilNotRefused([&] {
                    const auto stored = store.artifact(identity(index));  // a refused measurement stays in memory
                    isSet = stored && store.setLoudness(loudness, *stored);
                });
                if (isSet && isRecording(index)) diary->others[index] = Promise::kept;
                break;
            }
            default: break;
        }
    }

    /// As long as another process holds the library a change is refused; then it takes in what that one wrote.
    void untilNotRefused(const std::function<void()>& change) const {
        for (;;) {
            try {
                return change();
            } catch (const LibraryInUse&) {
                ++diary->refusals;
                sched_yield();
            }
        }
    }

    /// The same moods and recipes in the hands of every process. A vault keeps what it could not write for later.
    [[nodiscard]] Work listKeeping() const {
        struct Lists {
            RecipeVault vault;
            CustomMoodStore moods;
            std::vector<std::pair<std::uint32_t, Promise>> unsaved;
        };
        const std::shared_ptr<Lists> lists(new Lists{RecipeVault(folder), CustomMoodStore(folder / "Moods.json"), {}});
        return [this, lists](std::mt19937& dice) {
            const auto index = diary->pieces++;
            if (index >= mostPieces) ::_exit(2);
            const auto changeVault = [&](Promise meanwhile, Promise then, const auto& change) {
                diary->promises[index] = meanwhile;
                change();
                lists->unsaved.emplace_back(index, then);
                if (lists->vault.lastSaveError()) {
                    ++diary->refusals;
                    return;
                }
                for (const auto& [which, promise] : lists->unsaved) diary->promises[which] = promise;
                lists->unsaved.clear();
            };
            const auto recipe = builtInRecipe(index);
            changeVault(Promise::maybe, Promise::kept, [&] { lists->vault.save(recipe); });
            if (dice() % 4 == 0) {
                changeVault(Promise::unwanted, Promise::gone, [&] { lists->vault.remove(recipe.fingerprint); });
            }

            const auto mood = sampleSpec("my-" + std::to_string(index));
            diary->others[index] = Promise::maybe;
            untilNotRefused([&] { lists->moods.save(mood); });
            diary->others[index] = Promise::kept;
            if (dice() % 4 != 0) return;
            diary->others[index] = Promise::unwanted;
            untilNotRefused([&] { lists->moods.remove(mood.id); });
            diary->others[index] = Promise::gone;
        };
    }

    /// Starts some processes, and kills them one after the other, and in the end all, while others take their place.
    void killAgainAndAgain();
    void awaitStep();

    /// What they confirmed is there, whole and alone, and the library is free.
    void check();
    void checkLists();

    /// As many rounds as the environment asks for.
    void run(const std::function<void()>& checkAfter);

    [[nodiscard]] pid_t start(unsigned from) const {
        const pid_t child = fork();
        if (child != 0) return child;
        std::mt19937 own(from);
        Work work;
        for (;;) {
            try {
                if (!work) work = begin();
                work(own);
            } catch (const std::exception& error) {
                std::cerr << error.what() << "\n";
                ::_exit(4);
            }
            const char byte = 's';
            if (::write(steps[1], &byte, 1) != 1) ::_exit(5);
        }
    }
};

/// Waits until one of the processes has done a step. Fails if none does, with what has become of them.
void ManyProcesses::awaitStep() {
    constexpr int longest = 30'000;  // milliseconds
    pollfd waited{steps[0], POLLIN, 0};
    if (poll(&waited, 1, longest) != 1) {
        std::string states;
        for (const auto child : children) {
            siginfo_t end{};
            states += "\nprocess " + std::to_string(child);
            if (waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0 || end.si_pid == 0) {
                states += " is still at it";
            } else {
                states += (end.si_code == CLD_EXITED ? " ended with status " : " was ended by signal ") +
                          std::to_string(end.si_status);
            }
        }
        FAIL() << "No process has done a step for half a minute:" << states;
    }
    char byte = 0;
    ASSERT_EQ(::read(steps[0], &byte, 1), 1);
}

void ManyProcesses::killAgainAndAgain() {
    for (std::size_t each = 0; each < processes; ++each) children.push_back(start(seed++));
    for (int kill = 0; kill < killsOfARound; ++kill) {
        // After some steps of whichever processes, one is killed wherever it is.
        for (auto left = 1 + random() % 8; left > 0; --left) ASSERT_NO_FATAL_FAILURE(awaitStep());
        auto& child = children[random() % children.size()];
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "a process ended by itself: " << WEXITSTATUS(status);
        child = start(seed++);
    }
    while (!children.empty()) {
        const auto child = children.back();
        children.pop_back();
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "a process ended by itself: " << WEXITSTATUS(status);
    }
}

void ManyProcesses::check() {
    std::set<std::string> listed;
    {
        auto store = open();
        for (const auto& each : store.all()) {
            listed.insert(each.id());
            const auto index = static_cast<std::uint32_t>(each.identity.seed);
            std::ifstream in(each.url.path(), std::ios::binary);
            EXPECT_EQ(contentOf(in), audio(index)) << each.url.text();
            if (diary->others[index] == Promise::kept) {
                EXPECT_TRUE(each.quality && each.quality->loudness == loudness)
                    << "the loudness of piece " << index << " is lost";
            }
        }
        // The lock is free: the first change succeeds.
        const auto index = diary->pieces++;
        const auto file = folder / (identity(index).filename() + ".wav");
        std::ofstream(file, std::ios::binary) << audio(index);
        EXPECT_NO_THROW(store.addPersistent(LoopStoreFixture::artifactAt(identity(index), FileURL::fromPath(file))));
    }
    for (std::uint32_t index = 0; index < diary->pieces; ++index) {
        if (diary->promises[index] == Promise::gone) {
            ++gone;
            EXPECT_FALSE(listed.contains(identity(index).fingerprint())) << "piece " << index << " is back";
        }
        if (diary->promises[index] != Promise::kept) continue;
        ++confirmed;
        EXPECT_TRUE(listed.contains(identity(index).fingerprint())) << "piece " << index << " is lost";
    }
    for (const auto& [name, content] : readTree(folder)) {
        EXPECT_FALSE(isRest(name)) << name;
        EXPECT_FALSE(name.starts_with("Render-")) << name << " was not cleaned";
        EXPECT_EQ(name.find("unreadable"), std::string::npos) << "a torn manifest";
    }
}

void ManyProcesses::checkLists() {
    for (const auto& [name, content] : readTree(folder)) {
        EXPECT_EQ(name.find("unreadable"), std::string::npos) << "a torn file";
        EXPECT_FALSE(name.ends_with(".lock") && FolderLock::isHeld(folder / name)) << name << " is held";
    }
    RecipeVault vault(folder);
    CustomMoodStore moods(folder / "Moods.json");
    std::set<std::string> moodIDs;
    for (const auto& mood : moods.all()) moodIDs.insert(mood.id);
    const auto isKept = [&](Promise promise, bool isThere, const char* what, std::uint32_t index) {
        if (promise == Promise::kept) ++confirmed;
        if (promise == Promise::gone) ++gone;
        EXPECT_FALSE(promise == Promise::kept && !isThere) << what << " " << index << " is lost";
        EXPECT_FALSE(promise == Promise::gone && isThere) << what << " " << index << " was removed, and is back";
    };
    for (std::uint32_t index = 0; index < diary->pieces; ++index) {
        isKept(diary->promises[index], vault.contains(builtInRecipe(index).fingerprint), "recipe", index);
        isKept(diary->others[index], moodIDs.contains("my-" + std::to_string(index)), "mood", index);
    }
    EXPECT_TRUE(vault.save(builtInRecipe(mostPieces)));
    EXPECT_EQ(vault.lastSaveError(), std::nullopt);
    EXPECT_NO_THROW(moods.save(sampleSpec("my-last")));
}

void ManyProcesses::run(const std::function<void()>& checkAfter) {
    const char* wanted = std::getenv("QUILLMERE_PROCESS_KILLS");
    const int rounds = wanted == nullptr ? 1 : std::atoi(wanted) / killsOfARound;
    std::uint32_t pieces = 0;
    std::uint32_t refusals = 0;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        folder = home.path() / ("Loops-" + std::to_string(round));
        std::filesystem::create_directories(folder);
        diary->clear();

        killAgainAndAgain();
        if (!HasFatalFailure()) checkAfter();

        pieces += diary->pieces;
        refusals += diary->refusals;
        std::filesystem::remove_all(folder);
    }
    EXPECT_GT(confirmed, 0U);
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) {
        std::cout << rounds * killsOfARound << " kills, " << pieces << " pieces, " << confirmed << " confirmed, "
                  << gone << " confirmed to be gone, " << refusals
                  << " changes refused because another process held the library\n";
    }
}

TEST_F(ManyProcesses, LoseNoPieceAndTearNoFileAndLeaveTheLockFree) {
    begin = [this] { return [this](std::mt19937& dice) { renderOne(dice); }; };
    run([this] { check(); });
}

TEST_F(ManyProcesses, LoseNoRecipeAndNoMoodAndLeaveTheLocksFree) {
    begin = [this] { return listKeeping(); };
    run([this] { checkLists(); });
}

}  // namespace
}  // namespace quillmere::test
