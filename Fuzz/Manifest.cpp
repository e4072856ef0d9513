#include <algorithm>

#include "Fuzz/HostileLibrary.hpp"
#include "Fuzz/OpenWatch.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

// A manifest from anywhere, in a library among files that are not its own, and everything that a store can be asked to
// do. A first line "#add trash …" says what, and in which order, and what the lock file is; without it, all of it.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

bool isReadable(const std::string& manifest) {
    try {
        static_cast<void>(JSONDocument::parse(manifest).root().elements<LoopArtifact>());
        return true;
    } catch (const JSONError&) {
        return false;
    }
}

bool isKept(const fs::path& folder, const std::string& manifest) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        const auto name = entry.path().filename().native();
        const bool isCopy = name.starts_with("manifest.unreadable-") || name.starts_with("manifest.before-");
        if (isCopy && fuzz::read(entry.path()) == manifest) return true;
    }
    return false;
}

// What an ordinary save keeps: the pieces whose files lie inside the folder and are there.
bool isKeptBySaving(const fs::path& folder, const LoopArtifact& piece) {
    std::error_code ignored;
    return piece.url.isFile() && OwnFolder(folder).names(piece.url.path()) &&
           fs::is_regular_file(piece.url.path(), ignored);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto text = fuzz::text(data, size);
    std::string_view words = "add discard loudness migrate persist trash prune";
    if (text.starts_with('#')) {
        const auto end = std::min(text.find('\n'), text.size());
        words = text.substr(1, end - 1);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    fuzz::HostileLibrary library(text);
    library.spoilLock(words.substr(0, words.find(' ')));
    const fuzz::OpenWatch watch(library.folder());
    std::vector<LoopArtifact> before;
    {
        auto store = library.open();
        for (int count = 0; !words.empty() && count < 16; ++count) {
            const auto end = std::min(words.find(' '), words.size());
            library.apply(store, words.substr(0, end));
            words.remove_prefix(std::min(end + 1, words.size()));
        }
        store.add(fuzz::HostileLibrary::pieceAt(FileURL::fromPath(library.folder() / "digests.json"), 1003));
        require(store.lastSaveError().has_value() == library.isLockSpoiled(), "a change is saved, or it is told");
        before = store.all();
    }
    library.requireUntouched();
    if (library.isLockSpoiled()) return 0;
    require(isReadable(library.manifest()) || isKept(library.folder(), library.manifest()),
            "a manifest that cannot be read is kept");

    auto again = library.open();
    for (const auto& piece : before) {
        const bool isThere = again.artifact(piece.identity) == piece;
        require(isThere == isKeptBySaving(library.folder(), piece), "the manifest holds what the store holds");
    }
    require(again.count() <= before.size(), "nothing comes back");
    return 0;
}
