#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"

/// What `FileSystem`, `OwnFolder` and the audio files share: plain system calls relative to an open folder, retried
/// when interrupted, their failures thrown as `FileError`. `shown` is the path that the error names. Not part of the
/// library's interface. Thread-safe.
namespace quillmere::systemCalls {

/// What stands before and after the random part of a temporary file's name. It does not hold the target's name, so that
/// a target of the longest possible name can be written too.
inline constexpr std::string_view temporaryPrefix = ".quillmere-";
inline constexpr std::string_view temporarySuffix = ".tmp";
[[nodiscard]] std::string freshTemporaryName();

/// Repeats a system call that answers -1 as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(Call call) noexcept {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

/// The calling thread's `errno` as an error code.
[[nodiscard]] std::error_code lastError() noexcept;

/// The path as the system takes it. Throws where it holds a zero byte, at which the system would cut it off.
const char* pathText(const std::filesystem::path& path, const char* step);

/// A path cut into the folder ("." if it names none) and the last name in it. Throws where that name is no file name:
/// empty, "." or "..".
struct Place {
    std::filesystem::path folder;
    std::string name;
};
[[nodiscard]] Place placeOf(const std::filesystem::path& path, const char* step);

/// Opens a folder; links on the way are followed.
[[nodiscard]] Descriptor openFolder(const std::filesystem::path& folder);

/// Opens the folder `name` in `folder`, never through a link. A failure is an error code and no descriptor.
[[nodiscard]] Descriptor openFolderAt(int folder, const std::string& name, std::error_code& error) noexcept;

/// What `name` in `folder` is, links not followed.
[[nodiscard]] std::error_code statusAt(int folder, const char* name, struct stat& status,
                                       FinalLink link = FinalLink::refused) noexcept;
[[nodiscard]] FileFacts factsFrom(const struct stat& status) noexcept;

/// Opens a regular file for reading; throws `fileNotRegular` for anything else, without waiting for a fifo's writer.
[[nodiscard]] Descriptor openRegularAt(int folder, const char* name, const std::filesystem::path& shown,
                                       FinalLink link = FinalLink::refused);

void writeAll(int file, std::string_view bytes, const std::filesystem::path& shown);
void writeAllAt(int file, std::span<const std::byte> bytes, std::uint64_t offset, const std::filesystem::path& shown);

/// Reads until `bytes` is full or the file ends; returns how many bytes were read.
[[nodiscard]] std::size_t readUpTo(int file, std::span<char> bytes, const std::filesystem::path& shown);
[[nodiscard]] std::size_t readUpToAt(int file, std::span<std::byte> bytes, std::uint64_t offset,
                                     const std::filesystem::path& shown);

/// Writes the rest of one file to the end of another.
void copyAll(int from, const std::filesystem::path& shownFrom, int to, const std::filesystem::path& shownTo);

/// Flushes a file to the disk, once: after a failed sync the system may have dropped what it could not write.
void sync(int file, const std::filesystem::path& shown);

/// Flushes a folder's names to the disk. A file system that cannot do this (it says "invalid" or
/// "not supported") orders names in its own way, and that is taken for success.
void syncFolder(int folder, const std::filesystem::path& shown);

/// Renames, and fails with `std::errc::file_exists` if something stands at the new place.
[[nodiscard]] std::error_code renameWithoutReplacing(int fromFolder, const char* fromName, int toFolder,
                                                     const char* toName) noexcept;

/// The entries of an open folder, without "." and "..". The descriptor stays open.
[[nodiscard]] std::vector<FolderEntry> entries(int folder, const std::filesystem::path& shown);

/// Removes the folder `name` in `folder` with all it holds, following no link, however deep it is. Folders in it that
/// are the user's own, but were made unreadable or unwritable, are made writable first.
void removeFolderAt(int folder, const char* name, const std::filesystem::path& shown);

/// A fresh file under a temporary name in an open folder, removed with the object unless it was given its real name.
class TemporaryFile {
public:
    /// `folder` must stay open as long as the object lives.
    TemporaryFile(int folder, mode_t mode, std::filesystem::path shown);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    [[nodiscard]] int number() const noexcept { return file_.number(); }
    void setPermissions(mode_t mode);

    /// Syncs and closes the file; it cannot be written any more.
    void finish();

    /// Gives the file its real name in the same folder, over what stands there, or only where nothing does.
    void replace(const std::string& name);
    void place(const std::string& name);

private:
    int folder_;
    std::string name_;
    std::filesystem::path shown_;
    Descriptor file_;
};

}  // namespace quillmere::systemCalls
