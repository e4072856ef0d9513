#include "Renderers/EngineRun.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <new>
#include <system_error>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "Renderers/EngineFailure.hpp"

namespace quillmere {
namespace {

using Reason = EngineFailure::Reason;

constexpr std::size_t errorTailBytes = 4096;

/// What a supervisor may take to end the family besides the grace, and how often it is looked at meanwhile: nothing
/// tells that it was stopped.
constexpr std::chrono::milliseconds allowance = std::chrono::seconds(3);
constexpr std::chrono::milliseconds lookInterval(500);

/// The first words of a message, then the end of what the engine wrote to its standard error.
std::string withTail(const std::string& text, const std::string& tail) {
    return tail.empty() ? text + "." : text + ": " + tail;
}

[[noreturn]] void failToStart(const std::string& what, int error) {
    throw EngineFailure(Reason::notStarted, "The engine could not be started (" + what + ": " +
                                                std::generic_category().message(error) + ").");
}

/// A descriptor out of the way of those that the new process gets under fixed numbers.
Descriptor aside(int number) {
    Descriptor given(number);
    constexpr int firstFree = supervisor::controlDescriptor + 1;
    if (number < 0 || number >= firstFree) return given;
    return Descriptor(::fcntl(number, F_DUPFD_CLOEXEC, firstFree));
}

void setNonBlocking(int number) { ::fcntl(number, F_SETFL, ::fcntl(number, F_GETFL) | O_NONBLOCK); }

/// The two ends of a pipe that no other process inherits by accident.
struct Pipe {
    Descriptor reading, writing;

    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) failToStart("pipe", errno);
        reading = aside(ends[0]);
        writing = aside(ends[1]);
        if (!reading.isOpen() || !writing.isOpen()) failToStart("pipe", errno);
    }
};

/// The C library's records of what a new process does first, freed with the object.
class SpawnPlan {
public:
    SpawnPlan() {
        if (::posix_spawn_file_actions_init(&actions_) != 0) throw std::bad_alloc();
        if (::posix_spawnattr_init(&attributes_) != 0) {
            ::posix_spawn_file_actions_destroy(&actions_);
            throw std::bad_alloc();
        }
    }
    ~SpawnPlan() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    void give(const Descriptor& descriptor, int number) {
        check(::posix_spawn_file_actions_adddup2(&actions_, descriptor.number(), number));
    }
    void closeFrom(int number) { check(::posix_spawn_file_actions_addclosefrom_np(&actions_, number)); }
    void enter(int folder) {
        check(folder < 0 ? ::posix_spawn_file_actions_addchdir_np(&actions_, "/")
                         : ::posix_spawn_file_actions_addfchdir_np(&actions_, folder));
    }
    /// A process group of its own, and signals as a fresh process has them, whatever the host made of its own.
    void standAlone() {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        check(::posix_spawnattr_setpgroup(&attributes_, 0));
        check(::posix_spawnattr_setsigmask(&attributes_, &none));
        check(::posix_spawnattr_setsigdefault(&attributes_, &all));
        check(::posix_spawnattr_setflags(&attributes_,
                                         POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    }
    [[nodiscard]] pid_t spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
        const auto pointers = [](const std::vector<std::string>& texts) {
            std::vector<char*> list;
            list.reserve(texts.size() + 1);
            for (const auto& text : texts) list.push_back(const_cast<char*>(text.c_str()));
            list.push_back(nullptr);
            return list;
        };
        pid_t process = -1;
        const int error = ::posix_spawn(&process, arguments[0].c_str(), &actions_, &attributes_,
                                        pointers(arguments).data(), pointers(environment).data());
        if (error != 0) failToStart(arguments[0], error);
        return process;
    }

private:
    static void check(int error) {
        if (error != 0) failToStart("preparing", error);
    }

    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

/// This process's environment, with the working folder as the place for temporary files.
std::vector<std::string> environmentFor(const std::filesystem::path& folder) {
    constexpr std::string_view temporary = "TMPDIR=";
    std::vector<std::string> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (folder.empty() || !std::string_view(*variable).starts_with(temporary)) variables.emplace_back(*variable);
    }
    if (!folder.empty()) variables.push_back(std::string(temporary) + folder.string());
    return variables;
}

/// Independent of the host's locale, unlike `std::to_string`.
std::string decimal(double value) {
    std::array<char, 32> digits{};
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, 6);
    return {digits.data(), result.ptr};
}

std::string inSeconds(std::chrono::milliseconds time) {
    return std::to_string(std::chrono::ceil<std::chrono::seconds>(time).count()) + " s";
}

/// Reads once what is there. Nothing: not now; empty: the end.
std::optional<std::string_view> readSome(const Descriptor& descriptor, std::vector<char>& buffer) {
    while (true) {
        const ssize_t size = ::read(descriptor.number(), buffer.data(), buffer.size());
        if (size >= 0) return std::string_view(buffer.data(), static_cast<std::size_t>(size));
        if (errno == EAGAIN) return std::nullopt;
        if (errno != EINTR) return std::string_view();
    }
}

}  // namespace

