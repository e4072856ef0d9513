#include "Lossless/Writer.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#include "Lossless/Failure.hpp"

namespace quillmere {
namespace {

constexpr int outputBufferSize = 1 << 18;

// In a batch. With two threads enough that they seldom wait for each other: 1 MiB of stereo. Alone, few stay in the
// processor's cache.
constexpr std::size_t sharedFrames = 64;
constexpr std::size_t lonelyFrames = 2;

/// A part of the file.
struct Range {
    std::int64_t begin = 0;
    std::int64_t end = 0;
};

/// The bytes from there on, as many as there are.
std::size_t readAt(int file, std::int64_t place, std::span<unsigned char> bytes) {
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto rest = bytes.subspan(filled);
        const ssize_t count = ::pread(file, rest.data(), rest.size(), place + static_cast<std::int64_t>(filled));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::system_error(errno, std::system_category(), "the file cannot be read");
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

/// The content of the first box of this name (ISO/IEC 14496-12, 4.2); nothing if `within` holds none.
std::optional<Range> contentOf(std::string_view name, int file, Range within) {
    while (within.begin < within.end) {
        std::array<unsigned char, 16> head{};
        if (readAt(file, within.begin, head) < 8) return std::nullopt;
        const auto number = [&](std::size_t from, std::size_t bytes) {
            std::int64_t value = 0;
            for (std::size_t i = from; i < from + bytes; ++i) value = value * 256 + head[i];
            return value;
        };
        std::int64_t headSize = 8;
        std::int64_t size = number(0, 4);
        if (size == 1) {
            headSize = 16;
            if (head[8] < 128) size = number(8, 8);
        }
        if (size < headSize || size > within.end - within.begin) return std::nullopt;
        if (std::ranges::equal(name, std::span(head).subspan(4, 4))) {
            return Range{within.begin + headSize, within.begin + size};
        }
        within.begin += size;
    }
    return std::nullopt;
}

/// Whether the file has every box that FFmpeg needs memory for while it completes one. Without the table of times
/// others could not play it; without the last the bytes would not be the same as ever.
bool isWhole(int file, std::int64_t size) {
    const auto find = [&](const auto& path) {
        std::optional<Range> place(Range{0, size});
        for (const auto* name : path) {
            if (place) place = contentOf(name, file, *place);
        }
        return place.has_value();
    };
    return find(std::array{"moov", "trak", "mdia", "minf", "stbl", "stts"}) && find(std::array{"moov", "udta", "meta"});
}

}  // namespace

LosslessWriter::LosslessWriter(int descriptor, std::int32_t sampleRate, std::int32_t channels, std::int32_t threads)
    : descriptor_(descriptor),
      sampleRate_(sampleRate),
      channels_(channels),
      batchFrames_(threads > 1 ? sharedFrames : lonelyFrames),
      wantsHelper_(threads > 1),
      encoder_(sampleRate, channels) {
    try {
        open();
    } catch (...) {
        release();
        throw;
    }
}

LosslessWriter::~LosslessWriter() { release(); }

void LosslessWriter::open() {
    auto* const buffer = static_cast<std::uint8_t*>(av_malloc(outputBufferSize));
    requireMemory(buffer != nullptr);
    output_ = avio_alloc_context(buffer, outputBufferSize, 1, this, nullptr, writeBytes, seekTo);
    if (output_ == nullptr) av_free(buffer);
    requireMemory(output_ != nullptr);
    require(avformat_alloc_output_context2(&container_, nullptr, "ipod", nullptr) >= 0, "no muxer for MPEG-4 audio");
    container_->pb = output_;
    container_->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
    container_->flush_packets = 0;  // whole buffers at a time, not each packet by itself
    stream_ = avformat_new_stream(container_, nullptr);
    requireMemory(stream_ != nullptr);
    stream_->time_base = encoder_.settings().time_base;
    requireMemory(avcodec_parameters_from_context(stream_->codecpar, &encoder_.settings()) >= 0);
    const bool isBegun = avformat_write_header(container_, nullptr) >= 0;
    require(isBegun, systemError_, "the file cannot be begun");

    prepare(filling_);
    prepare(working_);
}

void LosslessWriter::prepare(Batch& batch) const {
    batch.samples.reserve(batchFrames_ * encoder_.frameSamples());
    batch.packets.resize(batchFrames_);
    for (auto& packet : batch.packets) {
        packet = av_packet_alloc();
        requireMemory(packet != nullptr);
    }
}

void LosslessWriter::release() noexcept {
    stopHelper();
    for (auto& packet : filling_.packets) av_packet_free(&packet);
    for (auto& packet : working_.packets) av_packet_free(&packet);
    avformat_free_context(container_);
    container_ = nullptr;
    if (output_ != nullptr) av_freep(static_cast<void*>(&output_->buffer));
    avio_context_free(&output_);
}

void LosslessWriter::write(const std::int16_t* samples, std::int64_t frames) {
    const auto whole = batchFrames_ * encoder_.frameSamples();
    std::size_t left = static_cast<std::size_t>(frames) * static_cast<std::size_t>(channels_);
    while (left > 0) {
        const auto count = std::min(left, whole - filling_.samples.size());
        filling_.samples.insert(filling_.samples.end(), samples, samples + count);
        samples += count;
        left -= count;
        if (filling_.samples.size() == whole) handOver();
    }
}

void LosslessWriter::finish() {
    handOver();
    complete();
    passOn(working_);
    const bool isComplete = av_write_trailer(container_) >= 0;
    avio_flush(output_);
    require(isComplete && output_->error >= 0, systemError_, "the file cannot be completed");
    // Where memory runs out meanwhile, FFmpeg leaves a box out and says nothing.
    if (!isEmpty_) requireMemory(isWhole(descriptor_, size_));
}

// Lets the batch at work come to its end and the filled one begin, and writes what came of the first.
void LosslessWriter::handOver() {
    complete();
    filling_.start = working_.start + static_cast<std::int64_t>(working_.samples.size()) / channels_;
    std::swap(filling_, working_);
    nextFrame_ = 0;
    if (working_.samples.size() > encoder_.frameSamples()) startHelper();
    if (helper_.joinable()) {
        isHelperAtWork_ = true;
        begin_.release();
    }
    passOn(filling_);
    filling_.samples.clear();
}

// Where there is no thread to be had, one encodes alone.
void LosslessWriter::startHelper() {
    if (!wantsHelper_) return;
    wantsHelper_ = false;
    helpersEncoder_ = std::make_unique<FrameEncoder>(sampleRate_, channels_);
    try {
        helper_ = std::thread([this] {
            for (;;) {
                begin_.acquire();
                if (isEnding_) return;
                takeFrames(*helpersEncoder_);
                end_.release();
            }
        });
    } catch (const std::system_error&) {
        helpersEncoder_ = nullptr;
    }
}

void LosslessWriter::stopHelper() noexcept {
    if (!helper_.joinable()) return;
    nextFrame_ = batchFrames_;  // the file will not be finished any more
    if (isHelperAtWork_) end_.acquire();
    isEnding_ = true;
    begin_.release();
    helper_.join();
}

// Encodes what is left of the batch at work, and waits for the helper's part.
void LosslessWriter::complete() {
    takeFrames(encoder_);
    if (std::exchange(isHelperAtWork_, false)) end_.acquire();
    if (failure_) std::rethrow_exception(failure_);
}

// Encodes frames of the batch at work until none is left. Only the last frame of the file may be a short one, and
// whoever takes that one encodes none after it.
void LosslessWriter::takeFrames(FrameEncoder& encoder) noexcept {
    try {
        const auto frameSamples = encoder.frameSamples();
        const std::span<const std::int16_t> samples(working_.samples);
        for (;;) {
            const auto frame = nextFrame_.fetch_add(1);
            const auto first = frame * frameSamples;
            if (first >= samples.size()) return;
            const auto start = working_.start + static_cast<std::int64_t>(first) / channels_;
            const auto count = std::min(frameSamples, samples.size() - first);
            encoder.encode(samples.subspan(first, count), start, *working_.packets[frame]);
        }
    } catch (...) {
        const std::lock_guard lock(failureMutex_);
        failure_ = std::current_exception();
    }
}

// Hands the packets of a batch to the container.
void LosslessWriter::passOn(Batch& batch) {
    for (AVPacket* const packet : batch.packets) {
        if (packet->size == 0) break;
        packet->stream_index = stream_->index;
        av_packet_rescale_ts(packet, encoder_.settings().time_base, stream_->time_base);
        const bool isWritten = av_write_frame(container_, packet) >= 0;
        av_packet_unref(packet);
        require(isWritten, systemError_, "the file cannot be written");
        isEmpty_ = false;
    }
}

int LosslessWriter::writeBytes(void* self, std::uint8_t* buffer, int size) {
    auto& writer = *static_cast<LosslessWriter*>(self);
    int left = size;
    while (left > 0) {
        const ssize_t count = ::pwrite(writer.descriptor_, buffer, static_cast<std::size_t>(left), writer.position_);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            if (writer.systemError_ == 0) writer.systemError_ = count < 0 ? errno : EIO;
            return AVERROR(writer.systemError_);
        }
        buffer += count;
        left -= static_cast<int>(count);
        writer.position_ += count;
        writer.size_ = std::max(writer.size_, writer.position_);
    }
    return size;
}

std::int64_t LosslessWriter::seekTo(void* self, std::int64_t offset, int origin) {
    auto& writer = *static_cast<LosslessWriter*>(self);
    if (origin == AVSEEK_SIZE) return writer.size_;
    const std::int64_t from = origin == SEEK_CUR ? writer.position_ : origin == SEEK_END ? writer.size_ : 0;
    std::int64_t target = 0;
    if (__builtin_add_overflow(from, offset, &target) || target < 0) return AVERROR(EINVAL);
    writer.position_ = target;
    return target;
}

}  // namespace quillmere
