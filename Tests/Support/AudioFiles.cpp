#include "Tests/Support/AudioFiles.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "QuillmereKit/Platform/LosslessModule.hpp"

namespace quillmere::test {
namespace {

std::string little(std::uint64_t value, int size) {
    std::string bytes;
    for (int index = 0; index < size; ++index) bytes += static_cast<char>(value >> (8 * index) & 0xFF);
    return bytes;
}

std::uint32_t numberAt(const std::string& bytes, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<std::uint8_t>(bytes.at(offset + i));
    return value;
}

}  // namespace

std::string wavBytes(int tag, int bits, std::uint32_t sampleRate, int channels, const std::string& audio) {
    const auto number = [](int value) { return static_cast<std::uint64_t>(value); };
    const auto frameBytes = number(channels) * number(bits) / 8;
    return "RIFF" + little(36 + audio.size(), 4) + "WAVEfmt " + little(16, 4) + little(number(tag), 2) +
           little(number(channels), 2) + little(sampleRate, 4) + little(sampleRate * frameBytes, 4) +
           little(frameBytes, 2) + little(number(bits), 2) + "data" + little(audio.size(), 4) + audio;
}

std::string wavBytes(std::span<const std::int16_t> samples, std::uint32_t sampleRate, int channels) {
    return wavBytes(1, 16, sampleRate, channels, littleEndian(samples));
}

std::string littleEndian(std::span<const std::int16_t> samples) {
    std::string bytes;
    bytes.reserve(samples.size() * 2);
    for (const std::int16_t sample : samples) bytes += little(static_cast<std::uint16_t>(sample), 2);
    return bytes;
}

std::vector<std::int16_t> tones(std::uint64_t seed, int channels, std::size_t frames) {
    // A resonator in whole numbers for each channel, pushed now and then: no library function, no rounding mode.
    std::vector<std::int16_t> samples(frames * static_cast<std::size_t>(channels));
    std::uint64_t state = seed * 2654435761U + 88172645463325252U;
    std::vector<std::int64_t> last(static_cast<std::size_t>(channels), 0);
    auto before = last;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        const auto channel = i % static_cast<std::size_t>(channels);
        const std::int64_t push = state % 997 == 0 ? static_cast<std::int64_t>(state >> 52) - 2048 : 0;
        const std::int64_t damped = before[channel] * 4090 / 4096;
        const auto next = last[channel] * (8100 - static_cast<std::int64_t>(channel) * 60) / 4096 - damped + push * 4;
        before[channel] = std::exchange(last[channel], std::clamp<std::int64_t>(next, -30000, 30000));
        samples[i] = static_cast<std::int16_t>(last[channel] + static_cast<std::int64_t>(state & 15));
    }
    return samples;
}

void writeALAC(const std::filesystem::path& file, std::span<const std::int16_t> samples, int sampleRate, int channels,
               int threads) {
    const LosslessModule& module = losslessModule();
    const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    LosslessWriter* writer = nullptr;
    ASSERT_EQ(module.openWriter(descriptor, sampleRate, channels, threads, &writer), 0);
    const auto frames = static_cast<std::int64_t>(samples.size()) / channels;
    ASSERT_EQ(module.write(writer, samples.data(), frames), 0);
    ASSERT_EQ(module.finish(writer), 0);
    module.closeWriter(writer);
    ASSERT_EQ(::close(descriptor), 0);
}

std::string patched(std::string text, const std::string& after, const std::string& from, const std::string& to) {
    const auto start = text.find(after);
    const auto place = start == std::string::npos ? start : text.find(from, start);
    if (place == std::string::npos) {
        ADD_FAILURE() << "no such text to replace";
        return text;
    }
    return text.replace(place, from.size(), to);
}

std::string indexFirst(const std::string& file) {
    // Boxes follow each other, each with its length in front; of the audio's places, "stco" has a list.
    std::string head;
    std::string audio;
    std::string index;
    for (std::size_t place = 0; place + 8 <= file.size(); place += numberAt(file, place)) {
        const auto box = file.substr(place, numberAt(file, place));
        const auto name = box.substr(4, 4);
        (name == "moov" ? index : name == "ftyp" ? head : audio) += box;
    }
    const auto list = index.find("stco");
    if (list == std::string::npos) {
        ADD_FAILURE() << "no index";
        return file;
    }
    for (std::uint32_t i = 0; i < numberAt(index, list + 8); ++i) {
        const auto place = list + 12 + std::size_t{4} * i;
        index.replace(place, 4, bigEndian(numberAt(index, place) + static_cast<std::uint32_t>(index.size())));
    }
    return head + index + audio;
}

std::string bigEndian(std::uint32_t value) {
    std::string bytes = little(value, 4);
    std::ranges::reverse(bytes);
    return bytes;
}

}  // namespace quillmere::test
