#include "Renderers/Tonebed/OneShot.hpp"

#include <algorithm>
#include <array>
#include <functional>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Filters.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);

/// A rise over `attack` seconds, then a fall by half every `half` seconds.
double envelope(double seconds, double attack, double half) noexcept {
    if (seconds < attack) return smoothStep(seconds / attack);
    return powerOfTwo(-(seconds - attack) / half);
}

/// Ends a sound at zero.
double fadeOut(double seconds, double length) noexcept { return smoothStep((length - seconds) / (0.15 * length)); }

OneShot make(double seconds, const std::function<std::array<double, 2>(double seconds)>& value) {
    const auto frames = static_cast<std::size_t>(seconds * rate);
    OneShot sound;
    sound.left.resize(frames);
    sound.right.resize(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const double time = static_cast<double>(i) / rate;
        const double fade = fadeOut(time, seconds);
        const std::array<double, 2> values = value(time);
        sound.left[i] = static_cast<float>(values[0] * fade);
        sound.right[i] = static_cast<float>(values[1] * fade);
    }
    return sound;
}

/// Noise through a band, a little different on both sides.
OneShot noiseHit(double seconds, double low, double high, double attack, double half, double gain, Random random) {
    std::array<OnePole, 2> lows{OnePole(high), OnePole(high)};
    std::array<StateVariable, 2> lower;
    for (StateVariable& filter : lower) filter.tune(high * 1.3, 1.4);
    std::array<OnePole, 2> highs{OnePole(low), OnePole(low)};
    return make(seconds, [&](double time) {
        const double shared = random.between(-1, 1);
        std::array<double, 2> values{};
        for (std::size_t side = 0; side < 2; ++side) {
            const double own = random.between(-1, 1);
            const double mild = lows[side].lowpass(0.6 * shared + 0.7 * own);
            const auto smooth = static_cast<double>(lower[side].lowpass(static_cast<float>(mild)));
            values[side] = gain * highs[side].highpass(smooth) * envelope(time, attack, half);
        }
        return values;
    });
}

OneShot kick(double brightness) {
    double phase = 0;
    return make(0.42, [&, brightness](double time) {
        const double hertz = 46 + 70 * powerOfTwo(-time / 0.018);
        phase += hertz / rate;
        const double body = sine(phase) * envelope(time, 0.003, 0.075);
        const double knock = sine(time * 190) * envelope(time, 0.002, 0.012) * (0.15 + 0.25 * brightness);
        return std::array{body + knock, body + knock};
    });
}

OneShot rim(Random& random) {
    const double hertz = random.between(1550, 1750);
    return make(0.09, [=](double time) {
        const double tone = 0.6 * sine(time * hertz) + 0.35 * sine(time * hertz * 1.47) + 0.25 * sine(time * 420);
        const double value = tone * envelope(time, 0.0012, 0.011);
        return std::array{value, value};
    });
}

OneShot droplet(double hertz, Random& random) {
    const double bend = random.between(0.1, 0.5);
    const double half = random.between(0.004, 0.012);
    double phase = 0;
    return make(0.07, [&, hertz, bend, half](double time) {
        phase += hertz * (1 + bend * time / 0.05) / rate;
        const double value = sine(phase) * envelope(time, 0.0015, half);
        return std::array{value, value};
    });
}

OneShot tick(Random& random) {
    const double hertz = random.between(900, 3800);
    const double half = random.between(0.0006, 0.0022);
    return make(0.02, [=](double time) {
        const double value = (sine(time * hertz) + 0.5 * sine(time * hertz * 2.31)) * envelope(time, 0.0004, half);
        return std::array{value, value};
    });
}

