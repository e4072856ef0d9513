#include "QuillmereKit/Library/SyncDoubt.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace quillmere {
namespace {

/// Which folder it is, whatever it is called: its device, its number there, and, since the number of one that is gone
/// is given to another, when it was made, where the file system tells.
using FolderKey = std::array<std::uint64_t, 5>;

std::optional<FolderKey> keyOf(const std::filesystem::path& folder) noexcept {
    struct statx facts {};
    if (::statx(AT_FDCWD, folder.c_str(), 0, STATX_INO | STATX_BTIME, &facts) != 0) return std::nullopt;
    const bool isTold = (facts.stx_mask & STATX_BTIME) != 0;
    return FolderKey{facts.stx_dev_major, facts.stx_dev_minor, facts.stx_ino,
                     isTold ? static_cast<std::uint64_t>(facts.stx_btime.tv_sec) : 0,
                     isTold ? facts.stx_btime.tv_nsec : 0};
}

}  // namespace

std::shared_ptr<SyncDoubt> SyncDoubt::of(const std::filesystem::path& folder) {
    // Never destroyed: a store may be opened or closed while the process ends.
    static auto& mutex = *new std::mutex;
    static auto& doubts = *new std::map<FolderKey, std::shared_ptr<SyncDoubt>>;

    const auto key = keyOf(folder);
    if (!key) return std::make_shared<SyncDoubt>();
    const std::lock_guard lock(mutex);
    std::erase_if(doubts, [](const auto& doubt) { return doubt.second.use_count() == 1 && doubt.second->isNone(); });
    auto& doubt = doubts[*key];
    if (!doubt) doubt = std::make_shared<SyncDoubt>();
    return doubt;
}

SyncDoubt::Reach SyncDoubt::reachOfFile(const std::filesystem::path& file) {
    auto reach = reachOfFolder(file.parent_path());
    reach.files.insert(file);
    return reach;
}

SyncDoubt::Reach SyncDoubt::reachOfFolder(const std::filesystem::path& folder) {
    Reach reach{{}, {"."}};
    for (auto place = folder; !place.empty(); place = place.parent_path()) reach.folders.insert(place);
    return reach;
}

bool SyncDoubt::isOf(const std::filesystem::path& file) const {
    const auto folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    const std::lock_guard lock(mutex_);
    return reach_.files.contains(file) || (reach_.folders.contains(folder) && !forgotten_.contains(file));
}

void SyncDoubt::remember(Reach reach, const FileError& failure) noexcept {
    const bool isOfFolder = failure.step() == "sync folder";
    if (!isOfFolder && failure.step() != "fsync") return;
    const std::lock_guard lock(mutex_);
    reach_.files.merge(reach.files);
    if (!isOfFolder) return;
    reach_.folders.merge(reach.folders);
    forgotten_.clear();
}

void SyncDoubt::takeIn(const SyncDoubt& other) {
    if (&other == this) return;
    auto theirs = [&] {
        const std::lock_guard lock(other.mutex_);
        return other.reach_;
    }();
    const std::lock_guard lock(mutex_);
    if (!theirs.folders.empty()) forgotten_.clear();
    reach_.files.merge(theirs.files);
    reach_.folders.merge(theirs.folders);
}

void SyncDoubt::forget(std::set<std::filesystem::path> files) noexcept {
    const std::lock_guard lock(mutex_);
    for (const auto& file : files) reach_.files.erase(file);
    if (!reach_.folders.empty()) forgotten_.merge(files);
}

bool SyncDoubt::isNone() const {
    const std::lock_guard lock(mutex_);
    return reach_.files.empty() && reach_.folders.empty();
}

}  // namespace quillmere
