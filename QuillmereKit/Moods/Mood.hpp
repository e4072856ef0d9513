#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Moods/Anchor.hpp"
#include "QuillmereKit/Moods/BlendStep.hpp"
#include "QuillmereKit/Moods/MoodFamily.hpp"
#include "QuillmereKit/Moods/MoodGlyph.hpp"
#include "QuillmereKit/Moods/MoodSpec.hpp"

namespace quillmere {

/// What the user picks from the menu: a built-in mood, or one made from the user's own specification. A plain value.
struct Mood {
    /// The prompt text of each end.
    using Prompts = std::map<Anchor, std::string>;

    std::string id;                  ///< Unique.
    std::string name;                ///< Shown to the user.
    MoodFamily family;               ///< Menu section.
    MoodGlyph glyph;                 ///< Symbol shown for the mood.
    std::optional<Prompts> prompts;  ///< Absent for a mood that cannot be played.
    std::optional<MoodSpec> spec;    ///< Present for user moods only.

    /// A mood without a specification.
    Mood(std::string id, std::string name, MoodFamily family, MoodGlyph glyph, std::optional<Prompts> prompts);

    /// The mood of a user's specification, in the family `mine`; with prompts, those of the unmixed ends, only if the
    /// specification is playable.
    explicit Mood(MoodSpec spec);

    /// Whether music can be made for it.
    [[nodiscard]] bool isPlayable() const noexcept { return prompts.has_value(); }

    /// The prompt text of one end; nothing where the mood has none.
    [[nodiscard]] std::optional<std::string> prompt(Anchor anchor) const;

    /// The identity of the piece that a request for this mood asks for; nothing unless both ends have a prompt.
    /// `model` is an identity-model string; a sound guide's own model goes before it.
    [[nodiscard]] std::optional<LoopIdentity> identity(BlendStep blend, std::int64_t seed,
                                                       std::string_view model) const;

    friend bool operator==(const Mood&, const Mood&) = default;
};

}  // namespace quillmere

template <>
struct std::hash<quillmere::Mood> {
    std::size_t operator()(const quillmere::Mood& mood) const noexcept;
};
