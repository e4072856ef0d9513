#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Renderers/Tonebed/Score.hpp"
#include "Renderers/Tonebed/Style.hpp"

namespace quillmere::tonebed {

/// The name of the sound that this version makes: raised whenever a single byte changes.
inline constexpr const char* engineBuild = "tonebed-1";

/// The lengths of pieces that can be made, in frames: a tenth of a second to two minutes.
inline constexpr std::int64_t fewestFrames = 4800;
inline constexpr std::int64_t mostFrames = 5760000;

/// What a piece is made from. The same values give the same piece, to the byte, on every machine.
struct Piece {
    std::string moodID = {};
    std::string calmPrompt = {};
    std::string energeticPrompt = {};
    std::optional<std::string> prompt = {};  ///< Decides alone, where present.
    std::int64_t blendIndex = 0;             ///< 0 to 4; beyond that counts as the end.
    std::int64_t seed = 0;
    std::int64_t frames = 0;  ///< `fewestFrames` to `mostFrames`.
};

/// The style of a piece: that of its prompt, or the blend of its two ends.
[[nodiscard]] Style styleOf(const Piece& piece);

/// The notes of a piece.
[[nodiscard]] Score scoreOf(const Piece& piece);

/// Makes one piece: a loop at 48 kHz in stereo whose end runs into its beginning.
///
/// The instruments play the loop once after a run-up over its end, so that whatever still sounds at the end, notes,
/// echoes and the room's tail, sounds at the beginning. Work is done in parts; a caller can rest or stop between any
/// two. Not thread-safe; needs memory for the whole piece (46 MB for two minutes).
class Synthesizer {
public:
    /// `piece.frames` out of range stops the process.
    explicit Synthesizer(const Piece& piece);
    ~Synthesizer();
    Synthesizer(const Synthesizer&) = delete;
    Synthesizer& operator=(const Synthesizer&) = delete;

    [[nodiscard]] const Score& score() const noexcept;

    /// Frames of music to play in all, the run-up included, and how many are played.
    [[nodiscard]] std::int64_t framesToPlay() const noexcept;
    [[nodiscard]] std::int64_t framesPlayed() const noexcept;

    /// Plays about `frames` more.
    void play(std::int64_t frames);

    /// Frames that are played and not yet given by `draft`.
    [[nodiscard]] std::int64_t framesToDraft() const noexcept;

    /// The next frames of the piece, from its beginning on, while it is still being made: 16 bits, left and right in
    /// turn, see `DraftLevel`. No more than there are. Drafts do not change the piece. Not after `finish`.
    void draft(std::span<std::int16_t> samples);

    /// Brings the piece, which must be played to its end, to its final level. Call once.
    void finish();

    /// Final samples of 16 bits, left and right in turn, from a frame on; whole after `finish`.
    void read(std::int64_t fromFrame, std::span<std::int16_t> samples) const;

    /// The step from the last frame to the first, the larger of both sides, of full scale. After `finish`.
    [[nodiscard]] double seamStep() const noexcept;
    /// See `brightnessOf`. After `finish`.
    [[nodiscard]] double brightness() const noexcept;
    /// The factor by which `finish` changed the level.
    [[nodiscard]] double makeupGain() const noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace quillmere::tonebed
