#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace quillmere {

/// Encodes single frames of Apple Lossless. Each frame stands for itself: the packet depends on the frame's samples and
/// the encoder's settings alone, so that several encoders can share the frames of one file. Belongs to one thread at a
/// time. Throws `std::runtime_error`.
class FrameEncoder {
public:
    FrameEncoder(std::int32_t sampleRate, std::int32_t channels);
    ~FrameEncoder();
    FrameEncoder(const FrameEncoder&) = delete;
    FrameEncoder& operator=(const FrameEncoder&) = delete;

    /// What the container has to know.
    [[nodiscard]] const AVCodecContext& settings() const noexcept { return *encoder_; }
    /// The interleaved samples of a whole frame.
    [[nodiscard]] std::size_t frameSamples() const noexcept;

    /// Encodes a whole frame or, once and last, a shorter one. `start` is the number of frames (one sample a channel)
    /// before it.
    void encode(std::span<const std::int16_t> samples, std::int64_t start, AVPacket& packet);

private:
    void open(std::int32_t sampleRate, std::int32_t channels);
    void release() noexcept;

    AVCodecContext* encoder_ = nullptr;
    AVFrame* frame_ = nullptr;
};

}  // namespace quillmere
