#include "QuillmereKit/Platform/SerialExecutor.hpp"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {

struct SerialExecutor::State {
    using Tasks = std::vector<std::function<void()>>;

    std::mutex mutex;
    std::condition_variable hasWork;
    Tasks waiting;          // guarded by mutex
    bool isEnding = false;  // guarded by mutex
    bool isIdle = false;    // guarded by mutex: the thread waits for `hasWork`
    std::thread thread;     // last: it uses all of the above

    void work() {
        Tasks batch;  // swapped with `waiting`, so that both keep their memory
        for (;;) {
            {
                std::unique_lock lock(mutex);
                while (waiting.empty()) {
                    if (isEnding) return;
                    isIdle = true;
                    hasWork.wait(lock);
                    isIdle = false;
                }
                batch.swap(waiting);
            }
            for (auto& task : batch) {
                task();
                task = nullptr;  // what a task holds goes before the next one runs
            }
            batch.clear();
        }
    }
};

SerialExecutor::SerialExecutor() : state_(std::make_shared<State>()) {
    state_->thread = std::thread([state = state_.get()] { state->work(); });
}

SerialExecutor::~SerialExecutor() {
    precondition(!isCurrent(), "A serial executor must not be destroyed by one of its own tasks.");
    {
        const std::lock_guard lock(state_->mutex);
        state_->isEnding = true;
        state_->hasWork.notify_one();
    }
    state_->thread.join();
}

void SerialExecutor::post(std::function<void()> task) {
    precondition(task != nullptr, "A task must be something that can be called.");
    // Held until the thread is woken: the task may be what lets the owner destroy the executor.
    const auto state = state_;
    bool wasIdle = false;
    {
        const std::lock_guard lock(state->mutex);
        state->waiting.push_back(std::move(task));
        wasIdle = std::exchange(state->isIdle, false);
    }
    // One wake-up is enough. Not under the lock, which the woken thread would only have to wait for.
    if (wasIdle) state->hasWork.notify_one();
}

void SerialExecutor::run(const std::function<void()>& task) {
    precondition(!isCurrent(), "A task must not wait for another task of its own serial executor.");
    std::mutex mutex;
    std::condition_variable ended;
    bool hasEnded = false;
    struct Turn {
        const std::function<void()>& task;
        std::mutex& mutex;
        std::condition_variable& ended;
        bool& hasEnded;
    } turn{task, mutex, ended, hasEnded};
    post([&turn] {
        turn.task();
        // Told under the lock: the waiting side destroys both once it gets on.
        const std::lock_guard lock(turn.mutex);
        turn.hasEnded = true;
        turn.ended.notify_one();
    });
    std::unique_lock lock(mutex);
    ended.wait(lock, [&] { return hasEnded; });
}

bool SerialExecutor::isCurrent() const noexcept { return std::this_thread::get_id() == state_->thread.get_id(); }

}  // namespace quillmere
