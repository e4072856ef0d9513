#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>

#include "QuillmereKit/Library/LoopFolder.hpp"
#include "QuillmereKit/Library/StoredLoop.hpp"
#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// The files that some pieces use, whatever their URLs look like. Lives no longer than the pieces.
class UsedFiles {
public:
    /// None yet, of a library in this folder, which must outlive it. Asks the disk where the folder really lies.
    explicit UsedFiles(const LoopFolder& folder);

    /// One piece more. Asks the disk where its file really lies, unless that is plain.
    void add(const StoredLoop& loop);

    /// Whether one of the pieces is known to use the folder's own file at this standard path.
    [[nodiscard]] bool contains(const std::filesystem::path& file) const;

    /// Whether one of them may need a folder inside the folder, at this standard path: it is known to use a file
    /// anywhere below it, or goes out of some folder again on its way to its file ("inner/../file.wav"), be it this
    /// one.
    [[nodiscard]] bool containsBelow(const std::filesystem::path& inner) const;

    /// Why any file of the folder may be in use besides, and then none may be removed: the system does not say where a
    /// piece's file lies, and its path is in the folder or goes through a link. What lies elsewhere, as far as can be
    /// seen without a link on the way, is no file of the folder's, be it a mount that is gone.
    [[nodiscard]] const std::optional<FileError>& doubt() const noexcept { return doubt_; }

private:
    [[nodiscard]] std::filesystem::path realPlace(const std::filesystem::path& inside) const;
    [[nodiscard]] bool hasPathBelow(const std::filesystem::path& folder) const;

    const LoopFolder& folder_;
    std::filesystem::path realFolder_;            // the folder without links; empty if it cannot be had
    std::error_code folderError_;                 // why, unless it is not there
    std::unordered_set<std::string_view> names_;  // of plain files directly in the folder
    std::set<std::string> paths_;                 // of all others, as they are spelled and where they really lie
    bool hasDetours_ = false;                     // one of these paths goes through a folder and out of it again
    std::optional<FileError> doubt_;
};

}  // namespace quillmere
