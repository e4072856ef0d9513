#include "Renderers/RenderFolder.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "QuillmereKit/Library/SyncDoubt.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "Renderers/EngineFailure.hpp"

namespace quillmere {
namespace {

constexpr std::string_view namePrefix = "Render-";
/// A folder in the making: its lock may not be taken yet, so nobody may call it a dead run's by the name above.
constexpr std::string_view makingPrefix = ".Render-";
constexpr const char* lockName = ".lock";

[[noreturn]] void refuse(const std::string& what) {
    throw EngineFailure(EngineFailure::Reason::refusedFile, "The engine named a file that " + what + ".");
}

bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

struct stat statusOf(const Descriptor& file, const std::filesystem::path& shown) {
    struct stat status {};
    if (::fstat(file.number(), &status) != 0) throw FileError("look at", shown, systemCalls::lastError());
    return status;
}

/// Where an open folder lies now, whoever has moved it.
std::optional<std::filesystem::path> presentPath(const Descriptor& folder) {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(folder.number()), error);
    if (error) return std::nullopt;
    return path;
}

// Removes a folder whose lock nobody holds. Whoever made it and is only about to take the lock finds it taken, and then
// no such folder: it is given another name before its lock file goes. Swallows failures, so that one folder that cannot
// be removed does not keep the others.
void removeLeftover(const Descriptor& store, const std::filesystem::path& leftover) noexcept {
    try {
        const auto lockFile = leftover / lockName;
        if (FolderLock::isHeld(lockFile)) return;
        const auto lock = FolderLock::tryAcquire(lockFile);
        if (lock == nullptr) return;
        const std::string doomed = std::string(makingPrefix) + UUID::random().text();
        const auto error = systemCalls::renameWithoutReplacing(store.number(), leftover.filename().c_str(),
                                                               store.number(), doomed.c_str());
        if (!error) systemCalls::removeFolderAt(store.number(), doomed.c_str(), leftover);
    } catch (const std::exception&) {
        return;
    }
}

// Among the threads of one process a lock is shared, and keeps nobody out: folders are made and cleaned up in turns.
std::mutex& making() {
    static auto& mutex = *new std::mutex;  // never destroyed: a render may end while the process does
    return mutex;
}

}  // namespace

RenderFolder::RenderFolder(const std::filesystem::path& store)
    : store_(systemCalls::openFolder(store)), doubt_(SyncDoubt::of(store)) {
    for (auto& spare : spare_) {
        spare = Descriptor(::fcntl(store_.number(), F_DUPFD_CLOEXEC, 0));
        if (!spare.isOpen()) throw FileError("open folder", store, systemCalls::lastError());
    }
    // Another process may take the folder for a leftover as long as its lock is not held; then another one is made.
    const std::lock_guard turn(making());
    constexpr int attempts = 8;
    for (int attempt = 1;; ++attempt) {
        const std::string id = UUID::random().text();
        const std::string making = std::string(makingPrefix) + id;
        const std::string name = std::string(namePrefix) + id;
        const auto giveUp = [&](const char* step, std::error_code error) {
            if (folder_.isOpen()) static_cast<void>(::unlinkat(folder_.number(), lockName, 0));
            static_cast<void>(::unlinkat(store_.number(), making.c_str(), AT_REMOVEDIR));
            const bool wasTaken =
                error == std::errc::no_such_file_or_directory || error == std::errc::device_or_resource_busy;
            if (!wasTaken || attempt == attempts) throw FileError(step, store / making, error);
        };
        constexpr mode_t mode = 0700;
        if (::mkdirat(store_.number(), making.c_str(), mode) != 0) {
            throw FileError("create folder", store / making, systemCalls::lastError());
        }
        std::error_code error;
        folder_ = systemCalls::openFolderAt(store_.number(), making, error);
        if (error) {
            giveUp("open folder", error);
            continue;
        }
        try {
            lock_ = FolderLock::acquire(store / making / lockName);
        } catch (const LibraryInUse&) {
            giveUp("lock", std::make_error_code(std::errc::device_or_resource_busy));
            continue;
        } catch (const FileError& failure) {
            giveUp("lock", failure.code());
            continue;
        }
        error = systemCalls::renameWithoutReplacing(store_.number(), making.c_str(), store_.number(), name.c_str());
        if (error) {
            giveUp("rename", error);
            continue;
        }
        path_ = std::filesystem::absolute(store) / name;
        return;
    }
}

