#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/AudioFile.hpp"

namespace quillmere::app {

/// One piece while it is played: decoded a buffer at a time, at its gain. Holds no more audio than its caller asks for.
class Voice {
public:
    /// Frames per second and channels of everything that is played.
    static constexpr int sampleRate = 48000;
    static constexpr std::size_t channels = 2;

    /// Opens a piece. Throws `FileError`, also for audio that is not 48 kHz, stereo, 16 bit.
    Voice(const std::filesystem::path& file, double gainDB);

    /// The whole length, in frames.
    [[nodiscard]] std::int64_t frames() const noexcept { return file_.frames(); }
    /// The frames still to come; 0 after a failure.
    [[nodiscard]] std::int64_t remaining() const noexcept { return failure_ ? 0 : file_.frames() - position_; }

    /// The next frames, interleaved, in units of one step of 16 bits; as many as there are, the rest silence.
    void read(std::span<float> samples);

    /// Why the piece broke off before its end, if it did.
    [[nodiscard]] const std::optional<std::string>& failure() const noexcept { return failure_; }

private:
    AudioFile file_;
    float gain_;
    std::int64_t position_ = 0;
    std::optional<std::string> failure_;
    std::vector<std::int16_t> buffer_;
};

}  // namespace quillmere::app
