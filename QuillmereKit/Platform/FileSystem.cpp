#include "QuillmereKit/Platform/FileSystem.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <string>

#include "QuillmereKit/Platform/HugePages.hpp"
#include "QuillmereKit/Platform/PageAligned.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere {
namespace {

using systemCalls::lastError;
using systemCalls::placeOf;

constexpr mode_t newFileMode = 0644;
constexpr mode_t newFolderMode = 0700;
constexpr std::size_t keptCopies = 3;

/// Runs the last step of a change whose result already stands; its failure says so.
template <typename Step>
void afterTheFact(Step step) {
    try {
        step();
    } catch (const FileError& error) {
        throw error.inPlace();
    }
}

/// The parts of "manifest.unreadable-2024-05-01T10-20-30Z-2.json" that are not the stamp and the number.
struct AsideName {
    std::string before;  ///< "manifest.unreadable-"
    std::string after;   ///< ".json"

    AsideName(const std::filesystem::path& file, std::string_view reason)
        : before(file.stem().native() + "." + std::string(reason) + "-"), after(file.extension().native()) {}

    [[nodiscard]] std::string with(std::string_view stamp, std::int64_t number) const {
        return before + std::string(stamp) + (number > 1 ? "-" + std::to_string(number) : "") + after;
    }

    struct Age {
        std::string stamp;
        std::int64_t number = 1;
        friend auto operator<=>(const Age&, const Age&) = default;
    };

    /// When a name of this form was given, or nothing for any other name.
    [[nodiscard]] std::optional<Age> ageOf(std::string_view name) const {
        constexpr std::string_view form = "0000-00-00T00-00-00Z";
        if (name.size() < before.size() + form.size() + after.size()) return std::nullopt;
        if (!name.starts_with(before) || !name.ends_with(after)) return std::nullopt;
        name.remove_prefix(before.size());
        name.remove_suffix(after.size());
        const auto stamp = name.substr(0, form.size());
        const auto fits = [](char is, char should) { return should == '0' ? is >= '0' && is <= '9' : is == should; };
        if (!std::ranges::equal(stamp, form, fits)) return std::nullopt;
        name.remove_prefix(form.size());
        if (name.empty()) return Age{std::string(stamp), 1};
        if (!name.starts_with('-')) return std::nullopt;
        const auto number = decimalInteger(name.substr(1));
        constexpr std::int64_t mostNumber = 1'000'000'000;
        if (!number || *number > mostNumber) return std::nullopt;
        return Age{std::string(stamp), *number};
    }
};

std::string fileNameStamp(Date now) {
    std::string stamp = iso8601(now);
    std::ranges::replace(stamp, ':', '-');  // some file systems take no colon
    return stamp;
}

/// Calls `put` with one path after the other until one is free. The numbers of one stamp only rise, also
/// past those of copies that are gone, so that they tell which is newer.
std::filesystem::path putAside(const std::filesystem::path& file, std::string_view reason, Date now,
                               const std::function<void(const std::filesystem::path&)>& put) {
    const auto place = placeOf(file, "keep aside");
    const AsideName form(place.name, reason);
    const auto stamp = fileNameStamp(now);
    std::int64_t number = 1;
    for (const auto& entry : listFolder(place.folder)) {
        const auto age = form.ageOf(entry.name);
        if (age && age->stamp == stamp) number = std::max(number, age->number + 1);
    }
    for (int attempts = 1;; ++attempts, ++number) {
        const auto aside = file.parent_path() / form.with(stamp, number);
        try {
            put(aside);
            return aside;
        } catch (const FileError& error) {
            constexpr int mostAttempts = 100;
            if (error.code() != std::errc::file_exists || attempts == mostAttempts) throw;
        }
    }
}

/// Leaves the newest copies, `newest` among them whatever its stamp says: the clock may have been set back.
void removeOldCopies(const std::filesystem::path& file, std::string_view reason, const std::filesystem::path& newest) {
    const auto place = placeOf(file, "keep aside");
    const AsideName form(place.name, reason);
    struct Copy {
        AsideName::Age age;
        std::string name;
    };
    std::vector<Copy> copies;
    for (const auto& entry : listFolder(place.folder)) {
        const auto age = form.ageOf(entry.name);
        if (!age || entry.kind != FileFacts::Kind::regular || entry.name == newest.filename()) continue;
        copies.push_back({*age, entry.name});
    }
    std::ranges::sort(copies, std::ranges::greater{}, &Copy::age);
    for (std::size_t index = keptCopies - 1; index < copies.size(); ++index) {
        removeFile(place.folder / copies[index].name);
    }
}

}  // namespace

