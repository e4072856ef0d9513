#pragma once

#include <chrono>
#include <optional>
#include <stop_token>
#include <thread>

namespace quillmere::app {

/// A wake-up that any thread can give and one waits for, together with the signals that ask the program to end.
///
/// While one lives those signals (SIGINT, SIGTERM, SIGHUP) end nothing by themselves; it is made before any thread is
/// started, so that every thread leaves them to it.
class EndOfWork {
public:
    /// What ended a wait.
    enum class Reason { announced, signal, timeout };

    EndOfWork();
    ~EndOfWork();
    EndOfWork(const EndOfWork&) = delete;
    EndOfWork& operator=(const EndOfWork&) = delete;

    /// Wakes who waits, or who will wait next. Any thread.
    void announce() const;

    /// Waits for `announce`, for a signal, or for so long, where a time is given. An announcement goes before a signal.
    [[nodiscard]] Reason wait(std::optional<std::chrono::milliseconds> longest = std::nullopt) const;

private:
    int signals_ = -1;
    int wake_ = -1;
};

/// Turns the signals that ask the program to end into a stop token, for work on the main thread.
class Interruption {
public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Asks for a stop once a signal came.
    [[nodiscard]] std::stop_token token() const noexcept { return stop_.get_token(); }

private:
    EndOfWork end_;
    std::stop_source stop_;
    std::jthread thread_;
};

}  // namespace quillmere::app
