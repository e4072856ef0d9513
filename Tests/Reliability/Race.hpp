#pragma once

#include <chrono>
#include <cstdlib>
#include <functional>
#include <latch>
#include <random>
#include <thread>
#include <vector>

namespace quillmere::test {

/// How long races go on: each its own number of rounds, or, where the environment has QUILLMERE_RACE_SECONDS, as many
/// as fit into that time. Thread-safe.
class RaceLength {
public:
    explicit RaceLength(int rounds) : rounds_(rounds) {
        const char* seconds = std::getenv("QUILLMERE_RACE_SECONDS");
        if (seconds != nullptr) end_ = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(seconds));
    }

    /// Whether there is one more round after this many.
    [[nodiscard]] bool hasRoundAfter(int done) const {
        return end_ == std::chrono::steady_clock::time_point() ? done < rounds_
                                                               : std::chrono::steady_clock::now() < end_;
    }

private:
    int rounds_;
    std::chrono::steady_clock::time_point end_;
};

/// One thread's part in a race: one operation, chosen by its own numbers, which are the same in every run.
using Runner = std::function<void(std::mt19937&)>;

/// Lets all runners go at once, each on a thread of its own, round after round. Returns when the last one is done.
inline void race(int rounds, const std::vector<Runner>& runners) {
    const RaceLength length(rounds);
    std::latch start(static_cast<std::ptrdiff_t>(runners.size()));
    std::vector<std::jthread> threads;
    for (const auto& runner : runners) {
        threads.emplace_back([&length, &start, &runner, seed = threads.size()] {
            std::mt19937 random(static_cast<std::uint32_t>(seed));
            start.arrive_and_wait();
            for (int round = 0; length.hasRoundAfter(round); ++round) runner(random);
        });
    }
}

}  // namespace quillmere::test
