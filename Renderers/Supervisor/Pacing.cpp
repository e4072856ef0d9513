#include "Renderers/Supervisor/Pacing.hpp"

#include <signal.h>

#include "Renderers/Supervisor/Family.hpp"

namespace quillmere::supervisor {

void Pacing::look() {
    account_.book(WorkAccount::Clock::now(), Family::processorTime());
    if (account_.isOverdrawn()) {
        isStopped_ = true;
        Family::signal(SIGSTOP);  // each time: children may have been made while the others were being stopped
    } else if (isStopped_) {
        isStopped_ = false;
        Family::signal(SIGCONT);
    }
}

}  // namespace quillmere::supervisor
