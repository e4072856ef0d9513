#include <algorithm>
#include <array>
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
#include "QuillmereKit/Platform/Errors.hpp"

// How long a request takes from the caller to its first event, and a finished piece to the next render's start, each
// beside handing a word to another thread through a condition variable; and what idling costs. A thread that has waited
// for long is slow to wake, whoever waits: so both sides of a comparison wait for the same thing before time is taken.

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

// Finishes at once, or fails at once, which nothing has to be stored for; remembers when it was started.
class InstantRenderer final : public GenerationService {
public:
    InstantRenderer(std::filesystem::path folder, bool fails) : folder_(std::move(folder)), fails_(fails) {}

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& /*onPartial*/,
                        std::stop_token /*stop*/) override {
        started = Clock::now();
        if (fails_) throw Error("nothing was rendered");
        return {.identity = identity, .url = FileURL::fromPath(folder_ / "piece.wav"), .seconds = seconds};
    }

    std::atomic<Clock::time_point> started{};

private:
    std::filesystem::path folder_;
    bool fails_;
};

// Another thread that waits for a word and remembers when it heard it.
class Listener {
public:
    // How long the word was on its way.
    double tell() {
        const auto told = Clock::now();
        there_.set();
        back_.wait();
        return std::chrono::duration<double>(heard_ - told).count();
    }

    ~Listener() {
        thread_.request_stop();
        there_.set();
    }

private:
    Signal there_;
    Signal back_;
    Clock::time_point heard_;
    std::jthread thread_{[this](const std::stop_token& stop) {
        for (;;) {
            there_.wait();
            if (stop.stop_requested()) return;
            heard_ = Clock::now();
            back_.set();
        }
    }};
};

// The median of many times: one that another program's turn has come between says nothing. Each of the benchmark's
// iterations is one of these.
template <class Once>
void measureMedian(benchmark::State& state, const Once& once) {
    for (auto _ : state) {
        std::array<double, 101> times;
        std::generate(times.begin(), times.end(), once);
        const auto middle = times.begin() + times.size() / 2;
        std::nth_element(times.begin(), middle, times.end());
        state.SetIterationTime(*middle);
    }
}

// Between two requests of somebody who listens, in short.
void rest() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

// One that no sample library holds.
LoopIdentity nextIdentity() {
    static std::size_t number = 1'000'000;
    return samplePiece("/", number++).identity;
}

void requestToRendering(benchmark::State& state) {
    const auto& folder = sampleLibrary(100);
    const auto store = openLibrary(folder);
    Signal over;
    GenerationQueue queue(std::make_shared<InstantRenderer>(folder.parent_path(), true), store, 1);
    Clock::time_point heard;
    queue.observeEvents([&](const GenerationQueue::Event& event) {
        if (std::holds_alternative<Progress::Rendering>(event.progress.value())) {
            heard = Clock::now();
        } else {
            over.set();
        }
    });
    measureMedian(state, [&] {
        const auto identity = nextIdentity();
        rest();
        const auto asked = Clock::now();
        queue.request(identity, GenerationPace::fast);
        over.wait();
        return std::chrono::duration<double>(heard - asked).count();
    });
}

void handOverAfterRest(benchmark::State& state) {
    Listener listener;
    measureMedian(state, [&] {
        rest();
        return listener.tell();
    });
}

// The next piece is asked for from inside the event.
void finishedToNextStart(benchmark::State& state) {
    const auto& folder = changingLibrary(100);
    const auto store = openLibrary(folder);
    Signal over;
    const auto renderer = std::make_shared<InstantRenderer>(folder.parent_path(), false);
    GenerationQueue queue(renderer, store, 1);
    LoopIdentity next;
    Clock::time_point told;
    bool isSecond = false;
    queue.observeEvents([&](const GenerationQueue::Event& event) {
        if (!std::holds_alternative<Progress::Finished>(event.progress.value())) return;
        isSecond = !isSecond;
        if (!isSecond) return over.set();
        told = Clock::now();
        queue.request(next, GenerationPace::fast);
    });
    measureMedian(state, [&] {
        const auto first = nextIdentity();
        next = nextIdentity();
        queue.request(first, GenerationPace::fast);
        over.wait();
        return std::chrono::duration<double>(renderer->started.load() - told).count();
    });
}

// A piece is stored before `finished` is told; here too, by the thread that then hands over.
void handOverAfterAdd(benchmark::State& state) {
    const auto& folder = changingLibrary(100);
    const auto store = openLibrary(folder);
    Listener listener;
    measureMedian(state, [&] {
        store->add({.identity = nextIdentity(), .url = FileURL::fromPath(folder / "piece.wav"), .seconds = 1});
        return listener.tell();
    });
}

// The processor time that a queue takes while nobody wants anything, beside the time that passes.
constexpr std::chrono::seconds idleTime(2);

void idling(benchmark::State& state) {
    const auto& folder = sampleLibrary(100);
    const GenerationQueue queue(std::make_shared<InstantRenderer>(folder.parent_path(), true), openLibrary(folder), 1);
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

bool compareWithHandOver(const char* subject, void (*ours)(benchmark::State&), void (*peer)(benchmark::State&)) {
    const auto add = [&](const char* side, void (*body)(benchmark::State&)) {
        benchmark::RegisterBenchmark((std::string(subject) + side).c_str(), body)
            ->UseManualTime()
            ->Iterations(1)
            ->Unit(benchmark::kMicrosecond);
    };
    add("/ours", ours);
    add("/peer", peer);
    return true;
}

[[maybe_unused]] const bool registered =
    compareWithHandOver("Queue: request to rendering", requestToRendering, handOverAfterRest) &&
    compareWithHandOver("Queue: finished to the next render's start", finishedToNextStart, handOverAfterAdd) &&
    compareIdling();

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
