#include "Tests/Support/TemporaryFolder.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace quillmere::test {

TemporaryFolder::TemporaryFolder(const std::filesystem::path& parent) {
    std::string name = (parent / "quillmere-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryFolder::putFile(std::string_view name, std::string_view content) const {
    const auto file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out) std::abort();
    return file;
}

std::string TemporaryFolder::content(std::string_view name) const {
    std::ifstream in(path_ / name, std::ios::binary);
    EXPECT_TRUE(in) << "no file " << name;
    return contentOf(in);
}

// The stream's own loop: one over its characters would not be optimised here.
std::string contentOf(std::istream& in) {
    std::ostringstream content;
    content << in.rdbuf();
    return std::move(content).str();
}

std::vector<std::string> TemporaryFolder::names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) names.push_back(entry.path().filename());
    std::ranges::sort(names);
    return names;
}

}  // namespace quillmere::test