EngineRun::EngineRun(const Settings& settings)
    : settings_(settings),
      buffer_(std::size_t{64} * 1024),
      lines_(settings.lineLimit),
      errors_(errorTailBytes),
      lastHeard_(Clock::now()) {
    start();
}

void EngineRun::start() {
    Pipe input, output, errors;
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) failToStart("socketpair", errno);
    control_ = aside(ends[0]);
    const Descriptor supervisorEnd = aside(ends[1]);
    if (!control_.isOpen() || !supervisorEnd.isOpen()) failToStart("socketpair", errno);
    for (const auto* ours : {&input.writing, &output.reading, &errors.reading, &control_}) {
        setNonBlocking(ours->number());
    }

    std::vector<std::string> arguments{settings_.supervisor.string(), std::to_string(settings_.grace.count()),
                                       std::to_string(settings_.niceness), decimal(settings_.share),
                                       std::to_string(settings_.burst.count())};
    arguments.insert(arguments.end(), settings_.command.begin(), settings_.command.end());
    SpawnPlan plan;
    plan.enter(settings_.folder);  // before its number could be taken
    plan.give(input.reading, STDIN_FILENO);
    plan.give(output.writing, STDOUT_FILENO);
    plan.give(errors.writing, STDERR_FILENO);
    plan.give(supervisorEnd, supervisor::controlDescriptor);
    plan.closeFrom(supervisor::controlDescriptor + 1);
    plan.standAlone();
    supervisor_ = plan.spawn(arguments, environmentFor(settings_.folderPath));

    input_ = std::move(input.writing);
    inputReader_ = std::move(input.reading);
    output_ = std::move(output.reading);
    errorOutput_ = std::move(errors.reading);
}

EngineRun::~EngineRun() {
    stop();
    awaitEnd();
}

void EngineRun::run(std::string_view request, EngineListener& listener) {
    request_ = request;
    while (control_.isOpen()) {
        try {
            turn(listener);
        } catch (...) {
            fail();
        }
    }
    awaitEnd();
    if (isCancelled_) throw CancellationError();
    try {
        if (!failure_) drain(listener);
    } catch (...) {
        fail();
    }
    if (failure_) std::rethrow_exception(failure_);
    checkEnd();
}

void EngineRun::turn(EngineListener& listener) {
    const short writing = request_.empty() ? 0 : POLLOUT;
    enum { wake, control, output, errors, input };
    std::array<pollfd, 5> waits{{{isCancelled_ ? -1 : settings_.wake, POLLIN, 0},
                                 {control_.number(), POLLIN, 0},
                                 {output_.number(), POLLIN, 0},
                                 {errorOutput_.number(), POLLIN, 0},
                                 {writing == 0 ? -1 : input_.number(), writing, 0}}};
    if (::poll(waits.data(), waits.size(), timeout()) < 0) {
        if (errno == EINTR) return;
        const auto cause = std::generic_category().message(errno);
        control_ = {};  // by which the supervisor knows that it has to end the family
        throw EngineFailure(Reason::lost, "The engine could not be watched (poll: " + cause + ").");
    }
    // What the engine did until this moment is read below: it is not blamed for what else this process was busy with.
    const auto now = Clock::now();
    if (waits[wake].revents != 0) {
        isCancelled_ = true;
        stop();
    }
    if (waits[input].revents != 0) writeRequest();
    // The output first: a notice of the end must not overtake what was said before it.
    if (waits[output].revents != 0) readOutput(listener);
    if (waits[errors].revents != 0) readErrors();
    if (waits[control].revents != 0) readNotices();
    if (deadline_) lookAfterSupervisor();
    if (isStopping_) return;
    checkLimits(now);
    nextReport_ = listener.report(Clock::now());
}

int EngineRun::timeout() const {
    const auto now = Clock::now();
    auto next = deadline_ ? now + lookInterval : lastHeard_ + settings_.silenceLimit;
    if (lastLine_ && !deadline_) next = std::min(next, *lastLine_ + settings_.lingerLimit);
    if (nextReport_ && !isStopping_) next = std::min(next, *nextReport_);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now);
    constexpr std::chrono::milliseconds longest = std::chrono::hours(1);
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), longest).count());
}

void EngineRun::writeRequest() {
    const ssize_t size = ::write(input_.number(), request_.data(), request_.size());
    if (size > 0) request_.remove_prefix(static_cast<std::size_t>(size));
}

void EngineRun::readOutput(EngineListener& listener) {
    const auto bytes = readSome(output_, buffer_);
    if (!bytes) return;
    if (bytes->empty()) {
        output_ = {};
        if (!lastLine_) lastLine_ = Clock::now();
        return;
    }
    if (isStopping_) return;
    count(bytes->size());
    lines_.append(*bytes, [&](std::string_view line) { hear(listener, line); });
}

