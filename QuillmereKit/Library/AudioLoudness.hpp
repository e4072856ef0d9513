#pragma once

#include <functional>
#include <optional>

#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// A loudness measurement and the playback gains that follow from it. A plain value.
struct AudioLoudness {
    static constexpr double targetLUFS = -18.0;  ///< The house target, in LUFS.

    std::optional<double> integratedLUFS =
        {};                              ///< Gated integrated loudness; absent when every block fell below the gates.
    double peak = 0;                     ///< Largest absolute sample, linear full scale.
    std::optional<double> seconds = {};  ///< How much audio the measurement covered; absent when unknown.

    /// The gain for the whole piece, in decibels.
    [[nodiscard]] double gainDB() const;

    /// The gain for music whose measurement may be partial, in decibels. `previous` is the gain used for the
    /// part of the stream before; `totalSeconds` the length of all that will be played.
    [[nodiscard]] double streamGainDB(std::optional<double> previous, double totalSeconds) const;

    friend bool operator==(const AudioLoudness&, const AudioLoudness&) = default;
};

/// {"integratedLUFS"?: number, "peak": number, "seconds"?: number}
void encode(JSONWriter& writer, const AudioLoudness& loudness);
template <>
AudioLoudness decode<AudioLoudness>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::AudioLoudness> {
    std::size_t operator()(const quillmere::AudioLoudness& loudness) const noexcept;
};
