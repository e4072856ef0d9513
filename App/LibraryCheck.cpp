#include "App/LibraryCheck.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "App/DigestBook.hpp"
#include "App/ManifestFile.hpp"
#include "App/Pieces.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LoopFolder.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere::app {
namespace {

namespace fs = std::filesystem;

using Entries = std::map<std::string, LoopArtifact>;  // by fingerprint

Entries entriesOf(const fs::path& folder) {
    Entries entries;
    for (auto& artifact : readManifest(manifestFile(folder))) {
        auto fingerprint = artifact.id();
        entries.insert_or_assign(std::move(fingerprint), std::move(artifact));
    }
    return entries;
}

// Renderers' working folders with a lock file are their runs' own, or are removed when the library is next written.
bool isWork(const fs::directory_entry& entry) {
    const std::string file = entry.path().filename();
    std::string_view name = file;
    const bool isBeingMade = name.starts_with('.');
    if (isBeingMade) name.remove_prefix(1);
    if (!name.starts_with(LoopFolder::workPrefix)) return false;
    name.remove_prefix(LoopFolder::workPrefix.size());
    return UUID::fromText(name) && (isBeingMade || fileExists(entry.path() / ".lock"));
}

// Whether a file without an entry may get one any moment: the audio is there before the manifest that names it.
bool isOnItsWay(const fs::path& file) {
    constexpr std::chrono::minutes patience{1};
    const auto facts = factsOf(file);
    return facts && std::chrono::system_clock::now() - facts->modified < patience;
}

struct FolderContent {
    std::vector<fs::path> files;
    std::vector<std::string> unreadable;  // a sentence for each folder
};

// Every file in the folder that is none of the library's records, links and others that are no folder included. What
// cannot be looked at is said, and the rest is looked at all the same. Throws `CancellationError` when `stop` asks.
FolderContent contentOf(const fs::path& top, const std::stop_token& stop) {
    FolderContent content;
    std::vector<fs::path> folders{top};
    const auto fail = [&](const fs::path& place, const std::error_code& error) {
        if (!error || error == std::errc::no_such_file_or_directory) return;  // gone by now
        content.unreadable.push_back("\"" + place.string() + "\" cannot be looked at: " + error.message() + ".");
    };
    while (!folders.empty()) {
        const fs::path folder = std::move(folders.back());
        folders.pop_back();
        const bool isTop = folder == top;
        std::error_code error;
        fs::directory_iterator place(folder, error);
        for (; !error && place != fs::directory_iterator(); place.increment(error)) {
            if (stop.stop_requested()) throw CancellationError();
            const auto& entry = *place;
            std::error_code unseen;
            const auto type = entry.symlink_status(unseen).type();
            if (type == fs::file_type::none) {
                fail(entry.path(), unseen);
            } else if (type == fs::file_type::directory) {
                if (!isTop || !isWork(entry)) folders.push_back(entry.path());
            } else if (!isTop || !isLibraryRecord(entry.path().filename().native())) {
                content.files.push_back(entry.path());
            }
        }
        fail(folder, error);
    }
    std::ranges::sort(content.files);
    std::ranges::sort(content.unreadable);
    return content;
}

class UsedPaths {
public:
    explicit UsedPaths(const fs::path& folder) : folder_(folder) {}

    void add(const Entries& entries) {
        for (const auto& [fingerprint, artifact] : entries) {
            const auto file = fileOf(artifact);
            if (!file) continue;
            auto place = standardPath(*file);
            const bool isDirect = place.parent_path() == folder_;
            paths_.insert(place.native());
            if (isDirect) continue;
            // The folder may have been named by another way then.
            std::error_code error;
            const auto real = fs::canonical(place.parent_path(), error);
            if (!error && fs::equivalent(real, folder_, error)) paths_.insert((folder_ / place.filename()).native());
        }
    }

    [[nodiscard]] bool contains(const fs::path& file) const { return paths_.contains(file.native()); }

private:
    fs::path folder_;
    std::unordered_set<std::string> paths_;
};

class Checking {
public:
    Checking(LibraryCheck& result, const fs::path& folder, const std::stop_token& stop)
        : result_(result), digests_(folder), stop_(stop) {
        if (digests_.problem()) result_.unreadable.push_back(*digests_.problem());
    }

    void check(const std::string& fingerprint, const LoopArtifact& artifact) {
        const auto file = fileOf(artifact);
        const auto found = [&](std::vector<LibraryCheck::Finding>& list, const std::string& problem) {
            list.push_back({fingerprint, file ? file->string() : artifact.url.text(), problem});
        };
        if (!file) return found(result_.damaged, "Its address names no file.");
        try {
            AudioFile audio(*file);
            const double seconds = static_cast<double>(audio.frames()) / audio.format().sampleRate;
            const auto digest = AudioPCM::digest(audio, stop_);
            const auto made = digests_.digest(fingerprint);
            if (made && *made != digest) return found(result_.damaged, "Its samples are not those that were made.");
            constexpr double tolerance = 1;
            if (!made && !(std::abs(seconds - artifact.seconds) <= tolerance)) {
                return found(result_.damaged, "Its audio is not as long as the library says.");
            }
            ++(made ? result_.proved : result_.unproved);
        } catch (const FileError& error) {
            const bool isMissing = error.code() == std::errc::no_such_file_or_directory;
            found(isMissing ? result_.missing : result_.damaged, error.what());
        }
    }

private:
    LibraryCheck& result_;
    const DigestBook digests_;
    const std::stop_token stop_;
};

}  // namespace

LibraryCheck LibraryCheck::make(
    const fs::path& folder, const std::stop_token& stop,
    const std::function<void(std::size_t index, std::size_t count, const std::string& fingerprint)>& onPiece) {
    LibraryCheck result;
    auto [files, unreadable] = contentOf(folder, stop);
    result.unreadable = std::move(unreadable);
    Entries entries;
    try {
        entries = entriesOf(folder);
    } catch (const Error& error) {
        result.unreadable.push_back("The manifest \"" + manifestFile(folder).string() +
                                    "\" cannot be read: " + error.what());
        return result;  // nobody knows what the files are for
    }
    Checking checking(result, folder, stop);
    std::size_t index = 0;
    for (const auto& [fingerprint, artifact] : entries) {
        if (stop.stop_requested()) throw CancellationError();
        onPiece(index++, entries.size(), fingerprint);
        checking.check(fingerprint, artifact);
    }

    // Asked before the manifest is read again: where nobody writes, it names by now whatever it ever will.
    const bool isBeingWritten = FolderLock::isHeld(folder / ".lock");
    Entries now;
    try {
        now = entriesOf(folder);
    } catch (const Error&) {
        now = entries;
    }
    const auto isOutdated = [&](const Finding& finding) {
        const auto found = now.find(finding.fingerprint);
        return found == now.end() || found->second != entries.at(finding.fingerprint);
    };
    std::erase_if(result.damaged, isOutdated);
    std::erase_if(result.missing, isOutdated);
    UsedPaths used(standardPath(folder));
    used.add(entries);
    used.add(now);
    for (const auto& file : files) {
        if (stop.stop_requested()) throw CancellationError();
        if (used.contains(file) || !factsOf(file) || (isBeingWritten && isOnItsWay(file))) continue;
        result.unlisted.push_back(file.string());
    }
    if (stop.stop_requested()) throw CancellationError();
    return result;
}

}  // namespace quillmere::app
