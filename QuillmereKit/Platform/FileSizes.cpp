#include "QuillmereKit/Platform/FileSizes.hpp"

#include <sys/stat.h>

#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {

FileSizes::FileSizes(const std::filesystem::path& folder) {
    try {
        const Descriptor opened = systemCalls::openFolder(folder);
        auto entries = systemCalls::entries(opened.number(), folder);
        sizes_.reserve(entries.size());
        for (auto& entry : entries) {
            // By name in the open folder: no path has to be made, and walked, for each.
            struct stat status {};
            if (entry.kind != FileFacts::Kind::regular) continue;
            if (systemCalls::statusAt(opened.number(), entry.name.c_str(), status) || !S_ISREG(status.st_mode))
                continue;
            sizes_.emplace(std::move(entry.name), static_cast<std::uint64_t>(status.st_size));
        }
    } catch (const FileError&) {
        return;  // they are missing
    }
}

std::optional<std::uint64_t> FileSizes::of(std::string_view name) const {
    const auto found = sizes_.find(name);
    return found == sizes_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace quillmere
