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

/// Encodes 16-bit samples as Apple Lossless in MPEG-4, into a descriptor open for reading and writing. Throws
/// `std::system_error` where the system failed, `std::bad_alloc` and `std::runtime_error`.
///
/// Samples are gathered to batches of frames. With a second thread, that one encodes a batch while the calling thread
/// fills the next and writes the packets of the one before; then both take the frames that are left in turn. Packets
/// are written in order, so the same bytes come out.
struct LosslessWriter {
    LosslessWriter(int descriptor, std::int32_t sampleRate, std::int32_t channels, std::int32_t threads);
    ~LosslessWriter();
    LosslessWriter(const LosslessWriter&) = delete;
    LosslessWriter& operator=(const LosslessWriter&) = delete;

    void write(const std::int16_t* samples, std::int64_t frames);
    void finish();

private:
    // Some frames of the file: their interleaved samples, and one packet for each.
    struct Batch {
        std::vector<std::int16_t> samples;
        std::vector<AVPacket*> packets;
        std::int64_t start = 0;  // frames of one sample a channel before it
    };

    static int writeBytes(void* self, std::uint8_t* buffer, int size);
    static std::int64_t seekTo(void* self, std::int64_t offset, int origin);
    void open();
    void prepare(Batch& batch) const;
    void release() noexcept;
    void startHelper();
    void stopHelper() noexcept;
    void handOver();
    void complete();
    void takeFrames(FrameEncoder& encoder) noexcept;
    void passOn(Batch& batch);

    const int descriptor_;
    std::int64_t size_ = 0;
    std::int64_t position_ = 0;
    int systemError_ = 0;  // of the first write that failed
    bool isEmpty_ = true;  // no packet was written
    AVIOContext* output_ = nullptr;
    AVFormatContext* container_ = nullptr;
    AVStream* stream_ = nullptr;

    const std::int32_t sampleRate_;
    const std::int32_t channels_;
    const std::size_t batchFrames_;
    bool wantsHelper_;
    FrameEncoder encoder_;
    std::unique_ptr<FrameEncoder> helpersEncoder_;
    Batch filling_;

    // The batch at work: its samples are read by both threads, each packet is one thread's.
    Batch working_;
    std::atomic<std::size_t> nextFrame_ = 0;
    std::mutex failureMutex_;
    std::exception_ptr failure_;  // guarded by failureMutex_
    bool isHelperAtWork_ = false;
    bool isEnding_ = false;  // told with begin_
    std::binary_semaphore begin_{0};
    std::binary_semaphore end_{0};
    std::thread helper_;
};

}  // namespace quillmere
