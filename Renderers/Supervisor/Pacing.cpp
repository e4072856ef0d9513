#include "Renderers/Supervisor/Pacing.hpp"

#include <signal.h>

#include <algorithm>

#include "Renderers/Supervisor/Family.hpp"

namespace quillmere::supervisor {

void Pacing::look() {
    using std::chrono::nanoseconds;
    const auto now = Clock::now();
    const auto work = Family::processorTime();
    if (last_) {
        const nanoseconds passed = now - *last_;
        // Time that ended processes took with them may be missing from one look and be back in the next.
        const auto worked = std::clamp(work - work_, nanoseconds(0), passed);
        const nanoseconds earned(static_cast<nanoseconds::rep>(share_ * static_cast<double>(passed.count())));
        account_ = std::min(account_ + earned - worked, burst_);
    }
    last_ = now;
    work_ = std::max(work, work_);

    if (account_ < nanoseconds(0)) {
        isStopped_ = true;
        Family::signal(SIGSTOP);  // each time: children may have been made while the others were being stopped
    } else if (isStopped_) {
        isStopped_ = false;
        Family::signal(SIGCONT);
    }
}

}  // namespace quillmere::supervisor
