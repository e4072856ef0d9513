#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Playback/SeededGenerator.hpp"

namespace quillmere {

/// The order in which a player plays a set of pieces, round after round.
///
/// The first round plays the pieces as given; at the end of each the order is shuffled by a generator of its own, so
/// that the same pieces and seed always give the same rounds, and with three or more pieces none is played twice in a
/// row. A plain value without a lock: its owner serialises access.
class Playlist {
public:
    /// The playlist of these pieces. A seed of 0 stands for 0x9e3779b97f4a7c15.
    Playlist(std::vector<LoopArtifact> segments, std::uint64_t shuffleSeed);

    /// The pieces, in the order they were given or appended.
    [[nodiscard]] const std::vector<LoopArtifact>& segments() const noexcept { return segments_; }
    /// The present round: each index of `segments` once.
    [[nodiscard]] const std::vector<std::size_t>& order() const noexcept { return order_; }
    /// The position in `order` of the piece now playing.
    [[nodiscard]] std::size_t cursor() const noexcept { return cursor_; }
    /// How many rounds have ended.
    [[nodiscard]] std::int64_t rounds() const noexcept { return rounds_; }
    /// The generator that shuffles.
    [[nodiscard]] const SeededGenerator& rng() const noexcept { return rng_; }

    /// Whether there is no piece.
    [[nodiscard]] bool isEmpty() const noexcept { return segments_.empty(); }
    /// How many pieces there are.
    [[nodiscard]] std::size_t count() const noexcept { return segments_.size(); }

    /// The length of all pieces together, in seconds.
    [[nodiscard]] double totalSeconds() const noexcept;

    /// The piece now playing; null when there is none. Valid until the next change.
    [[nodiscard]] const LoopArtifact* current() const noexcept;

    /// The next piece of the present round; null with fewer than two. At the last position it names the first of the
    /// present round, although `advance` shuffles before it moves there.
    [[nodiscard]] const LoopArtifact* upcoming() const noexcept;

    /// Adds a piece at the end of the present round, unless one with its fingerprint is held.
    void append(LoopArtifact segment);

    /// Moves to the next piece and returns it; null when there is none. Valid until the next change.
    const LoopArtifact* advance();

    friend bool operator==(const Playlist& a, const Playlist& b) {
        return a.segments_ == b.segments_ && a.order_ == b.order_ && a.cursor_ == b.cursor_ && a.rounds_ == b.rounds_ &&
               a.rng_ == b.rng_;
    }

private:
    void reshuffle();

    std::vector<LoopArtifact> segments_;
    std::vector<std::size_t> order_;  // each index of segments_ exactly once
    std::size_t cursor_ = 0;          // below order_.size() unless that is 0
    std::int64_t rounds_ = 0;
    SeededGenerator rng_;
    std::vector<std::string> fingerprints_;  // of segments_, computed once
};

}  // namespace quillmere
