#include "QuillmereKit/Moods/SoundGuide.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

namespace quillmere {
namespace {

constexpr std::int64_t samplesPerLatent = 4096;

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

bool isLowerHexadecimal(char c) noexcept { return isDigit(c) || (c >= 'a' && c <= 'f'); }

bool isStorageCharacter(char c) noexcept {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
}

}  // namespace

std::string SoundGuide::fileName() const { return storageID + ".safetensors"; }

SoundGuide SoundGuide::storedAs(std::string id) const {
    SoundGuide copy = *this;
    copy.storageID = std::move(id);
    return copy;
}

bool SoundGuide::isValid() const noexcept {
    if (format != currentFormat) return false;
    if (assetID.size() != 64 || !std::ranges::all_of(assetID, isLowerHexadecimal)) return false;
    if (storageID.empty() || storageID.size() > 128 || !std::ranges::all_of(storageID, isStorageCharacter))
        return false;
    if (sampleCount < 1 || latentCount < 1) return false;
    // (latentCount - 1) * 4096 <= sampleCount <= latentCount * 4096, in divisions, which cannot overflow.
    if (latentCount - 1 > sampleCount / samplesPerLatent) return false;
    if (latentCount - 1 < (sampleCount - 1) / samplesPerLatent) return false;
    return strength >= 0.01 && strength <= 1.0 && std::isfinite(sourceOffset);
}

std::int64_t SoundGuide::offset(std::int64_t seed, double window) const {
    if (!isValid() || seed < 0 || !std::isfinite(window) || window < 0) return 0;
    const double windowSamples = std::nearbyint(std::min(seconds(), window) * 44100.0);  // halves to even
    if (windowSamples >= 0x1p63) return 0;  // only for a guide of nearly as many samples, which leaves no room
    const std::int64_t room = sampleCount - static_cast<std::int64_t>(windowSamples);
    if (room < samplesPerLatent) return 0;
    const auto steps = static_cast<std::uint64_t>(room / samplesPerLatent);

    const auto digest = SHA256::digest(assetID + '\x1f' + std::to_string(seed));
    std::uint64_t drawn = 0;
    for (std::size_t i = 0; i < 8; ++i) drawn = drawn << 8 | digest[i];
    return static_cast<std::int64_t>(drawn % (steps + 1));
}

void encode(JSONWriter& writer, const SoundGuide& guide) {
    writer.beginObject();
    writer.member("format", guide.format);
    writer.member("assetID", guide.assetID);
    writer.member("storageID", guide.storageID);
    writer.member("model", guide.model);
    writer.member("sampleCount", guide.sampleCount);
    writer.member("latentCount", guide.latentCount);
    writer.member("sourceName", guide.sourceName);
    writer.member("sourceOffset", guide.sourceOffset);
    writer.member("strength", guide.strength);
    writer.endObject();
}

template <>
SoundGuide decode<SoundGuide>(const JSONValue& value) {
    return {
        .format = value.member<std::string>("format"),
        .assetID = value.member<std::string>("assetID"),
        .storageID = value.member<std::string>("storageID"),
        .model = value.member<GenerationModel>("model"),
        .sampleCount = value.member<std::int64_t>("sampleCount"),
        .latentCount = value.member<std::int64_t>("latentCount"),
        .sourceName = value.member<std::string>("sourceName"),
        .sourceOffset = value.member<double>("sourceOffset"),
        .strength = value.member<double>("strength"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::SoundGuide>::operator()(const quillmere::SoundGuide& guide) const noexcept {
    return quillmere::Hasher{}
        .add(guide.format)
        .add(guide.assetID)
        .add(guide.storageID)
        .add(guide.model)
        .add(guide.sampleCount)
        .add(guide.latentCount)
        .add(guide.sourceName)
        .add(guide.sourceOffset)
        .add(guide.strength)
        .value();
}
