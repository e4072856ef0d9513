#include <sys/stat.h>

#include <cmath>
#include <memory>

#include "Fuzz/OpenWatch.hpp"
#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Platform/FileURL.hpp"
#include "Renderers/EngineFailure.hpp"
#include "Renderers/EngineProtocol.hpp"
#include "Renderers/RenderFolder.hpp"

// The JSON that an engine ends its work with, and the file that it names: only a file in the working folder is opened,
// and nothing is written.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

fs::path home() { return fuzz::sandbox() / "engine"; }

// A working folder with all that an engine could name.
const RenderFolder& workingFolder() {
    static const auto folder = [] {
        fuzz::write(home() / "outside.wav", "not the engine's");
        fuzz::write(home() / "Loops" / "piece.wav", "the library's");
        auto made = std::make_unique<RenderFolder>(home() / "Loops");
        fuzz::write(made->path() / "audio.wav", "the engine's");
        fuzz::write(made->path() / "sub" / "audio.wav", "the engine's");
        fs::create_symlink("../../outside.wav", made->path() / "link.wav");
        fs::create_hard_link(home() / "outside.wav", made->path() / "second.wav");
        require(::mkfifo((made->path() / "fifo.wav").c_str(), 0600) == 0, "a fifo can be made");
        return made;
    }();
    return *folder;
}

void openNamed(const std::string& name) {
    const auto& folder = workingFolder();
    static const auto before = fuzz::treeOf(home());
    const fuzz::OpenWatch watch(fuzz::sandbox() / "nowhere");
    try {
        if (folder.openIfPresent(name)) {
            require(name == "audio.wav" || name == ".lock", "only the engine's own file is opened");
        }
    } catch (const EngineFailure& failure) {
        require(failure.reason() == EngineFailure::Reason::refusedFile, "a file is refused as what it is");
    }
    require(fuzz::treeOf(home()) == before, "nothing is changed for a name");
}

template <class T, class Check>
void readAs(std::string_view text, const Check& check) {
    try {
        check(decodeJSON<T>(text));
    } catch (const JSONError&) {
        return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::text(data, size);
    readAs<engineProtocol::Result>(text, [](const auto& result) {
        require(std::isfinite(result.seconds), "a length is finite");
        require(!result.leadIn || (*result.leadIn >= 0 && *result.leadIn <= result.seconds), "a lead-in lies inside");
        require(!result.quality || !result.quality->loudness, "an engine's claim of loudness is not read");
        openNamed(result.file);
    });
    readAs<engineProtocol::PartialAudio>(text, [](const auto& audio) {
        require(audio.seconds >= 0, "a length is not negative");
        openNamed(audio.file);
    });
    readAs<engineProtocol::Build>(text, [](const auto& build) {
        require(!build.text.empty() && build.text.size() <= 200, "a build is a short text");
        require(build.text.find('\n') == std::string::npos, "a build is one line");
    });
    return 0;
}
