// quillmere-supervisor: runs one engine for a host and sees to it that nothing of it outlives the host.
//
//     quillmere-supervisor GRACE NICENESS SHARE BURST COMMAND [ARGUMENT...]
//
// GRACE and BURST in milliseconds, SHARE a number above 0 up to 1, COMMAND a path. Started by ProcessRenderer with the
// engine's standard input, output and error as its own, which it hands on, and one end of a control socket as
// descriptor
// 3. It lives in a process group of its own, so that a key pressed at the host's terminal reaches the host alone,
// and the engine in a third.
//
// The control socket's end is the whole order to stop: the host shuts it down, or is gone in whatever way and the
// system closes it. The same happens when the engine itself has ended. Then every descendant gets the polite signal,
// and after GRACE the hard one until none is left; being the child subreaper, this process has all of them for children
// in the end, those too that moved to another session, so "no child left" is exact. Its own end, at which the host's
// end of the socket closes, thus says that the whole family is gone. Should it be killed itself, the engine gets a
// SIGKILL from the system.

#include <fcntl.h>
#include <linux/ioprio.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "Renderers/Supervisor/Family.hpp"
#include "Renderers/Supervisor/Notice.hpp"
#include "Renderers/Supervisor/Pacing.hpp"

namespace quillmere::supervisor {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Settings {
    milliseconds grace{0};
    int niceness = 0;
    double share = 1;
    milliseconds burst{0};
    char** command = nullptr;
};

template <class Number>
std::optional<Number> number(const char* text, Number least, Number most) {
    Number value{};
    const char* const textEnd = text + std::strlen(text);
    const auto [end, error] = std::from_chars(text, textEnd, value);
    if (error != std::errc{} || end != textEnd || !(value >= least && value <= most)) return std::nullopt;
    return value;
}

std::optional<Settings> settings(int count, char** arguments) {
    constexpr int commandIndex = 5;
    if (count <= commandIndex) return std::nullopt;
    constexpr int longest = 86'400'000;  // a day
    const auto grace = number<int>(arguments[1], 0, longest);
    const auto niceness = number<int>(arguments[2], 0, 19);
    const auto share = number<double>(arguments[3], 0.001, 1);
    const auto burst = number<int>(arguments[4], 0, longest);
    if (!grace || !niceness || !share || !burst) return std::nullopt;
    return Settings{milliseconds(*grace), *niceness, *share, milliseconds(*burst), arguments + commandIndex};
}

void tell(Notice::Kind kind, int value) {
    const Notice notice{kind, value};
    // A host that is gone hears nothing, and that is fine.
    static_cast<void>(::send(controlDescriptor, &notice, sizeof notice, MSG_NOSIGNAL | MSG_DONTWAIT));
}

/// The rank of the engine and all it starts; it can only go down.
void takePlaceBehind(int niceness) {
    if (niceness == 0) return;
    errno = 0;
    const int present = ::getpriority(PRIO_PROCESS, 0);
    if (errno == 0 && present < niceness) static_cast<void>(::setpriority(PRIO_PROCESS, 0, niceness));
    constexpr int lowest = 19;
    const int rank =
        niceness >= lowest ? IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0) : IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 7);
    static_cast<void>(::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, rank));
}

class Supervisor {
public:
    Supervisor(const Settings& settings, int signals)
        : settings_(settings), signals_(signals), pacing_(settings.share, settings.burst) {}

    /// Starts the engine; returns 0 or the error number.
    int start() {
        std::array<int, 2> failure{};
        if (::pipe2(failure.data(), O_CLOEXEC) != 0) return errno;
        const pid_t self = ::getpid();
        engine_ = ::fork();
        if (engine_ < 0) return errno;
        if (engine_ == 0) runEngine(self, failure[1]);

        ::setpgid(engine_, engine_);  // the child does it too: whoever comes first
        ::close(failure[1]);
        int error = 0;
        ssize_t size = 0;
        do {
            size = ::read(failure[0], &error, sizeof error);
        } while (size < 0 && errno == EINTR);
        ::close(failure[0]);
        if (size != sizeof error) return 0;
        ::waitpid(engine_, nullptr, 0);
        return error;
    }

    [[nodiscard]] pid_t engine() const noexcept { return engine_; }

