#include "Renderers/Tonebed/ModalVoice.hpp"

#include <algorithm>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);
constexpr double highestHertz = 17000;
constexpr double inaudible = 1e-4;

using Lanes = std::array<float, blockFrames + 8>;

}  // namespace

ModalVoice::ModalVoice(const Settings& settings, const Note& note)
    : length_(note.length), attack_(settings.attack * rate), release_(settings.release * rate) {
    const double fundamental = frequencyOf(note.pitch);
    double total = 0;
    for (const Partial& partial : settings.partials) total += partial.amplitude;
    const double gain = total > 0 ? settings.gain * note.velocity / total : 0;
    Random random(note.grain);
    std::int64_t longest = 0;
    std::size_t index = 0;
    for (const Partial& partial : settings.partials) {
        const double hertz = fundamental * partial.ratio + partial.detune;
        const double side = (index++ % 2 == 0 ? -1 : 1) * settings.width;
        const double turn = random.between(-0.02, 0.02);
        if (hertz >= highestHertz || partial.amplitude <= 0) continue;
        Mode mode;
        // 60 dB are a factor of 2^9.9658.
        const double halvings = 9.965784284662087 / (partial.seconds * rate);
        const double amplitude = gain * partial.amplitude;
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            const auto age = static_cast<double>(lane);
            const double size = amplitude * powerOfTwo(-halvings * age);
            mode.real[lane] = static_cast<float>(size * cosine(turn + hertz * age / rate));
            mode.imaginary[lane] = static_cast<float>(size * sine(turn + hertz * age / rate));
        }
        const double shrink = powerOfTwo(-halvings * static_cast<double>(lanes));
        const double angle = hertz * static_cast<double>(lanes) / rate;
        mode.turnReal = static_cast<float>(shrink * cosine(angle));
        mode.turnImaginary = static_cast<float>(shrink * sine(angle));
        const double audible = logarithm(std::max(partial.amplitude / total, inaudible) / inaudible);
        mode.frames = nearest(audible / halvings) + 1;
        mode.left = static_cast<float>(1 - side);
        mode.right = static_cast<float>(1 + side);
        longest = std::max(longest, mode.frames);
        modes_.push_back(mode);
    }
    end_ = std::min(longest, length_ + static_cast<std::int64_t>(release_));
    const double turns = (note.pan * 0.75 + 1) * 0.125;
    pan_ = {static_cast<float>(cosine(turns)), static_cast<float>(sine(turns))};
}

double ModalVoice::level(std::int64_t age) const noexcept {
    const auto frames = static_cast<double>(age);
    double level = frames < attack_ ? smoothStep(frames / attack_) : 1;
    if (age > length_) level *= 1 - smoothStep((frames - static_cast<double>(length_)) / release_);
    // What is left when the last partial can hardly be heard goes softly too.
    const double left = static_cast<double>(end_ - age);
    return left < 2400 ? level * smoothStep(left / 2400) : level;
}

bool ModalVoice::render(Block& bus, std::size_t from, std::size_t to) noexcept {
    const std::size_t count = to - from;
    Lanes left{};
    Lanes right{};
    for (Mode& mode : modes_) {
        if (age_ >= mode.frames) continue;
        // Both sides take part of each partial, so that width never turns into opposite phase.
        const float leftShare = mode.left;
        const float rightShare = mode.right;
        std::size_t frame = 0;
        for (; frame < count; frame += lanes) {
            for (std::size_t lane = 0; lane < lanes; ++lane) {
                left[frame + lane] += leftShare * mode.imaginary[lane];
                right[frame + lane] += rightShare * mode.imaginary[lane];
            }
            std::array<float, lanes> nextReal;
            std::array<float, lanes> nextImaginary;
            for (std::size_t lane = 0; lane < lanes; ++lane) {
                nextReal[lane] = mode.real[lane] * mode.turnReal - mode.imaginary[lane] * mode.turnImaginary;
                nextImaginary[lane] = mode.real[lane] * mode.turnImaginary + mode.imaginary[lane] * mode.turnReal;
            }
            const std::size_t used = std::min(lanes, count - frame);
            if (used == lanes) {
                mode.real = nextReal;
                mode.imaginary = nextImaginary;
            } else {
                // Only some of the eight were heard: the rest comes first next time.
                for (std::size_t lane = 0; lane < lanes; ++lane) {
                    const bool isOld = lane + used < lanes;
                    const std::size_t source = (lane + used) % lanes;
                    const float real = isOld ? mode.real[source] : nextReal[source];
                    const float imaginary = isOld ? mode.imaginary[source] : nextImaginary[source];
                    mode.real[lane] = real;
                    mode.imaginary[lane] = imaginary;
                }
            }
        }
    }
    const std::int64_t end = age_ + static_cast<std::int64_t>(count);
    const double nextLevel = end >= end_ ? 0 : level(end);
    const auto start = static_cast<float>(level_);
    const auto step = static_cast<float>((nextLevel - level_) / static_cast<double>(count));
    for (std::size_t i = 0; i < count; ++i) {
        const float gain = start + step * static_cast<float>(i);
        bus.left[from + i] += pan_[0] * gain * left[i];
        bus.right[from + i] += pan_[1] * gain * right[i];
    }
    age_ = end;
    level_ = nextLevel;
    return age_ < end_;
}

}  // namespace quillmere::tonebed
