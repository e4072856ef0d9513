#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "QuillmereKit/Moods/BlendStep.hpp"
#include "QuillmereKit/Moods/MoodEnd.hpp"
#include "QuillmereKit/Moods/MoodGlyph.hpp"
#include "QuillmereKit/Moods/SoundGuide.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// How a user's own mood sounds: a calm and an energetic end, and optionally audio that guides the generation.
///
/// A plain value, identified by `id`, which stays what it is for the life of the mood; everything else may be edited.
struct MoodSpec {
    static constexpr std::string_view idPrefix = "my-";  ///< How the ids of user moods begin; built-in ones never do.

    std::string id;                             ///< Unique; begins with `idPrefix`.
    std::string name;                           ///< Shown to the user.
    MoodGlyph glyph = MoodGlyph::wave;          ///< Symbol shown for the mood.
    MoodEnd calm;                               ///< The calm end.
    MoodEnd energetic;                          ///< The energetic end.
    std::optional<SoundGuide> soundGuide = {};  ///< Guide audio that steers the generation.

    /// A new, empty specification named "Untitled mood", with a fresh random id.
    [[nodiscard]] static MoodSpec blank(MoodGlyph glyph);

    /// Whether music can be made from it: neither end is empty, and the guide, if there is one, is valid and stored
    /// under this id.
    [[nodiscard]] bool isPlayable() const noexcept;

    /// A copy without the guide; where there was one its id ends in "-tags", so that music made without the guide is
    /// never taken for music made with it.
    [[nodiscard]] MoodSpec tagsOnly() const;

    /// The end to render at a step: the ends themselves at 0 and 4, their mixture between them.
    ///
    /// A step outside 0...4, which only data can hold, mixes by its own weight and so extrapolates the tempo. Any
    /// tempos may be mixed: the computation is one of doubles, and a result beyond 64 bits becomes the nearest value
    /// that fits, so that no file can stop the process with an absurd one.
    [[nodiscard]] MoodEnd end(BlendStep step) const;

    /// The prompt at a step.
    [[nodiscard]] std::string prompt(BlendStep step) const;

    /// Whether both would produce the same music at every step. Names, glyphs and ids play no part.
    [[nodiscard]] bool rendersLike(const MoodSpec& other) const;

    friend bool operator==(const MoodSpec&, const MoodSpec&) = default;
};

/// {"id": text, "name": text, "glyph": text, "calm": end, "energetic": end, "soundGuide": guide, "lively": false}; the
/// guide only where present. "lively" is for older readers: it is ignored here, and left out under
/// `omitLegacyMusicFields`.
void encode(JSONWriter& writer, const MoodSpec& spec);
template <>
MoodSpec decode<MoodSpec>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::MoodSpec> {
    std::size_t operator()(const quillmere::MoodSpec& spec) const noexcept;
};
