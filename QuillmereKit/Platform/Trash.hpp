#pragma once

#include <filesystem>

namespace quillmere {

/// Moves a file or folder to the user's trash through the desktop's own service, mount points included.
///
/// Returns whether it was moved. False, with the file still in place, when the service refuses (a temporary
/// file system, no trash folder) or the library was built without it; never deletes. Thread-safe; blocks on disk.
bool moveToTrash(const std::filesystem::path& item) noexcept;

}  // namespace quillmere
