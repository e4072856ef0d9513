#include "App/EndOfWork.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere::app {

EndOfWork::EndOfWork() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signals_ = signalfd(-1, &signals, SFD_CLOEXEC);
    wake_ = eventfd(0, EFD_CLOEXEC);
    if (signals_ < 0 || wake_ < 0) throw Error("The system gave no descriptor: " + std::string(strerror(errno)));
}

EndOfWork::~EndOfWork() {
    close(signals_);
    close(wake_);
}

void EndOfWork::announce() const {
    const std::uint64_t one = 1;
    while (write(wake_, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

EndOfWork::Reason EndOfWork::wait(std::optional<std::chrono::milliseconds> longest) const {
    const auto deadline = std::chrono::steady_clock::now() + longest.value_or(std::chrono::milliseconds(0));
    std::array<pollfd, 2> waits{{{wake_, POLLIN, 0}, {signals_, POLLIN, 0}}};
    while (true) {
        int milliseconds = -1;
        if (longest) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return Reason::timeout;
            milliseconds = static_cast<int>(std::min<std::int64_t>(left.count(), 60'000));
        }
        if (poll(waits.data(), waits.size(), milliseconds) > 0) break;
    }
    if ((waits[0].revents & POLLIN) != 0) {
        std::uint64_t count = 0;
        while (read(wake_, &count, sizeof count) < 0 && errno == EINTR) {
        }
        return Reason::announced;
    }
    signalfd_siginfo taken{};
    while (read(signals_, &taken, sizeof taken) < 0 && errno == EINTR) {
    }
    return Reason::signal;
}

Interruption::Interruption()
    : thread_([this] {
          if (end_.wait() == EndOfWork::Reason::signal) stop_.request_stop();
      }) {}

Interruption::~Interruption() {
    end_.announce();
    thread_.join();
}

}  // namespace quillmere::app
