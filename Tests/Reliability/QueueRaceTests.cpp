// Queues that are made, asked and destroyed, at whatever moment of their renders.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <latch>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

#include "QuillmereKit/Generation/GenerationQueue.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "Tests/Generation/Samples.hpp"
#include "Tests/Reliability/Race.hpp"
#include "Tests/Support/FastFolder.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using Event = GenerationQueue::Event;
using Progress = GenerationQueue::Progress;

constexpr int lives = 10'000;

/// Renders as the seed says: to the stop, to a piece or to a failure. Keeps the callbacks of each render, and calls
/// them from another thread, too, and after the render's end.
class KeepingRenderer : public GenerationService {
public:
    explicit KeepingRenderer(std::filesystem::path folder) : folder_(std::move(folder)) {}

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
        throw Error("only the fullest form is asked for");
    }
    LoopArtifact render(const LoopIdentity& identity, double, GenerationPace, const AudioHandler&,
                        const StageHandler& onStage, std::stop_token stop) override {
        {
            const std::lock_guard lock(mutex_);
            kept_ = onStage;
            ++begun_;
            changed_.notify_all();
        }
        onStage(GenerationStage::Preparing{});
        switch (identity.seed % 4) {
            case 0: {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, stop, [] { return false; });
                throw CancellationError();
            }
            case 1: throw Error("no music today");
            case 2: std::jthread([&] { onStage(GenerationStage::Decoding{}); }).join(); break;
            default: break;
        }
        return samplePiece(identity, FileURL::fromPath(folder_ / (identity.filename() + ".wav")), 120);
    }

    /// Waits for the next render to begin.
    void awaitBegin(int before) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return begun_ > before; });
    }
    int begun() {
        const std::lock_guard lock(mutex_);
        return begun_;
    }
    /// Reports in the name of a render that may be long over.
    void reportLate() {
        StageHandler late;
        {
            const std::lock_guard lock(mutex_);
            late = kept_;
        }
        if (late) late(GenerationStage::Processing{});
    }

private:
    const std::filesystem::path folder_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    StageHandler kept_;  // guarded by mutex_
    int begun_ = 0;      // guarded by mutex_
};

/// A queue's life: it is observed, asked for this or that, and goes.
void live(int round, const std::shared_ptr<KeepingRenderer>& renderer, const std::shared_ptr<LoopStore>& store) {
    std::atomic<bool> isGone = false;
    std::atomic<bool> isEnding = false;
    std::uint64_t lastEvent = 0;  // touched on the queue's thread only, then by nobody
    {
        GenerationQueue queue(renderer, store, 120);
        queue.observeEvents([&](const Event& event) {
            EXPECT_FALSE(isGone);
            EXPECT_EQ(event.sequence, ++lastEvent);
            // Asked from inside a handler, perhaps while the queue is being destroyed.
            const bool isOver = std::holds_alternative<Progress::Failed>(event.progress.value());
            if (isOver && !isEnding) queue.request(sampleIdentity(2), GenerationPace::fast);
        });
        const auto other = queue.observe([&](const Progress&) { EXPECT_FALSE(isGone); });
        const int begun = renderer->begun();
        queue.request(sampleIdentity(round % 40), GenerationPace::fast);
        switch (round % 6) {
            case 0: break;
            case 1: queue.request(sampleIdentity((round + 1) % 40), GenerationPace::fast); break;
            case 2: static_cast<void>(queue.cancelAll()); break;
            case 3: queue.stopObserving(other); break;
            case 4:
                if (!store->contains(sampleIdentity(round % 40))) renderer->awaitBegin(begun);
                break;
            default: {
                const std::jthread asker([&] {
                    static_cast<void>(queue.isBusy());
                    static_cast<void>(queue.pending());
                    queue.request(sampleIdentity((round + 3) % 40), GenerationPace::fast);
                });
                renderer->reportLate();
                static_cast<void>(queue.isDraining());
            }
        }
        isEnding = true;
    }
    isGone = true;
    renderer->reportLate();
}

TEST(QueueRaceTests, QueuesAreMadeAskedAndDestroyedAtAnyMoment) {
    const TemporaryFolder folder(fastParent());
    const auto store = std::make_shared<LoopStore>(folder.path() / "Loops", ResourceBundle(folder.path()),
                                                   [](const FileURL&) { return false; });
    const auto renderer = std::make_shared<KeepingRenderer>(store->directory());
    const RaceLength length(lives);
    for (int round = 0; length.hasRoundAfter(round) && !HasFailure(); ++round) {
        if (round % 100 == 0) store->prune({});  // what is stored is not rendered again
        live(round, renderer, store);
    }
}

/// Gives up by itself at once.
class TiredRenderer : public GenerationService {
public:
    using GenerationService::render;
    LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
        throw CancellationError();
    }
};

TEST(QueueRaceTests, CancelsAtTheSameMomentEndInOneIdle) {
    const TemporaryFolder folder(fastParent());
    const auto store = std::make_shared<LoopStore>(folder.path() / "Loops", ResourceBundle(folder.path()),
                                                   [](const FileURL&) { return false; });
    const RaceLength length(300);
    for (int round = 0; length.hasRoundAfter(round) && !HasFailure(); ++round) {
        std::latch asked(3);
        std::atomic<int> idles = 0;
        std::atomic<int> refusals = 0;
        int acceptances = 0;
        {
            GenerationQueue queue(std::make_shared<TiredRenderer>(), store, 120);
            queue.observe([&](const Progress& progress) {
                if (std::holds_alternative<Progress::Idle>(progress.value())) ++idles;
                if (!std::holds_alternative<Progress::Rendering>(progress.value()) || ++acceptances < 2) return;
                asked.arrive_and_wait();
                for (int i = 0; i < 50; ++i) std::this_thread::yield();  // so that both cancels wait behind this
            });
            const auto cancel = [&] {
                asked.arrive_and_wait();
                if (!queue.cancelAll()) ++refusals;
            };
            const std::jthread first(cancel);
            const std::jthread second(cancel);
            queue.request(sampleIdentity(1), GenerationPace::fast);
            for (int i = 0; i < 50; ++i) static_cast<void>(queue.isBusy());  // the render has given up, most likely
            queue.request(sampleIdentity(1), GenerationPace::fast, UUID());
        }
        EXPECT_LE(idles, 1 + refusals);
    }
}

}  // namespace
}  // namespace quillmere::test
