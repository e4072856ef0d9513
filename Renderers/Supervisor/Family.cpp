#include "Renderers/Supervisor/Family.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere::supervisor {
namespace {

/// One line of the process table.
struct Process {
    pid_t id = 0;
    pid_t parent = 0;
    long long ticks = 0;  ///< Processor time of itself and of the children it waited for.
};

template <class Number>
std::optional<Number> number(std::string_view text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

/// Reads /proc/ID/stat, see proc_pid_stat(5); nothing if there is no such process any more.
std::optional<Process> process(pid_t id) {
    const std::string name = "/proc/" + std::to_string(id) + "/stat";
    const int file = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return std::nullopt;
    std::array<char, 1024> buffer{};
    const ssize_t size = ::read(file, buffer.data(), buffer.size());
    ::close(file);
    if (size <= 0) return std::nullopt;

    // The program's name, the second field, may hold anything, blanks and parentheses too: the fields after it are
    // counted from the last parenthesis, where the third one, the state, begins.
    std::string_view text(buffer.data(), static_cast<std::size_t>(size));
    const auto nameEnd = text.rfind(')');
    if (nameEnd == std::string_view::npos) return std::nullopt;
    text.remove_prefix(nameEnd + 1);
    Process found{id, 0, 0};
    constexpr int parentField = 4, firstTimeField = 14, lastTimeField = 17;
    for (int field = 3; field <= lastTimeField; ++field) {
        const auto begin = text.find_first_not_of(' ');
        if (begin == std::string_view::npos) return std::nullopt;
        text.remove_prefix(begin);
        const auto word = text.substr(0, text.find(' '));
        if (field == parentField) {
            const auto parent = number<pid_t>(word);
            if (!parent) return std::nullopt;
            found.parent = *parent;
        } else if (field >= firstTimeField) {
            found.ticks += number<long long>(word).value_or(0);
        }
        text.remove_prefix(word.size());
    }
    return found;
}

std::vector<Process> allProcesses() {
    std::vector<Process> processes;
    struct Close {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };
    const std::unique_ptr<DIR, Close> folder(::opendir("/proc"));
    if (!folder) return processes;
    while (const dirent* entry = ::readdir(folder.get())) {
        if (const auto id = number<pid_t>(entry->d_name)) {
            if (const auto found = process(*id)) processes.push_back(*found);
        }
    }
    return processes;
}

std::vector<Process> descendants() {
    auto processes = allProcesses();
    std::ranges::sort(processes, {}, &Process::parent);
    std::vector<Process> family;
    const auto addChildren = [&](pid_t parent) {
        const auto children = std::ranges::equal_range(processes, parent, {}, &Process::parent);
        family.insert(family.end(), children.begin(), children.end());
    };
    addChildren(::getpid());
    for (std::size_t next = 0; next < family.size(); ++next) addChildren(family[next].id);
    return family;
}

// The C library's own header for these two (glibc 2.36) does not declare them for C++.
int openHandle(pid_t id) { return static_cast<int>(::syscall(SYS_pidfd_open, id, 0)); }
bool sendSignal(int handle, int number) { return ::syscall(SYS_pidfd_send_signal, handle, number, nullptr, 0) == 0; }

}  // namespace

Family::Sent Family::signal(int number) {
    Sent sent;
    for (const Process& member : descendants()) {
        // The handle names one process for good. If the table, read again, still shows a parent in the family, the
        // handle is the descendant's; if it ended since, the signal goes nowhere, never to a stranger who got
        // its number.
        const int handle = openHandle(member.id);
        if (handle < 0) continue;
        const auto again = process(member.id);
        if (again && (again->parent == member.parent || again->parent == ::getpid())) {
            if (sendSignal(handle, number)) {
                ++sent.reached;
            } else if (errno == EPERM) {
                ++sent.forbidden;
            }
        }
        ::close(handle);
    }
    return sent;
}

std::chrono::nanoseconds Family::processorTime() {
    using namespace std::chrono;
    rusage ended{};
    ::getrusage(RUSAGE_CHILDREN, &ended);
    nanoseconds total = seconds(ended.ru_utime.tv_sec + ended.ru_stime.tv_sec) +
                        microseconds(ended.ru_utime.tv_usec + ended.ru_stime.tv_usec);
    const auto tick = nanoseconds(seconds(1)) / ::sysconf(_SC_CLK_TCK);
    for (const Process& member : descendants()) total += member.ticks * tick;
    return total;
}

}  // namespace quillmere::supervisor
