#pragma once

#include <chrono>

#include "Renderers/Supervisor/WorkAccount.hpp"

namespace quillmere::supervisor {

/// Keeps a family that does not rest by itself to its share of the time: stops it when its account of work is
/// overdrawn, and lets it go on when the account is level again. A family that rests by itself never gets there. Not
/// thread-safe.
class Pacing {
public:
    /// How often `look` wants to be called.
    static constexpr std::chrono::milliseconds interval{500};

    /// `share`: more than 0; 1 or more never stops anything. `burst`: the work that is free at the beginning.
    Pacing(double share, std::chrono::nanoseconds burst) noexcept : isNeeded_(share < 1), account_(share, burst) {}

    [[nodiscard]] bool isNeeded() const noexcept { return isNeeded_; }

    /// Looks at the family's processor time and stops or continues it.
    void look();

    /// Whether the family is stopped now.
    [[nodiscard]] bool isStopped() const noexcept { return isStopped_; }

private:
    const bool isNeeded_;
    WorkAccount account_;
    bool isStopped_ = false;
};

}  // namespace quillmere::supervisor
