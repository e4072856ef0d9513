#include "Fuzz/OpenWatch.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <string>

#include "Fuzz/Sandbox.hpp"

namespace {

const std::string* writableFolder = nullptr;  // of the watch that lives

// In place of the C library's functions: what is opened is looked at.
int watchedOpen(int folder, const char* path, int flags, mode_t mode) {
    const auto file = static_cast<int>(::syscall(SYS_openat, folder, path, flags, mode));
    if (file < 0 || writableFolder == nullptr) return file;
    struct stat status {};
    quillmere::fuzz::require(::fstat(file, &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)),
                             "only regular files and folders are opened");
    if ((flags & O_ACCMODE) != O_RDONLY) {
        const auto place = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)).native();
        quillmere::fuzz::require(place.starts_with(*writableFolder), "nothing outside is opened for writing");
    }
    return file;
}

mode_t modeOf(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

}  // namespace

// NOLINTBEGIN(cert-dcl50-cpp): the C library's own signatures
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return watchedOpen(AT_FDCWD, path, flags, mode);
}

extern "C" int openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return watchedOpen(folder, path, flags, mode);
}
// NOLINTEND(cert-dcl50-cpp)

namespace quillmere::fuzz {

OpenWatch::OpenWatch(const std::filesystem::path& writable) : writable_(writable.native() + "/") {
    writableFolder = &writable_;
}

OpenWatch::~OpenWatch() { writableFolder = nullptr; }

}  // namespace quillmere::fuzz
