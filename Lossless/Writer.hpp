#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

#include "Lossless/FrameEncoder.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"

struct AVFormatContext;
struct AVIOContext;
struct AVPacket;
struct AVStream;

namespace quillmere {

/// Encodes 16-bit samples as Apple Lossless in MPEG-4, into a descriptor. Throws `std::system_error` where the system
/// failed, and `std::runtime_error`.
///
/// Samples are gathered to batches of frames. With a second thread both take the frames of a batch in turn, and the
/// calling thread writes the packets in order when all are there: the same bytes come out.
struct LosslessWriter {
    LosslessWriter(int descriptor, std::int32_t sampleRate, std::int32_t channels, std::int32_t threads);
    ~LosslessWriter();
    LosslessWriter(const LosslessWriter&) = delete;
    LosslessWriter& operator=(const LosslessWriter&) = delete;

    void write(const std::int16_t* samples, std::int64_t frames);
    void finish();

private:
    static int writeBytes(void* self, std::uint8_t* buffer, int size);
    static std::int64_t seekTo(void* self, std::int64_t offset, int origin);
    void open();
    void release() noexcept;
    void startHelper();
    void stopHelper() noexcept;
    void encodeBatch();
    void takeFrames(FrameEncoder& encoder) noexcept;
    void passOn(AVPacket& packet);

    const int descriptor_;
    std::int64_t size_ = 0;
    std::int64_t position_ = 0;
    int systemError_ = 0;  // of the first write that failed
    AVIOContext* output_ = nullptr;
    AVFormatContext* container_ = nullptr;
    AVStream* stream_ = nullptr;

    const std::int32_t sampleRate_;
    const std::int32_t channels_;
    bool wantsHelper_;
    FrameEncoder encoder_;
    std::unique_ptr<FrameEncoder> helpersEncoder_;
    std::vector<std::int16_t> pending_;  // interleaved samples of the batch being filled
    std::vector<AVPacket*> packets_;     // of the batch, one a frame
    std::int64_t written_ = 0;           // frames, one sample a channel, in the batches before

    // While a batch is encoded: the two threads share `pending_` to read, and each packet is one thread's.
    std::atomic<std::size_t> nextFrame_ = 0;
    std::mutex failureMutex_;
    std::exception_ptr failure_;  // guarded by failureMutex_
    std::binary_semaphore begin_{0};
    std::binary_semaphore end_{0};
    bool isEnding_ = false;  // told with begin_
    std::thread helper_;
};

}  // namespace quillmere
