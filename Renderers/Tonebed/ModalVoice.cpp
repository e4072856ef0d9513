#include "Renderers/Tonebed/ModalVoice.hpp"

#include <algorithm>
#include <functional>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);
constexpr double highestHertz = 17000;
constexpr double inaudible = 5e-4;

}  // namespace

ModalVoice::ModalVoice(const Settings& settings, const Note& note)
    : width_(static_cast<float>(settings.width)),
      length_(note.length),
      attack_(settings.attack * rate),
      release_(settings.release * rate) {
    const double fundamental = frequencyOf(note.pitch);
    double total = 0;
    for (const Partial& partial : settings.partials) total += partial.amplitude;
    const double gain = total > 0 ? settings.gain * note.velocity / total : 0;
    Random random(note.grain);
    std::int64_t longest = 0;
    std::size_t index = 0;
    for (const Partial& partial : settings.partials) {
        const double hertz = fundamental * partial.ratio + partial.detune;
        auto& side = modes_[index++ % 2];
        const double turn = random.between(-0.02, 0.02);
        if (hertz >= highestHertz || partial.amplitude <= 0) continue;
        Mode mode;
        // 60 dB are a factor of 2^9.9658.
        const double halvings = 9.965784284662087 / (partial.seconds * rate);
        const double amplitude = gain * partial.amplitude;
        mode.real = static_cast<float>(amplitude * cosine(turn));
        mode.imaginary = static_cast<float>(amplitude * sine(turn));
        const double shrink = powerOfTwo(-halvings);
        const double stepReal = shrink * cosine(hertz / rate);
        const double stepImaginary = shrink * sine(hertz / rate);
        double real = 1;
        double imaginary = 0;
        for (std::size_t i = 0; i < blockFrames; ++i) {
            const double next = real * stepReal - imaginary * stepImaginary;
            imaginary = real * stepImaginary + imaginary * stepReal;
            real = next;
            mode.turnReal[i] = static_cast<float>(real);
            mode.turnImaginary[i] = static_cast<float>(imaginary);
        }
        const double audible = logarithm(std::max(partial.amplitude / total, inaudible) / inaudible);
        mode.frames = nearest(audible / halvings) + 1;
        longest = std::max(longest, mode.frames);
        side.insert(std::ranges::upper_bound(side, mode.frames, std::greater{}, &Mode::frames), mode);
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

void ModalVoice::turn(Mode& mode, Channel& sum, bool isFirst, std::size_t count) noexcept {
    const float x = mode.real;
    const float y = mode.imaginary;
    // The whole block whatever is asked for: loops of fixed length are done several frames at once.
    if (isFirst) {
        for (std::size_t i = 0; i < blockFrames; ++i) sum[i] = x * mode.turnImaginary[i] + y * mode.turnReal[i];
    } else {
        for (std::size_t i = 0; i < blockFrames; ++i) sum[i] += x * mode.turnImaginary[i] + y * mode.turnReal[i];
    }
    mode.real = x * mode.turnReal[count - 1] - y * mode.turnImaginary[count - 1];
    mode.imaginary = x * mode.turnImaginary[count - 1] + y * mode.turnReal[count - 1];
}

bool ModalVoice::render(Block& bus, std::size_t from, std::size_t to) noexcept {
    const std::size_t count = to - from;
    std::array<Channel, 2> sums;
    for (std::size_t side = 0; side < 2; ++side) {
        auto& modes = modes_[side];
        while (!modes.empty() && modes.back().frames <= age_) modes.pop_back();
        if (modes.empty()) sums[side].fill(0);
        bool isFirst = true;
        for (Mode& mode : modes) {
            turn(mode, sums[side], isFirst, count);
            isFirst = false;
        }
    }
    const std::int64_t end = age_ + static_cast<std::int64_t>(count);
    const double nextLevel = end >= end_ ? 0 : level(end);
    const auto start = static_cast<float>(level_);
    const auto step = static_cast<float>((nextLevel - level_) / static_cast<double>(count));
    // Both sides take part of each partial, so that width never turns into opposite phase.
    const float near = 1 + width_;
    const float far = 1 - width_;
    const float leftPan = pan_[0];
    const float rightPan = pan_[1];
    for (std::size_t i = 0; i < count; ++i) {
        const float gain = start + step * countingUp[i];
        bus.left[from + i] += leftPan * gain * (near * sums[0][i] + far * sums[1][i]);
        bus.right[from + i] += rightPan * gain * (far * sums[0][i] + near * sums[1][i]);
    }
    age_ = end;
    level_ = nextLevel;
    return age_ < end_;
}

}  // namespace quillmere::tonebed
