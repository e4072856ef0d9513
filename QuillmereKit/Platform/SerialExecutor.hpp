#pragma once

#include <functional>
#include <memory>

namespace quillmere {

/// One thread that runs what it is given, one at a time, in order.
///
/// Thread-safe. Costs no processor time while idle. An exception that leaves a task stops the process.
class SerialExecutor {
public:
    SerialExecutor();

    /// Runs everything posted so far, then ends the thread. Must not be called from a task.
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    /// Queues `task` behind all tasks posted so far and returns at once.
    void post(std::function<void()> task);

    /// Queues `task` and waits until it has run. Called from a task it would wait for itself: that stops the process.
    void run(const std::function<void()>& task);

    /// Whether the caller is the executor's own thread.
    [[nodiscard]] bool isCurrent() const noexcept;

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace quillmere
