#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Moods/MoodSpec.hpp"
#include "QuillmereKit/Sharing/ImportError.hpp"

namespace quillmere {

/// The largest file of recipes from others that is read, in bytes.
inline constexpr std::size_t recipeFileLimit = std::size_t{16} * 1024 * 1024;

/// The ids of the built-in moods: the moods that a recipe may name without carrying a specification.
[[nodiscard]] const std::set<std::string, std::less<>>& builtInMoodIDs();

/// One piece as a small file from which another installation regenerates it. A plain value.
struct LoopRecipe {
    /// Why a recipe was refused.
    using ImportError = quillmere::ImportError;

    static constexpr std::string_view currentSchema = "quillmere.recipe/2";  ///< Of every recipe written.
    static constexpr std::string_view olderSchema = "quillmere.recipe/1";    ///< Still read.

    std::string schema;                           ///< Format identifier.
    std::string name;                             ///< Display name of the track.
    LoopIdentity identity;                        ///< What the piece is generated from.
    std::string fingerprint;                      ///< The identity's fingerprint when the recipe was written.
    std::optional<MoodSpec> moodSpec = {};        ///< The mood's whole specification, for moods of the user's own.
    std::optional<std::string> engineBuild = {};  ///< The build of the engine that rendered the piece.
    std::optional<RecipeOrigin> origin = {};      ///< The kind of machine it was rendered on.
    std::optional<std::string> audioSHA256 = {};  ///< SHA-256 of the rendered audio file, as text.
    std::optional<double> seconds = {};           ///< Length of the rendered piece.
    std::optional<double> seamDB = {};            ///< Loudness jump at the loop seam, in decibels.

    /// A recipe of the current schema, its fingerprint taken from the identity.
    [[nodiscard]] static LoopRecipe make(std::string name, LoopIdentity identity, std::optional<double> seconds = {},
                                         std::optional<double> seamDB = {}, std::optional<MoodSpec> moodSpec = {},
                                         std::optional<std::string> engineBuild = {},
                                         std::optional<RecipeOrigin> origin = {},
                                         std::optional<std::string> audioSHA256 = {});

    /// The recipe of a stored piece: its identity, length and seam.
    [[nodiscard]] static LoopRecipe make(const LoopArtifact& artifact, std::string name,
                                         std::optional<MoodSpec> moodSpec = {},
                                         std::optional<std::string> engineBuild = {},
                                         std::optional<RecipeOrigin> origin = {},
                                         std::optional<std::string> audioSHA256 = {});

    /// The copy that may leave the machine: without guide audio as it is, with a song as guide a variant "· tags only"
    /// of the mood. Throws `ImportError`: `requiresAudioExport` for a private recording, `invalidMood` where no variant
    /// can be made.
    [[nodiscard]] LoopRecipe forSharing() const;

    /// The bytes of the shareable file. Throws as `forSharing`, or `EncodingError`.
    [[nodiscard]] std::string encoded() const;

    /// Reads one recipe and validates it against the built-in moods. Throws `JSONError` or `ImportError`.
    [[nodiscard]] static LoopRecipe decode(std::string_view bytes);

    /// Whether the recipe is well formed, untampered and about a mood that can be named here. Throws `ImportError`.
    void validate(const std::set<std::string, std::less<>>& knownMoods = builtInMoodIDs()) const;

    /// Whether this machine, whose engine reports `localBuild` for the identity (nothing where it cannot render it),
    /// can render the same sound again. Throws `ImportError`.
    void validateRendering(const std::optional<std::string>& localBuild) const;

    friend bool operator==(const LoopRecipe&, const LoopRecipe&) = default;
};

/// An object keyed by the field names, absent fields left out. Reading checks types alone.
void encode(JSONWriter& writer, const LoopRecipe& recipe);
template <>
LoopRecipe decode<LoopRecipe>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::LoopRecipe> {
    std::size_t operator()(const quillmere::LoopRecipe& recipe) const noexcept;
};
