#include "Tests/Support/SystemCallFaults.hpp"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

namespace quillmere::test {
namespace {

using Kind = RecordedCall::Kind;

SystemCallFaults::Plan plan;
std::atomic<bool> isActive = false;
std::atomic<int> counted = 0;
std::atomic<int> interrupted = 0;
std::atomic<const char*> struckCall = nullptr;
std::atomic<bool> hasStruckARemoval = false;
std::atomic<bool> isSyncingNothing = false;

/// What a plan has in store for one call.
class Fate {
public:
    explicit Fate(const char* call) noexcept {
        if (!isActive || (!plan.call.empty() && plan.call != call)) return;
        const int number = ++counted;
        isStruck_ = number == plan.failing;
        if (!isStruck_ && !(plan.persists && plan.failing > 0 && number > plan.failing)) return;
        if (isStruck_) struckCall = call;
        if (isStruck_ && plan.meanwhile) {
            isActive = false;
            plan.meanwhile();
            isActive = true;
        }
        if (isStruck_ && plan.kills == SystemCallFaults::Plan::Kill::before) ::kill(::getpid(), SIGKILL);
        fails = plan.error != 0 && !(isStruck_ && plan.shortens);
        if (!fails) return;
        const std::string_view name = call;
        if (name == "unlink" || name == "unlinkat") hasStruckARemoval = true;
        errno = plan.error;
    }
    ~Fate() {
        if (isStruck_ && plan.kills == SystemCallFaults::Plan::Kill::after) ::kill(::getpid(), SIGKILL);
    }
    Fate(const Fate&) = delete;
    Fate& operator=(const Fate&) = delete;

    [[nodiscard]] std::size_t shortened(std::size_t size) const noexcept {
        if (isStruck_ && plan.shortens) return std::max<std::size_t>(size / 2, 1);
        return isActive ? std::min(size, plan.mostBytes) : size;
    }

    bool fails = false;  ///< `errno` is set then.

private:
    bool isStruck_ = false;
};

/// Whether this call is interrupted first; sets `errno` then.
bool isInterrupted() noexcept {
    if (!isActive || !plan.interrupts || ++interrupted % 2 == 0) return false;
    errno = EINTR;
    return true;
}

/// The C library's own function.
template <typename Function>
Function* real(const char* name) noexcept {
    void* function = dlsym(RTLD_NEXT, name);
    if (function == nullptr) std::abort();
    return reinterpret_cast<Function*>(function);
}

bool hidesKinds() noexcept { return isActive && plan.hidesKinds; }

bool isRecording() noexcept { return isActive && plan.record != nullptr; }

/// The whole path of a name in an open folder.
std::filesystem::path wholePath(int folder, const char* name) {
    if (name[0] == '/') return name;
    const std::string link = folder == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/" + std::to_string(folder);
    std::array<char, 4096> target;
    static auto* const next = real<ssize_t(const char*, char*, size_t)>("readlink");
    const auto length = next(link.c_str(), target.data(), target.size());
    if (length < 0) return name;
    return std::filesystem::path(std::string_view(target.data(), static_cast<std::size_t>(length))) / name;
}

/// Records a call that succeeded; leaves `errno` alone.
void record(RecordedCall call) {
    const int error = errno;
    static std::mutex mutex;  // a large library's folder is listed by a thread of its own
    const std::lock_guard lock(mutex);
    plan.record->push_back(std::move(call));
    errno = error;
}

}  // namespace

SystemCallFaults::SystemCallFaults(Plan wanted) {
    plan = std::move(wanted);
    counted = 0;
    interrupted = 0;
    struckCall = nullptr;
    hasStruckARemoval = false;
    isActive = true;
}

SystemCallFaults::~SystemCallFaults() { isActive = false; }

std::string SystemCallFaults::struck() const {
    const char* call = struckCall;
    return call == nullptr ? "" : call;
}

bool SystemCallFaults::struckARemoval() const { return hasStruckARemoval; }

int SystemCallFaults::count() const { return counted; }

void SystemCallFaults::syncNothing() { isSyncingNothing = true; }

}  // namespace quillmere::test

namespace faults = quillmere::test;

extern "C" {

int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    static auto* const next = faults::real<int(const char*, int, ...)>("open");
    const faults::Fate fate("open");
    const int result = fate.fails ? -1 : next(path, flags, mode);
    if (result >= 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::open, .descriptor = result, .path = faults::wholePath(AT_FDCWD, path)});
    }
    return result;
}

int openat(int folder, const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    static auto* const next = faults::real<int(int, const char*, int, ...)>("openat");
    const faults::Fate fate("openat");
    const int result = fate.fails ? -1 : next(folder, path, flags, mode);
    if (result >= 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::open, .descriptor = result, .path = faults::wholePath(folder, path)});
    }
    return result;
}