void EngineRun::readErrors() {
    const auto bytes = readSome(errorOutput_, buffer_);
    if (!bytes) return;
    if (bytes->empty()) {
        errorOutput_ = {};
        return;
    }
    errors_.append(*bytes);
    if (!isStopping_) count(bytes->size());
}

void EngineRun::readNotices() {
    supervisor::Notice notice;
    while (true) {
        const ssize_t size = ::recv(control_.number(), &notice, sizeof notice, 0);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0 && errno == EAGAIN) return;
        if (size != sizeof notice) {
            control_ = {};
            return;
        }
        if (notice.kind == supervisor::Notice::Kind::started) {
            engine_ = notice.value;
        } else {
            end_ = notice;
            expectEnd();
        }
    }
}

void EngineRun::count(std::size_t bytes) {
    outputBytes_ += bytes;
    if (outputBytes_ > settings_.outputLimit) {
        throw EngineFailure(Reason::flooding, "The engine wrote far too much and was stopped.");
    }
}

void EngineRun::hear(EngineListener& listener, std::string_view line) {
    const auto heard = listener.hear(line);
    if (heard == EngineListener::Heard::nothing) return;
    lastHeard_ = Clock::now();
    if (heard == EngineListener::Heard::theLast && !lastLine_) lastLine_ = lastHeard_;
}

void EngineRun::checkLimits(Clock::time_point now) const {
    if (end_) return;
    if (lastLine_ && now >= *lastLine_ + settings_.lingerLimit) {
        throw EngineFailure(Reason::lingering, withTail("The engine had nothing more to say, but did not end within " +
                                                            inSeconds(settings_.lingerLimit) + ", and was stopped",
                                                        errorText()));
    }
    if (now >= lastHeard_ + settings_.silenceLimit) {
        throw EngineFailure(Reason::silent, withTail("The engine reported nothing for " +
                                                         inSeconds(settings_.silenceLimit) + " and was stopped",
                                                     errorText()));
    }
}

void EngineRun::drain(EngineListener& listener) {
    // All writers are gone; what they wrote is in the pipes.
    while (output_.isOpen()) {
        const auto bytes = readSome(output_, buffer_);
        if (!bytes || bytes->empty()) break;
        count(bytes->size());
        lines_.append(*bytes, [&](std::string_view line) { hear(listener, line); });
    }
    lines_.finish([&](std::string_view line) { hear(listener, line); });
    while (errorOutput_.isOpen()) {
        const auto bytes = readSome(errorOutput_, buffer_);
        if (!bytes || bytes->empty()) break;
        errors_.append(*bytes);
        count(bytes->size());
    }
}

void EngineRun::checkEnd() const {
    using Kind = supervisor::Notice::Kind;
    if (isLost_) {
        throw EngineFailure(Reason::lost, withTail("The engine was lost: its supervisor was killed", errorText()));
    }
    switch (end_->kind) {
        case Kind::notStarted: failToStart(settings_.command[0], end_->value);
        case Kind::signalled: {
            const char* name = ::sigdescr_np(end_->value);
            throw EngineFailure(Reason::signalled,
                                withTail("The engine was ended by signal " + std::to_string(end_->value) +
                                             (name != nullptr ? " (" + std::string(name) + ")" : std::string()),
                                         errorText()));
        }
        case Kind::exited:
            if (end_->value == 0) return;
            throw EngineFailure(Reason::exitStatus,
                                withTail("The engine failed with status " + std::to_string(end_->value), errorText()));
        case Kind::started: return;  // never kept as an end
    }
}

void EngineRun::fail() noexcept {
    if (!failure_) failure_ = std::current_exception();
    stop();
}

void EngineRun::stop() noexcept {
    if (isStopping_) return;
    isStopping_ = true;
    expectEnd();
    request_ = {};
    input_ = {};
    if (control_.isOpen()) ::shutdown(control_.number(), SHUT_WR);
}

void EngineRun::expectEnd() noexcept {
    if (!deadline_) deadline_ = Clock::now() + settings_.grace + allowance;
}

// Whatever an engine started may stop its supervisor too, and then nobody would end the family. The supervisor is told
// to go on; one that is stopped again and again is given up.
void EngineRun::lookAfterSupervisor() const noexcept {
    siginfo_t stopped{};
    constexpr int justLook = WSTOPPED | WNOHANG | WNOWAIT;
    if (::waitid(P_PID, static_cast<id_t>(supervisor_), &stopped, justLook) != 0 || stopped.si_pid == 0) return;
    ::kill(supervisor_, Clock::now() < *deadline_ ? SIGCONT : SIGKILL);
}

void EngineRun::awaitEnd() noexcept {
    if (supervisor_ < 0) return;
    int status = 0;
    while (::waitpid(supervisor_, &status, 0) < 0 && errno == EINTR) {
    }
    supervisor_ = -1;
    // A supervisor that was killed could not end the family. The system ends the engine itself then; this is for what
    // it started and did not move away.
    isLost_ = !end_ || WIFSIGNALED(status);
    if (isLost_ && engine_) ::kill(-*engine_, SIGKILL);
}

}  // namespace quillmere
