#pragma once

#include <unistd.h>

#include <filesystem>

namespace quillmere::test {

/// A parent for folders whose files are synced thousands of times: in memory where that can be had.
inline std::filesystem::path fastParent() {
    std::error_code ignored;
    const std::filesystem::path memory = "/dev/shm";
    return std::filesystem::is_directory(memory, ignored) && access(memory.c_str(), W_OK) == 0
               ? memory
               : std::filesystem::temp_directory_path();
}

}  // namespace quillmere::test
