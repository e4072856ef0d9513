#include "App/KeptRecords.hpp"
#include "Fuzz/HostileLibrary.hpp"
#include "Fuzz/OpenWatch.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

// The text of a damaged manifest, from which a host takes back what it can: whole entries, and only those whose audio
// is the library's own.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;
    const auto text = fuzz::text(data, size);

    fuzz::HostileLibrary library(text);
    const fuzz::OpenWatch watch(library.folder());
    const auto entries = app::salvagedEntries(library.manifest());
    try {
        const auto whole = JSONDocument::parse(library.manifest()).root().elements<LoopArtifact>();
        require(entries == whole, "of a whole manifest every entry is found");
    } catch (const JSONError&) {
        require(entries.size() <= library.manifest().size(), "an entry has a text");
    }

    auto store = library.open();
    auto records = app::KeptRecords::find(store, {library.home() / "Outside"});
    std::vector<LoopArtifact> pieces;
    for (const auto& entry : records.recoverable) {
        require(!store.contains(entry.piece.identity), "what the library holds needs not be taken back");
        require(OwnFolder(library.folder()).owns(entry.piece.url.path()), "only the library's own audio is taken back");
        pieces.push_back(entry.piece);
    }
    store.add(pieces);
    for (const auto& piece : pieces) require(store.artifact(piece.identity) == piece, "what is taken back is there");
    library.requireUntouched();
    return 0;
}
