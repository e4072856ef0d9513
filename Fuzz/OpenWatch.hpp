#pragma once

#include <filesystem>
#include <string>

namespace quillmere::fuzz {

/// While one lives, the process may open nothing but regular files and folders, and for writing only what lies in one
/// folder; anything else is a finding. One at a time; sees what the project's own code opens.
class OpenWatch {
public:
    explicit OpenWatch(const std::filesystem::path& writable);
    ~OpenWatch();
    OpenWatch(const OpenWatch&) = delete;
    OpenWatch& operator=(const OpenWatch&) = delete;

private:
    const std::string writable_;
};

}  // namespace quillmere::fuzz
