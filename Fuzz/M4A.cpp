#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"

// An Apple Lossless file, whose bytes are decoded by another library: what it makes of them is not believed further
// than the file's own promises go. The library's own filter bounds its memory; the fuzzer's limits hold the filter to
// it.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;
    const auto bytes = fuzz::text(data, size);
    if (bytes.size() < 12 || bytes.substr(4, 4) != "ftyp") return 0;  // not read as such a file
    const auto path = fuzz::sandbox() / "audio.m4a";
    fuzz::write(path, bytes);

    try {
        AudioFile file(path);
        const auto& format = file.format();
        require(file.frames() >= 1 && format.channels >= 1 && format.channels <= 8 && format.sampleRate > 0,
                "audio has a length and a form");
        const auto digest = AudioPCM::digest(file);
        require(digest.size() == 64, "audio that is read whole has a digest");
        require(AudioPCM::digest(FileURL::fromPath(path)) == digest, "the same file has the same digest");
    } catch (const FileError&) {
        return 0;
    }
    return 0;
}
