#include "App/DigestBook.hpp"
#include "Fuzz/RoundTrip.hpp"

// The host's record of the pieces' samples.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::text(data, size);
    const auto folder = fuzz::sandbox() / "digests";
    fs::remove_all(folder);
    fuzz::write(folder / "digests.json", text);

    app::DigestBook book(folder);
    const bool isWhole = !book.problem();
    const std::string fingerprint = "0123456789abcdef";
    const std::string digest(64, 'd');
    const bool isKnown = book.digest(fingerprint) == digest;
    book.set(fingerprint, digest);
    book.save([](const std::string&) { return true; });

    const app::DigestBook again(folder);
    require(again.digest(fingerprint) == digest, "a digest that was saved is read");
    if (isKnown) {
        require(fuzz::read(folder / "digests.json") == text, "what says nothing new changes nothing");
        return 0;
    }
    require(!again.problem(), "a file that was saved is read whole");
    require(isWhole || fuzz::isKeptBeside(folder / "digests.json", text), "a file that cannot be read whole is kept");
    if (!isWhole) return 0;
    const auto document = JSONDocument::parse(text);
    for (const auto& [key, value] : document.root().find("digests")->members()) {
        require(key == fingerprint || again.digest(key) == value.string(), "no digest is lost");
    }
    return 0;
}
