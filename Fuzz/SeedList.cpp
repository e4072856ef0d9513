#include "Fuzz/HostileLibrary.hpp"
#include "Fuzz/OpenWatch.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

// The list of the pieces that ship with an application. Its audio comes from its resources alone, into the library's
// folder alone, and never over anything that is there.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;

    fuzz::HostileLibrary library("[]");
    const auto app = library.home() / "App";
    fuzz::write(app / "Loops" / "seeds.json", library.placed(fuzz::text(data, size)));
    fuzz::write(app / "Loops" / "seed.m4a", "a seed");
    fuzz::write(app / "seed.m4a", "another seed");
    std::filesystem::create_symlink("../Outside/sentinel.wav", app / "linked.m4a");
    const auto resources = fuzz::treeOf(app);

    const fuzz::OpenWatch watch(library.folder());
    std::size_t count = 0;
    {
        auto store = library.open();
        count = store.count();
        for (const auto& piece : store.all()) {
            const auto file = piece.url.path();
            require(file.parent_path() == library.folder(), "a seed lies directly in the folder");
            require(file.filename() == piece.identity.filename() + ".m4a", "a seed has its identity's name");
            require(store.bundledFingerprints().contains(piece.id()), "a seed is known as one");
        }
    }
    require(library.open().count() == count, "a seed is imported once");
    require(fuzz::treeOf(app) == resources, "the resources stay as they are");
    std::filesystem::remove_all(app);
    library.requireUntouched();
    return 0;
}
