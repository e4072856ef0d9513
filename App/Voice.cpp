#include "App/Voice.hpp"

#include <algorithm>
#include <cmath>

namespace quillmere::app {

Voice::Voice(const std::filesystem::path& file, double gainDB)
    : file_(file), gain_(static_cast<float>(std::pow(10.0, gainDB / 20.0))) {
    const auto& format = file_.format();
    if (format.bitsPerChannel != 16 || format.sampleRate != sampleRate || format.channels != channels) {
        throw FileError("play", file, make_error_code(FileFault::fileReadCorruptFile));
    }
}

void Voice::read(std::span<float> samples) {
    buffer_.resize(samples.size());
    std::size_t done = 0;
    while (done < samples.size() && remaining() > 0) {
        try {
            const std::size_t frames = file_.read(std::span(buffer_).subspan(done));
            if (frames == 0) break;
            position_ += static_cast<std::int64_t>(frames);
            done += frames * channels;
        } catch (const FileError& error) {
            failure_ = error.what();
        }
    }
    std::fill(buffer_.begin() + static_cast<std::ptrdiff_t>(done), buffer_.end(), std::int16_t{0});
    std::ranges::transform(buffer_, samples.begin(),
                           [this](std::int16_t sample) { return gain_ * static_cast<float>(sample); });
}

}  // namespace quillmere::app
