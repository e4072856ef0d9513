#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "App/Voice.hpp"

namespace quillmere::app {

/// Plays pieces one after another as one stream, each faded into the next at equal power: where the one sounds at
/// cos(x), the other sounds at sin(x), x running from 0 to a quarter turn. The stream's own end is faded out.
class Mixer {
public:
    /// The next piece, told at which frame of the stream it begins to sound; nothing when there is none.
    using Next = std::function<std::optional<Voice>(std::int64_t startFrame)>;
    /// Takes the stream's next samples, interleaved. May throw to end the stream.
    using Sink = std::function<void(std::span<const std::int16_t> samples)>;
    /// Hears why a piece broke off before its end.
    using Complaint = std::function<void(const std::string& reason)>;

    /// A cross-fade takes `fadeFrames`, but never more than half of either piece.
    explicit Mixer(std::int64_t fadeFrames) : fadeFrames_(fadeFrames) {}

    /// Plays so many frames in all; fewer where `next` has nothing more. Returns how many.
    std::int64_t play(std::int64_t totalFrames, const Next& next, const Sink& sink, const Complaint& complain);

private:
    void emit(std::span<float> samples, const Sink& sink);

    std::int64_t fadeFrames_;
    std::int64_t total_ = 0;
    std::int64_t position_ = 0;  // of the stream
    std::vector<std::int16_t> output_;
};

}  // namespace quillmere::app