ssize_t read(int file, void* bytes, size_t size) {
    static auto* const next = faults::real<ssize_t(int, void*, size_t)>("read");
    if (faults::isInterrupted()) return -1;
    const faults::Fate fate("read");
    return fate.fails ? -1 : next(file, bytes, fate.shortened(size));
}

ssize_t pread(int file, void* bytes, size_t size, off_t offset) {
    static auto* const next = faults::real<ssize_t(int, void*, size_t, off_t)>("pread");
    if (faults::isInterrupted()) return -1;
    const faults::Fate fate("pread");
    return fate.fails ? -1 : next(file, bytes, fate.shortened(size), offset);
}

ssize_t write(int file, const void* bytes, size_t size) {
    static auto* const next = faults::real<ssize_t(int, const void*, size_t)>("write");
    if (faults::isInterrupted()) return -1;
    const faults::Fate fate("write");
    const off_t offset = faults::isRecording() ? ::lseek(file, 0, SEEK_CUR) : 0;
    const ssize_t result = fate.fails ? -1 : next(file, bytes, fate.shortened(size));
    if (result > 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::write,
                        .descriptor = file,
                        .bytes = std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(result)),
                        .offset = offset});
    }
    return result;
}

ssize_t pwrite(int file, const void* bytes, size_t size, off_t offset) {
    static auto* const next = faults::real<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    if (faults::isInterrupted()) return -1;
    const faults::Fate fate("pwrite");
    const ssize_t result = fate.fails ? -1 : next(file, bytes, fate.shortened(size), offset);
    if (result > 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::write,
                        .descriptor = file,
                        .bytes = std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(result)),
                        .offset = offset});
    }
    return result;
}

int fsync(int file) {
    static auto* const next = faults::real<int(int)>("fsync");
    const faults::Fate fate("fsync");
    int result = -1;
    if (!fate.fails) result = faults::isSyncingNothing ? 0 : next(file);
    if (faults::isRecording()) {
        faults::record({.kind = result == 0 ? faults::Kind::sync : faults::Kind::failedSync, .descriptor = file});
    }
    return result;
}

int close(int file) {
    static auto* const next = faults::real<int(int)>("close");
    const faults::Fate fate("close");
    const int error = errno;
    const int result = next(file);  // as on Linux: closed, whatever close says
    if (faults::isRecording()) faults::record({.kind = faults::Kind::close, .descriptor = file});
    if (!fate.fails) return result;
    errno = error;
    return -1;
}

int stat(const char* path, struct stat* status) noexcept {
    static auto* const next = faults::real<int(const char*, struct stat*)>("stat");
    const faults::Fate fate("stat");
    return fate.fails ? -1 : next(path, status);
}

int lstat(const char* path, struct stat* status) noexcept {
    static auto* const next = faults::real<int(const char*, struct stat*)>("lstat");
    const faults::Fate fate("lstat");
    return fate.fails ? -1 : next(path, status);
}

int fstat(int file, struct stat* status) noexcept {
    static auto* const next = faults::real<int(int, struct stat*)>("fstat");
    const faults::Fate fate("fstat");
    return fate.fails ? -1 : next(file, status);
}

int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, struct stat*, int)>("fstatat");
    const faults::Fate fate("fstatat");
    return fate.fails ? -1 : next(folder, path, status, flags);
}

int fchmod(int file, mode_t mode) noexcept {
    static auto* const next = faults::real<int(int, mode_t)>("fchmod");
    const faults::Fate fate("fchmod");
    return fate.fails ? -1 : next(file, mode);
}

int ftruncate(int file, off_t size) noexcept {
    static auto* const next = faults::real<int(int, off_t)>("ftruncate");
    const faults::Fate fate("ftruncate");
    const int result = fate.fails ? -1 : next(file, size);
    if (result == 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::truncate, .descriptor = file, .offset = size});
    }
    return result;
}

// Of its many commands only those that lock a file are counted.
int fcntl(int file, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    static auto* const next = faults::real<int(int, int, ...)>("fcntl");
    if (command != F_OFD_SETLK && command != F_OFD_GETLK) return next(file, command, argument);
    const faults::Fate fate("fcntl");
    return fate.fails ? -1 : next(file, command, argument);
}

DIR* fdopendir(int folder) {
    static auto* const next = faults::real<DIR*(int)>("fdopendir");
    const faults::Fate fate("fdopendir");
    return fate.fails ? nullptr : next(folder);
}

