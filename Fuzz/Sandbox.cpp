#include "Fuzz/Sandbox.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace quillmere::fuzz {
namespace {

namespace fs = std::filesystem;

fs::path makeSandbox() {
    std::string name = (fs::canonical(fs::temp_directory_path()) / "quillmere-fuzz-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    return name;
}

}  // namespace

void require(bool holds, const char* property) {
    if (holds) return;
    std::fprintf(stderr, "This does not hold: %s\n", property);
    std::abort();
}

const fs::path& sandbox() {
    static const fs::path folder = makeSandbox();
    return folder;
}

void write(const fs::path& file, std::string_view bytes) {
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    require(static_cast<bool>(out), "the sandbox can be written in");
}

std::string read(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    require(static_cast<bool>(in), "a file that must be there is there");
    return {std::istreambuf_iterator<char>(in), {}};
}

bool isKeptBeside(const fs::path& file, std::string_view bytes) {
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        if (entry.path() != file && read(entry.path()) == bytes) return true;
    }
    return false;
}

Tree treeOf(const fs::path& folder) {
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        std::string name = entry.path().native().substr(folder.native().size() + 1);
        switch (entry.symlink_status().type()) {
            case fs::file_type::regular: tree[name] = "file " + read(entry.path()); break;
            case fs::file_type::directory: tree[name] = "folder"; break;
            case fs::file_type::symlink: tree[name] = "link " + fs::read_symlink(entry.path()).native(); break;
            default: tree[name] = "other"; break;
        }
    }
    return tree;
}

}  // namespace quillmere::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/) {
    const auto& home = quillmere::fuzz::sandbox();
    const auto place = [&](const char* variable, const char* folder) {
        std::filesystem::create_directories(home / folder);
        ::setenv(variable, (home / folder).c_str(), 1);
    };
    place("HOME", "home");
    place("XDG_DATA_HOME", "data");
    place("XDG_CONFIG_HOME", "config");
    place("XDG_CACHE_HOME", "cache");
    place("XDG_STATE_HOME", "state");
    place("XDG_RUNTIME_DIR", "runtime");
    place("TMPDIR", "tmp");
    ::setenv("XCTestConfigurationFilePath", home.c_str(), 1);
    ::unsetenv("QUILLMERE_HOME");
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(quillmere::fuzz::sandbox(), ignored);
    });
    return 0;
}
