#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace quillmere::supervisor {

/// How much work may still be done: wall time pays in `share` of itself, up to `burst`; processor time is taken out, at
/// most as much as wall time went by, for several processors at once are one stretch of work. Not thread-safe.
class WorkAccount {
public:
    using Clock = std::chrono::steady_clock;
    using nanoseconds = std::chrono::nanoseconds;

    /// `share`: more than 0. `burst`: the work that is free at the beginning.
    WorkAccount(double share, nanoseconds burst) noexcept : share_(share), burst_(burst), balance_(burst) {}

    /// Books what happened since the last call. `work`: the processor time that was used in all so far; less than at
    /// the last call counts as none since then.
    void book(Clock::time_point now, nanoseconds work) noexcept {
        if (last_) {
            const nanoseconds passed = now - *last_;
            // Time that ended processes took with them may be missing from one look and be back in the next.
            const auto worked = std::clamp(work - work_, nanoseconds(0), passed);
            const nanoseconds earned(static_cast<nanoseconds::rep>(share_ * static_cast<double>(passed.count())));
            balance_ = std::min(balance_ + earned - worked, burst_);
        }
        last_ = now;
        work_ = std::max(work, work_);
    }

    /// Whether more was worked than was paid in.
    [[nodiscard]] bool isOverdrawn() const noexcept { return balance_ < nanoseconds(0); }

private:
    const double share_;
    const nanoseconds burst_;
    nanoseconds balance_;
    nanoseconds work_{0};
    std::optional<Clock::time_point> last_;
};

}  // namespace quillmere::supervisor
