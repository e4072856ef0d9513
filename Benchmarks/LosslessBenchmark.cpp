extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Benchmarks/Comparison.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"

// Digest and encoding of one piece, 120 seconds of stereo at 48,000 frames a second, each beside what it is made of:
// one call of OpenSSL over the same bytes in memory, and libavcodec's encoder alone, without any file.

namespace quillmere::benchmarks {
namespace {

constexpr std::size_t framesPerSecond = 48'000;

// A few tones that swell and fade, with a little noise on them: as hard to encode as quiet music.
std::vector<std::int16_t> music() {
    std::vector<std::int16_t> samples(120 * framesPerSecond * 2);
    std::minstd_rand noise(1);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double time = static_cast<double>(i / 2) / framesPerSecond;
        const double phase = 6.283185307179586 * time + static_cast<double>(i % 2);
        const double tones = std::sin(110 * phase) + std::sin(261.6 * phase) * std::sin(phase / 7) +
                             std::sin(329.6 * phase) * std::sin(phase / 11);
        const double hiss = static_cast<double>(noise()) / static_cast<double>(noise.max()) - 0.5;
        samples[i] = static_cast<std::int16_t>(4000 * tones + 200 * hiss);
    }
    return samples;
}

struct Piece {
    std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("quillmere-benchmark-" + UUID::random().text());
    FileURL wav = FileURL::fromPath(folder / "piece.wav");
    std::vector<std::int16_t> samples = music();

    Piece() {
        std::filesystem::create_directories(folder);
        WAVWriter writer(wav.path(), framesPerSecond, 2);
        writer.write(samples);
        writer.finish();
    }
    ~Piece() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    Piece(const Piece&) = delete;
    Piece& operator=(const Piece&) = delete;
};

const Piece& piece() {
    static const Piece piece;
    return piece;
}

void oneShotDigest(benchmark::State& state) {
    const auto& samples = piece().samples;
    std::array<unsigned char, 32> digest;
    for (auto _ : state) {
        EVP_Digest(samples.data(), samples.size() * 2, digest.data(), nullptr, EVP_sha256(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
}

void wavDigest(benchmark::State& state) {
    const auto& file = piece().wav;
    for (auto _ : state) benchmark::DoNotOptimize(AudioPCM::digest(file));
}

void bareEncoder(benchmark::State& state) {
    const auto& samples = piece().samples;
    std::int64_t bytes = 0;
    for (auto _ : state) {
        const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_ALAC);
        AVCodecContext* encoder = avcodec_alloc_context3(codec);
        encoder->sample_fmt = AV_SAMPLE_FMT_S16P;
        encoder->sample_rate = 48000;
        encoder->time_base = AVRational{1, 48000};
        encoder->thread_count = 1;
        av_channel_layout_default(&encoder->ch_layout, 2);
        if (avcodec_open2(encoder, codec, nullptr) < 0) std::abort();
        AVFrame* frame = av_frame_alloc();
        AVPacket* packet = av_packet_alloc();
        frame->nb_samples = encoder->frame_size;
        frame->format = encoder->sample_fmt;
        frame->sample_rate = 48000;
        av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout);
        if (av_frame_get_buffer(frame, 0) < 0) std::abort();
        const auto frames = static_cast<std::int64_t>(samples.size() / 2);
        for (std::int64_t start = 0; start < frames; start += encoder->frame_size) {
            const auto count = std::min<std::int64_t>(encoder->frame_size, frames - start);
            if (av_frame_make_writable(frame) < 0) std::abort();
            frame->nb_samples = static_cast<int>(count);
            auto* const left = reinterpret_cast<std::int16_t*>(frame->data[0]);
            auto* const right = reinterpret_cast<std::int16_t*>(frame->data[1]);
            for (std::int64_t i = 0; i < count; ++i) {
                left[i] = samples[static_cast<std::size_t>(2 * (start + i))];
                right[i] = samples[static_cast<std::size_t>(2 * (start + i) + 1)];
            }
            if (avcodec_send_frame(encoder, frame) < 0 || avcodec_receive_packet(encoder, packet) < 0) std::abort();
            bytes += packet->size;
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        av_frame_free(&frame);
        avcodec_free_context(&encoder);
    }
    benchmark::DoNotOptimize(bytes);
}

// Samples in memory; the file is written but not synced.
Body encoding(std::int32_t threads) {
    return [=](benchmark::State& state) {
        const auto& module = losslessModule();
        const auto& samples = piece().samples;
        const auto file = piece().folder / "encoded.m4a";
        for (auto _ : state) {
            const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            LosslessWriter* writer = nullptr;
            if (module.openWriter(descriptor, framesPerSecond, 2, threads, &writer) < 0) std::abort();
            constexpr std::size_t atATime = std::size_t{8192} * 2;
            for (std::size_t place = 0; place < samples.size(); place += atATime) {
                const auto count = std::min(atATime, samples.size() - place);
                if (module.write(writer, samples.data() + place, static_cast<std::int64_t>(count / 2)) < 0) {
                    std::abort();
                }
            }
            if (module.finish(writer) < 0) std::abort();
            module.closeWriter(writer);
            ::close(descriptor);
        }
    };
}

[[maybe_unused]] const bool registered =
    compare("WAV digest, 120 s", wavDigest, oneShotDigest, benchmark::kMillisecond) &&
    compare("ALAC encoding, one thread", encoding(1), bareEncoder, benchmark::kMillisecond) &&
    compare("ALAC encoding, two threads", encoding(2), bareEncoder, benchmark::kMillisecond);

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
