#include "Tests/Support/SystemCallFaults.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <string_view>

namespace quillmere::test {
namespace {

SystemCallFaults::Plan plan;
std::atomic<bool> isActive = false;
std::atomic<int> counted = 0;
std::atomic<int> interrupted = 0;
std::atomic<const char*> struckCall = nullptr;

/// Whether this call is the one to fail; sets `errno` then.
bool strikes(const char* call) noexcept {
    if (!isActive || (!plan.call.empty() && plan.call != call)) return false;
    if (++counted != plan.failing) return false;
    struckCall = call;
    errno = plan.error;
    return true;
}

/// Whether this call is interrupted first; sets `errno` then.
bool isInterrupted() noexcept {
    if (!isActive || !plan.interrupts || ++interrupted % 2 == 0) return false;
    errno = EINTR;
    return true;
}

std::size_t shortened(std::size_t size) noexcept { return isActive ? std::min(size, plan.mostBytes) : size; }

/// The C library's own function.
template <typename Function>
Function* real(const char* name) noexcept {
    void* function = dlsym(RTLD_NEXT, name);
    if (function == nullptr) std::abort();
    return reinterpret_cast<Function*>(function);
}

}  // namespace

SystemCallFaults::SystemCallFaults(Plan wanted) {
    plan = std::move(wanted);
    counted = 0;
    interrupted = 0;
    struckCall = nullptr;
    isActive = true;
}

SystemCallFaults::~SystemCallFaults() { isActive = false; }

std::string SystemCallFaults::struck() const {
    const char* call = struckCall;
    return call == nullptr ? "" : call;
}

int SystemCallFaults::count() const { return counted; }

}  // namespace quillmere::test

namespace faults = quillmere::test;

extern "C" {

int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    static auto* const next = faults::real<int(const char*, int, ...)>("open");
    return faults::strikes("open") ? -1 : next(path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    static auto* const next = faults::real<int(int, const char*, int, ...)>("openat");
    return faults::strikes("openat") ? -1 : next(folder, path, flags, mode);
}

ssize_t read(int file, void* bytes, size_t size) {
    static auto* const next = faults::real<ssize_t(int, void*, size_t)>("read");
    if (faults::isInterrupted() || faults::strikes("read")) return -1;
    return next(file, bytes, faults::shortened(size));
}

ssize_t pread(int file, void* bytes, size_t size, off_t offset) {
    static auto* const next = faults::real<ssize_t(int, void*, size_t, off_t)>("pread");
    if (faults::isInterrupted() || faults::strikes("pread")) return -1;
    return next(file, bytes, faults::shortened(size), offset);
}

ssize_t write(int file, const void* bytes, size_t size) {
    static auto* const next = faults::real<ssize_t(int, const void*, size_t)>("write");
    if (faults::isInterrupted() || faults::strikes("write")) return -1;
    return next(file, bytes, faults::shortened(size));
}

ssize_t pwrite(int file, const void* bytes, size_t size, off_t offset) {
    static auto* const next = faults::real<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    if (faults::isInterrupted() || faults::strikes("pwrite")) return -1;
    return next(file, bytes, faults::shortened(size), offset);
}

int fsync(int file) {
    static auto* const next = faults::real<int(int)>("fsync");
    return faults::strikes("fsync") ? -1 : next(file);
}

int close(int file) {
    static auto* const next = faults::real<int(int)>("close");
    const bool fails = faults::strikes("close");
    const int error = errno;
    const int result = next(file);  // as on Linux: closed, whatever close says
    if (!fails) return result;
    errno = error;
    return -1;
}

int fstat(int file, struct stat* status) noexcept {
    static auto* const next = faults::real<int(int, struct stat*)>("fstat");
    return faults::strikes("fstat") ? -1 : next(file, status);
}

int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, struct stat*, int)>("fstatat");
    return faults::strikes("fstatat") ? -1 : next(folder, path, status, flags);
}

int fchmod(int file, mode_t mode) noexcept {
    static auto* const next = faults::real<int(int, mode_t)>("fchmod");
    return faults::strikes("fchmod") ? -1 : next(file, mode);
}

int ftruncate(int file, off_t size) noexcept {
    static auto* const next = faults::real<int(int, off_t)>("ftruncate");
    return faults::strikes("ftruncate") ? -1 : next(file, size);
}

int mkdir(const char* path, mode_t mode) noexcept {
    static auto* const next = faults::real<int(const char*, mode_t)>("mkdir");
    return faults::strikes("mkdir") ? -1 : next(path, mode);
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept {
    static auto* const next = faults::real<int(int, const char*, int, const char*)>("renameat");
    return faults::strikes("renameat") ? -1 : next(fromFolder, from, toFolder, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, int, const char*, unsigned int)>("renameat2");
    return faults::strikes("renameat2") ? -1 : next(fromFolder, from, toFolder, to, flags);
}

int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, int, const char*, int)>("linkat");
    return faults::strikes("linkat") ? -1 : next(fromFolder, from, toFolder, to, flags);
}

int unlinkat(int folder, const char* path, int flags) noexcept {
    static auto* const next = faults::real<int(int, const char*, int)>("unlinkat");
    return faults::strikes("unlinkat") ? -1 : next(folder, path, flags);
}

}  // extern "C"
