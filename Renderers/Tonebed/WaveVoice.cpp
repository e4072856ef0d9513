#include "Renderers/Tonebed/WaveVoice.hpp"

#include <algorithm>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);

/// The two gains of a place between left and right, of the same power everywhere.
std::array<double, 2> gainsOf(double pan) noexcept {
    const double turns = (clamped(pan, -1, 1) + 1) * 0.125;
    return {cosine(turns), sine(turns)};
}

}  // namespace

WaveVoice::WaveVoice(const Settings& settings, const Note& note)
    : settings_(settings),
      attack_(settings.attack * rate),
      length_(std::max(static_cast<double>(note.length), settings.attack * rate)),
      release_(settings.release * rate),
      brightness_(settings.brightStart) {
    Random random(note.grain);
    const double gain = settings.gain * note.velocity / static_cast<double>(settings.oscillators);
    for (std::size_t i = 0; i < settings.oscillators; ++i) {
        Oscillator& oscillator = oscillators_[i];
        // Left, right, and the third one in between.
        const double side = i == 0 ? -1 : (i == 1 ? 1 : 0);
        const double cents = side * settings.detune + random.between(-0.15, 0.15) * settings.detune;
        const double hertz = frequencyOf(note.pitch + (settings.oscillators == 1 ? 0 : cents / 100));
        oscillator.table = settings.waveform->table(hertz);
        oscillator.bright = settings.bright != nullptr ? settings.bright->table(hertz) : nullptr;
        oscillator.step = phaseStep(hertz);
        oscillator.phase = static_cast<std::uint32_t>(random.next() >> 32);
        const auto gains = gainsOf(note.pan * 0.6 + (settings.oscillators == 1 ? 0 : side * settings.spread));
        oscillator.left = static_cast<float>(gain * gains[0]);
        oscillator.right = static_cast<float>(gain * gains[1]);
    }
    vibratoPhase_ = random.unit();
}

double WaveVoice::level(double age) const noexcept {
    double level = age < attack_ ? smoothStep(age / attack_) : 1;
    if (settings_.decay > 0 && age > attack_) {
        const double fading = powerOfTwo(-std::min((age - attack_) / (settings_.decay * rate), 60.0));
        level = settings_.sustain + (1 - settings_.sustain) * fading;
    }
    if (age > length_) level *= 1 - smoothStep((age - length_) / release_);
    return level;
}

bool WaveVoice::render(Block& bus, std::size_t from, std::size_t to) noexcept {
    const std::size_t count = to - from;
    const double end = age_ + static_cast<double>(count);
    const double nextLevel = level(end);
    const auto levelStart = static_cast<float>(level_);
    const auto levelStep = static_cast<float>((nextLevel - level_) / static_cast<double>(count));

    Channel values;
    double bend = 1;
    if (settings_.vibrato > 0) {
        const double depth = settings_.vibrato * smoothStep(age_ / (0.8 * rate));
        bend = 1 + depth * 0.00057762 * sine(vibratoPhase_ + age_ * settings_.vibratoRate / rate);
    }
    const double nextBrightness =
        settings_.bright != nullptr
            ? settings_.brightStart * powerOfTwo(-std::min(end / (settings_.brightDecay * rate), 60.0))
            : 0;
    const auto shareStart = static_cast<float>(brightness_);
    const auto shareStep = static_cast<float>((nextBrightness - brightness_) / static_cast<double>(count));
    for (std::size_t o = 0; o < settings_.oscillators; ++o) {
        Oscillator& oscillator = oscillators_[o];
        std::uint32_t phase = oscillator.phase;
        const std::uint32_t step = settings_.vibrato > 0
                                       ? static_cast<std::uint32_t>(static_cast<double>(oscillator.step) * bend)
                                       : oscillator.step;
        if (oscillator.bright != nullptr && nextBrightness > 0.004) {
            float share = shareStart;
            for (std::size_t i = 0; i < count; ++i) {
                const float soft = Waveform::at(oscillator.table, phase);
                values[i] = soft + share * (Waveform::at(oscillator.bright, phase) - soft);
                phase += step;
                share += shareStep;
            }
        } else {
            for (std::size_t i = 0; i < count; ++i) {
                values[i] = Waveform::at(oscillator.table, phase);
                phase += step;
            }
        }
        const float left = oscillator.left;
        const float right = oscillator.right;
        for (std::size_t i = 0; i < count; ++i) {
            const float value = (levelStart + levelStep * countingUp[i]) * values[i];
            bus.left[from + i] += left * value;
            bus.right[from + i] += right * value;
        }
        oscillator.phase = phase;
    }
    age_ = end;
    level_ = nextLevel;
    brightness_ = nextBrightness;
    return age_ < length_ + release_;
}

}  // namespace quillmere::tonebed
