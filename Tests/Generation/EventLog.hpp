#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "QuillmereKit/Generation/GenerationQueue.hpp"

namespace quillmere::test {

/// The events of a queue in the order of their arrival. Thread-safe.
class EventLog {
public:
    void add(const GenerationQueue::Event& event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    /// All events so far; waits until there are at least `count`.
    std::vector<GenerationQueue::Event> await(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return events_.size() >= count; });
        return events_;
    }

    /// All events so far.
    std::vector<GenerationQueue::Event> events() { return await(0); }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<GenerationQueue::Event> events_;  // guarded by mutex_
};

}  // namespace quillmere::test
