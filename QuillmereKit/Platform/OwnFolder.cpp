#include "QuillmereKit/Platform/OwnFolder.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <utility>

#include "QuillmereKit/Platform/FileURL.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {
namespace {

std::error_code notOwn() noexcept { return std::make_error_code(std::errc::operation_not_permitted); }

bool isAbsence(const std::error_code& error) noexcept { return error == std::errc::no_such_file_or_directory; }

/// Runs the last step of a change whose result already stands; its failure says so.
void syncAfterTheFact(const Descriptor& folder, const std::filesystem::path& shown) {
    try {
        systemCalls::syncFolder(folder.number(), shown);
    } catch (const FileError& error) {
        throw error.inPlace();
    }
}

}  // namespace

/// A name in an open folder that was reached without a link.
struct OwnFolder::Location {
    Descriptor folder;
    std::string name;
};

OwnFolder::OwnFolder(std::filesystem::path folder)
    : folder_(folder.is_absolute() ? std::move(folder) : std::filesystem::absolute(folder)),
      prefix_(standardPath(folder_).native()) {
    if (!prefix_.ends_with('/')) prefix_ += '/';
}

/// The standard path's part below the folder, if `file` lies there.
std::optional<std::filesystem::path> OwnFolder::restOf(const std::filesystem::path& file) const {
    // A zero byte would end the path for the system, and so make it another file's.
    if (file.native().find('\0') != std::string::npos || !file.is_absolute()) return std::nullopt;
    std::string path = standardPath(file).native();
    if (!path.starts_with(prefix_)) return std::nullopt;
    path.erase(0, prefix_.size());
    while (path.ends_with('/')) path.pop_back();
    if (path.empty()) return std::nullopt;
    return path;
}

/// Walks to the folder that `file` stands in. Nothing, and the reason, where there is no way without a link.
std::optional<OwnFolder::Location> OwnFolder::locate(const std::filesystem::path& file, const char* step,
                                                     std::error_code& error) const {
    const auto rest = restOf(file);
    if (!rest) {
        error = notOwn();
        return std::nullopt;
    }
    Descriptor folder;
    try {
        folder = systemCalls::openFolder(prefix_);
    } catch (const FileError& failure) {
        error = failure.code();
        if (isAbsence(error)) return std::nullopt;
        throw FileError(step, file, error);
    }
    for (const auto& component : rest->parent_path()) {
        folder = systemCalls::openFolderAt(folder.number(), component, error);
        if (!error) continue;
        if (isAbsence(error)) return std::nullopt;
        // The way leads over a link, a file or the like.
        if (error == std::errc::not_a_directory || error == std::errc::too_many_symbolic_link_levels) {
            error = notOwn();
            return std::nullopt;
        }
        throw FileError(step, file, error);
    }
    return Location{std::move(folder), rest->filename()};
}

OwnFolder::Location OwnFolder::located(const std::filesystem::path& file, const char* step) const {
    std::error_code error;
    auto location = locate(file, step, error);
    if (!location) throw FileError(step, file, error);
    return std::move(*location);
}

bool OwnFolder::names(const std::filesystem::path& file) const { return restOf(file).has_value(); }

bool OwnFolder::owns(const std::filesystem::path& file) const noexcept { return facts(file).has_value(); }

std::optional<FileFacts> OwnFolder::facts(const std::filesystem::path& file) const noexcept {
    try {
        std::error_code error;
        const auto location = locate(file, "look at", error);
        if (!location) return std::nullopt;
        struct stat status {};
        error = systemCalls::statusAt(location->folder.number(), location->name.c_str(), status);
        if (error || !S_ISREG(status.st_mode)) return std::nullopt;
        return systemCalls::factsFrom(status);
    } catch (const std::exception&) {
        return std::nullopt;  // what cannot be looked at is not known to be the folder's own
    }
}

Descriptor OwnFolder::open(const std::filesystem::path& file) const {
    const auto location = located(file, "open");
    return systemCalls::openRegularAt(location.folder.number(), location.name.c_str(), file);
}

