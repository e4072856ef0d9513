#pragma once

#include <sys/types.h>

#include <chrono>
#include <vector>

namespace quillmere::supervisor {

/// All living descendants of this process, whatever session or process group they moved to.
///
/// This process must be a child subreaper: then an orphan among them becomes its child, and no descendant can leave.
/// The system's process table has no snapshot, so one look may miss a process that is being made; who wants to end the
/// family looks again until no child is left to wait for. Not thread-safe; holds nothing.
class Family {
public:
    /// What came of sending a signal to everybody.
    struct Sent {
        int reached = 0;    ///< Processes that got it.
        int forbidden = 0;  ///< Processes that this user may not signal, such as those of another user.
    };

    /// Sends a signal to every descendant, exactly once each.
    static Sent signal(int number);

    /// The processor time that all descendants have used, living and dead.
    [[nodiscard]] static std::chrono::nanoseconds processorTime();
};

}  // namespace quillmere::supervisor
