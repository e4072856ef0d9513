#pragma once

#include <chrono>
#include <optional>

namespace quillmere::supervisor {

/// Keeps a family that does not rest by itself to its share of the time: stops it when it has worked too long, and lets
/// it go on when it has rested enough.
///
/// An account: wall time pays in `share` of itself, up to `burst`; processor time is taken out, at most as much as wall
/// time went by, for several processors at once are one stretch of work. Below zero the family is stopped, and
/// continued when the account is level again. A family that rests by itself never gets there. Not thread-safe.
class Pacing {
public:
    /// How often `look` wants to be called.
    static constexpr std::chrono::milliseconds interval{500};

    /// `share`: more than 0; 1 or more never stops anything. `burst`: the work that is free at the beginning.
    Pacing(double share, std::chrono::nanoseconds burst) noexcept : share_(share), burst_(burst), account_(burst) {}

    [[nodiscard]] bool isNeeded() const noexcept { return share_ < 1; }

    /// Looks at the family's processor time and stops or continues it.
    void look();

    /// Whether the family is stopped now.
    [[nodiscard]] bool isStopped() const noexcept { return isStopped_; }

private:
    using Clock = std::chrono::steady_clock;
    const double share_;
    const std::chrono::nanoseconds burst_;
    std::chrono::nanoseconds account_;
    std::chrono::nanoseconds work_{0};
    std::optional<Clock::time_point> last_;
    bool isStopped_ = false;
};

}  // namespace quillmere::supervisor
