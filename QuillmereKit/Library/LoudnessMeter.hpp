#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "QuillmereKit/Library/AudioLoudness.hpp"

namespace quillmere {

/// Measures integrated loudness and sample peak of mono or stereo audio at 48,000 frames a second, following the
/// K-weighted, gated method of ITU-R BS.1770.
///
///     LoudnessMeter meter(2);
///     while (const auto buffer = next()) meter.append(*buffer);
///     const auto loudness = meter.measurement();
///
/// The result is that of the method's formulas, evaluated in order in double precision, bit for bit, however the audio
/// is cut into buffers; on x86-64 also on a thread that flushes subnormal numbers or rounds otherwise. Audio at another
/// rate must be converted first; the meter cannot tell.
///
/// A value: a copy goes on by itself. Not thread-safe. Memory grows by 80 bytes a second of audio.
class LoudnessMeter {
public:
    /// A meter for `channels` channels: 1 or 2. Any other number stops the process.
    explicit LoudnessMeter(int channels);

    /// Adds whole frames, the samples of a frame side by side. A `channelCount` that is not the meter's own, or samples
    /// that do not fill whole frames, stop the process.
    ///
    /// A sample that is not finite makes the meter invalid for good: the samples before it count in `peak` and the
    /// whole frames before it in `frames`; all that follows is ignored.
    void append(std::span<const float> interleaved, int channelCount);

    /// The same, with the meter's own number of channels.
    void append(std::span<const float> interleaved);

    /// The largest absolute sample so far, unweighted; 1.0 is full scale.
    [[nodiscard]] double peak() const noexcept { return peak_; }

    /// How many frames were added.
    [[nodiscard]] std::int64_t frames() const noexcept { return frames_; }

    /// The loudness of all that was added; nothing if a sample was not finite. Without an `integratedLUFS` when no
    /// 400 ms of it were louder than -70 LUFS.
    [[nodiscard]] std::optional<AudioLoudness> measurement() const;

private:
    // State of a second-order section in transposed direct form II, one entry a channel.
    struct Section {
        std::array<double, 2> z1{}, z2{};
    };

    template <class Lanes>
    [[nodiscard]] std::uint32_t measure(std::span<const float> interleaved);
    template <class Lanes>
    [[nodiscard]] std::uint32_t filter(std::span<const float> interleaved);
    void endSubBlock();
    void invalidate(std::span<const float> interleaved);

    int channels_;
    Section shelf_, highpass_;
    double partialEnergy_ = 0;        // of the current sub-block of 100 ms, summed over frames and channels
    std::int64_t partialFrames_ = 0;  // in the current sub-block
    std::array<double, 4> recent_{};  // mean-square energies of the last complete sub-blocks, oldest first
    std::size_t recentCount_ = 0;
    std::vector<double> blocks_;  // mean-square energies of all gating blocks of 400 ms, a new one every 100 ms
    double peak_ = 0;
    std::int64_t frames_ = 0;
    bool isValid_ = true;
};

}  // namespace quillmere
