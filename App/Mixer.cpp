#include "App/Mixer.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace quillmere::app {
namespace {

constexpr std::int64_t framesAtATime = 4800;

// Where frame `index` of a fade of `length` frames lies on the quarter turn.
double turn(std::int64_t index, std::int64_t length) {
    return (static_cast<double>(index) + 0.5) / static_cast<double>(length) * std::numbers::pi / 2;
}

std::size_t samplesOf(std::int64_t frames) { return static_cast<std::size_t>(frames) * Voice::channels; }

void scale(std::span<float> frame, double factor) {
    for (float& sample : frame) sample = static_cast<float>(sample * factor);
}

}  // namespace

std::int64_t Mixer::play(std::int64_t totalFrames, const Next& next, const Sink& sink, const Complaint& complain) {
    total_ = totalFrames;
    position_ = 0;
    std::vector<float> one(samplesOf(framesAtATime));
    std::vector<float> other(one.size());
    std::optional<Voice> present = next(0);
    while (present && position_ < total_) {
        const std::int64_t longestFade = std::min(fadeFrames_, present->frames() / 2);
        // Alone, as far as no cross-fade can reach. What comes next is opened only then.
        while (present->remaining() > longestFade && position_ < total_) {
            const auto count = std::min({framesAtATime, present->remaining() - longestFade, total_ - position_});
            const auto samples = std::span(one).first(samplesOf(count));
            present->read(samples);
            emit(samples, sink);
        }
        if (position_ >= total_) break;

        std::optional<Voice> following = next(position_);
        const auto fade =
            following ? std::min({longestFade, following->frames() / 2, present->remaining()}) : std::int64_t{0};
        while (present->remaining() > fade && position_ < total_) {
            const auto count = std::min({framesAtATime, present->remaining() - fade, total_ - position_});
            const auto samples = std::span(one).first(samplesOf(count));
            present->read(samples);
            emit(samples, sink);
        }
        for (std::int64_t done = 0; done < fade && position_ < total_;) {
            const auto count = std::min({framesAtATime, fade - done, total_ - position_});
            const auto samples = std::span(one).first(samplesOf(count));
            const auto entering = std::span(other).first(samplesOf(count));
            present->read(samples);
            following->read(entering);
            for (std::int64_t frame = 0; frame < count; ++frame) {
                const double angle = turn(done + frame, fade);
                scale(samples.subspan(samplesOf(frame), Voice::channels), std::cos(angle));
                scale(entering.subspan(samplesOf(frame), Voice::channels), std::sin(angle));
            }
            std::ranges::transform(samples, entering, samples.begin(), std::plus<>());
            emit(samples, sink);
            done += count;
        }
        if (present->failure()) complain(*present->failure());
        present = std::move(following);
    }
    return position_;
}

void Mixer::emit(std::span<float> samples, const Sink& sink) {
    const auto frames = static_cast<std::int64_t>(samples.size() / Voice::channels);
    const std::int64_t fade = std::min(fadeFrames_, total_);
    for (std::int64_t frame = std::max<std::int64_t>(0, total_ - fade - position_); frame < frames; ++frame) {
        const double angle = turn(position_ + frame - (total_ - fade), fade);
        scale(samples.subspan(samplesOf(frame), Voice::channels), std::cos(angle));
    }
    output_.resize(samples.size());
    std::ranges::transform(samples, output_.begin(), [](float sample) {
        return static_cast<std::int16_t>(std::lrint(std::clamp(sample, -32768.0F, 32767.0F)));
    });
    sink(output_);
    position_ += frames;
}

}  // namespace quillmere::app
