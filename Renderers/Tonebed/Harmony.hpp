#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "Renderers/Tonebed/Random.hpp"
#include "Renderers/Tonebed/Style.hpp"

namespace quillmere::tonebed {

/// A key: a scale on a root. Pitches are semitones, 60 being middle C.
struct Key {
    int root = 0;  ///< 0 for C to 11 for B.
    Scale scale = Scale::ionian;

    /// The pitch of a scale step; step 0 is the root in the octave below middle C's, steps go on in both directions.
    [[nodiscard]] int pitch(int step) const noexcept;

    /// The key for a style: the text's own, else one that fits its valence.
    [[nodiscard]] static Key chosen(const Style& style, Random random);

    friend bool operator==(const Key&, const Key&) = default;
};

/// One chord: where it stands in the scale, and how it is laid out.
struct Chord {
    int degree = 0;                ///< Scale step of its root, 0 to 6.
    std::vector<int> classes;      ///< Pitch classes, root first: root, third, fifth, and one of colour.
    std::array<int, 4> voicing{};  ///< Four pitches, rising; each close to the same voice of the chord before.
    int bass = 0;                  ///< The root in the bass register.

    /// The nearest pitch to `pitch` that belongs to the chord; of two the lower.
    [[nodiscard]] int nearestTone(int pitch) const noexcept;
};

/// A progression of `count` chords that leads back to its beginning, with the voices led from chord to chord.
[[nodiscard]] std::vector<Chord> progression(const Key& key, std::size_t count, Random random);

}  // namespace quillmere::tonebed
