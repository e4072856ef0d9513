#include <algorithm>
#include <vector>

#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

// A WAV file. One that is read holds every frame that it says it has, and its digest is that of bytes in it.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;
    const auto bytes = fuzz::text(data, size);
    if (bytes.size() >= 8 && bytes.substr(4, 4) == "ftyp") return 0;  // the other kind of audio file
    const auto path = fuzz::sandbox() / "audio.wav";
    fuzz::write(path, bytes);

    try {
        AudioFile file(path);
        const auto format = file.format();
        const auto bytesPerFrame =
            static_cast<std::uint64_t>(format.channels) * static_cast<std::uint64_t>((format.bitsPerChannel + 7) / 8);
        require(file.frames() >= 1 && format.channels >= 1 && format.sampleRate > 0, "audio has a length and a form");
        require(static_cast<std::uint64_t>(file.frames()) * bytesPerFrame <= size, "a file holds what it promises");

        std::vector<std::int16_t> samples(static_cast<std::size_t>(format.channels) * 13);
        std::int64_t frames = 0;
        SHA256 hash;
        while (const auto count = file.read(samples)) {
            frames += static_cast<std::int64_t>(count);
            hash.update(std::as_bytes(std::span(samples).first(count * static_cast<std::size_t>(format.channels))));
        }
        require(frames == file.frames(), "every frame is read");
        require(AudioPCM::digest(FileURL::fromPath(path)) == hexadecimal(hash.finish()),
                "the digest does not depend on how the file is read");
    } catch (const FileError&) {
        return 0;
    }
    return 0;
}