void writeDurably(const std::filesystem::path& file, std::string_view bytes) {
    const auto place = placeOf(file, "create");
    const Descriptor folder = systemCalls::openFolder(place.folder);

    struct stat old {};
    const auto error = systemCalls::statusAt(folder.number(), place.name.c_str(), old);
    if (error && error != std::errc::no_such_file_or_directory) throw FileError("look at", file, error);
    const bool replaces = !error;
    if (replaces && !S_ISREG(old.st_mode)) throw FileError("replace", file, FileFault::fileNotRegular);

    // Made readable for nobody else until it has the bits of the file it replaces.
    systemCalls::TemporaryFile temporary(folder.number(), replaces ? 0600 : newFileMode, file);
    if (replaces) temporary.setPermissions(old.st_mode & 07777);
    systemCalls::writeAll(temporary.number(), bytes, file);
    temporary.finish();
    temporary.replace(place.name);
    afterTheFact([&] { systemCalls::syncFolder(folder.number(), place.folder); });
}

bool isTemporaryFileName(std::string_view name) noexcept {
    if (!name.starts_with(systemCalls::temporaryPrefix) || !name.ends_with(systemCalls::temporarySuffix)) return false;
    if (name.size() < systemCalls::temporaryPrefix.size() + systemCalls::temporarySuffix.size()) return false;
    name.remove_prefix(systemCalls::temporaryPrefix.size());
    name.remove_suffix(systemCalls::temporarySuffix.size());
    return UUID::fromText(name).has_value();
}

void removeOldTemporaries(const std::filesystem::path& folder) noexcept {
    constexpr std::chrono::hours old(1);
    try {
        for (const auto& entry : listFolder(folder)) {
            if (entry.kind != FileFacts::Kind::regular || !isTemporaryFileName(entry.name)) continue;
            const auto facts = factsOf(folder / entry.name);
            if (facts && facts->modified < std::chrono::system_clock::now() - old) removeFile(folder / entry.name);
        }
    } catch (const std::exception&) {
        return;  // the next start tries again
    }
}

Descriptor openRegularFile(const std::filesystem::path& file, FinalLink link) {
    return systemCalls::openRegularAt(AT_FDCWD, systemCalls::pathText(file, "open"), file, link);
}

std::string readFile(const std::filesystem::path& file, std::size_t limit, FinalLink link) {
    const Descriptor opened = openRegularFile(file, link);
    struct stat status {};
    if (::fstat(opened.number(), &status) != 0) throw FileError("look at", file, lastError());
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > limit) throw FileError("read", file, FileFault::fileReadTooLarge);

    // With room for what parsers like to read beyond the end; with less than `JSONDocument::roomBehind`, every text
    // would be copied to be parsed.
    constexpr std::size_t roomBehind = 64;
    std::string content;
    content.reserve(static_cast<std::size_t>(size) + roomBehind);
    preferHugePages(content.data(), content.capacity());
    // The size is only a guess: the file may be growing.
    constexpr std::uint64_t longestPiece = std::uint64_t{1} << 16;
    PageAligned<char> piece(static_cast<std::size_t>(std::min(size + 1, longestPiece)));
    for (;;) {
        const auto count = systemCalls::readUpTo(opened.number(), piece, file);
        if (count > limit - content.size()) throw FileError("read", file, FileFault::fileReadTooLarge);
        content.append(piece.data(), count);
        if (count < piece.size()) return content;
    }
}

std::optional<std::string> readFileIfPresent(const std::filesystem::path& file, std::size_t limit) {
    try {
        return readFile(file, limit);
    } catch (const FileError& error) {
        if (error.code() == std::errc::no_such_file_or_directory) return std::nullopt;
        throw;
    }
}

