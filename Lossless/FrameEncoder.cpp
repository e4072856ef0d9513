#include "Lossless/FrameEncoder.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

#include "Lossless/Failure.hpp"

namespace quillmere {
namespace {

// Puts interleaved samples into the frame's channels. Two channels have a loop of their own, which compilers turn into
// one without a step for each sample.
void separate(std::span<const std::int16_t> samples, const AVFrame& frame, int channels) {
    const auto plane = [&](int channel) { return reinterpret_cast<std::int16_t*>(frame.extended_data[channel]); };
    const std::size_t count = samples.size() / static_cast<std::size_t>(channels);
    const std::int16_t* source = samples.data();
    if (channels == 2) {
        std::int16_t* const left = plane(0);
        std::int16_t* const right = plane(1);
        for (std::size_t i = 0; i < count; ++i) {
            left[i] = source[2 * i];
            right[i] = source[2 * i + 1];
        }
        return;
    }
    for (int channel = 0; channel < channels; ++channel) {
        std::int16_t* const target = plane(channel);
        const std::int16_t* next = source + channel;
        for (std::size_t i = 0; i < count; ++i, next += channels) target[i] = *next;
    }
}

}  // namespace

FrameEncoder::FrameEncoder(std::int32_t sampleRate, std::int32_t channels) {
    try {
        open(sampleRate, channels);
    } catch (...) {
        release();
        throw;
    }
}

FrameEncoder::~FrameEncoder() { release(); }

void FrameEncoder::open(std::int32_t sampleRate, std::int32_t channels) {
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_ALAC);
    require(codec != nullptr, "no encoder for ALAC");
    encoder_ = avcodec_alloc_context3(codec);
    frame_ = av_frame_alloc();
    requireMemory(encoder_ != nullptr && frame_ != nullptr);
    encoder_->sample_fmt = AV_SAMPLE_FMT_S16P;
    encoder_->sample_rate = sampleRate;
    encoder_->time_base = AVRational{1, sampleRate};
    encoder_->thread_count = 1;
    encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
    av_channel_layout_default(&encoder_->ch_layout, channels);
    require(avcodec_open2(encoder_, codec, nullptr) >= 0, "the encoder refuses the audio");

    frame_->nb_samples = encoder_->frame_size;
    frame_->format = encoder_->sample_fmt;
    frame_->sample_rate = encoder_->sample_rate;
    requireMemory(av_channel_layout_copy(&frame_->ch_layout, &encoder_->ch_layout) >= 0);
    requireMemory(av_frame_get_buffer(frame_, 0) >= 0);
}

void FrameEncoder::release() noexcept {
    av_frame_free(&frame_);
    avcodec_free_context(&encoder_);
}

std::size_t FrameEncoder::frameSamples() const noexcept {
    return static_cast<std::size_t>(encoder_->frame_size) * static_cast<std::size_t>(encoder_->ch_layout.nb_channels);
}

void FrameEncoder::encode(std::span<const std::int16_t> samples, std::int64_t start, AVPacket& packet) {
    const int channels = encoder_->ch_layout.nb_channels;
    const int count = static_cast<int>(samples.size()) / channels;
    requireMemory(av_frame_make_writable(frame_) >= 0);
    frame_->nb_samples = count;
    frame_->pts = start;
    separate(samples, *frame_, channels);
    const bool isEncoded = avcodec_send_frame(encoder_, frame_) >= 0 && avcodec_receive_packet(encoder_, &packet) >= 0;
    require(isEncoded, "the audio cannot be encoded");
}

}  // namespace quillmere
