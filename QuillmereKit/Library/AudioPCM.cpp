#include "QuillmereKit/Library/AudioPCM.hpp"

#include <bit>

#include "QuillmereKit/Platform/PageAligned.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

namespace quillmere::AudioPCM {

static_assert(std::endian::native == std::endian::little, "samples are hashed as they lie in memory");

std::string digest(const FileURL& url, const std::stop_token& stop) {
    AudioFile file(url.path());
    return digest(file, stop);
}

std::string digest(AudioFile& file, const std::stop_token& stop) {
    const auto channels = static_cast<std::size_t>(file.format().channels);
    PageAligned<std::int16_t> samples(file.framesAtATime() * channels);
    SHA256 hash;
    while (true) {
        if (stop.stop_requested()) throw CancellationError();
        const std::size_t frames = file.read(samples);
        if (frames == 0) break;
        hash.update(std::as_bytes(std::span(samples.data(), frames * channels)));
    }
    return hexadecimal(hash.finish());
}

}  // namespace quillmere::AudioPCM
