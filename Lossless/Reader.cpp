#include "Lossless/Reader.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Lossless/Failure.hpp"

namespace quillmere {
namespace {

constexpr int inputBufferSize = 1 << 16;

// Encoders use 4,096. The decoder takes memory for as many as a file claims.
constexpr unsigned int mostFrameSamples = 1U << 16;

// The samples in a frame, as the decoder's settings in the file say ("ALACSpecificConfig", after the header of its
// box); the decoder itself checks the rest of them.
unsigned int frameSamples(const AVCodecParameters& parameters) {
    constexpr int start = 12;
    if (parameters.extradata_size < start + 4) return 0;
    const std::uint8_t* const bytes = parameters.extradata + start;
    return static_cast<unsigned int>(bytes[0]) << 24 | static_cast<unsigned int>(bytes[1]) << 16 |
           static_cast<unsigned int>(bytes[2]) << 8 | static_cast<unsigned int>(bytes[3]);
}

// Puts samples of the frame's channels one beside the other. Two channels have a loop of their own, which compilers
// turn into one without a step for each sample.
void interleave(const AVFrame& frame, int offset, std::int64_t count, int channels, std::int16_t* target) {
    const auto plane = [&](int channel) {
        return reinterpret_cast<const std::int16_t*>(frame.extended_data[channel]) + offset;
    };
    if (channels == 2) {
        const std::int16_t* const left = plane(0);
        const std::int16_t* const right = plane(1);
        for (std::int64_t i = 0; i < count; ++i) {
            target[2 * i] = left[i];
            target[2 * i + 1] = right[i];
        }
        return;
    }
    for (int channel = 0; channel < channels; ++channel) {
        const std::int16_t* const source = plane(channel);
        for (std::int64_t i = 0; i < count; ++i) target[i * channels + channel] = source[i];
    }
}

int refuseToOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) { return AVERROR(EPERM); }

}  // namespace

LosslessReader::LosslessReader(int descriptor, LosslessInfo& info) : descriptor_(descriptor) {
    try {
        open(info);
    } catch (...) {
        release();
        throw;
    }
}

LosslessReader::~LosslessReader() { release(); }

void LosslessReader::open(LosslessInfo& info) {
    struct stat facts {};
    const bool isSeen = ::fstat(descriptor_, &facts) == 0;
    require(isSeen, isSeen ? 0 : errno, "the file cannot be looked at");
    size_ = facts.st_size;
    filter_ = std::make_unique<const MovieFilter>(descriptor_, static_cast<std::uint64_t>(size_));

    auto* const buffer = static_cast<std::uint8_t*>(av_malloc(inputBufferSize));
    requireMemory(buffer != nullptr);
    input_ = avio_alloc_context(buffer, inputBufferSize, 0, this, readBytes, nullptr, seekTo);
    if (input_ == nullptr) av_free(buffer);
    requireMemory(input_ != nullptr);

    container_ = avformat_alloc_context();
    requireMemory(container_ != nullptr);
    container_->pb = input_;
    container_->io_open = refuseToOpen;
    container_->max_streams = 1;
    // Only this container, and nothing that it points at: what it names elsewhere is never opened.
    const AVInputFormat* const format = av_find_input_format("mov");
    require(format != nullptr, "no demuxer for MPEG-4");
    const bool isOpened = avformat_open_input(&container_, "", format, nullptr) >= 0;
    require(isOpened, systemError_, "no MPEG-4 file");

    for (unsigned int i = 0; i < container_->nb_streams && stream_ < 0; ++i) {
        if (container_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) stream_ = static_cast<int>(i);
    }
    require(stream_ >= 0, "no audio in the file");
    const AVStream* const stream = container_->streams[stream_];
    const AVCodecParameters* const parameters = stream->codecpar;
    channels_ = parameters->ch_layout.nb_channels;
    require(channels_ >= 1 && channels_ <= 8 && parameters->sample_rate > 0, "no usable audio in the file");
    const bool isALAC = parameters->codec_id == AV_CODEC_ID_ALAC;
    info = {.frames = av_rescale_q(stream->duration, stream->time_base, AVRational{1, parameters->sample_rate}),
            .sampleRate = parameters->sample_rate,
            .channels = channels_,
            .bitsPerChannel = parameters->bits_per_raw_sample > 0 ? parameters->bits_per_raw_sample
                                                                  : parameters->bits_per_coded_sample,
            .isALAC = isALAC ? 1 : 0};
    if (!isALAC) return;  // said, but never decoded

    const auto samples = frameSamples(*parameters);
    require(samples > 0 && samples <= mostFrameSamples, "unusable audio parameters");
    const AVCodec* const codec = avcodec_find_decoder(AV_CODEC_ID_ALAC);
    require(codec != nullptr, "no decoder for ALAC");
    decoder_ = avcodec_alloc_context3(codec);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    requireMemory(decoder_ != nullptr && packet_ != nullptr && frame_ != nullptr);
    require(avcodec_parameters_to_context(decoder_, parameters) >= 0, "unusable audio parameters");
    decoder_->thread_count = 1;
    decoder_->err_recognition = AV_EF_EXPLODE | AV_EF_CRCCHECK;
    require(avcodec_open2(decoder_, codec, nullptr) >= 0, "the decoder refuses the file");
    if (decoder_->bits_per_raw_sample > 0) info.bitsPerChannel = decoder_->bits_per_raw_sample;
}

