#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>

#include "QuillmereKit/Library/AudioLoudness.hpp"
#include "QuillmereKit/Library/LoudnessMeter.hpp"
#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Renderers/RenderFolder.hpp"

namespace quillmere {

/// Checks and measures a finished render: a whole WAV file of 16-bit linear PCM, 48,000 Hz, stereo, exactly `frames`
/// long, with next to nothing else in it. Returns its loudness, whole. `file` stays open. `isCancelled` is looked at
/// between buffers. Throws `EngineFailure` (wrongAudio) that says what differs, `FileError` or `CancellationError`.
[[nodiscard]] AudioLoudness measureResult(const Descriptor& file, const std::filesystem::path& shown,
                                          std::int64_t frames, const std::stop_token& stop);

/// Measures a file that grows, each time only what is new. Not thread-safe.
class PartialMeter {
public:
    /// `frames`: the length the finished file will have; what lies behind is not looked at.
    explicit PartialMeter(std::int64_t frames) : frames_(frames) {}

    /// The loudness of all that the file holds now, with its real length in `seconds`; nothing if it is not there, is
    /// not whole at this moment, or has no more in it than last time. Throws `EngineFailure` (refusedFile) for a name
    /// that leads out of the folder, `FileError` or `CancellationError`.
    [[nodiscard]] std::optional<AudioLoudness> measure(const RenderFolder& folder, const std::string& name,
                                                       const std::stop_token& stop);

private:
    const std::int64_t frames_;
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
    LoudnessMeter meter_{2};
};

}  // namespace quillmere
