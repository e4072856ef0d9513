#pragma once

#include <cstdint>
#include <memory>

#include "Lossless/MovieFilter.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;

namespace quillmere {

/// Decodes the first audio stream of an MPEG-4 file, read through a descriptor at positions of its own: no other file
/// is ever opened, whatever the container refers to. Memory and work are bounded by the file's size. Throws
/// `std::system_error` where the system failed, `std::bad_alloc` and `std::runtime_error`.
struct LosslessReader {
    LosslessReader(int descriptor, LosslessInfo& info);
    ~LosslessReader();
    LosslessReader(const LosslessReader&) = delete;
    LosslessReader& operator=(const LosslessReader&) = delete;

    std::int64_t read(std::int16_t* samples, std::int64_t frames);

private:
    static int readBytes(void* self, std::uint8_t* buffer, int size);
    static std::int64_t seekTo(void* self, std::int64_t offset, int origin);
    void open(LosslessInfo& info);
    void release() noexcept;
    bool decodeNext();

    const int descriptor_;
    std::int64_t size_ = 0;
    std::int64_t position_ = 0;
    std::unique_ptr<const MovieFilter> filter_;
    std::int64_t packetBytes_ = 0;  // of all packets so far
    int systemError_ = 0;           // of the last read that failed
    AVIOContext* input_ = nullptr;
    AVFormatContext* container_ = nullptr;
    AVCodecContext* decoder_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    int stream_ = -1;
    int channels_ = 0;
    int offset_ = 0;  // the frame's samples already handed out
    bool isDrained_ = false;
};

}  // namespace quillmere
