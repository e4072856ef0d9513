#include "QuillmereKit/Library/SyncDoubt.hpp"

#include <map>
#include <system_error>
#include <utility>

namespace quillmere {

std::shared_ptr<SyncDoubt> SyncDoubt::of(const std::filesystem::path& folder) {
    // Never destroyed: a store may be opened or closed while the process ends.
    static auto& mutex = *new std::mutex;
    static auto& doubts = *new std::map<std::filesystem::path, std::shared_ptr<SyncDoubt>>;

    std::error_code error;
    auto place = std::filesystem::weakly_canonical(folder, error);
    if (error) place = folder;
    const std::lock_guard lock(mutex);
    std::erase_if(doubts, [](const auto& doubt) { return doubt.second.use_count() == 1 && doubt.second->isNone(); });
    auto& doubt = doubts[std::move(place)];
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