    /// Until the host or the engine ends, or somebody asks this process to.
    void watch() {
        auto nextLook = Clock::now();
        while (!engineHasEnded_) {
            int timeout = -1;
            if (pacing_.isNeeded()) {
                if (Clock::now() >= nextLook) {
                    pacing_.look();
                    nextLook = Clock::now() + Pacing::interval;
                }
                timeout = untilThen(nextLook);
            }
            std::array<pollfd, 2> waits{{{signals_, POLLIN, 0}, {controlDescriptor, POLLIN | POLLRDHUP, 0}}};
            if (::poll(waits.data(), waits.size(), timeout) <= 0) continue;
            if (waits[0].revents != 0 && hasOrderToStop()) return;
            if (waits[1].revents != 0) return;
            reap();
        }
    }

    /// Politely, then hard, until no descendant is left.
    void endFamily() {
        Family::signal(SIGTERM);
        Family::signal(SIGCONT);  // who is stopped hears nothing
        const auto deadline = Clock::now() + settings_.grace;
        while (reap()) {
            const int timeout = untilThen(deadline);
            if (timeout == 0) break;
            waitForChild(timeout);
        }
        int pause = 1;
        constexpr int longestPause = 64;
        while (reap()) {
            const auto sent = Family::signal(SIGKILL);
            if (sent.reached == 0 && sent.forbidden > 0) return;  // beyond this user's reach
            waitForChild(pause);
            pause = std::min(2 * pause, longestPause);
        }
    }

private:
    [[noreturn]] void runEngine(pid_t parent, int failure) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);  // it ended before the line above
        takePlaceBehind(settings_.niceness);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execv(settings_.command[0], settings_.command);
        const int error = errno;
        static_cast<void>(!::write(failure, &error, sizeof error));
        ::_exit(127);
    }

    /// Collects who has ended. Returns whether any child is left.
    bool reap() {
        int status = 0;
        pid_t ended = 0;
        while ((ended = ::waitpid(-1, &status, WNOHANG)) > 0) {
            if (ended != engine_) continue;
            engineHasEnded_ = true;
            if (WIFSIGNALED(status)) {
                tell(Notice::Kind::signalled, WTERMSIG(status));
            } else {
                tell(Notice::Kind::exited, WEXITSTATUS(status));
            }
        }
        return ended == 0;
    }

    /// Takes the signals that came; true if one of them asks this process to end.
    bool hasOrderToStop() {
        signalfd_siginfo info{};
        bool order = false;
        while (::read(signals_, &info, sizeof info) == sizeof info) order |= info.ssi_signo != SIGCHLD;
        return order;
    }

    void waitForChild(int timeout) {
        pollfd wait{signals_, POLLIN, 0};
        if (::poll(&wait, 1, timeout) > 0) hasOrderToStop();  // it is stopping already
    }

    static int untilThen(Clock::time_point moment) {
        const auto left = std::chrono::ceil<milliseconds>(moment - Clock::now());
        return static_cast<int>(std::max(left, milliseconds(0)).count());
    }

    const Settings settings_;
    const int signals_;
    Pacing pacing_;
    pid_t engine_ = -1;
    bool engineHasEnded_ = false;
};

int run(const Settings& settings) {
    ::fcntl(controlDescriptor, F_SETFD, FD_CLOEXEC);
    sigset_t watched;
    sigemptyset(&watched);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT}) sigaddset(&watched, signal);
    ::sigprocmask(SIG_BLOCK, &watched, nullptr);
    const int signals = ::signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals < 0 || ::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        tell(Notice::Kind::notStarted, errno);
        return 1;
    }

    Supervisor supervisor(settings, signals);
    if (const int error = supervisor.start(); error != 0) {
        tell(Notice::Kind::notStarted, error);
        return 1;
    }
    // The engine's pipes are the engine's alone: they end when it closes them.
    if (const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC); nothing >= 0) {
        for (int number = 0; number < controlDescriptor; ++number) ::dup2(nothing, number);
        ::close(nothing);
    }
    tell(Notice::Kind::started, supervisor.engine());
    supervisor.watch();
    supervisor.endFamily();
    return 0;
}

}  // namespace
}  // namespace quillmere::supervisor

int main(int count, char** arguments) {
    using namespace quillmere::supervisor;
    const auto given = settings(count, arguments);
    int type = 0;
    socklen_t size = sizeof type;
    if (!given || ::getsockopt(controlDescriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0) {
        std::fputs("quillmere-supervisor runs engines for programs that use QuillmereKit; it is not started by hand.\n",
                   stderr);
        return 2;
    }
    return run(*given);
}
