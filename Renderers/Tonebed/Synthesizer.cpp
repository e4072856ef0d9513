#include "Renderers/Tonebed/Synthesizer.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Brightness.hpp"
#include "Renderers/Tonebed/Effects.hpp"
#include "Renderers/Tonebed/Filters.hpp"
#include "Renderers/Tonebed/Instruments.hpp"
#include "Renderers/Tonebed/Loudness.hpp"
#include "Renderers/Tonebed/Mastering.hpp"
#include "Renderers/Tonebed/ModalVoice.hpp"
#include "Renderers/Tonebed/NoiseBed.hpp"
#include "Renderers/Tonebed/OneShot.hpp"
#include "Renderers/Tonebed/Random.hpp"
#include "Renderers/Tonebed/Reverb.hpp"
#include "Renderers/Tonebed/WaveVoice.hpp"

namespace quillmere::tonebed {
namespace {

using enum Feature;

constexpr auto rate = static_cast<double>(sampleRate);

/// Groups of voices that share their effects.
enum Bus : std::size_t { padBus, ensembleBus, melodicBus, lowBus, percussiveBus, natureBus, busCount };

Bus busOf(Voice voice) noexcept {
    switch (voice) {
        case Voice::pad: return padBus;
        case Voice::strings:
        case Voice::choir: return ensembleBus;
        case Voice::bass: return lowBus;
        case Voice::kick:
        case Voice::snare:
        case Voice::rim:
        case Voice::brush:
        case Voice::sweep:
        case Voice::hat:
        case Voice::shaker: return percussiveBus;
        case Voice::droplet:
        case Voice::tick:
        case Voice::chirp: return natureBus;
        default: return melodicBus;
    }
}

/// How much of each bus goes into the room, at full reverb.
constexpr std::array<float, busCount> roomShares = {0.34f, 0.4f, 0.36f, 0.03f, 0.12f, 0.1f};

std::uint64_t seedOf(const Piece& piece) noexcept {
    return scrambled(static_cast<std::uint64_t>(piece.seed) + hashOf(piece.moodID));
}

template <class Sound>
struct Playing {
    Sound sound;
    Bus bus;
};

/// Renders all sounds into their buses and forgets those that ended, in order.
template <class Sound>
void renderAll(std::vector<Playing<Sound>>& playing, std::array<Block, busCount>& buses, std::size_t count) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < playing.size(); ++i) {
        if (!playing[i].sound.render(buses[playing[i].bus], 0, count)) continue;
        if (kept != i) playing[kept] = std::move(playing[i]);
        ++kept;
    }
    playing.erase(playing.begin() + static_cast<std::ptrdiff_t>(kept), playing.end());
}

std::span<const float> part(const std::vector<float>& channel, std::int64_t start, std::size_t count) noexcept {
    return std::span(channel).subspan(static_cast<std::size_t>(start), count);
}

}  // namespace

Style styleOf(const Piece& piece) {
    const double weight = clamped(static_cast<double>(piece.blendIndex) * 0.25, 0, 1);
    if (piece.prompt) return Style::fromPrompt(*piece.prompt).shaded(weight);
    return Style::blended(Style::fromPrompt(piece.calmPrompt), Style::fromPrompt(piece.energeticPrompt), weight);
}

Score scoreOf(const Piece& piece) { return Score::composed(styleOf(piece), seedOf(piece), piece.frames); }

struct Synthesizer::State {
    explicit State(const Piece& piece)
        : style(styleOf(piece)),
          seed(seedOf(piece)),
          frames(piece.frames),
          score(Score::composed(style, seed, frames)),
          instruments(style, seed, score),
          noise(style, seed, frames),
          chorus(frames, 5.5, 0.5),
          echo(echoFrames(), 0.38, 1800 + 3000 * style[Feature::brightness]),
          room(roomSeconds(), 1 - style[Feature::brightness], 0.8 + 0.6 * style[reverb]),
          padSwell(frames, 11, 0.2),
          padDrift(frames, 17, 0.7),
          left(static_cast<std::size_t>(frames)),
          right(static_cast<std::size_t>(frames)) {
        std::int64_t longest = 0;
        for (const Note& note : score.notes) longest = std::max(longest, instruments.reach(note));
        // The room and the echoes must have forgotten the silence before the run-up: 100 dB.
        const auto fading = nearest(std::max(roomSeconds() * 100 / 60, 6.0) * rate);
        const std::int64_t wished = longest + fading;
        // Blocks lie alike in every turn of the loop, so the run-up begins on one.
        constexpr auto block = static_cast<std::int64_t>(blockFrames);
        const std::int64_t turns = wished / frames;
        const std::int64_t rest = wished % frames;
        const std::int64_t start = std::max<std::int64_t>(0, frames - rest) / block * block;
        runUp = turns * frames + (frames - start);
        position = start % frames;
        nextNote = firstNoteFrom(position);

        const double wet = style[reverb];
        for (std::size_t bus = 0; bus < busCount; ++bus)
            roomLevels[bus] = roomShares[bus] * static_cast<float>(0.25 + wet);
        echoLevel = static_cast<float>(0.1 + 0.16 * wet);
        padCutoff = 600 * powerOfTwo(3.1 * style[Feature::brightness]);
        const double tilt = (style[Feature::brightness] - 0.42) * 8;
        trebleGain = gainOf(tilt);
        bassGain = gainOf(-0.35 * tilt);
        pumping = 0.28 * clamped(style[pulse] * (0.3 + style[energy]), 0, 1);
        for (OnePole& filter : tilts) filter.tune(950);
    }

