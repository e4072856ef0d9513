#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace quillmere {

/// A folder of files that ship with a program or with this library. A value; thread-safe; touches the disk on look-up.
class ResourceBundle {
public:
    explicit ResourceBundle(std::filesystem::path folder);

    /// The application's own resources: the folder that `QUILLMERE_RESOURCES` names, else `../share/quillmere` beside
    /// the running program, else `Resources` beside it.
    [[nodiscard]] static ResourceBundle main();

    /// The library's own resources, found from its build tree, from an installation, and when linked statically.
    [[nodiscard]] static ResourceBundle library();

    /// The file "name.extension" in the bundle, or in its `subfolder` where one is given; nothing if it is not there.
    [[nodiscard]] std::optional<std::filesystem::path> resource(std::string_view name, std::string_view extension,
                                                                std::string_view subfolder = {}) const;

    [[nodiscard]] const std::filesystem::path& folder() const noexcept { return folder_; }

private:
    std::filesystem::path folder_;
};

}  // namespace quillmere
