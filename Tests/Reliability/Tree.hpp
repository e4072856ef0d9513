#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace quillmere::test {

/// All files below a folder, by their path in it, and what they hold. A folder is an entry that ends in "/", and a link
/// one that holds what `linkTo` says.
using Tree = std::map<std::string, std::string>;

/// What a link holds that leads there; no file of ours holds the like.
[[nodiscard]] std::string linkTo(const std::filesystem::path& target);

/// Reads a folder whole. Links are not followed.
[[nodiscard]] Tree readTree(const std::filesystem::path& root);

/// The permission bits of all that lies below a folder, but for links, under the names that a tree gives it.
using Permissions = std::map<std::string, std::filesystem::perms>;
[[nodiscard]] Permissions readPermissions(const std::filesystem::path& root);

/// Makes a folder hold exactly this, links too, whatever it held.
void writeTree(const std::filesystem::path& root, const Tree& tree);

/// The last part of a path.
[[nodiscard]] std::string_view nameOf(std::string_view path);

}  // namespace quillmere::test
