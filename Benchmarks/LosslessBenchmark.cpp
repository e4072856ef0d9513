extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/FileSHA256.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "Tests/Support/AudioFiles.hpp"

// Digests and encoding of one piece: 120 seconds of stereo at 48,000 frames a second, or the WAV file that
// QUILLMERE_BENCHMARK_AUDIO names. Each beside what it is made of: one call of OpenSSL over the same bytes in memory,
// and libavcodec's encoder alone, without any file.

namespace {

using quillmere::FileURL;

struct Piece {
    std::filesystem::path folder = std::filesystem::temp_directory_path() / "quillmere-benchmark";
    FileURL wav = FileURL::fromPath(folder / "piece.wav");
    FileURL m4a = FileURL::fromPath(folder / "piece.m4a");
    std::vector<std::int16_t> samples;

    Piece() {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        if (const char* const named = std::getenv("QUILLMERE_BENCHMARK_AUDIO")) {
            std::filesystem::copy_file(named, wav.path());
        } else {
            const auto bytes = quillmere::test::wavBytes(quillmere::test::tones(1, 2, 120 * 48000));
            std::ofstream(wav.path(), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        }
        quillmere::encodeALAC(wav, m4a);
        quillmere::AudioFile file(wav.path());
        samples.resize(static_cast<std::size_t>(file.frames()) * 2);
        static_cast<void>(file.read(samples));
    }
    ~Piece() { std::filesystem::remove_all(folder); }
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
BENCHMARK(oneShotDigest)->Unit(benchmark::kMillisecond);

void wavDigest(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(quillmere::AudioPCM::digest(piece().wav));
}
BENCHMARK(wavDigest)->Unit(benchmark::kMillisecond);

void fileDigest(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(quillmere::FileSHA256::digest(piece().wav));
}
BENCHMARK(fileDigest)->Unit(benchmark::kMillisecond);

void alacDigest(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(quillmere::AudioPCM::digest(piece().m4a));
}
BENCHMARK(alacDigest)->Unit(benchmark::kMillisecond);

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
BENCHMARK(bareEncoder)->Unit(benchmark::kMillisecond)->UseRealTime();

// Argument: threads. Samples in memory, the file written but not synced.
void moduleEncoder(benchmark::State& state) {
    const auto& module = quillmere::losslessModule();
    const auto& samples = piece().samples;
    const auto file = piece().folder / "encoded.m4a";
    for (auto _ : state) {
        const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        quillmere::LosslessWriter* writer = nullptr;
        const auto threads = static_cast<std::int32_t>(state.range(0));
        if (module.openWriter(descriptor, 48000, 2, threads, &writer) < 0) std::abort();
        constexpr std::size_t atATime = std::size_t{8192} * 2;
        for (std::size_t place = 0; place < samples.size(); place += atATime) {
            const auto count = std::min(atATime, samples.size() - place);
            if (module.write(writer, samples.data() + place, static_cast<std::int64_t>(count / 2)) < 0) std::abort();
        }
        if (module.finish(writer) < 0) std::abort();
        module.closeWriter(writer);
        ::close(descriptor);
    }
}
BENCHMARK(moduleEncoder)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
