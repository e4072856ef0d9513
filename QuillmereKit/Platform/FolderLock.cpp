#include "QuillmereKit/Platform/FolderLock.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <compare>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

constexpr std::string_view unknownHolder = "another process";
constexpr std::string_view processWord = ", process ";
constexpr std::size_t longestText = 512;  // no lock file holds more, in bytes

/// What a file is, whatever it is called.
struct FileKey {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    friend auto operator<=>(const FileKey&, const FileKey&) = default;
};

/// The locks that this process holds, and how many handles share each. An operating system's lock lives as long as
/// its descriptor is open; the mutex makes taking and giving back one step each for this process's threads.
struct Registry {
    struct Held {
        Descriptor file;
        int handles = 0;
    };
    std::mutex mutex;
    std::map<FileKey, Held> held;  // guarded by mutex
};

/// Never destroyed: handles in static objects may outlive everything else.
Registry& registry() {
    static auto* const registry = new Registry;
    return *registry;
}

/// A lock that belongs to the open file, not to the process: closing some other descriptor of the file does not
/// free it, and asking about it does not take it.
struct flock wholeFileLock() noexcept {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

std::optional<FileKey> keyAt(const std::filesystem::path& file) noexcept {
    const auto facts = factsOf(file);
    if (!facts || facts->kind != FileFacts::Kind::regular) return std::nullopt;
    return FileKey{facts->device, facts->inode};
}

/// Whether a text can stand before ", process N": not empty, and nothing that would move a terminal's cursor.
bool isPlainName(std::string_view name) noexcept {
    const auto isControl = [](char character) {
        return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
    };
    return !name.empty() && isValidUTF8(name) && std::ranges::none_of(name, isControl);
}

/// What stands before the number in this process's line.
std::string lineBeginning() {
    std::string name = program_invocation_short_name;
    constexpr std::size_t longestName = 200;
    if (name.size() > longestName || !isPlainName(name)) name = "a program";
    return name + std::string(processWord);
}

/// The holder that a lock file's text names, without the line's end: "NAME, process N". Nothing for any other text.
std::optional<std::string_view> holderIn(std::string_view text) noexcept {
    if (text.ends_with('\n')) text.remove_suffix(1);
    const auto number = text.rfind(processWord);
    if (number == std::string_view::npos || !isPlainName(text.substr(0, number))) return std::nullopt;
    const auto digits = text.substr(number + processWord.size());
    if (!std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
    return text;
}

/// Whether a text is one that this library writes into lock files, or what a power cut may leave of it: no byte, or a
/// part of the line, and zeros in place of the rest.
bool isLockText(std::string_view text) {
    text = text.substr(0, text.find_last_not_of('\0') + 1);
    return holderIn(text) || lineBeginning().starts_with(text);
}

/// The content of an open lock file. Throws if it cannot be read, or is longer than any lock file's.
std::string textOf(const Descriptor& file, const std::filesystem::path& shown) {
    std::string text(longestText + 1, '\0');
    text.resize(systemCalls::readUpToAt(file.number(), std::as_writable_bytes(std::span(text)), 0, shown));
    if (text.size() > longestText) throw FileError("lock", shown, FileFault::fileNotOwn);
    return text;
}

/// Throws unless what a path was found to be can be a lock file.
void checkIsRegular(const struct stat& status, const std::filesystem::path& shown) {
    if (!S_ISREG(status.st_mode)) throw FileError("lock", shown, FileFault::fileNotRegular);
}

/// Opens a lock file, or makes it where `makes` says so and nothing stands there; looked at before and after, so that
/// nothing else is ever opened. No descriptor where it came or went in between. Throws `FileError`.
Descriptor openLockFile(const std::filesystem::path& file, bool makes, FileKey& key) {
    struct stat status {};
    const auto error = systemCalls::statusAt(AT_FDCWD, file.c_str(), status);
    const bool isMissing = error == std::errc::no_such_file_or_directory;
    if (error && !(isMissing && makes)) throw FileError("lock", file, error);
    if (!isMissing) checkIsRegular(status, file);

    const int access = makes ? O_RDWR | (isMissing ? O_CREAT | O_EXCL : 0) : O_RDONLY;
    constexpr mode_t mode = 0644;  // others may read who holds it
    Descriptor opened(systemCalls::uninterrupted(
        [&] { return ::open(file.c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode); }));
    if (!opened.isOpen()) {
        const auto openError = systemCalls::lastError();
        // Without its folder, the file cannot be made however often that is tried.
        const bool hasChanged =
            openError == (isMissing ? std::errc::file_exists : std::errc::no_such_file_or_directory);
        if (hasChanged) return {};
        throw FileError("lock", file, openError);
    }
    if (::fstat(opened.number(), &status) != 0) throw FileError("lock", file, systemCalls::lastError());
    checkIsRegular(status, file);
    key = {status.st_dev, status.st_ino};
    return opened;
}

/// Whether another open file than this one holds the lock. Throws `FileError` where the file system cannot tell.
bool isHeldByAnother(const Descriptor& file, const std::filesystem::path& shown) {
    auto wanted = wholeFileLock();
    if (systemCalls::uninterrupted([&] { return ::fcntl(file.number(), F_OFD_GETLK, &wanted); }) != 0) {
        throw FileError("lock", shown, systemCalls::lastError());
    }
    return wanted.l_type != F_UNLCK;
}

/// Whether the lock could be had. Throws `FileError` where it could not for any other cause than that another has it.
bool takesLock(const Descriptor& file, const std::filesystem::path& shown) {
    auto wanted = wholeFileLock();
    if (systemCalls::uninterrupted([&] { return ::fcntl(file.number(), F_OFD_SETLK, &wanted); }) == 0) return true;
    if (errno == EAGAIN || errno == EACCES) return false;
    throw FileError("lock", shown, systemCalls::lastError());
}

/// Whether a lock file has no other name, as one in a copy of the library that was made of hard links has. It can be
/// locked all the same, but what is under the other name is not to be written.
bool hasOneName(const Descriptor& file) noexcept {
    struct stat status {};
    return ::fstat(file.number(), &status) == 0 && status.st_nlink == 1;
}

/// Empties a lock file that holds a text of this library's, and nothing else.
void clear(const Descriptor& file) noexcept {
    try {
        if (!hasOneName(file)) return;
        const auto text = textOf(file, {});
        if (!text.empty() && isLockText(text)) static_cast<void>(::ftruncate(file.number(), 0));
    } catch (const std::exception&) {
        return;  // a holder that is gone may be named; nobody asks for it as long as the lock is free
    }
}

/// Names this process in the lock file. Only for people to read: that it cannot be written changes nothing.
void writeHolder(const Descriptor& file) noexcept {
    try {
        if (!hasOneName(file)) return;
        const std::string text = lineBeginning() + std::to_string(::getpid()) + "\n";
        if (::ftruncate(file.number(), 0) != 0) return;
        systemCalls::writeAllAt(file.number(), std::as_bytes(std::span(text)), 0, {});
    } catch (const std::exception&) {
        clear(file);
    }
}

}  // namespace

LibraryInUse::LibraryInUse(std::filesystem::path folder, std::string holder)
    : Error("The folder \"" + folder.string() + "\" is in use by " + holder + "."),
      folder_(std::move(folder)),
      holder_(std::move(holder)) {}

struct FolderLock::State {
    std::filesystem::path file;
    FileKey key;
    bool isCounted = false;  // among the registry's handles
};

FolderLock::FolderLock(std::unique_ptr<State> state) noexcept : state_(std::move(state)) {}

FolderLock::~FolderLock() {
    if (!state_->isCounted) return;
    const std::lock_guard lock(registry().mutex);
    const auto held = registry().held.find(state_->key);
    if (--held->second.handles > 0) return;
    clear(held->second.file);  // nobody holds it from here on, and the text should not say so
    registry().held.erase(held);
}

std::shared_ptr<FolderLock> FolderLock::acquire(const std::filesystem::path& lockFile) {
    systemCalls::pathText(lockFile, "lock");
    const auto path = std::filesystem::absolute(lockFile);
    const std::lock_guard guard(registry().mutex);

    // The file may be replaced between opening and locking it; then the lock is on a file that nobody finds any more.
    // And who held it may let go before it can be asked who that is.
    constexpr int attempts = 8;
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        FileKey key;
        Descriptor file = openLockFile(path, true, key);
        if (!file.isOpen()) continue;
        // Made before anything is taken: what can fail for want of memory must not leave a lock that nobody has.
        std::shared_ptr<FolderLock> handle(new FolderLock(std::make_unique<State>(State{path, key})));
        auto held = registry().held.find(key);
        if (held == registry().held.end()) {
            if (!takesLock(file, path)) {
                if (attempt < attempts && !isHeldByAnother(file, path)) continue;
                throw LibraryInUse(path.parent_path(), holder(path));
            }
            if (keyAt(path) != key) continue;
            // Whoever put it there: what is not the library's own stays as it is.
            if (!isLockText(textOf(file, path))) throw FileError("lock", path, FileFault::fileNotOwn);
            writeHolder(file);
            held = registry().held.emplace(key, Registry::Held{std::move(file), 0}).first;
        }
        ++held->second.handles;
        handle->state_->isCounted = true;
        return handle;
    }
    throw FileError("lock", path, std::make_error_code(std::errc::resource_unavailable_try_again));
}

