#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::test {

/// A fresh folder that goes, with all it holds, when the object does.
class TemporaryFolder {
public:
    TemporaryFolder() : TemporaryFolder(std::filesystem::temp_directory_path()) {}
    explicit TemporaryFolder(const std::filesystem::path& parent);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

    /// Writes a file below the folder, making the folders it needs. Returns its path.
    std::filesystem::path putFile(std::string_view name, std::string_view content) const;

    /// The content of a file below the folder; the test fails if there is none.
    [[nodiscard]] std::string content(std::string_view name) const;

    /// The names in the folder, sorted.
    [[nodiscard]] std::vector<std::string> names() const;

private:
    std::filesystem::path path_;
};

/// What is left to read of a stream.
[[nodiscard]] std::string contentOf(std::istream& in);

}  // namespace quillmere::test