struct dirent* readdir(DIR* stream) {
    static auto* const next = faults::real<struct dirent*(DIR*)>("readdir");
    const faults::Fate fate("readdir");
    struct dirent* const entry = fate.fails ? nullptr : next(stream);
    if (entry != nullptr && faults::hidesKinds()) entry->d_type = DT_UNKNOWN;
    return entry;
}

ssize_t readlink(const char* path, char* target, size_t size) noexcept {
    static auto* const next = faults::real<ssize_t(const char*, char*, size_t)>("readlink");
    const faults::Fate fate("readlink");
    return fate.fails ? -1 : next(path, target, size);
}

char* realpath(const char* path, char* resolved) noexcept {
    static auto* const next = faults::real<char*(const char*, char*)>("realpath");
    const faults::Fate fate("realpath");
    return fate.fails ? nullptr : next(path, resolved);
}

int mkdir(const char* path, mode_t mode) noexcept {
    static auto* const next = faults::real<int(const char*, mode_t)>("mkdir");
    const faults::Fate fate("mkdir");
    const int result = fate.fails ? -1 : next(path, mode);
    if (result == 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::makeFolder, .path = faults::wholePath(AT_FDCWD, path)});
    }
    return result;
}

int mkdirat(int folder, const char* path, mode_t mode) noexcept {
    static auto* const next = faults::real<int(int, const char*, mode_t)>("mkdirat");
    const faults::Fate fate("mkdirat");
    const int result = fate.fails ? -1 : next(folder, path, mode);
    if (result == 0 && faults::isRecording()) {
        faults::record({.kind = faults::Kind::makeFolder, .path = faults::wholePath(folder, path)});
    }
    return result;
}

static void recordRename(int fromFolder, const char* from, int toFolder, const char* to) {
    if (!faults::isRecording()) return;
    faults::record({.kind = faults::Kind::rename,
                    .path = faults::wholePath(fromFolder, from),
                    .to = faults::wholePath(toFolder, to)});
}

int rename(const char* from, const char* to) noexcept {
    static auto* const next = faults::real<int(const char*, const char*)>("rename");
    const faults::Fate fate("rename");
    const int result = fate.fails ? -1 : next(from, to);
    if (result == 0) recordRename(AT_FDCWD, from, AT_FDCWD, to);
    return result;
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept {
    static auto* const next = faults::real<int(int, const char*, int, const char*)>("renameat");
    const faults::Fate fate("renameat");
    const int result = fate.fails ? -1 : next(fromFolder, from, toFolder, to);
    if (result == 0) recordRename(fromFolder, from, toFolder, to);
    return result;
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, int, const char*, unsigned int)>("renameat2");
    const faults::Fate fate("renameat2");
    const int result = fate.fails ? -1 : next(fromFolder, from, toFolder, to, flags);
    if (result == 0) recordRename(fromFolder, from, toFolder, to);
    return result;
}

static void recordLink(int fromFolder, const char* from, int toFolder, const char* to) {
    if (!faults::isRecording()) return;
    faults::record({.kind = faults::Kind::link,
                    .path = faults::wholePath(fromFolder, from),
                    .to = faults::wholePath(toFolder, to)});
}

int link(const char* from, const char* to) noexcept {
    static auto* const next = faults::real<int(const char*, const char*)>("link");
    const faults::Fate fate("link");
    const int result = fate.fails ? -1 : next(from, to);
    if (result == 0) recordLink(AT_FDCWD, from, AT_FDCWD, to);
    return result;
}

int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, int, const char*, int)>("linkat");
    const faults::Fate fate("linkat");
    const int result = fate.fails ? -1 : next(fromFolder, from, toFolder, to, flags);
    if (result == 0) recordLink(fromFolder, from, toFolder, to);
    return result;
}

static void recordRemoval(int folder, const char* path) {
    if (!faults::isRecording()) return;
    faults::record({.kind = faults::Kind::remove, .path = faults::wholePath(folder, path)});
}

int unlink(const char* path) noexcept {
    static auto* const next = faults::real<int(const char*)>("unlink");
    const faults::Fate fate("unlink");
    const int result = fate.fails ? -1 : next(path);
    if (result == 0) recordRemoval(AT_FDCWD, path);
    return result;
}

int unlinkat(int folder, const char* path, int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, int)>("unlinkat");
    const faults::Fate fate("unlinkat");
    const int result = fate.fails ? -1 : next(folder, path, flags);
    if (result == 0) recordRemoval(folder, path);
    return result;
}

int rmdir(const char* path) noexcept {
    static auto* const next = faults::real<int(const char*)>("rmdir");
    const faults::Fate fate("rmdir");
    const int result = fate.fails ? -1 : next(path);
    if (result == 0) recordRemoval(AT_FDCWD, path);
    return result;
}

}  // extern "C"