    [[nodiscard]] double roomSeconds() const noexcept { return 1.1 + 4.0 * style[reverb]; }

    /// Echoes on a dotted eighth, or what of it lies between a fifth and two thirds of a second.
    [[nodiscard]] std::size_t echoFrames() const noexcept {
        double length = score.framesPerBeat() * 0.75;
        while (length > 0.66 * rate) length /= 2;
        while (length < 0.2 * rate) length *= 2;
        return static_cast<std::size_t>(nearest(length));
    }

    [[nodiscard]] std::size_t firstNoteFrom(std::int64_t frame) const noexcept {
        const auto found = std::ranges::lower_bound(score.notes, frame, {}, &Note::start);
        return static_cast<std::size_t>(found - score.notes.begin());
    }

    void startNotes(std::size_t count) {
        const std::int64_t end = position + static_cast<std::int64_t>(count);
        for (; nextNote < score.notes.size() && score.notes[nextNote].start < end; ++nextNote) {
            const Note& note = score.notes[nextNote];
            const auto from = static_cast<std::size_t>(note.start - position);
            const Bus bus = busOf(note.voice);
            switch (Instruments::kind(note.voice)) {
                case Instruments::Kind::wave: {
                    WaveVoice voice(instruments.wave(note), note);
                    if (voice.render(buses[bus], from, count)) waves.push_back({voice, bus});
                    break;
                }
                case Instruments::Kind::modal: {
                    ModalVoice voice(instruments.modal(note), note);
                    if (voice.render(buses[bus], from, count)) modals.push_back({std::move(voice), bus});
                    break;
                }
                case Instruments::Kind::oneShot: {
                    OneShotVoice voice(instruments.oneShot(note), note.velocity, note.pan);
                    if (voice.render(buses[bus], from, count)) hits.push_back({voice, bus});
                    break;
                }
            }
        }
    }

    /// The pad's level over a beat: it makes way for the pulse and comes back.
    [[nodiscard]] double padLevel(std::int64_t at) const noexcept {
        if (pumping <= 0.01) return 1;
        const double beats = static_cast<double>(at) / score.framesPerBeat();
        const double place = beats - static_cast<double>(wholeBelow(beats));
        const double dip = place < 0.06 ? smoothStep(place / 0.06) : 1 - smoothStep((place - 0.06) / 0.8);
        return 1 - pumping * dip;
    }

    void shapePad(std::size_t count) noexcept {
        Block& block = buses[padBus];
        const double motionDepth = style[motion];
        const double open = motionDepth * (0.7 * padSwell.at(position) + 0.4 * padDrift.at(position));
        const double breath = 1 + 0.22 * motionDepth * padDrift.at(position);
        const double hertz = padCutoff * powerOfTwo(open * 0.8);
        for (auto& filter : padFilters) filter.tune(hertz, 1.5);
        const double first = padLevel(position) * breath;
        const std::int64_t next = position + static_cast<std::int64_t>(count);
        const double last = padLevel(next) * (1 + 0.22 * motionDepth * padDrift.at(next));
        const auto start = static_cast<float>(first);
        const auto step = static_cast<float>((last - first) / static_cast<double>(count));
        for (std::size_t i = 0; i < count; ++i) {
            const float level = start + step * countingUp[i];
            block.left[i] = level * padFilters[0].lowpass(block.left[i]);
            block.right[i] = level * padFilters[1].lowpass(block.right[i]);
        }
        chorus.process(block, position, count);
    }

    /// One sample without rumble, its treble and bass weighed against each other.
    float tilted(std::size_t side, float sample) noexcept {
        const double x = rumbles[side].highpass(static_cast<double>(sample));
        const double low = tilts[side].lowpass(x);
        return static_cast<float>(bassGain * low + trebleGain * (x - low));
    }