OneShot chirp(double hertz, Random& random) {
    const double length = random.between(0.07, 0.16);
    const double rise = random.between(-0.3, 0.35);
    const double trill = random.chance(0.4) ? random.between(18, 40) : 0;
    double phase = 0;
    return make(length, [&, hertz, length, rise, trill](double time) {
        const double place = time / length;
        phase += hertz * (1 + rise * smoothStep(place) + 0.04 * sine(trill * time)) / rate;
        const double swell = smoothStep(place / 0.3) * smoothStep((1 - place) / 0.5);
        const double value = 0.5 * sine(phase) * swell;
        return std::array{value, value};
    });
}

}  // namespace

std::vector<OneShot> oneShots(Voice voice, double brightness, std::uint64_t seed) {
    Random random(seed, "one-shots");
    std::vector<OneShot> sounds;
    const auto streamOf = [&] { return Random(random.next()); };
    switch (voice) {
        case Voice::kick: sounds.push_back(kick(brightness)); break;
        case Voice::snare:
            for (int i = 0; i < 3; ++i) {
                OneShot sound = noiseHit(0.26, 700, 3500 + 4500 * brightness, 0.002, 0.045, 1.3, streamOf());
                const double hertz = random.between(176, 188);
                for (std::size_t frame = 0; frame < sound.left.size(); ++frame) {
                    const double time = static_cast<double>(frame) / rate;
                    const auto body = static_cast<float>(0.4 * sine(time * hertz) * envelope(time, 0.002, 0.03));
                    sound.left[frame] += body;
                    sound.right[frame] += body;
                }
                sounds.push_back(std::move(sound));
            }
            break;
        case Voice::rim:
            for (int i = 0; i < 3; ++i) sounds.push_back(rim(random));
            break;
        case Voice::brush:
            for (int i = 0; i < 4; ++i) {
                sounds.push_back(noiseHit(0.3, 500, 1500 + 2200 * brightness, 0.012, 0.05, 1.6, streamOf()));
            }
            break;
        case Voice::sweep:
            for (int i = 0; i < 4; ++i) {
                sounds.push_back(noiseHit(0.55, 900, 1600 + 2200 * brightness, 0.16, 0.1, 1.0, streamOf()));
            }
            break;
        case Voice::hat:
            for (int i = 0; i < 4; ++i) {
                sounds.push_back(noiseHit(0.11, 6000, 6000 + 5000 * brightness, 0.0012, 0.013, 1.7, streamOf()));
            }
            break;
        case Voice::shaker:
            for (int i = 0; i < 4; ++i) {
                sounds.push_back(noiseHit(0.15, 3800, 4200 + 4000 * brightness, 0.022, 0.02, 1.6, streamOf()));
            }
            break;
        case Voice::droplet:
            for (int i = 0; i < 16; ++i) sounds.push_back(droplet(frequencyOf(84 + 1.8 * i), random));
            break;
        case Voice::tick:
            for (int i = 0; i < 8; ++i) sounds.push_back(tick(random));
            break;
        case Voice::chirp:
            for (int i = 0; i < 8; ++i) sounds.push_back(chirp(frequencyOf(97 + 1.7 * i), random));
            break;
        default: break;
    }
    return sounds;
}

OneShotVoice::OneShotVoice(const OneShot& sound, double gain, double pan) noexcept : sound_(&sound) {
    const double turns = (clamped(pan, -1, 1) + 1) * 0.125;
    left_ = static_cast<float>(gain * cosine(turns));
    right_ = static_cast<float>(gain * sine(turns));
}

bool OneShotVoice::render(Block& bus, std::size_t from, std::size_t to) noexcept {
    const std::size_t count = std::min(to - from, sound_->left.size() - position_);
    const float leftGain = left_;
    const float rightGain = right_;
    const float* left = sound_->left.data() + position_;
    const float* right = sound_->right.data() + position_;
    for (std::size_t i = 0; i < count; ++i) {
        bus.left[from + i] += leftGain * left[i];
        bus.right[from + i] += rightGain * right[i];
    }
    position_ += count;
    return position_ < sound_->left.size();
}

}  // namespace quillmere::tonebed
