#include "Tests/Reliability/Tree.hpp"

#include <cstdlib>
#include <fstream>

#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

constexpr std::string_view linkMark("\0a link to ", 11);

}  // namespace

std::string linkTo(const std::filesystem::path& target) { return std::string(linkMark) + target.native(); }

Tree readTree(const std::filesystem::path& root) {
    Tree tree;
    if (!std::filesystem::exists(root)) return tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path().native().substr(root.native().size() + 1);
        if (entry.is_symlink()) {
            tree[path] = linkTo(std::filesystem::read_symlink(entry.path()));
        } else if (entry.is_directory()) {
            tree[path + "/"];
        } else {
            std::ifstream in(entry.path(), std::ios::binary);
            tree[path] = contentOf(in);
        }
    }
    return tree;
}

Permissions readPermissions(const std::filesystem::path& root) {
    Permissions permissions;
    if (!std::filesystem::exists(root)) return permissions;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const auto status = entry.symlink_status();
        if (std::filesystem::is_symlink(status)) continue;
        const std::string path = entry.path().native().substr(root.native().size() + 1);
        permissions[std::filesystem::is_directory(status) ? path + "/" : path] = status.permissions();
    }
    return permissions;
}

void writeTree(const std::filesystem::path& root, const Tree& tree) {
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root);
    for (const auto& [path, content] : tree) {
        if (path.ends_with('/')) {
            std::filesystem::create_directories(root / path);
            continue;
        }
        if (content.starts_with(linkMark)) {
            std::filesystem::create_symlink(content.substr(linkMark.size()), root / path);
            continue;
        }
        std::ofstream out(root / path, std::ios::binary);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        out.close();
        if (!out) std::abort();
    }
}

std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace quillmere::test
