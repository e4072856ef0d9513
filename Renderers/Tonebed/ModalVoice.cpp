#include "Renderers/Tonebed/ModalVoice.hpp"

#include <algorithm>
#include <cstring>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);
constexpr double highestHertz = 17000;
constexpr double inaudible = 5e-4;

/// Four numbers that are computed at once, each as it would be alone.
using Four [[gnu::vector_size(16)]] = float;

Four loaded(const float* values) noexcept {
    Four four;
    std::memcpy(&four, values, sizeof four);
    return four;
}

void store(float* values, Four four) noexcept { std::memcpy(values, &four, sizeof four); }

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
        longest = std::max(longest, mode.frames);
        side.push_back(mode);
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

void ModalVoice::turn(Mode& mode, float* sum, std::size_t count) noexcept {
    const float c = mode.turnReal;
    const float s = mode.turnImaginary;
    std::size_t frame = 0;
    // Left to itself the compiler does these eight one by one, at three times the cost.
    std::array<Four, 2> x = {loaded(mode.real.data()), loaded(mode.real.data() + 4)};
    std::array<Four, 2> y = {loaded(mode.imaginary.data()), loaded(mode.imaginary.data() + 4)};
    for (; frame + lanes <= count; frame += lanes) {
        for (std::size_t half = 0; half < 2; ++half) {
            float* place = sum + frame + 4 * half;
            store(place, loaded(place) + y[half]);
            const Four next = x[half] * c - y[half] * s;
            y[half] = x[half] * s + y[half] * c;
            x[half] = next;
        }
    }
    for (std::size_t half = 0; half < 2; ++half) {
        store(mode.real.data() + 4 * half, x[half]);
        store(mode.imaginary.data() + 4 * half, y[half]);
    }
    const std::size_t rest = count - frame;
    if (rest > 0) {
        // Only some of the eight are heard now: the others come first next time.
        std::array<float, 2 * lanes> reals{};
        std::array<float, 2 * lanes> imaginaries{};
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            const float real = mode.real[lane];
            const float imaginary = mode.imaginary[lane];
            if (lane < rest) sum[frame + lane] += imaginary;
            reals[lane] = real;
            imaginaries[lane] = imaginary;
            reals[lanes + lane] = real * c - imaginary * s;
            imaginaries[lanes + lane] = real * s + imaginary * c;
        }
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            mode.real[lane] = reals[lane + rest];
            mode.imaginary[lane] = imaginaries[lane + rest];
        }
    }
}

bool ModalVoice::render(Block& bus, std::size_t from, std::size_t to) noexcept {
    const std::size_t count = to - from;
    std::array<Channel, 2> sums{};
    for (std::size_t side = 0; side < 2; ++side) {
        for (Mode& mode : modes_[side]) {
            if (age_ < mode.frames) turn(mode, sums[side].data(), count);
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
