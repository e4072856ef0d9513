#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace quillmere::test {

/// All files below a folder, by their path in it, and what they hold. A folder is an entry that ends in "/".
using Tree = std::map<std::string, std::string>;

/// Reads a folder whole.
[[nodiscard]] Tree readTree(const std::filesystem::path& root);

/// Makes a folder hold exactly this, whatever it held.
void writeTree(const std::filesystem::path& root, const Tree& tree);

/// The last part of a path.
[[nodiscard]] std::string_view nameOf(std::string_view path);

}  // namespace quillmere::test
