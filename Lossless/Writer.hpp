#pragma once

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "QuillmereKit/Platform/LosslessModule.hpp"

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct AVStream;

namespace quillmere {

/// Encodes 16-bit samples as Apple Lossless in MPEG-4, into a descriptor. Throws `std::runtime_error`.
struct LosslessWriter {
    LosslessWriter(int descriptor, std::int32_t sampleRate, std::int32_t channels);
    ~LosslessWriter();
    LosslessWriter(const LosslessWriter&) = delete;
    LosslessWriter& operator=(const LosslessWriter&) = delete;

    void write(const std::int16_t* samples, std::int64_t frames);
    void finish();

private:
    static int writeBytes(void* self, std::uint8_t* buffer, int size);
    static std::int64_t seekTo(void* self, std::int64_t offset, int origin);
    void open(std::int32_t sampleRate, std::int32_t channels);
    void release() noexcept;
    void encodePending();
    void passOn();

    const int descriptor_;
    std::int64_t size_ = 0;
    std::int64_t position_ = 0;
    AVIOContext* output_ = nullptr;
    AVFormatContext* container_ = nullptr;
    AVCodecContext* encoder_ = nullptr;
    AVStream* stream_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    int channels_ = 0;
    std::vector<std::int16_t> pending_;  // interleaved samples of the frame being filled
    std::int64_t written_ = 0;           // frames handed to the encoder
};

}  // namespace quillmere
