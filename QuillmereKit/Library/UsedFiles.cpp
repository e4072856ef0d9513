#include "QuillmereKit/Library/UsedFiles.hpp"

#include <algorithm>

#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere {
namespace {

// Whether a standard path lies below a folder's, by text alone; no folder has an empty path.
bool isBelow(const std::filesystem::path& folder, const std::filesystem::path& place) {
    return !folder.empty() && place.native().starts_with(folder.native() + "/");
}

// Whether a link lies on a path, as far as that can be looked at.
bool goesThroughALink(const std::filesystem::path& file) {
    std::filesystem::path place;
    for (const auto& component : file) {
        place /= component;
        std::error_code error;
        const auto type = std::filesystem::symlink_status(place, error).type();
        if (type == std::filesystem::file_type::symlink) return true;
        if (error) return false;
    }
    return false;
}

}  // namespace

UsedFiles::UsedFiles(const LoopFolder& folder) : folder_(folder) {
    realFolder_ = std::filesystem::canonical(folder.path(), folderError_);
    if (LoopFolder::meansNoFile(folderError_)) folderError_.clear();
}

void UsedFiles::add(const StoredLoop& loop) {
    if (loop.isPlain) {
        names_.insert(*folder_.plainName(loop.url));
        return;
    }
    const auto file = LoopFolder::fileOf(loop.url);
    if (!file) return;
    const auto place = standardPath(*file);
    paths_.insert(place.native());
    // Without the folder that it only leads through the path would lead nowhere. Which one that is is not asked: of a
    // stranger's manifest the answer could take any time, and any memory.
    const auto leadsOut = [](const auto& component) { return component.native() == ".."; };
    if (std::any_of(file->begin(), file->end(), leadsOut)) hasDetours_ = true;
    if (folderError_ && !doubt_) doubt_.emplace("look at", folder_.path(), folderError_);
    std::error_code error;
    const auto real = std::filesystem::canonical(*file, error);
    if (!error) {
        paths_.insert(real.native());
    } else if (!doubt_ && !LoopFolder::meansNoFile(error)) {
        if (isBelow(realFolder_, place) || folder_.names(place) || goesThroughALink(*file)) {
            doubt_.emplace("look at", *file, error);
        }
    }
}

bool UsedFiles::contains(const std::filesystem::path& file) const {
    if (file.parent_path() == folder_.path() && names_.contains(file.filename().native())) return true;
    return paths_.contains(file.native()) || paths_.contains(realPlace(file).native());
}

bool UsedFiles::containsBelow(const std::filesystem::path& inner) const {
    return hasDetours_ || hasPathBelow(inner) || hasPathBelow(realPlace(inner));
}

std::filesystem::path UsedFiles::realPlace(const std::filesystem::path& inside) const {
    return realFolder_ / inside.lexically_relative(folder_.path());
}

bool UsedFiles::hasPathBelow(const std::filesystem::path& folder) const {
    const auto first = paths_.lower_bound(folder.native() + "/");
    return first != paths_.end() && isBelow(folder, *first);
}

}  // namespace quillmere