/// Deletes the folder's own file; where it stood, or nothing if nothing was deleted.
std::optional<OwnFolder::Location> OwnFolder::unlinked(const std::filesystem::path& file) const {
    std::error_code error;
    auto location = locate(file, "remove", error);
    if (!location) return std::nullopt;
    struct stat status {};
    error = systemCalls::statusAt(location->folder.number(), location->name.c_str(), status);
    if (isAbsence(error)) return std::nullopt;
    if (error) throw FileError("look at", file, error);
    if (!S_ISREG(status.st_mode)) return std::nullopt;

    if (::unlinkat(location->folder.number(), location->name.c_str(), 0) != 0) {
        if (errno == ENOENT) return std::nullopt;
        throw FileError("remove", file, systemCalls::lastError());
    }
    return location;
}

bool OwnFolder::remove(const std::filesystem::path& file) const {
    const auto location = unlinked(file);
    if (!location) return false;
    syncAfterTheFact(location->folder, file.parent_path());
    return true;
}

bool OwnFolder::removeUnsynced(const std::filesystem::path& file) const { return unlinked(file).has_value(); }

void OwnFolder::move(const std::filesystem::path& from, const std::filesystem::path& to) const {
    const auto source = located(from, "move");
    const auto target = located(to, "move");
    struct stat status {};
    if (const auto error = systemCalls::statusAt(source.folder.number(), source.name.c_str(), status)) {
        throw FileError("move", from, error);
    }
    if (!S_ISREG(status.st_mode)) throw FileError("move", from, FileFault::fileNotRegular);
    if (const auto error = systemCalls::renameWithoutReplacing(source.folder.number(), source.name.c_str(),
                                                               target.folder.number(), target.name.c_str())) {
        throw FileError("move", error == std::errc::file_exists ? to : from, error);
    }
    syncAfterTheFact(target.folder, to.parent_path());
    syncAfterTheFact(source.folder, from.parent_path());
}

void OwnFolder::rewrite(const std::filesystem::path& file) const {
    const auto location = located(file, "open");
    const Descriptor source = systemCalls::openRegularAt(location.folder.number(), location.name.c_str(), file);
    struct stat before {};
    if (::fstat(source.number(), &before) != 0) throw FileError("look at", file, systemCalls::lastError());

    systemCalls::TemporaryFile temporary(location.folder.number(), 0600, file);
    temporary.setPermissions(before.st_mode & 07777);
    systemCalls::copyAll(source.number(), file, temporary.number(), file);
    temporary.finish();

    struct stat now {};
    const auto error = systemCalls::statusAt(location.folder.number(), location.name.c_str(), now);
    if (error) throw FileError("look at", file, error);
    if (systemCalls::factsFrom(now) != systemCalls::factsFrom(before)) {
        throw FileError("replace", file, std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    temporary.replace(location.name);
    syncAfterTheFact(location.folder, file.parent_path());
}

bool OwnFolder::removeFolder(const std::filesystem::path& folder) const {
    std::error_code error;
    const auto location = locate(folder, "remove", error);
    if (!location) return false;
    struct stat status {};
    error = systemCalls::statusAt(location->folder.number(), location->name.c_str(), status);
    if (isAbsence(error)) return false;
    if (error) throw FileError("look at", folder, error);
    if (!S_ISDIR(status.st_mode)) return false;
    systemCalls::removeFolderAt(location->folder.number(), location->name.c_str(), folder);
    return true;
}

bool OwnFolder::removeEmptyFolder(const std::filesystem::path& folder) const {
    std::error_code error;
    const auto location = locate(folder, "remove", error);
    if (!location) return false;
    if (::unlinkat(location->folder.number(), location->name.c_str(), AT_REMOVEDIR) == 0) return true;
    error = systemCalls::lastError();
    const bool isNoEmptyFolder = isAbsence(error) || error == std::errc::not_a_directory ||
                                 error == std::errc::directory_not_empty || error == std::errc::file_exists;
    if (isNoEmptyFolder) return false;
    throw FileError("remove", folder, error);
}

}  // namespace quillmere
