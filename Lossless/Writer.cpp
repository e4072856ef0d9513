#include "Lossless/Writer.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace quillmere {
namespace {

constexpr int outputBufferSize = 1 << 16;

void require(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(what);
}

}  // namespace

LosslessWriter::LosslessWriter(int descriptor, std::int32_t sampleRate, std::int32_t channels)
    : descriptor_(descriptor) {
    try {
        open(sampleRate, channels);
    } catch (...) {
        release();
        throw;
    }
}

LosslessWriter::~LosslessWriter() { release(); }

void LosslessWriter::open(std::int32_t sampleRate, std::int32_t channels) {
    channels_ = channels;
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_ALAC);
    require(codec != nullptr, "no encoder for ALAC");
    encoder_ = avcodec_alloc_context3(codec);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    require(encoder_ != nullptr && packet_ != nullptr && frame_ != nullptr, "out of memory");
    encoder_->sample_fmt = AV_SAMPLE_FMT_S16P;
    encoder_->sample_rate = sampleRate;
    encoder_->time_base = AVRational{1, sampleRate};
    encoder_->thread_count = 1;
    encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
    av_channel_layout_default(&encoder_->ch_layout, channels);
    require(avcodec_open2(encoder_, codec, nullptr) >= 0, "the encoder refuses the audio");

    auto* const buffer = static_cast<std::uint8_t*>(av_malloc(outputBufferSize));
    require(buffer != nullptr, "out of memory");
    output_ = avio_alloc_context(buffer, outputBufferSize, 1, this, nullptr, writeBytes, seekTo);
    if (output_ == nullptr) av_free(buffer);
    require(output_ != nullptr, "out of memory");
    require(avformat_alloc_output_context2(&container_, nullptr, "ipod", nullptr) >= 0, "no muxer for MPEG-4 audio");
    container_->pb = output_;
    container_->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
    stream_ = avformat_new_stream(container_, nullptr);
    require(stream_ != nullptr, "out of memory");
    stream_->time_base = encoder_->time_base;
    require(avcodec_parameters_from_context(stream_->codecpar, encoder_) >= 0, "out of memory");
    require(avformat_write_header(container_, nullptr) >= 0, "the file cannot be begun");
    pending_.reserve(static_cast<std::size_t>(encoder_->frame_size) * static_cast<std::size_t>(channels));
}

void LosslessWriter::release() noexcept {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&encoder_);
    avformat_free_context(container_);
    container_ = nullptr;
    if (output_ != nullptr) av_freep(&output_->buffer);
    avio_context_free(&output_);
}

void LosslessWriter::write(const std::int16_t* samples, std::int64_t frames) {
    const auto channels = static_cast<std::size_t>(channels_);
    const auto whole = static_cast<std::size_t>(encoder_->frame_size) * channels;
    std::size_t left = static_cast<std::size_t>(frames) * channels;
    while (left > 0) {
        const auto count = std::min(left, whole - pending_.size());
        pending_.insert(pending_.end(), samples, samples + count);
        samples += count;
        left -= count;
        if (pending_.size() == whole) encodePending();
    }
}

void LosslessWriter::finish() {
    if (!pending_.empty()) encodePending();
    require(avcodec_send_frame(encoder_, nullptr) >= 0, "the audio cannot be encoded");
    passOn();
    require(av_write_trailer(container_) >= 0, "the file cannot be completed");
    avio_flush(output_);
    require(output_->error >= 0, "the file cannot be written");
}

void LosslessWriter::encodePending() {
    const auto count = static_cast<int>(pending_.size()) / channels_;
    frame_->nb_samples = count;
    frame_->format = encoder_->sample_fmt;
    frame_->sample_rate = encoder_->sample_rate;
    frame_->pts = written_;
    require(av_channel_layout_copy(&frame_->ch_layout, &encoder_->ch_layout) >= 0, "out of memory");
    require(av_frame_get_buffer(frame_, 0) >= 0, "out of memory");
    for (int channel = 0; channel < channels_; ++channel) {
        auto* const target = reinterpret_cast<std::int16_t*>(frame_->extended_data[channel]);
        const std::int16_t* source = pending_.data() + channel;
        for (int i = 0; i < count; ++i, source += channels_) target[i] = *source;
    }
    const int sent = avcodec_send_frame(encoder_, frame_);
    av_frame_unref(frame_);
    require(sent >= 0, "the audio cannot be encoded");
    written_ += count;
    pending_.clear();
    passOn();
}

// Hands the encoder's packets to the container.
void LosslessWriter::passOn() {
    while (true) {
        const int received = avcodec_receive_packet(encoder_, packet_);
        if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) return;
        require(received >= 0, "the audio cannot be encoded");
        packet_->stream_index = stream_->index;
        av_packet_rescale_ts(packet_, encoder_->time_base, stream_->time_base);
        require(av_write_frame(container_, packet_) >= 0, "the file cannot be written");
        av_packet_unref(packet_);
    }
}

int LosslessWriter::writeBytes(void* self, std::uint8_t* buffer, int size) {
    auto& writer = *static_cast<LosslessWriter*>(self);
    int left = size;
    while (left > 0) {
        const ssize_t count = ::pwrite(writer.descriptor_, buffer, static_cast<std::size_t>(left), writer.position_);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return AVERROR(errno);
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
    const std::int64_t target = from + offset;
    if (target < 0) return AVERROR(EINVAL);
    writer.position_ = target;
    return target;
}

}  // namespace quillmere
