#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quillmere {

/// The sizes of the regular files directly in a folder, as they were when they were asked for.
///
/// For a folder of many thousand files: the system takes its time for each, so that a thread of its own does well to
/// ask, beside whatever else is to be done. Immutable, so thread-safe.
class FileSizes {
public:
    /// Asks for every file of the folder, links not followed. Blocks on disk. A file whose size cannot be read is
    /// missing, and so are all of a folder that cannot be listed.
    explicit FileSizes(const std::filesystem::path& folder);

    /// The bytes of the file with this name, or nothing if there was no such file.
    [[nodiscard]] std::optional<std::uint64_t> of(std::string_view name) const;

private:
    struct NameHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
    };

    std::unordered_map<std::string, std::uint64_t, NameHash, std::equal_to<>> sizes_;  // by name
};

}  // namespace quillmere
