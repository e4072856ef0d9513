#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "QuillmereKit/Moods/AudioUse.hpp"
#include "QuillmereKit/Moods/BlendStep.hpp"

namespace quillmere {

/// Exactly what one piece of music is generated from. A plain value; its `fingerprint` names the piece everywhere.
struct LoopIdentity {
    /// The version of the generation recipe that every newly requested identity carries.
    static constexpr std::int64_t currentRecipe = 1;

    std::string moodID;                      ///< The mood the piece belongs to.
    BlendStep blend = {};                    ///< Position between the calm and the energetic end.
    std::string calmPrompt;                  ///< Prompt text of the calm end.
    std::string energeticPrompt;             ///< Prompt text of the energetic end.
    std::int64_t seed = 0;                   ///< Generation seed.
    std::string model;                       ///< The identity-model string, such as "sa3_medium_mlx_v2".
    std::optional<std::string> prompt = {};  ///< A complete prompt that replaces the blended one.
    std::optional<AudioUse> audio = {};      ///< Guide audio used for the generation.
    std::int64_t recipe = currentRecipe;     ///< Version of the generation recipe that made the piece.

    /// The end that the blend step belongs to.
    [[nodiscard]] Anchor anchor() const noexcept { return blend.anchor(); }
    /// Whether the piece was generated from a recording.
    [[nodiscard]] bool isRecording() const noexcept { return audio && audio->kind == AudioUse::Kind::recording; }

    /// 16 lower-case hexadecimal characters: the first 8 bytes of a SHA-256 over all fields. Computed at each call.
    [[nodiscard]] std::string fingerprint() const;

    /// The fingerprint as a number, its 16 digits read as one: what compares and hashes at once. Computed at each call.
    [[nodiscard]] std::uint64_t fingerprintNumber() const;

    /// The piece's file name without extension: mood id, "_b", blend index, "_", fingerprint. The mood id is not
    /// escaped.
    [[nodiscard]] std::string filename() const;

    friend bool operator==(const LoopIdentity&, const LoopIdentity&) = default;
};

/// {"moodID": text, "blend": {"index": integer}, "calmPrompt": text, "energeticPrompt": text, "seed": integer,
/// "model": text, "prompt": text, "audio": audio use, "recipe": integer}; prompt and audio only where present.
void encode(JSONWriter& writer, const LoopIdentity& identity);
template <>
LoopIdentity decode<LoopIdentity>(const JSONValue& value);
void decodeInto(const JSONValue& value, LoopIdentity& into);

}  // namespace quillmere

template <>
struct std::hash<quillmere::LoopIdentity> {
    std::size_t operator()(const quillmere::LoopIdentity& identity) const noexcept;
};