void createFolders(const std::filesystem::path& folder) {
    const auto path = folder.has_filename() ? folder : folder.parent_path();  // "a/b/" names "a/b"
    const char* text = systemCalls::pathText(path, "create folder");
    if (path.empty()) throw FileError("create folder", folder, std::make_error_code(std::errc::invalid_argument));
    struct stat status {};
    if (::stat(text, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return;
        throw FileError("create folder", folder, std::make_error_code(std::errc::not_a_directory));
    }
    if (errno != ENOENT) throw FileError("create folder", folder, lastError());

    auto parent = path.parent_path();
    if (parent.empty()) parent = ".";
    if (parent != path) createFolders(parent);
    const bool isMade = ::mkdir(text, newFolderMode) == 0;
    if (!isMade) {
        const auto error = lastError();
        const bool isThereByNow = ::stat(text, &status) == 0 && S_ISDIR(status.st_mode);
        if (!isThereByNow) throw FileError("create folder", folder, error);
    }
    try {
        syncFolder(parent);
    } catch (const FileError&) {
        // Whoever finds it next takes it for one that is safe.
        if (isMade) ::rmdir(text);
        throw;
    }
}

std::optional<FileFacts> factsOf(const std::filesystem::path& path) noexcept {
    struct stat status {};
    if (path.native().find('\0') != std::string::npos) return std::nullopt;
    if (systemCalls::statusAt(AT_FDCWD, path.c_str(), status)) return std::nullopt;
    return systemCalls::factsFrom(status);
}

bool fileExists(const std::filesystem::path& path) noexcept {
    struct stat status {};
    if (path.native().find('\0') != std::string::npos) return false;
    return ::stat(path.c_str(), &status) == 0;
}

std::vector<FolderEntry> listFolder(const std::filesystem::path& folder) {
    const Descriptor opened = systemCalls::openFolder(folder);
    return systemCalls::entries(opened.number(), folder);
}

void syncFile(const std::filesystem::path& file) { systemCalls::sync(openRegularFile(file).number(), file); }

void syncFolder(const std::filesystem::path& folder) {
    systemCalls::syncFolder(systemCalls::openFolder(folder).number(), folder);
}

void moveFile(const std::filesystem::path& from, const std::filesystem::path& to) {
    const auto source = placeOf(from, "move");
    const auto target = placeOf(to, "move");
    const Descriptor sourceFolder = systemCalls::openFolder(source.folder);
    const Descriptor targetFolder = systemCalls::openFolder(target.folder);
    if (const auto error = systemCalls::renameWithoutReplacing(sourceFolder.number(), source.name.c_str(),
                                                               targetFolder.number(), target.name.c_str())) {
        throw FileError("move", error == std::errc::file_exists ? to : from, error);
    }
    afterTheFact([&] {
        systemCalls::syncFolder(targetFolder.number(), target.folder);
        systemCalls::syncFolder(sourceFolder.number(), source.folder);
    });
}

void copyFile(const std::filesystem::path& from, const std::filesystem::path& to) {
    const auto target = placeOf(to, "create");
    const Descriptor source = openRegularFile(from);
    const Descriptor folder = systemCalls::openFolder(target.folder);
    struct stat status {};
    if (!systemCalls::statusAt(folder.number(), target.name.c_str(), status)) {
        throw FileError("create", to, std::make_error_code(std::errc::file_exists));
    }
    systemCalls::TemporaryFile temporary(folder.number(), newFileMode, to);
    systemCalls::copyAll(source.number(), from, temporary.number(), to);
    temporary.finish();
    temporary.place(target.name);
    afterTheFact([&] { systemCalls::syncFolder(folder.number(), target.folder); });
}

bool removeFile(const std::filesystem::path& file) {
    if (::unlinkat(AT_FDCWD, systemCalls::pathText(file, "remove"), 0) == 0) return true;
    if (errno == ENOENT || errno == ENOTDIR) return false;
    throw FileError("remove", file, lastError());
}

bool removeFolder(const std::filesystem::path& folder) {
    const auto path = folder.has_filename() ? folder : folder.parent_path();
    const char* text = systemCalls::pathText(path, "remove");
    struct stat status {};
    if (const auto error = systemCalls::statusAt(AT_FDCWD, text, status)) {
        if (error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory) return false;
        throw FileError("remove", folder, error);
    }
    systemCalls::removeFolderAt(AT_FDCWD, text, path);
    return true;
}

std::filesystem::path keepCopyAside(const std::filesystem::path& file, std::string_view reason, Date now) {
    const auto copy = putAside(file, reason, now, [&](const auto& aside) {
        try {
            copyFile(file, aside);
        } catch (const FileError& error) {
            // Who tries again makes another: what may be gone tomorrow must not push out the copies that count.
            if (error.isInPlace() && ::unlinkat(AT_FDCWD, aside.c_str(), 0) == 0) throw error.notInPlace();
            throw;
        }
    });
    try {
        removeOldCopies(file, reason, copy);
    } catch (const FileError&) {
        // One copy too many harms nobody; the next call tries again.
    }
    return copy;
}

std::filesystem::path moveAside(
    const std::filesystem::path& file, std::string_view reason, Date now,
    const std::function<void(const std::filesystem::path& from, const std::filesystem::path& to)>& move) {
    return putAside(file, reason, now, [&](const auto& aside) { move(file, aside); });
}

}  // namespace quillmere
