#include "QuillmereKit/Platform/SerialExecutor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace quillmere::test {
namespace {

using testing::ElementsAre;

TEST(SerialExecutor, RunsTasksInTheOrderTheyWerePosted) {
    std::vector<int> order;
    {
        SerialExecutor executor;
        for (int index = 0; index < 1000; ++index) executor.post([&order, index] { order.push_back(index); });
    }

    ASSERT_EQ(order.size(), 1000U);
    for (int index = 0; index < 1000; ++index) EXPECT_EQ(order[static_cast<std::size_t>(index)], index);
}

TEST(SerialExecutor, RunsOneTaskAtATimeAndKeepsEachThreadsOrder) {
    constexpr int threadCount = 4;
    constexpr int rounds = 2000;
    std::vector<std::pair<int, int>> order;  // only the executor's thread touches it: the thread sanitizer watches
    {
        std::latch start(threadCount);
        SerialExecutor executor;
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([&, thread] {
                start.arrive_and_wait();
                for (int round = 0; round < rounds; ++round) {
                    executor.post([&order, thread, round] { order.emplace_back(thread, round); });
                }
            });
        }
    }

    ASSERT_EQ(order.size(), std::size_t{threadCount} * rounds);
    std::vector<int> next(threadCount);
    for (const auto& [thread, round] : order) EXPECT_EQ(round, next[static_cast<std::size_t>(thread)]++);
}

TEST(SerialExecutor, RunReturnsWhenTheTaskAndAllBeforeItHaveRun) {
    SerialExecutor executor;
    std::vector<int> order;
    executor.post([&] { order.push_back(1); });

    executor.run([&] { order.push_back(2); });

    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(SerialExecutor, RunMayBeCalledFromManyThreadsAtOnce) {
    SerialExecutor executor;
    int count = 0;
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&] {
                for (int round = 0; round < 1000; ++round) executor.run([&] { ++count; });
            });
        }
    }

    executor.run([&] { EXPECT_EQ(count, 4000); });
}

TEST(SerialExecutor, ATaskPostedByATaskRunsAfterTheOnesThatWait) {
    std::vector<int> order;
    {
        std::latch isPosted(1);
        SerialExecutor executor;
        executor.post([&] {
            isPosted.wait();
            order.push_back(1);
            executor.post([&] { order.push_back(3); });
        });
        executor.post([&] { order.push_back(2); });
        isPosted.count_down();
    }

    EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST(SerialExecutor, DestroyingItRunsEverythingPostedSoFar) {
    int count = 0;
    {
        std::latch isPosted(1);
        SerialExecutor executor;
        executor.post([&] { isPosted.wait(); });
        for (int index = 0; index < 100; ++index) executor.post([&] { ++count; });
        isPosted.count_down();
    }

    EXPECT_EQ(count, 100);
}

TEST(SerialExecutor, AnUnusedOneIsDestroyedAtOnce) {
    for (int round = 0; round < 200; ++round) SerialExecutor executor;
}

TEST(SerialExecutor, KnowsItsOwnThread) {
    SerialExecutor executor;
    SerialExecutor other;

    EXPECT_FALSE(executor.isCurrent());
    executor.run([&] {
        EXPECT_TRUE(executor.isCurrent());
        EXPECT_FALSE(other.isCurrent());
        other.run([&] { EXPECT_FALSE(executor.isCurrent()); });
    });
}

TEST(SerialExecutor, WhatATaskHoldsGoesBeforeTheNextTaskRuns) {
    SerialExecutor executor;
    auto held = std::make_shared<int>(7);
    const std::weak_ptr<int> watch = held;

    executor.post([held = std::move(held)] { EXPECT_EQ(*held, 7); });

    executor.run([&] { EXPECT_TRUE(watch.expired()); });
}

TEST(SerialExecutorDeathTest, WaitingForItselfStopsTheProcess) {
    EXPECT_DEATH(
        {
            SerialExecutor executor;
            executor.run([&] { executor.run([] {}); });
        },
        "must not wait for another task");
}

TEST(SerialExecutorDeathTest, BeingDestroyedByItsOwnTaskStopsTheProcess) {
    EXPECT_DEATH(
        {
            auto executor = std::make_unique<SerialExecutor>();
            auto* const kept = executor.get();
            kept->run([&] { executor.reset(); });
        },
        "must not be destroyed by one of its own tasks");
}

TEST(SerialExecutorDeathTest, AnExceptionThatLeavesATaskStopsTheProcess) {
    EXPECT_DEATH(
        {
            SerialExecutor executor;
            executor.run([] { throw std::runtime_error("left a task"); });
        },
        "left a task");
}

TEST(SerialExecutorDeathTest, AnEmptyTaskStopsTheProcess) {
    EXPECT_DEATH(SerialExecutor().post(nullptr), "something that can be called");
}

}  // namespace
}  // namespace quillmere::test
