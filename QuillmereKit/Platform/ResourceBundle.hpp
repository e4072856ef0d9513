#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace quillmere {

/// A folder of files that ship with a program or with this library. A value; thread-safe; touches the disk on look-up.
class ResourceBundle {
public:
    /// The bundle of the files in `folder`, which need not be there.
    explicit ResourceBundle(std::filesystem::path folder);

    /// The application's own resources: the folder that `QUILLMERE_RESOURCES` names, else `../share/quillmere` beside
    /// the running program, else `Resources` beside it.
    [[nodiscard]] static ResourceBundle main();

    /// The library's own resources: the folder that `QUILLMERE_KIT_RESOURCES` names, else `share/quillmerekit` of the
    /// installation in which the library, or the program that it is linked into, lies, else, for a program in the tree
    /// that the library was built in, `QuillmereKit/Resources` of the source tree, else the folder it was configured to
    /// be installed to.
    [[nodiscard]] static ResourceBundle library();

    /// The file "name.extension" in the bundle, or in its `subfolder` where one is given; nothing if it is not there or
    /// is no regular file. Where the name is a link, as in some installations, the path is that of the file behind it.
    /// Names with a "/" in them are not looked for.
    [[nodiscard]] std::optional<std::filesystem::path> resource(std::string_view name, std::string_view extension,
                                                                std::string_view subfolder = {}) const;

    /// The bundle's folder.
    [[nodiscard]] const std::filesystem::path& folder() const noexcept { return folder_; }

private:
    std::filesystem::path folder_;
};

}  // namespace quillmere
