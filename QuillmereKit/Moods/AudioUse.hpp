#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "QuillmereKit/Moods/SoundGuide.hpp"
#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

/// How guide audio was used in one piece of music: which guide, from where, and as what. A plain value.
struct AudioUse {
    /// What the guide stands for.
    enum class Kind { song, recording };

    SoundGuide guide;         ///< The guide used.
    std::int64_t offset = 0;  ///< Start within the guide, in latent frames of 4,096 samples.
    Kind kind = Kind::song;   ///< As what it was used.

    /// Lower-case hexadecimal SHA-256 of the JSON form with sorted keys; "invalid-audio-input" if it cannot be encoded.
    [[nodiscard]] std::string fingerprint() const;

    friend bool operator==(const AudioUse&, const AudioUse&) = default;
};

/// One row of the kinds' table.
struct AudioUseKindRow {
    AudioUse::Kind value;  ///< The case.
    std::string_view raw;  ///< Its raw value.
};
template <>
inline constexpr auto enumTable<AudioUse::Kind> = EnumTable<AudioUseKindRow, 2>{{{
    {AudioUse::Kind::song, "song"},
    {AudioUse::Kind::recording, "recording"},
}}};
static_assert(enumTable<AudioUse::Kind>.isInCaseOrder());

template <>
AudioUse::Kind decode<AudioUse::Kind>(const JSONValue& value);

/// {"guide": sound guide, "offset": integer, "kind": "song" or "recording"}, all required.
void encode(JSONWriter& writer, const AudioUse& use);
template <>
AudioUse decode<AudioUse>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::AudioUse> {
    std::size_t operator()(const quillmere::AudioUse& use) const noexcept;
};
