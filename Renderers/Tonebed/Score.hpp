#pragma once

#include <cstdint>
#include <vector>

#include "Renderers/Tonebed/Harmony.hpp"
#include "Renderers/Tonebed/Style.hpp"

namespace quillmere::tonebed {

/// What plays a note.
enum class Voice : std::uint8_t {
    pad,
    strings,
    choir,
    arpeggio,
    pulse,
    flute,
    bass,
    piano,
    electricPiano,
    bell,
    mallet,
    pluck,
    glow,  ///< A soft tone between bell and electric piano, for melodies of moods that name no instrument.
    kick,
    snare,
    rim,
    brush,
    sweep,  ///< A brush drawn over the skin.
    hat,
    shaker,
    droplet,
    tick,   ///< One crackle of vinyl or fire.
    chirp,  ///< One call of a bird.
    count
};

/// One note of the loop.
struct Note {
    std::int64_t start = 0;   ///< Frame at which it begins, inside the loop.
    std::int64_t length = 0;  ///< Frames until it is released; may pass the loop's end.
    double pitch = 60;        ///< In semitones, 60 being middle C.
    double velocity = 0;      ///< Amplitude, 0 to about 1.
    double pan = 0;           ///< From -1, left, to 1, right.
    Voice voice = Voice::pad;
    bool isOnset = true;      ///< Heard as a beginning: of the notes of a chord only the first, and no rain drop.
    std::uint64_t grain = 0;  ///< For what differs at random between notes of one voice.

    friend bool operator==(const Note&, const Note&) = default;
};

/// A whole piece as notes: a loop of whole bars, in which a note near the end rings into the beginning.
struct Score {
    std::int64_t frames = 0;
    int bars = 0;
    int beatsPerBar = 4;
    double tempo = 0;  ///< Beats per minute after whole bars were made to fit.
    Key key;
    std::vector<Chord> chords;  ///< Each lasts the same number of beats.
    std::vector<Note> notes;    ///< By start.

    [[nodiscard]] std::int64_t beats() const noexcept { return static_cast<std::int64_t>(bars) * beatsPerBar; }
    [[nodiscard]] double framesPerBeat() const noexcept {
        return static_cast<double>(frames) / static_cast<double>(beats());
    }

    /// Onsets (chords count once) in a second.
    [[nodiscard]] double onsetDensity() const noexcept;

    /// Writes the piece. `frames` is at least 1; the same arguments give the same score.
    [[nodiscard]] static Score composed(const Style& style, std::uint64_t seed, std::int64_t frames);
};

}  // namespace quillmere::tonebed