RenderFolder::~RenderFolder() {
    try {
        spare_ = {};
        const auto path = presentPath(folder_).value_or(path_);
        Descriptor elsewhere;
        if (path.parent_path() != presentPath(store_)) elsewhere = systemCalls::openFolder(path.parent_path());
        const Descriptor& parent = elsewhere.isOpen() ? elsewhere : store_;
        struct stat present {};
        const std::string name = path.filename().string();
        if (systemCalls::statusAt(parent.number(), name.c_str(), present)) return;  // an engine removed it
        if (!isSameFile(present, statusOf(folder_, path))) return;
        folder_ = {};
        systemCalls::removeFolderAt(parent.number(), name.c_str(), path);
    } catch (const std::exception&) {
        // Nobody could act on it. What is left is a dead run's, and removed at the next start.
        return;
    }
}

Descriptor RenderFolder::open(const std::string& name) const {
    auto file = openIfPresent(name);
    if (!file) refuse("does not exist");
    return std::move(*file);
}

std::optional<Descriptor> RenderFolder::openIfPresent(const std::string& name) const {
    const bool isPlain = !name.empty() && name != "." && name != ".." &&
                         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
    if (!isPlain) refuse("lies outside its working folder");
    try {
        auto file = systemCalls::openRegularAt(folder_.number(), name.c_str(), path_ / name);
        if (statusOf(file, path_ / name).st_nlink > 1) refuse("has another name elsewhere");
        return file;
    } catch (const FileError& error) {
        const auto& code = error.code();
        if (code == std::errc::no_such_file_or_directory || code == std::errc::filename_too_long) return std::nullopt;
        if (code == std::errc::too_many_symbolic_link_levels) refuse("is a link");
        if (code == FileFault::fileNotRegular) refuse("is a link, a folder or a device");
        throw;
    }
}

bool RenderFolder::moveOut(const std::string& name, const Descriptor& file, const std::string& newName) const {
    const auto from = path_ / name;
    systemCalls::sync(file.number(), from);
    struct stat present {};
    const auto unseen = systemCalls::statusAt(folder_.number(), name.c_str(), present);
    if (unseen && unseen != std::errc::no_such_file_or_directory) throw FileError("look at", from, unseen);
    if (unseen || !isSameFile(present, statusOf(file, from))) refuse("was replaced while it was being checked");
    auto allNames = SyncDoubt::reachOfFolder({});
    const auto error =
        systemCalls::renameWithoutReplacing(folder_.number(), name.c_str(), store_.number(), newName.c_str());
    if (error == std::errc::file_exists) return false;
    if (error) throw FileError("rename", from, error);
    try {
        systemCalls::syncFolder(store_.number(), path_.parent_path());
    } catch (const FileError& failure) {
        doubt_->remember(std::move(allNames), failure);
        // Not known to survive a power cut, so it is not delivered; in the library it would be nobody's.
        static_cast<void>(::unlinkat(store_.number(), newName.c_str(), 0));
        throw;
    }
    return true;
}

void RenderFolder::removeLeftovers(const std::filesystem::path& store) noexcept {
    try {
        const std::lock_guard turn(making());
        const auto folder = systemCalls::openFolder(store);
        for (const auto& entry : systemCalls::entries(folder.number(), store)) {
            if (entry.kind != FileFacts::Kind::folder || !entry.name.starts_with(makingPrefix)) continue;
            if (!UUID::fromText(std::string_view(entry.name).substr(makingPrefix.size()))) continue;
            removeLeftover(folder, store / entry.name);
        }
    } catch (const std::exception&) {
        return;
    }
}

}  // namespace quillmere
