#include "Renderers/Tonebed/Instruments.hpp"

#include <algorithm>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Random.hpp"

namespace quillmere::tonebed {
namespace {

using enum Feature;

constexpr auto rate = static_cast<double>(sampleRate);

std::size_t indexOf(Voice voice) noexcept { return static_cast<std::size_t>(voice); }

/// harmonic^-slope.
double slope(int harmonic, double steepness) noexcept {
    return powerOfTwo(-steepness * logarithm(static_cast<double>(harmonic)));
}

/// A gentle fall above a frequency: 1 far below it, a half at it.
double below(double hertz, double corner) noexcept {
    const double ratio = hertz / corner;
    return 1 / (1 + ratio * ratio);
}

/// A resonance of a voice or a wooden body.
double formant(double hertz, double centre, double width) noexcept {
    const double distance = (hertz - centre) / width;
    return 1 / (1 + distance * distance);
}

}  // namespace

Instruments::Kind Instruments::kind(Voice voice) noexcept {
    if (voice <= Voice::bass) return Kind::wave;
    return voice <= Voice::glow ? Kind::modal : Kind::oneShot;
}

Instruments::Instruments(const Style& style, std::uint64_t seed, const Score& score) : style_(style) {
    Random taste(seed, "timbre");
    attackShare_ = taste.between(0.3, 0.45);
    decayTaste_ = taste.between(0.75, 1.3);
    tineTaste_ = taste.between(0.25, 0.9);
    bellTaste_ = taste.unit();
    pickTaste_ = taste.between(0.13, 0.31);
    detuneTaste_ = taste.between(0.7, 1.4);

    std::array<bool, static_cast<std::size_t>(Voice::count)> isNeeded{};
    for (const Note& note : score.notes) isNeeded[indexOf(note.voice)] = true;
    for (std::size_t i = 0; i < isNeeded.size(); ++i) {
        if (!isNeeded[i]) continue;
        const auto voice = static_cast<Voice>(i);
        if (kind(voice) == Kind::wave) prepareWave(voice, seed);
        if (kind(voice) == Kind::oneShot) oneShots_[i] = oneShots(voice, style[brightness], seed + i);
    }
}

void Instruments::prepareWave(Voice voice, std::uint64_t seed) {
    Random taste(scrambled(seed + indexOf(voice)), "waveform");
    const double treble = style_[brightness];
    std::array<double, 16> grain{};
    for (double& amplitude : grain) amplitude = taste.between(0.65, 1.35);
    const auto grained = [&](int harmonic) { return grain[static_cast<std::size_t>(harmonic) % grain.size()]; };
    const auto soft = [&](const Waveform::Spectrum& spectrum) {
        waveforms_[indexOf(voice)] = std::make_unique<Waveform>(spectrum);
    };
    const auto bright = [&](const Waveform::Spectrum& spectrum) {
        brightWaveforms_[indexOf(voice)] = std::make_unique<Waveform>(spectrum);
    };
    switch (voice) {
        case Voice::pad: {
            const double steepness = taste.between(1.05, 1.5);
            const double even = taste.between(0.35, 1.0);
            soft([&](int harmonic, double hertz) {
                return slope(harmonic, steepness) * (harmonic % 2 == 0 ? even : 1) * grained(harmonic) *
                       below(harmonic * hertz, 6000);
            });
            break;
        }
        case Voice::strings: {
            const double body = taste.between(420, 560);
            soft([&](int harmonic, double hertz) {
                const double place = harmonic * hertz;
                return slope(harmonic, 1.15) *
                       (0.5 + formant(place, body, 180) + 0.8 * formant(place, 1500, 700) +
                        0.5 * formant(place, 2900, 900)) *
                       below(place, 2200 + 3000 * treble);
            });
            break;
        }
        case Voice::choir: {
            const double open = taste.unit();  // between "oo" and "ah"
            soft([&](int harmonic, double hertz) {
                const double place = harmonic * hertz;
                return slope(harmonic, 0.7) *
                       (formant(place, mixed(340, 680, open), 130) + 0.5 * formant(place, mixed(760, 1120, open), 160) +
                        0.12 * formant(place, 2600, 320) + 0.04 * formant(place, 3400, 400) + 0.012);
            });
            break;
        }
        case Voice::arpeggio: {
            const double even = taste.between(0.3, 1.0);
            soft([&](int harmonic, double) { return slope(harmonic, 2.2) * (harmonic % 2 == 0 ? even : 1); });
            bright([&](int harmonic, double hertz) {
                return slope(harmonic, 1.0) * (harmonic % 2 == 0 ? even : 1) * grained(harmonic) *
                       below(harmonic * hertz, 1300 + 5200 * treble);
            });
            break;
        }
        case Voice::pulse: {
            const double even = taste.between(0.05, 0.5);
            soft([&](int harmonic, double) { return slope(harmonic, 2.4) * (harmonic % 2 == 0 ? even : 1); });
            bright([&](int harmonic, double hertz) {
                return slope(harmonic, 1.1) * (harmonic % 2 == 0 ? even : 1) *
                       below(harmonic * hertz, 700 + 2600 * treble);
            });
            break;
        }
        case Voice::flute: {
            const double second = taste.between(0.15, 0.5);
            const double third = taste.between(0.08, 0.3);
            soft([&](int harmonic, double) {
                constexpr std::array<double, 7> rest = {0, 1, 0, 0, 0.07, 0.05, 0.02};
                if (harmonic == 2) return second;
                if (harmonic == 3) return third;
                return harmonic < 7 ? rest[static_cast<std::size_t>(harmonic)] : 0.0;
            });
            break;
        }
        case Voice::bass: {
            const double steepness = taste.between(1.5, 2.1);
            soft([&](int harmonic, double hertz) {
                return slope(harmonic, steepness) * below(harmonic * hertz, 320 + 500 * treble) * grained(harmonic);
            });
            break;
        }
        default: break;
    }
}

WaveVoice::Settings Instruments::wave(const Note& note) const {
    const double calm = 1 - style_[energy];
    const double treble = style_[brightness];
    const double spread = style_[width];
    const double seconds = static_cast<double>(note.length) / rate;
    WaveVoice::Settings settings;
    settings.waveform = waveforms_[indexOf(note.voice)].get();
    settings.bright = brightWaveforms_[indexOf(note.voice)].get();
    switch (note.voice) {
        case Voice::pad:
            settings.gain = 0.08;
            settings.detune = 7 * detuneTaste_;
            settings.spread = 0.9 * spread;
            settings.attack = std::min({attackShare_ * seconds, 0.35 + 1.5 * calm});
            settings.release = std::min(0.7 + 1.6 * calm, 0.6 + 0.5 * seconds);
            break;
        case Voice::strings:
            settings.gain = 0.12;
            settings.oscillators = 3;
            settings.detune = 9 * detuneTaste_;
            settings.spread = 0.8 * spread;
            settings.attack = std::min(0.4 * seconds, 0.25 + 0.9 * calm);
            settings.release = 0.6 + 0.7 * calm;
            settings.vibrato = 7;
            settings.vibratoRate = 4.6;
            break;
        case Voice::choir:
            settings.gain = 0.12;
            settings.oscillators = 3;
            settings.detune = 10 * detuneTaste_;
            settings.spread = 0.9 * spread;
            settings.attack = std::min(0.45 * seconds, 0.5 + 1.3 * calm);
            settings.release = 0.9 + 1.2 * calm;
            settings.vibrato = 9;
            settings.vibratoRate = 4.1;
            break;
        case Voice::arpeggio:
            settings.gain = 0.23;
            settings.detune = 5 * detuneTaste_;
            settings.spread = 0.35 * spread;
            settings.attack = 0.004;
            settings.decay = 0.16 * decayTaste_;
            settings.sustain = 0.12;
            settings.release = 0.22 + 0.15 * calm;
            settings.brightStart = 0.45 + 0.5 * treble;
            settings.brightDecay = 0.07 * decayTaste_;
            break;
        case Voice::pulse:
            settings.gain = 0.19;
            settings.detune = 4;
            settings.spread = 0.3 * spread;
            settings.attack = 0.007;
            settings.decay = 0.12 * decayTaste_;
            settings.sustain = 0.15;
            settings.release = 0.09;
            settings.brightStart = 0.35 + 0.5 * treble;
            settings.brightDecay = 0.05 * decayTaste_;
            break;
        case Voice::flute:
            settings.gain = 0.14;
            settings.detune = 2.5;
            settings.spread = 0.25;
            settings.attack = 0.07;
            settings.decay = 1.2;
            settings.sustain = 0.7;
            settings.release = 0.22;
            settings.vibrato = 13;
            settings.vibratoRate = 4.7;
            break;
        default:  // bass
            settings.gain = 0.16;
            settings.oscillators = 1;
            settings.detune = 0;
            settings.attack = 0.014 + 0.05 * calm * calm;
            settings.decay = 0.9;
            settings.sustain = 0.5;
            settings.release = 0.12 + 0.25 * calm;
            break;
    }
    return settings;
}

ModalVoice::Settings Instruments::modal(const Note& note) const {
    const double treble = style_[brightness];
    const double hertz = frequencyOf(note.pitch);
    // Low strings ring longer than high ones.
    const double ring = powerOfTwo((60 - note.pitch) / 26);
    const double strength = clamped(note.velocity, 0, 1);
    ModalVoice::Settings settings;
    auto& partials = settings.partials;
    switch (note.voice) {
        case Voice::piano: {
            settings.gain = 0.36;
            settings.attack = 0.003;
            settings.release = 0.35;
            const double hammer = 1.75 - 0.75 * treble - 0.25 * strength;
            for (int k = 1; k <= 9; ++k) {
                const double stretch = std::min(1 + 0.00035 * k * k, 1.03);
                const double amplitude = slope(k, hammer) * below(k * hertz, 1500 + 4500 * treble);
                const double seconds = 5.5 * ring / (1 + 0.42 * (k - 1));
                if (k <= 3) {
                    partials.push_back({k * stretch, 0.55 * amplitude, seconds, 0.18});
                    partials.push_back({k * stretch, 0.45 * amplitude, 0.6 * seconds, -0.21});
                } else {
                    partials.push_back({k * stretch, amplitude, seconds, 0});
                }
            }
            break;
        }
        case Voice::electricPiano:
            settings.gain = 0.3;
            settings.attack = 0.0025;
            settings.release = 0.25;
            settings.width = 0.2;
            partials = {
                {1, 0.55, 4.2 * ring * decayTaste_, 0.12},           {1, 0.45, 3.6 * ring * decayTaste_, -0.12},
                {2, 0.20 + 0.12 * strength, 2.4 * ring, 0},          {3, 0.07 + 0.1 * treble, 1.5 * ring, 0},
                {4, 0.03 + 0.09 * treble * strength, 0.9 * ring, 0}, {6.27, 0.03 + 0.12 * tineTaste_ * treble, 0.35, 0},
                {9.1, 0.09 * tineTaste_ * treble, 0.14, 0}};
            break;
        case Voice::bell:
            settings.gain = 0.24;
            settings.attack = 0.0015;
            settings.release = 1.6;
            settings.width = 0.35;
            if (bellTaste_ < 0.5) {
                // A struck bar, as in a celesta or a glockenspiel.
                partials = {{1, 0.8, 3.4 * decayTaste_, 0.15},
                            {1.002, 0.3, 2.6 * decayTaste_, -0.4},
                            {2.756, 0.10 + 0.22 * treble, 1.1, 0},
                            {5.404, 0.03 + 0.12 * treble, 0.45, 0}};
            } else {
                partials = {{1, 0.7, 3.8 * decayTaste_, 0.2},
                            {2.0, 0.3, 2.4 * decayTaste_, -0.3},
                            {3.01, 0.08 + 0.2 * treble, 1.3, 0},
                            {4.17, 0.04 + 0.15 * treble, 0.8, 0},
                            {5.43, 0.08 * treble, 0.5, 0}};
            }
            break;
        case Voice::mallet:
            settings.gain = 0.36;
            settings.attack = 0.0015;
            settings.release = 0.6;
            partials = {{1, 0.9, 1.1 * ring * decayTaste_, 0},
                        {3.93, 0.10 + 0.22 * treble, 0.32, 0},
                        {9.24, 0.02 + 0.1 * treble, 0.1, 0},
                        {0.5, 0.05, 0.3, 0}};
            break;
        case Voice::pluck: {
            settings.gain = 0.4;
            settings.attack = 0.0015;
            settings.release = 0.5;
            for (int k = 1; k <= 11; ++k) {
                const double comb = sine(0.5 * k * pickTaste_);
                const double amplitude =
                    (comb < 0 ? -comb : comb) * slope(k, 1.25 - 0.35 * treble) * below(k * hertz, 1600 + 4500 * treble);
                partials.push_back(
                    {k * (1 + 0.00008 * k * k), amplitude, 2.6 * ring * decayTaste_ / (1 + 0.3 * (k - 1)), 0});
            }
            break;
        }
        default:  // glow
            settings.gain = 0.36;
            settings.attack = 0.02;
            settings.release = 0.7;
            settings.width = 0.3;
            partials = {{1, 0.6, 3.2 * decayTaste_, 0.2},
                        {1, 0.4, 2.6 * decayTaste_, -0.25},
                        {2, 0.10 + 0.15 * treble, 1.8, 0.1},
                        {3, 0.03 + 0.1 * treble, 1.2, 0},
                        {5, 0.05 * treble * tineTaste_, 0.6, 0}};
            break;
    }
    return settings;
}

const OneShot& Instruments::oneShot(const Note& note) const noexcept {
    const auto& sounds = oneShots_[indexOf(note.voice)];
    switch (note.voice) {
        case Voice::droplet: {
            const auto place = wholeBelow((note.pitch - 84) / 1.8);
            return sounds[static_cast<std::size_t>(std::clamp<std::int64_t>(place, 0, 15))];
        }
        case Voice::chirp: {
            const auto place = wholeBelow((note.pitch - 97) / 1.7);
            return sounds[static_cast<std::size_t>(std::clamp<std::int64_t>(place, 0, 7))];
        }
        default: return sounds[note.grain % sounds.size()];
    }
}

std::int64_t Instruments::reach(const Note& note) const {
    switch (kind(note.voice)) {
        case Kind::wave: {
            const WaveVoice::Settings settings = wave(note);
            const auto attack = nearest(settings.attack * rate);
            return std::max(note.length, attack) + nearest(settings.release * rate) + 1;
        }
        case Kind::modal: {
            const ModalVoice::Settings settings = modal(note);
            double seconds = 0;
            for (const auto& partial : settings.partials) seconds = std::max(seconds, partial.seconds);
            const auto fading = nearest(seconds * 1.4 * rate);
            return std::min(note.length + nearest(settings.release * rate), fading) + 1;
        }
        case Kind::oneShot: return static_cast<std::int64_t>(oneShot(note).left.size());
    }
    return 0;
}

}  // namespace quillmere::tonebed
