#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// A short piece of the user's own audio, stored as encoded latents, that steers generation.
///
/// A plain value: any fields may be held; `isValid` says whether they name a guide.
struct SoundGuide {
    static constexpr std::string_view currentFormat = "sa3.latents/1";  ///< The only accepted format.
    static constexpr double strengthRangeMin = 0.3;                     ///< What the user can set, from
    static constexpr double strengthRangeMax = 0.7;                     ///< to, both included.
    static constexpr double defaultStrength = 0.5;                      ///< Strength of a new guide.

    std::string format;     ///< Latent file format.
    std::string assetID;    ///< SHA-256 of the source audio, 64 lower-case hexadecimal digits.
    std::string storageID;  ///< Name of the latent file without extension; the owning mood's id.
    GenerationModel model = GenerationModel::medium;  ///< The model whose encoder made the latents.
    std::int64_t sampleCount = 0;                     ///< Length in samples at 44,100 per second.
    std::int64_t latentCount = 0;                     ///< Length in latent frames of 4,096 samples.
    std::string sourceName;                           ///< Name of the source file, for display.
    double sourceOffset = 0;                          ///< Where in the source the guide was cut, in seconds.
    double strength = defaultStrength;                ///< How strongly the guide steers.

    /// Length in seconds.
    [[nodiscard]] double seconds() const noexcept { return static_cast<double>(sampleCount) / 44100.0; }
    /// The name of the latent file: `storageID` and ".safetensors".
    [[nodiscard]] std::string fileName() const;
    /// A copy whose latent file belongs to the mood `id`.
    [[nodiscard]] SoundGuide storedAs(std::string id) const;

    /// Whether the fields name a guide that can be used: the current format, a digest, a storage name of 1...128
    /// ASCII letters, digits and "-", at least one sample and as many latent frames as they fill (one more where they
    /// fill the last one exactly), a strength of 0.01...1.0 (deliberately more than the user can set) and a finite
    /// source offset.
    [[nodiscard]] bool isValid() const noexcept;

    /// The start of a window of `seconds`, in latent frames: the same for the same guide and seed.
    /// 0 for an invalid guide, a negative seed, or seconds that are negative or not finite.
    [[nodiscard]] std::int64_t offset(std::int64_t seed, double seconds) const;

    friend bool operator==(const SoundGuide&, const SoundGuide&) = default;
};

/// {"format": text, "assetID": text, "storageID": text, "model": text, "sampleCount": integer, "latentCount": integer,
/// "sourceName": text, "sourceOffset": number, "strength": number}, all required.
void encode(JSONWriter& writer, const SoundGuide& guide);
template <>
SoundGuide decode<SoundGuide>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::SoundGuide> {
    std::size_t operator()(const quillmere::SoundGuide& guide) const noexcept;
};
