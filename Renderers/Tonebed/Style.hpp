#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace quillmere::tonebed {

/// What a text can ask for. The first group are layers, heard at a level of 0 to 1; the second are shades of the
/// whole, mostly 0 to 1 as well.
enum class Feature : std::size_t {
    pad,
    strings,
    choir,
    arpeggio,
    pulse,
    piano,
    electricPiano,
    bells,
    mallets,
    plucks,
    flute,
    bass,
    drums,
    brushes,
    rain,
    hiss,
    wind,
    waves,
    crackle,
    birds,
    // Shades.
    energy,      ///< How much happens.
    brightness,  ///< How much treble.
    reverb,      ///< How large and wet the room.
    valence,     ///< From -1, minor and dark, to 1, major and light.
    motion,      ///< Slow movement of filters and levels.
    swing,       ///< How late the off-beats come.
    width,       ///< How far apart left and right.
    count
};

inline constexpr auto featureCount = static_cast<std::size_t>(Feature::count);
inline constexpr auto layerCount = static_cast<std::size_t>(Feature::energy);

/// The scales that pieces are written in.
enum class Scale { ionian, dorian, lydian, mixolydian, aeolian };

/// What a piece shall sound like: the levels of its layers, its shades, tempo and key. A plain value.
struct Style {
    std::array<double, featureCount> values{};
    double tempo = 0;               ///< Beats per minute that the text wishes, before bars are made to fit.
    int beatsPerBar = 4;            ///< 3 for a waltz.
    std::optional<int> key;         ///< 0 for C to 11 for B, where the text names a key.
    std::optional<Scale> scale;     ///< Where the text names one.
    bool hasExplicitTempo = false;  ///< The text gives beats per minute.

    [[nodiscard]] double operator[](Feature feature) const noexcept {
        return values[static_cast<std::size_t>(feature)];
    }
    [[nodiscard]] double& operator[](Feature feature) noexcept { return values[static_cast<std::size_t>(feature)]; }

    /// The style that the words of a prompt ask for. Any text will do: words that nothing is known about are passed
    /// over, and what the text leaves open is filled in so that it can be played.
    [[nodiscard]] static Style fromPrompt(std::string_view text);

    /// The style between two ends; `weight` is the energetic one's share. Energy and brightness rise from the calm end
    /// to the energetic one even where the two texts do not say so.
    [[nodiscard]] static Style blended(const Style& calm, const Style& energetic, double weight);

    /// The style of a complete prompt at a blend step: the text's own, with energy and brightness shaded by `weight`.
    [[nodiscard]] Style shaded(double weight) const;

    friend bool operator==(const Style&, const Style&) = default;
};

}  // namespace quillmere::tonebed
