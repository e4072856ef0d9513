#include "QuillmereKit/Platform/SystemCalls.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>

#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere::systemCalls {
namespace {

FileFacts::Kind kindOf(mode_t mode) noexcept {
    if (S_ISREG(mode)) return FileFacts::Kind::regular;
    if (S_ISDIR(mode)) return FileFacts::Kind::folder;
    if (S_ISLNK(mode)) return FileFacts::Kind::link;
    return FileFacts::Kind::other;
}

void unlink(int folder, const char* name, int flags, const std::filesystem::path& shown) {
    if (::unlinkat(folder, name, flags) != 0 && errno != ENOENT) throw FileError("remove", shown, lastError());
}

/// Gives the user back the rights on an own folder that is to be emptied: whoever filled it may have taken them away.
/// Follows no link. Swallows failures, which what comes next meets too.
void makeRemovable(int folder, const char* name) {
    const int asUser = AT_EACCESS | AT_SYMLINK_NOFOLLOW;
    if (::faccessat(folder, name, R_OK | W_OK | X_OK, asUser) == 0 || errno != EACCES) return;
    const Descriptor place(::openat(folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // A folder that may not be read is only to be had as a place, whose rights are changed by a path that leads to it.
    if (place.isOpen()) ::chmod(("/proc/self/fd/" + std::to_string(place.number())).c_str(), S_IRWXU);
}

/// A file's time, which may lie centuries outside what a `Date` can hold: then the nearest that it can.
Date dateFrom(const timespec& time) noexcept {
    using std::chrono::duration_cast;
    using std::chrono::seconds;
    if (time.tv_sec >= duration_cast<seconds>(Date::max().time_since_epoch()).count()) return Date::max();
    if (time.tv_sec <= duration_cast<seconds>(Date::min().time_since_epoch()).count()) return Date::min();
    return Date(duration_cast<Date::duration>(seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec)));
}

}  // namespace

std::string freshTemporaryName() {
    return std::string(temporaryPrefix) + UUID::random().text() + std::string(temporarySuffix);
}

std::error_code lastError() noexcept { return {errno, std::system_category()}; }

const char* pathText(const std::filesystem::path& path, const char* step) {
    if (path.native().find('\0') != std::string::npos) {
        throw FileError(step, path, std::make_error_code(std::errc::invalid_argument));
    }
    return path.c_str();
}

Place placeOf(const std::filesystem::path& path, const char* step) {
    pathText(path, step);
    Place place{path.parent_path(), path.filename()};
    if (place.name.empty() || place.name == "." || place.name == "..") {
        throw FileError(step, path, std::make_error_code(std::errc::invalid_argument));
    }
    if (place.folder.empty()) place.folder = ".";
    return place;
}

Descriptor openFolder(const std::filesystem::path& folder) {
    const char* text = pathText(folder, "open folder");
    Descriptor opened(uninterrupted([&] { return ::open(text, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!opened.isOpen()) throw FileError("open folder", folder, lastError());
    return opened;
}

Descriptor openFolderAt(int folder, const std::string& name, std::error_code& error) noexcept {
    Descriptor opened(
        uninterrupted([&] { return ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    error = opened.isOpen() ? std::error_code{} : lastError();
    return opened;
}

std::error_code statusAt(int folder, const char* name, struct stat& status, FinalLink link) noexcept {
    const int flags = link == FinalLink::followed ? 0 : AT_SYMLINK_NOFOLLOW;
    return ::fstatat(folder, name, &status, flags) == 0 ? std::error_code{} : lastError();
}

FileFacts factsFrom(const struct stat& status) noexcept {
    FileFacts facts;
    facts.kind = kindOf(status.st_mode);
    facts.size = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    facts.modified = dateFrom(status.st_mtim);
    facts.device = status.st_dev;
    facts.inode = status.st_ino;
    return facts;
}

Descriptor openRegularAt(int folder, const char* name, const std::filesystem::path& shown, FinalLink link) {
    // Looked at before it is opened, because opening a device can have effects of its own, and again
    // afterwards, because the name may have changed hands in between.
    struct stat status {};
    if (const auto error = statusAt(folder, name, status, link)) throw FileError("open", shown, error);
    if (!S_ISREG(status.st_mode)) throw FileError("open", shown, FileFault::fileNotRegular);

    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (link == FinalLink::followed ? 0 : O_NOFOLLOW);
    Descriptor opened(uninterrupted([&] { return ::openat(folder, name, flags); }));
    if (!opened.isOpen()) throw FileError("open", shown, lastError());
    if (::fstat(opened.number(), &status) != 0) throw FileError("look at", shown, lastError());
    if (!S_ISREG(status.st_mode)) throw FileError("open", shown, FileFault::fileNotRegular);
    return opened;
}

void writeAll(int file, std::string_view bytes, const std::filesystem::path& shown) {
    while (!bytes.empty()) {
        const auto written = uninterrupted([&] { return ::write(file, bytes.data(), bytes.size()); });
        if (written < 0) throw FileError("write", shown, lastError());
        if (written == 0) throw FileError("write", shown, std::make_error_code(std::errc::io_error));
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void writeAllAt(int file, std::span<const std::byte> bytes, std::uint64_t offset, const std::filesystem::path& shown) {
    while (!bytes.empty()) {
        const auto place = static_cast<off_t>(offset);
        const auto written = uninterrupted([&] { return ::pwrite(file, bytes.data(), bytes.size(), place); });
        if (written < 0) throw FileError("write", shown, lastError());
        if (written == 0) throw FileError("write", shown, std::make_error_code(std::errc::io_error));
        bytes = bytes.subspan(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
}

std::size_t readUpTo(int file, std::span<char> bytes, const std::filesystem::path& shown) {
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto rest = bytes.subspan(filled);
        const auto count = uninterrupted([&] { return ::read(file, rest.data(), rest.size()); });
        if (count < 0) throw FileError("read", shown, lastError());
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

std::size_t readUpToAt(int file, std::span<std::byte> bytes, std::uint64_t offset, const std::filesystem::path& shown) {
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto rest = bytes.subspan(filled);
        const auto place = static_cast<off_t>(offset + filled);
        const auto count = uninterrupted([&] { return ::pread(file, rest.data(), rest.size(), place); });
        if (count < 0) throw FileError("read", shown, lastError());
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

void copyAll(int from, const std::filesystem::path& shownFrom, int to, const std::filesystem::path& shownTo) {
    std::string buffer(std::size_t{256} * 1024, '\0');
    while (const auto count = readUpTo(from, buffer, shownFrom)) {
        writeAll(to, std::string_view(buffer).substr(0, count), shownTo);
    }
}

void sync(int file, const std::filesystem::path& shown) {
    if (::fsync(file) != 0) throw FileError("fsync", shown, lastError());
}

void syncFolder(int folder, const std::filesystem::path& shown) {
    if (::fsync(folder) == 0 || errno == EINVAL || errno == ENOTSUP) return;
    throw FileError("sync folder", shown, lastError());
}

std::error_code renameWithoutReplacing(int fromFolder, const char* fromName, int toFolder,
                                       const char* toName) noexcept {
    if (::renameat2(fromFolder, fromName, toFolder, toName, RENAME_NOREPLACE) == 0) return {};
    if (errno != EINVAL && errno != ENOSYS) return lastError();
    // Not every file system knows the flag. A second name is refused just as surely where one exists; then the
    // first one goes, or, if it cannot, the second.
    if (::linkat(fromFolder, fromName, toFolder, toName, 0) != 0) return lastError();
    if (::unlinkat(fromFolder, fromName, 0) == 0) return {};
    const auto error = lastError();
    ::unlinkat(toFolder, toName, 0);
    return error;
}

std::vector<FolderEntry> entries(int folder, const std::filesystem::path& shown) {
    // The stream reads through a description of its own, so that the caller's can be listed again.
    std::error_code error;
    Descriptor own = openFolderAt(folder, ".", error);
    if (!own.isOpen()) throw FileError("list", shown, error);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(own.number()), ::closedir);
    if (stream == nullptr) throw FileError("list", shown, lastError());
    static_cast<void>(own.release());

    std::vector<FolderEntry> found;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        FileFacts::Kind kind = FileFacts::Kind::other;
        switch (entry->d_type) {
            case DT_REG: kind = FileFacts::Kind::regular; break;
            case DT_DIR: kind = FileFacts::Kind::folder; break;
            case DT_LNK: kind = FileFacts::Kind::link; break;
            case DT_UNKNOWN: {
                struct stat status {};
                const auto failure = statusAt(folder, entry->d_name, status);
                if (failure == std::errc::no_such_file_or_directory) continue;  // gone since
                if (failure) throw FileError("list", shown, failure);
                kind = kindOf(status.st_mode);
                break;
            }
            default: break;
        }
        found.push_back({std::string(name), kind});
    }
    if (errno != 0) throw FileError("list", shown, lastError());
    return found;
}

void removeFolderAt(int folder, const char* name, const std::filesystem::path& shown) {
    std::error_code error;
    makeRemovable(folder, name);
    const Descriptor top = openFolderAt(folder, name, error);
    if (error) throw FileError("remove", shown, error);

    // Folders inside folders are first moved up to the top one. So neither the stack nor the number of open
    // descriptors grows with the depth of what a stranger made.
    for (auto level = entries(top.number(), shown); !level.empty(); level = entries(top.number(), shown)) {
        // The lock file goes last: by it a folder that somebody died over can still be told from one at work.
        const auto isLock = [](const FolderEntry& entry) { return entry.name == ".lock"; };
        const bool isLockAlone = std::ranges::all_of(level, isLock);
        if (isLockAlone) static_cast<void>(::fsync(top.number()));  // or a power cut might bring back all but the lock
        for (const auto& entry : level) {
            if (isLock(entry) && !isLockAlone) continue;
            const auto place = shown / entry.name;
            if (entry.kind != FileFacts::Kind::folder) {
                unlink(top.number(), entry.name.c_str(), 0, place);
                continue;
            }
            makeRemovable(top.number(), entry.name.c_str());
            const Descriptor inner = openFolderAt(top.number(), entry.name, error);
            if (error) throw FileError("remove", place, error);
            for (const auto& below : entries(inner.number(), place)) {
                if (below.kind != FileFacts::Kind::folder) {
                    unlink(inner.number(), below.name.c_str(), 0, place / below.name);
                    continue;
                }
                makeRemovable(inner.number(), below.name.c_str());  // to be moved, a folder must be writable itself
                if (::renameat(inner.number(), below.name.c_str(), top.number(), freshTemporaryName().c_str()) != 0) {
                    throw FileError("remove", place / below.name, lastError());
                }
            }
            unlink(top.number(), entry.name.c_str(), AT_REMOVEDIR, place);
        }
    }
    unlink(folder, name, AT_REMOVEDIR, shown);
}

TemporaryFile::TemporaryFile(int folder, mode_t mode, std::filesystem::path shown)
    : folder_(folder), name_(freshTemporaryName()), shown_(std::move(shown)) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file_ = Descriptor(uninterrupted([&] { return ::openat(folder_, name_.c_str(), flags, mode); }));
    if (!file_.isOpen()) {
        const auto error = lastError();
        name_.clear();
        throw FileError("create", shown_, error);
    }
}

TemporaryFile::~TemporaryFile() {
    if (!name_.empty()) ::unlinkat(folder_, name_.c_str(), 0);
}

void TemporaryFile::setPermissions(mode_t mode) {
    struct stat status {};
    if (::fstat(file_.number(), &status) == 0 && (status.st_mode & 07777) == mode) return;
    if (::fchmod(file_.number(), mode) != 0) throw FileError("set permissions", shown_, lastError());
}

void TemporaryFile::finish() {
    sync(file_.number(), shown_);
    if (const auto error = file_.close()) throw FileError("close", shown_, error);
}

void TemporaryFile::replace(const std::string& name) {
    if (::renameat(folder_, name_.c_str(), folder_, name.c_str()) != 0) throw FileError("rename", shown_, lastError());
    name_.clear();
}

void TemporaryFile::place(const std::string& name) {
    if (const auto error = renameWithoutReplacing(folder_, name_.c_str(), folder_, name.c_str())) {
        throw FileError("rename", shown_, error);
    }
    name_.clear();
}

}  // namespace quillmere::systemCalls
