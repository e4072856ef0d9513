#include "QuillmereKit/Platform/FolderLock.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <compare>
#include <cstdint>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

constexpr std::string_view unknownHolder = "another process";

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

bool isUsablePath(const std::filesystem::path& file) noexcept { return file.native().find('\0') == std::string::npos; }

std::optional<FileKey> keyAt(const std::filesystem::path& file) noexcept {
    const auto facts = factsOf(file);
    if (!facts || facts->kind != FileFacts::Kind::regular) return std::nullopt;
    return FileKey{facts->device, facts->inode};
}

Descriptor openLockFile(const std::filesystem::path& file, int flags, FileKey& key) noexcept {
    constexpr mode_t mode = 0644;  // others may read who holds it
    Descriptor opened(::open(file.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status {};
    if (!opened.isOpen() || ::fstat(opened.number(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    key = {status.st_dev, status.st_ino};
    return opened;
}

/// Names this process in the lock file. Only for people to read: that it cannot be written changes nothing.
void writeHolder(const Descriptor& file) noexcept {
    try {
        const std::string text =
            std::string(program_invocation_short_name) + ", process " + std::to_string(::getpid()) + "\n";
        if (::ftruncate(file.number(), 0) != 0) return;
        systemCalls::writeAllAt(file.number(), std::as_bytes(std::span(text)), 0, {});
    } catch (const std::exception&) {
        return;
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
    // Nobody holds it from here on, and the text should not say so.
    static_cast<void>(::ftruncate(held->second.file.number(), 0));
    registry().held.erase(held);
}

std::shared_ptr<FolderLock> FolderLock::tryAcquire(const std::filesystem::path& lockFile) {
    if (!isUsablePath(lockFile)) return nullptr;
    const auto path = std::filesystem::absolute(lockFile);
    const std::lock_guard lock(registry().mutex);

    // The file may be replaced between opening and locking it; then the lock is on a file that nobody finds any more.
    constexpr int attempts = 8;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        FileKey key;
        Descriptor file = openLockFile(path, O_RDWR | O_CREAT, key);
        if (!file.isOpen()) return nullptr;
        // Made before anything is taken: what can fail for want of memory must not leave a lock that nobody has.
        std::shared_ptr<FolderLock> handle(new FolderLock(std::make_unique<State>(State{path, key})));
        auto held = registry().held.find(key);
        if (held == registry().held.end()) {
            auto wanted = wholeFileLock();
            if (::fcntl(file.number(), F_OFD_SETLK, &wanted) != 0) return nullptr;
            if (keyAt(path) != key) continue;
            writeHolder(file);
            held = registry().held.emplace(key, Registry::Held{std::move(file), 0}).first;
        }
        ++held->second.handles;
        handle->state_->isCounted = true;
        return handle;
    }
    return nullptr;
}

bool FolderLock::isHeld(const std::filesystem::path& lockFile) noexcept {
    if (!isUsablePath(lockFile)) return false;
    FileKey key;
    const Descriptor file = openLockFile(lockFile, O_RDONLY, key);
    if (!file.isOpen()) {
        struct stat status {};
        const auto error = systemCalls::statusAt(AT_FDCWD, lockFile.c_str(), status);
        return error != std::errc::no_such_file_or_directory;
    }
    auto wanted = wholeFileLock();
    if (::fcntl(file.number(), F_OFD_GETLK, &wanted) != 0) return true;
    return wanted.l_type != F_UNLCK;
}

std::string FolderLock::holder(const std::filesystem::path& lockFile) {
    std::string text;
    try {
        constexpr std::size_t limit = 512;
        text = readFile(lockFile, limit);
    } catch (const FileError&) {
        return std::string(unknownHolder);
    }
    std::string name(trimmed(text));
    const auto isControl = [](char character) {
        return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
    };
    if (name.empty() || !isValidUTF8(name) || std::ranges::any_of(name, isControl)) return std::string(unknownHolder);
    return name;
}

bool FolderLock::isInForce() const noexcept { return keyAt(state_->file) == state_->key; }

}  // namespace quillmere