void LosslessReader::release() noexcept {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&decoder_);
    avformat_close_input(&container_);
    if (input_ != nullptr) av_freep(static_cast<void*>(&input_->buffer));
    avio_context_free(&input_);
}

std::int64_t LosslessReader::read(std::int16_t* samples, std::int64_t frames) {
    require(decoder_ != nullptr, "the audio is not ALAC");
    std::int64_t done = 0;
    while (done < frames) {
        if (frame_->nb_samples <= offset_ && !decodeNext()) break;
        const auto count = std::min<std::int64_t>(frames - done, frame_->nb_samples - offset_);
        std::int16_t* const target = samples + done * channels_;
        interleave(*frame_, offset_, count, channels_, target);
        done += count;
        offset_ += static_cast<int>(count);
    }
    return done;
}

// Whether there is a further frame of samples.
bool LosslessReader::decodeNext() {
    offset_ = 0;
    av_frame_unref(frame_);
    while (true) {
        const int received = avcodec_receive_frame(decoder_, frame_);
        if (received == AVERROR_EOF) return false;
        if (received >= 0) {
            require(frame_->decode_error_flags == 0, "the audio cannot be decoded");
            const bool isExpected = frame_->format == AV_SAMPLE_FMT_S16P && frame_->ch_layout.nb_channels == channels_;
            require(isExpected, "the samples change their form");
            if (frame_->nb_samples > 0) return true;
            continue;
        }
        require(received == AVERROR(EAGAIN) && !isDrained_, "the audio cannot be decoded");
        const int demuxed = av_read_frame(container_, packet_);
        if (demuxed == AVERROR_EOF && systemError_ == 0) {
            isDrained_ = true;
            require(avcodec_send_packet(decoder_, nullptr) >= 0, "the audio cannot be decoded");
            continue;
        }
        const bool isWhole = demuxed >= 0 && (packet_->flags & AV_PKT_FLAG_CORRUPT) == 0;
        require(isWhole, systemError_, "the file cannot be read");
        packetBytes_ += packet_->size;
        require(packetBytes_ <= size_, "the file's packets lie over each other");
        const bool isOurs = packet_->stream_index == stream_;
        const int sent = isOurs ? avcodec_send_packet(decoder_, packet_) : 0;
        av_packet_unref(packet_);
        require(sent >= 0, "the audio cannot be decoded");
    }
}

int LosslessReader::readBytes(void* self, std::uint8_t* buffer, int size) {
    auto& reader = *static_cast<LosslessReader*>(self);
    while (true) {
        const ssize_t count = ::pread(reader.descriptor_, buffer, static_cast<std::size_t>(size), reader.position_);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            reader.systemError_ = errno;
            return AVERROR(errno);
        }
        if (count == 0) return AVERROR_EOF;
        reader.filter_->hide(static_cast<std::uint64_t>(reader.position_), {buffer, static_cast<std::size_t>(count)});
        reader.position_ += count;
        return static_cast<int>(count);
    }
}

std::int64_t LosslessReader::seekTo(void* self, std::int64_t offset, int origin) {
    auto& reader = *static_cast<LosslessReader*>(self);
    if (origin == AVSEEK_SIZE) return reader.size_;
    const std::int64_t from = origin == SEEK_CUR ? reader.position_ : origin == SEEK_END ? reader.size_ : 0;
    std::int64_t target = 0;
    if (__builtin_add_overflow(from, offset, &target) || target < 0) return AVERROR(EINVAL);
    reader.position_ = target;
    return target;
}

}  // namespace quillmere
