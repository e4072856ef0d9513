#pragma once

#include <functional>
#include <optional>

#include "QuillmereKit/Library/AudioLoudness.hpp"

namespace quillmere {

/// What was measured of a piece's sound. A plain value.
struct LoopQuality {
    double brightness = 0;                       ///< Brightness measure, as the renderer reported it.
    double makeupDB = 0;                         ///< Make-up gain in decibels, as the renderer reported it.
    std::optional<AudioLoudness> loudness = {};  ///< Absent until measured.

    friend bool operator==(const LoopQuality&, const LoopQuality&) = default;
};

/// Writes the legacy key "eventfulness" too, unless `omitLegacyMusicFields` is set.
void encode(JSONWriter& writer, const LoopQuality& quality);
template <>
LoopQuality decode<LoopQuality>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::LoopQuality> {
    std::size_t operator()(const quillmere::LoopQuality& quality) const noexcept;
};
