#include "QuillmereKit/Platform/FileURL.hpp"

#include <filesystem>

#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

// The text of a URL, and the same bytes as a path: what they name, and whether a folder takes it for its own.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

bool hasZero(const fs::path& path) { return path.native().find('\0') != std::string::npos; }

void checkStandard(const fs::path& path) {
    const auto standard = standardPath(path);
    require(standardPath(standard) == standard, "a standard path is its own standard path");
    require(standard.is_absolute() == path.is_absolute(), "a relative path stays one");
    const auto& text = standard.native();
    require(text.find("//") == std::string::npos, "a standard path has no empty part");
    require(text.size() < 2 || text.back() != '/', "a standard path ends in a name");
    if (!path.is_absolute()) return;
    for (const auto& part : standard) require(part != "." && part != "..", "a standard path only goes down");
}

void checkOwnership(const fs::path& path) {
    static const OwnFolder own = [] {
        const auto home = fuzz::sandbox() / "urls";
        fuzz::write(home / "Loops" / "piece.wav", "own");
        fuzz::write(home / "Loops-old" / "piece.wav", "not its own");
        fuzz::write(home / "outside.wav", "not its own");
        fs::create_symlink("../outside.wav", home / "Loops" / "link.wav");
        fs::create_directory_symlink("../Loops-old", home / "Loops" / "old");
        return OwnFolder(home / "Loops");
    }();
    for (const auto& file : {path, own.path() / path, fs::path(own.path().native() + path.native())}) {
        if (!own.owns(file)) continue;
        require(own.names(file), "what a folder owns it names");
        require(standardPath(file) == own.path() / "piece.wav", "a folder owns its files alone");
    }
    require(!hasZero(path) || !own.names(path), "a path with a zero byte names nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::text(data, size);
    const auto url = FileURL::fromText(text);
    require(url.has_value() == !text.empty(), "every text but the empty one is a URL");
    if (!url) return 0;
    require(url->text() == text, "the text is kept");
    require(!hasZero(url->path()), "no path has a zero byte");
    require(url->standardPath() == standardPath(url->path()), "both ways to the standard path agree");
    checkStandard(url->path());
    checkOwnership(url->path());

    const fs::path path(text);
    if (hasZero(path)) return 0;
    checkStandard(path);
    checkOwnership(path);
    const auto made = FileURL::fromPath(path);
    require(made.isFile(), "a URL made from a path names a file");
    require(made.path() == fs::absolute(path), "a URL made from a path leads to it");
    require(FileURL::fromText(made.text()) == made, "a URL is its text");
    return 0;
}