std::shared_ptr<FolderLock> FolderLock::tryAcquire(const std::filesystem::path& lockFile) {
    try {
        return acquire(lockFile);
    } catch (const Error&) {
        return nullptr;
    }
}

bool FolderLock::isHeld(const std::filesystem::path& lockFile) noexcept {
    if (lockFile.native().find('\0') != std::string::npos) return false;
    try {
        FileKey key;
        const Descriptor file = openLockFile(lockFile, false, key);
        return !file.isOpen() || isHeldByAnother(file, lockFile) || !isLockText(textOf(file, lockFile));
    } catch (const FileError& error) {
        return error.code() != std::errc::no_such_file_or_directory && error.code() != std::errc::not_a_directory;
    } catch (const std::exception&) {
        return true;
    }
}

std::string FolderLock::holder(const std::filesystem::path& lockFile) {
    try {
        systemCalls::pathText(lockFile, "lock");
        FileKey key;
        const Descriptor file = openLockFile(lockFile, false, key);
        // One with a second name still says who held it when it was given that.
        if (!file.isOpen() || !hasOneName(file)) return std::string(unknownHolder);
        // A line that lost its number ends with a blank, which would stand before a full stop.
        return std::string(trimmed(holderIn(textOf(file, lockFile)).value_or(unknownHolder)));
    } catch (const FileError&) {
        return std::string(unknownHolder);
    }
}

bool FolderLock::isInForce() const noexcept { return keyAt(state_->file) == state_->key; }

}  // namespace quillmere
