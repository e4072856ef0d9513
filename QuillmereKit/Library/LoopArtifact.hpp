#pragma once

#include <functional>
#include <optional>
#include <string>

#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Library/LoopQuality.hpp"
#include "QuillmereKit/Library/RecipeOrigin.hpp"
#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere {

/// One stored piece of generated music: the audio file and what is known about it. A plain value.
struct LoopArtifact {
    LoopIdentity identity;              ///< What the piece was generated from.
    FileURL url;                        ///< Where the audio lies.
    double seconds = 0;                 ///< Length of the audio.
    std::optional<double> seamDB = {};  ///< Level measure at the loop's seam, decibels, as the renderer reported it.
    std::optional<LoopQuality> quality = {};      ///< Absent when never measured.
    std::optional<double> leadIn = {};            ///< Lead-in in seconds, as the renderer reported it.
    std::optional<std::string> engineBuild = {};  ///< The exact build of the engine that rendered it.
    std::optional<RecipeOrigin> origin = {};      ///< The machine on which it was rendered.

    /// The identity's fingerprint: the key of the library.
    [[nodiscard]] std::string id() const { return identity.fingerprint(); }

    /// Whether the piece still belongs to its mood, judged against the shared custom mood store.
    [[nodiscard]] bool isPlayable() const;

    /// Whether the piece counts as a full track: a recording, or one whose model is recognised.
    [[nodiscard]] bool isTrack() const noexcept;

    /// A copy that holds this loudness; a quality made for it has brightness and make-up 0.
    [[nodiscard]] LoopArtifact withLoudness(AudioLoudness loudness) const;

    /// A copy with another location.
    [[nodiscard]] LoopArtifact withURL(FileURL newURL) const;

    friend bool operator==(const LoopArtifact&, const LoopArtifact&) = default;
};

/// {"identity": identity, "url": text, "seconds": number, "seamDB"?: number, "quality"?: quality, "leadIn"?: number,
/// "engineBuild"?: text, "origin"?: origin}
void encode(JSONWriter& writer, const LoopArtifact& artifact);
template <>
LoopArtifact decode<LoopArtifact>(const JSONValue& value);
void decodeInto(const JSONValue& value, LoopArtifact& into);

}  // namespace quillmere

template <>
struct std::hash<quillmere::LoopArtifact> {
    std::size_t operator()(const quillmere::LoopArtifact& artifact) const noexcept;
};
