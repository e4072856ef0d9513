#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Benchmarks/Comparison.hpp"
#include "Benchmarks/SampleLibrary.hpp"
#include "QuillmereKit/Generation/GenerationQueue.hpp"

// How long a request takes from the caller to its first event, and a finished piece to the next render's start, beside
// handing a word to another thread and hearing back through a condition variable; and what idling costs.

namespace quillmere::benchmarks {
namespace {

using Clock = std::chrono::steady_clock;
using Progress = GenerationQueue::Progress;

// Something that another thread waits for.
class Signal {
public:
    void set() {
        {
            const std::lock_guard lock(mutex_);
            isSet_ = true;
        }
        changed_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return isSet_; });
        isSet_ = false;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool isSet_ = false;
};

// Finishes at once, or when it is told to; remembers when it was started.
class InstantRenderer final : public GenerationService {
public:
    explicit InstantRenderer(std::filesystem::path folder) : folder_(std::move(folder)) {}

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& /*onPartial*/,
                        std::stop_token /*stop*/) override {
        started = Clock::now();
        return {.identity = identity, .url = FileURL::fromPath(folder_ / "piece.wav"), .seconds = seconds};
    }

    std::atomic<Clock::time_point> started{};

private:
    std::filesystem::path folder_;
};

LoopIdentity nextIdentity() {
    static std::size_t number = 0;
    return samplePiece("/", number++).identity;
}

void requestToRendering(benchmark::State& state) {
    const auto& folder = sampleLibrary(100);
    const auto store = openLibrary(folder);
    Signal rendering;
    Signal idle;
    GenerationQueue queue(std::make_shared<InstantRenderer>(folder.parent_path()), store, 1);
    Clock::time_point heard;
    queue.observeEvents([&](const GenerationQueue::Event& event) {
        if (std::holds_alternative<Progress::Rendering>(event.progress.value())) {
            heard = Clock::now();
            rendering.set();
        } else if (std::holds_alternative<Progress::Finished>(event.progress.value()) ||
                   std::holds_alternative<Progress::Failed>(event.progress.value())) {
            idle.set();
        }
    });
    for (auto _ : state) {
        const auto identity = nextIdentity();
        const auto asked = Clock::now();
        queue.request(identity, GenerationPace::fast);
        rendering.wait();
        state.SetIterationTime(std::chrono::duration<double>(heard - asked).count());
        idle.wait();
    }
}

void finishedToNextStart(benchmark::State& state) {
    const auto& folder = sampleLibrary(100);
    const auto store = openLibrary(folder);
    Signal finished;
    const auto renderer = std::make_shared<InstantRenderer>(folder.parent_path());
    GenerationQueue queue(renderer, store, 1);
    Clock::time_point told;
    bool isSecond = false;
    queue.observeEvents([&](const GenerationQueue::Event& event) {
        const bool isOver = std::holds_alternative<Progress::Finished>(event.progress.value()) ||
                            std::holds_alternative<Progress::Failed>(event.progress.value());
        if (!isOver) return;
        isSecond = !isSecond;
        if (!isSecond) return finished.set();
        told = Clock::now();
        queue.request(nextIdentity(), GenerationPace::fast);
    });
    for (auto _ : state) {
        queue.request(nextIdentity(), GenerationPace::fast);
        finished.wait();
        state.SetIterationTime(std::chrono::duration<double>(renderer->started.load() - told).count());
    }
}

void handOver(benchmark::State& state) {
    Signal there;
    Signal back;
    Clock::time_point heard;
    std::jthread other([&](const std::stop_token& stop) {
        for (;;) {
            there.wait();
            if (stop.stop_requested()) return;
            heard = Clock::now();
            back.set();
        }
    });
    for (auto _ : state) {
        const auto asked = Clock::now();
        there.set();
        back.wait();
        state.SetIterationTime(std::chrono::duration<double>(heard - asked).count());
    }
    other.request_stop();
    there.set();
}

// The processor time that a queue takes while nobody wants anything, beside the time that passes.
constexpr std::chrono::seconds idleTime(2);

void idling(benchmark::State& state) {
    const auto& folder = sampleLibrary(100);
    const GenerationQueue queue(std::make_shared<InstantRenderer>(folder.parent_path()), openLibrary(folder), 1);
    static_cast<void>(queue.isBusy());  // its threads are there and have had their turn
    for (auto _ : state) {
        const auto before = std::clock();
        std::this_thread::sleep_for(idleTime);
        state.SetIterationTime(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC);
    }
}

void passing(benchmark::State& state) {
    for (auto _ : state) state.SetIterationTime(std::chrono::duration<double>(idleTime).count());
}

bool compareIdling() {
    const auto add = [](const char* side, void (*body)(benchmark::State&)) {
        benchmark::RegisterBenchmark((std::string("Queue: processor time in 2 s of idling, over them") + side).c_str(),
                                     body)
            ->UseManualTime()
            ->Iterations(1)
            ->Unit(benchmark::kMicrosecond);
    };
    add("/ours", idling);
    add("/peer", passing);
    return true;
}

bool compareWithHandOver(const char* subject, void (*ours)(benchmark::State&)) {
    const auto add = [&](const char* side, void (*body)(benchmark::State&)) {
        benchmark::RegisterBenchmark((std::string(subject) + side).c_str(), body)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    };
    add("/ours", ours);
    add("/peer", handOver);
    return true;
}

[[maybe_unused]] const bool registered =
    compareWithHandOver("Queue: request to rendering", requestToRendering) &&
    compareWithHandOver("Queue: finished to the next render's start", finishedToNextStart) && compareIdling();

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
