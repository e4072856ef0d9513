#include "QuillmereKit/Platform/ReplacedFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <system_error>

#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere::replacedFile {

std::optional<FileFacts> lookAt(const std::filesystem::path& file) {
    struct stat status {};
    const auto error = systemCalls::statusAt(AT_FDCWD, systemCalls::pathText(file, "look at"), status);
    if (error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory) return std::nullopt;
    if (error) throw FileError("look at", file, error);
    return systemCalls::factsFrom(status);
}

std::optional<std::filesystem::path> behindLink(const std::filesystem::path& file) {
    const auto facts = lookAt(file);
    if (!facts || facts->kind != FileFacts::Kind::link) return file;
    std::error_code error;
    auto place = std::filesystem::canonical(file, error);
    if (!error) return place;
    const bool leadsNowhere = error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory ||
                              error == std::errc::too_many_symbolic_link_levels ||
                              error == std::errc::filename_too_long;
    if (leadsNowhere) return std::nullopt;
    throw FileError("follow the link", file, error);
}

std::shared_ptr<FolderLock> acquireLock(const std::filesystem::path& lockFile) {
    constexpr std::array noLocks = {std::errc::function_not_supported, std::errc::operation_not_supported,
                                    std::errc::invalid_argument};
    try {
        return FolderLock::acquire(lockFile);
    } catch (const FileError& error) {
        const bool hasLocks = std::ranges::none_of(noLocks, [&](std::errc none) { return error.code() == none; });
        if (hasLocks) throw;
        return nullptr;
    }
}

std::shared_ptr<FolderLock> lockFor(const std::filesystem::path& file) {
    constexpr std::size_t longestName = 200;  // the name of a file has at most 255 bytes
    return acquireLock(file.parent_path() / ("." + file.stem().native().substr(0, longestName) + ".lock"));
}

bool isForGood(const FileError& error) noexcept {
    return error.code() == make_error_code(FileFault::fileNotRegular) ||
           error.code() == make_error_code(FileFault::fileReadTooLarge);
}

void keep(const std::filesystem::path& file, std::string_view reason, Date now) {
    try {
        keepCopyAside(file, reason, now);
    } catch (const FileError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) throw;
    }
}

}  // namespace quillmere::replacedFile