    void playBlock() {
        const std::int64_t untilEnd = frames - position;
        const auto count = static_cast<std::size_t>(std::min<std::int64_t>(blockFrames, untilEnd));
        for (Block& bus : buses) bus.clear();
        renderAll(waves, buses, count);
        renderAll(modals, buses, count);
        renderAll(hits, buses, count);
        startNotes(count);
        if (noise.sounds()) noise.render(buses[natureBus], position, count);
        shapePad(count);

        Block sum;
        Block toRoom;
        sum.clear();
        toRoom.clear();
        Block toEcho;
        for (std::size_t bus = 0; bus < busCount; ++bus) {
            const float level = roomLevels[bus];
            const Block& source = buses[bus];
            for (std::size_t i = 0; i < count; ++i) {
                sum.left[i] += source.left[i];
                sum.right[i] += source.right[i];
                toRoom.left[i] += level * source.left[i];
                toRoom.right[i] += level * source.right[i];
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            toEcho.left[i] = echoLevel * buses[melodicBus].left[i];
            toEcho.right[i] = echoLevel * buses[melodicBus].right[i];
        }
        Block echoes;
        echoes.clear();
        echo.process(toEcho, echoes, count);
        for (std::size_t i = 0; i < count; ++i) {
            sum.left[i] += echoes.left[i];
            sum.right[i] += echoes.right[i];
            toRoom.left[i] += 0.3f * echoes.left[i];
            toRoom.right[i] += 0.3f * echoes.right[i];
        }
        room.process(toRoom, sum, count);

        const bool isRunUp = played < runUp;
        for (std::size_t i = 0; i < count; ++i) {
            const float l = tilted(0, sum.left[i]);
            const float r = tilted(1, sum.right[i]);
            if (isRunUp) continue;
            left[static_cast<std::size_t>(position) + i] = l;
            right[static_cast<std::size_t>(position) + i] = r;
        }
        if (!isRunUp) meter.append(part(left, position, count), part(right, position, count));
        position += static_cast<std::int64_t>(count);
        played += static_cast<std::int64_t>(count);
        if (position == frames) {
            position = 0;
            nextNote = 0;
        }
    }

    const Style style;
    const std::uint64_t seed;
    const std::int64_t frames;
    const Score score;
    const Instruments instruments;
    NoiseBed noise;
    Chorus chorus;
    Echo echo;
    Reverb room;
    SlowWave padSwell;
    SlowWave padDrift;
    std::vector<float> left;
    std::vector<float> right;

    std::int64_t runUp = 0;
    std::int64_t position = 0;  // in the loop
    std::int64_t played = 0;
    std::size_t nextNote = 0;
    std::vector<Playing<WaveVoice>> waves;
    std::vector<Playing<ModalVoice>> modals;
    std::vector<Playing<OneShotVoice>> hits;
    std::array<Block, busCount> buses;
    std::array<float, busCount> roomLevels{};
    float echoLevel = 0;
    double padCutoff = 1000;
    double trebleGain = 1;
    double bassGain = 1;
    double pumping = 0;
    std::array<StateVariable, 2> padFilters;
    std::array<OnePole, 2> tilts{OnePole(950), OnePole(950)};
    std::array<OnePole, 2> rumbles{OnePole(26), OnePole(26)};
    EnergyMeter meter;
    DraftLevel draftLevel;
    std::int64_t drafted = 0;
    double gain = 1;
    double treble = 0;
};

Synthesizer::Synthesizer(const Piece& piece) {
    if (piece.frames < fewestFrames || piece.frames > mostFrames) {
        std::fputs("Synthesizer: a length that cannot be made\n", stderr);
        std::abort();
    }
    state_ = std::make_unique<State>(piece);
}

Synthesizer::~Synthesizer() = default;

const Score& Synthesizer::score() const noexcept { return state_->score; }
std::int64_t Synthesizer::framesToPlay() const noexcept { return state_->runUp + state_->frames; }
std::int64_t Synthesizer::framesPlayed() const noexcept { return state_->played; }

void Synthesizer::play(std::int64_t frames) {
    const std::int64_t end = std::min(framesToPlay(), state_->played + frames);
    while (state_->played < end) state_->playBlock();
}

std::int64_t Synthesizer::framesToDraft() const noexcept {
    return std::max<std::int64_t>(0, state_->played - state_->runUp) - state_->drafted;
}

void Synthesizer::draft(std::span<std::int16_t> samples) {
    const std::size_t count = samples.size() / 2;
    state_->draftLevel.apply(part(state_->left, state_->drafted, count), part(state_->right, state_->drafted, count),
                             state_->meter.energy(), samples);
    state_->drafted += static_cast<std::int64_t>(count);
}

void Synthesizer::finish() {
    state_->gain = master(state_->left, state_->right, state_->meter.energy());
    easeSeam(state_->left, state_->right);
    state_->treble = brightnessOf(state_->left, state_->right);
}

void Synthesizer::read(std::int64_t fromFrame, std::span<std::int16_t> samples) const {
    auto frame = static_cast<std::size_t>(fromFrame);
    for (std::size_t i = 0; i + 1 < samples.size(); i += 2, ++frame) {
        samples[i] = sixteenBits(state_->left[frame]);
        samples[i + 1] = sixteenBits(state_->right[frame]);
    }
}

double Synthesizer::seamStep() const noexcept {
    const auto step = [](const std::vector<float>& channel) {
        const int difference = sixteenBits(channel.front()) - sixteenBits(channel.back());
        return static_cast<double>(difference < 0 ? -difference : difference) / 32768;
    };
    return std::max(step(state_->left), step(state_->right));
}

double Synthesizer::brightness() const noexcept { return state_->treble; }
double Synthesizer::makeupGain() const noexcept { return state_->gain; }

}  // namespace quillmere::tonebed
