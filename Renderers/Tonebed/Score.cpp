#include "Renderers/Tonebed/Score.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <string_view>
#include <tuple>
#include <utility>

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {
namespace {

using enum Feature;

struct Meter {
    int bars = 1;
    int beatsPerBar = 4;
};

/// How far the tempo bends, as a factor of at least 1.
double bendOf(double wished, double made) noexcept { return wished > made ? wished / made : made / wished; }

/// Whole bars that come close to the wished number of beats: phrases of four bars where the tempo hardly bends, else
/// two, else single bars; in short pieces the bars themselves may be shorter.
Meter fittingMeter(double beats, int beatsPerBar) noexcept {
    const double bars = beats / beatsPerBar;
    if (bars >= 3.5) {
        for (const auto& [unit, tolerance] : {std::pair{4, 1.06}, std::pair{2, 1.08}}) {
            const auto count = static_cast<int>(nearest(bars / unit)) * unit;
            if (count > 0 && bendOf(bars, count) <= tolerance) return {count, beatsPerBar};
        }
        return {static_cast<int>(nearest(bars)), beatsPerBar};
    }
    Meter best;
    double bestCost = 0;
    bool isFirst = true;
    for (const int length : {4, 3, 2, 1}) {
        for (int count = 1; count <= 4; ++count) {
            const double cost = bendOf(beats, count * length) + (length == beatsPerBar ? 0 : 0.07 * (5 - length));
            if (isFirst || cost < bestCost) {
                best = {count, length};
                bestCost = cost;
                isFirst = false;
            }
        }
    }
    return best;
}

/// How evenly a layer is played.
struct Touch {
    double softest = 1;   ///< The least share of the velocity that a note may have.
    double earliest = 0;  ///< Seconds around the beat; what begins before the loop begins at its end.
    double latest = 0;
};

class Composer {
public:
    Composer(const Style& style, std::uint64_t seed, Score& score)
        : style_(style), seed_(seed), score_(score), energy_(style[energy]) {}

    void compose() {
        chooseBars();
        score_.key = Key::chosen(style_, Random(seed_, "key"));
        chooseChords();
        sustainedLayers();
        bassLine();
        arpeggios();
        pulses();
        comping();
        picking();
        melody();
        sparkles();
        drumming();
        nature();
        std::ranges::sort(score_.notes, std::ranges::less{}, [](const Note& note) {
            return std::tuple{note.start, note.voice, note.pitch, note.grain};
        });
    }

private:
    /// A rhythm that repeats every `bars`: which of its slots sound.
    struct Pattern {
        int bars = 1;
        int slotsPerBeat = 2;
        std::vector<bool> sounds;

        [[nodiscard]] std::size_t slot(std::int64_t index) const noexcept {
            return static_cast<std::size_t>(index % static_cast<std::int64_t>(sounds.size()));
        }
    };

    void chooseBars() {
        const double seconds = static_cast<double>(score_.frames) / static_cast<double>(sampleRate);
        const double liking = style_.hasExplicitTempo ? 1 : Random(seed_, "tempo").between(0.95, 1.05);
        const Meter meter = fittingMeter(seconds * style_.tempo * liking / 60, style_.beatsPerBar);
        score_.bars = meter.bars;
        score_.beatsPerBar = meter.beatsPerBar;
        score_.tempo = static_cast<double>(score_.beats()) * 60 / seconds;
    }

    void chooseChords() {
        const double barSeconds = 60 / score_.tempo * score_.beatsPerBar;
        const double wished = mixed(7.5, 3.4, energy_);
        int barsPerChord = 1;
        for (const int bars : {2, 4}) {
            if (score_.bars % bars == 0 && score_.bars / bars >= 2 && barSeconds * bars <= wished * 1.25) {
                barsPerChord = bars;
            }
        }
        int chordsPerBar = 1;
        const double shortest = score_.bars == 1 ? 3.0 : wished * 1.4;
        if (score_.beatsPerBar % 2 == 0 && barSeconds > shortest) chordsPerBar = 2;
        const int count = barsPerChord > 1 ? score_.bars / barsPerChord : score_.bars * chordsPerBar;
        score_.chords = progression(score_.key, static_cast<std::size_t>(count), Random(seed_, "chords"));
    }

    [[nodiscard]] double beatsPerChord() const noexcept {
        return static_cast<double>(score_.beats()) / static_cast<double>(score_.chords.size());
    }
    [[nodiscard]] std::size_t chordIndex(double beat) const noexcept {
        const auto index = static_cast<std::size_t>(wholeBelow(beat / beatsPerChord() + 1e-9));
        return std::min(index, score_.chords.size() - 1);
    }
    [[nodiscard]] const Chord& chordAt(double beat) const noexcept { return score_.chords[chordIndex(beat)]; }
    [[nodiscard]] bool isChordStart(double beat) const noexcept {
        const double place = beat / beatsPerChord();
        return place - static_cast<double>(wholeBelow(place + 1e-9)) < 1e-6;
    }

    /// How loud a layer of this level plays.
    [[nodiscard]] static double loudnessOf(double level) noexcept { return level <= 0.02 ? 0 : level * (2 - level); }
    /// How busy a layer of this level is, next to one of level 1.
    [[nodiscard]] static double busynessOf(double level) noexcept { return 0.4 + 0.6 * clamped(level, 0, 1); }

    /// Whether a layer plays in a bar; long pieces let each layer rest for a quarter of the loop.
    [[nodiscard]] bool plays(std::string_view layer, std::int64_t bar) const noexcept {
        if (score_.bars < 8) return true;
        Random random(seed_ ^ hashOf("rest"), layer);
        return static_cast<std::int64_t>(random.below(4)) != bar * 4 / score_.bars;
    }

    /// The beat of a slot, off-beats swung.
    [[nodiscard]] double beatOf(const Pattern& pattern, std::int64_t slot) const noexcept {
        const double beat = static_cast<double>(slot) / pattern.slotsPerBeat;
        const std::int64_t inBeat = slot % pattern.slotsPerBeat;
        const double swing = style_[Feature::swing] * 0.14;
        if (pattern.slotsPerBeat == 2) return inBeat == 1 ? beat + swing : beat;
        if (pattern.slotsPerBeat == 4)
            return inBeat % 2 == 1 ? beat + swing * 0.5 : (inBeat == 2 ? beat + swing : beat);
        return beat;
    }

    /// A pattern with about `rate` onsets in a second: those slots sound that come first by `weight` (0 for the
    /// strongest), with some chance. The more are asked for the more sound, and none that sounded falls silent.
    [[nodiscard]] Pattern pattern(std::string_view purpose, int bars, int slotsPerBeat, double rate,
                                  const std::function<double(int beat, int slot)>& weight) const {
        Pattern result;
        result.bars = std::min(bars, score_.bars);
        result.slotsPerBeat = slotsPerBeat;
        const auto count = [](int value) { return static_cast<std::size_t>(value); };
        const auto size = count(result.bars) * count(score_.beatsPerBar) * count(slotsPerBeat);
        result.sounds.assign(size, false);

        Random random(seed_, purpose);
        std::vector<std::pair<double, std::size_t>> order;
        for (std::size_t i = 0; i < size; ++i) {
            const auto beat = static_cast<int>(i) / slotsPerBeat % score_.beatsPerBar;
            const int slot = static_cast<int>(i) % slotsPerBeat;
            const double chance = random.unit();
            order.emplace_back(weight(beat, slot) + 0.45 * chance, i);
        }
        std::ranges::sort(order);
        const double seconds = result.bars * score_.beatsPerBar * 60 / score_.tempo;
        const double liking = random.between(0.85, 1.15);
        const auto wished = static_cast<std::size_t>(std::max<std::int64_t>(0, nearest(rate * liking * seconds)));
        for (std::size_t i = 0; i < std::min(wished, size); ++i) result.sounds[order[i].second] = true;
        return result;
    }

    [[nodiscard]] std::int64_t slotCount(const Pattern& pattern) const noexcept {
        return score_.beats() * pattern.slotsPerBeat;
    }

    /// Beats from a slot to the next one that sounds, at most `longest`.
    [[nodiscard]] double beatsToNext(const Pattern& pattern, std::int64_t slot, double longest) const noexcept {
        const auto most = static_cast<std::int64_t>(longest * pattern.slotsPerBeat);
        for (std::int64_t next = 1; next < most; ++next) {
            if (pattern.sounds[pattern.slot(slot + next)]) return static_cast<double>(next) / pattern.slotsPerBeat;
        }
        return longest;
    }

    void add(Voice voice, double beat, double beats, double pitch, double velocity, double pan, Random& random,
             const Touch& touch = {}, bool isOnset = true) {
        const double share = random.between(touch.softest, 1);
        const double lateness = random.between(touch.earliest, touch.latest);
        if (velocity < 0.004) return;
        Note note;
        note.start = nearest(beat * score_.framesPerBeat() + lateness * static_cast<double>(sampleRate));
        note.start = ((note.start % score_.frames) + score_.frames) % score_.frames;
        note.length = std::max<std::int64_t>(1, nearest(beats * score_.framesPerBeat()));
        note.pitch = pitch;
        note.velocity = velocity * share;
        note.pan = clamped(pan, -1, 1);
        note.voice = voice;
        note.isOnset = isOnset;
        note.grain = random.next();
        score_.notes.push_back(note);
    }

    void sustainedLayers() {
        const double padLoudness = loudnessOf(style_[pad]);
        const double stringLoudness = loudnessOf(style_[strings]);
        const double choirLoudness = loudnessOf(style_[choir]);
        Random random(seed_, "sustained");
        Random taste(seed_, "sustained taste");
        const double rootShare = taste.between(0.3, 0.6);
        const bool stringsTakeTop = taste.chance(0.6);
        constexpr std::array<double, 4> pans = {-0.3, 0.35, -0.55, 0.55};
        for (std::size_t i = 0; i < score_.chords.size(); ++i) {
            const Chord& chord = score_.chords[i];
            const double beat = static_cast<double>(i) * beatsPerChord();
            const double length = beatsPerChord();
            bool isOnset = true;
            for (std::size_t v = 0; v < chord.voicing.size(); ++v) {
                const double weight = v == 0 || v == 3 ? 0.9 : 0.75;
                add(Voice::pad, beat, length, chord.voicing[v], padLoudness * weight, pans[v], random,
                    {.softest = 0.85}, isOnset);
                isOnset = isOnset && padLoudness <= 0;
            }
            // The root below, and the top an octave higher where the sound is open.
            add(Voice::pad, beat, length, chord.bass + 12, padLoudness * rootShare, 0, random, {}, false);
            const double air = clamped((style_[brightness] - 0.3) * 0.9, 0, 0.5);
            add(Voice::pad, beat, length, chord.voicing[3] + 12, padLoudness * air, 0.1, random, {}, false);
            isOnset = true;
            for (const std::size_t v : {std::size_t{1}, std::size_t{3}}) {
                const int lift = stringsTakeTop || v == 3 ? 12 : 0;
                add(Voice::strings, beat, length, chord.voicing[v] + lift, stringLoudness * (v == 3 ? 0.8 : 0.65),
                    v == 1 ? -0.45 : 0.4, random, {}, isOnset);
                isOnset = false;
            }
            add(Voice::strings, beat, length, chord.voicing[0] - (chord.voicing[0] > 55 ? 12 : 0), stringLoudness * 0.7,
                0.15, random, {}, false);
            isOnset = true;
            for (const std::size_t v : {std::size_t{3}, std::size_t{2}, std::size_t{1}}) {
                add(Voice::choir, beat, length, chord.voicing[v] + (v == 1 ? 12 : 0), choirLoudness * 0.75,
                    v == 3 ? 0.3 : (v == 2 ? -0.4 : 0.6), random, {}, isOnset);
                isOnset = false;
            }
        }
    }

    void bassLine() {
        const double loudness = loudnessOf(style_[bass]);
        if (loudness <= 0) return;
        const double rate = (0.12 + 2.3 * energy_) * (0.45 + 0.55 * style_[bass]);
        const Pattern rhythm = pattern("bass", 2, 2, rate, [this](int beat, int slot) {
            if (beat == 0 && slot == 0) return 0.0;
            if (slot == 0) return 2 * beat == score_.beatsPerBar ? 0.5 : 0.85;
            return beat + 1 == score_.beatsPerBar ? 1.0 : 1.2;
        });
        Random random(seed_, "bass notes");
        Random taste(seed_, "bass taste");
        std::vector<int> walk(rhythm.sounds.size());
        for (int& step : walk) step = static_cast<int>(taste.below(6));
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            const double beat = beatOf(rhythm, slot);
            const bool onChord = slot % rhythm.slotsPerBeat == 0 && isChordStart(beat);
            if (!onChord && !rhythm.sounds[rhythm.slot(slot)]) continue;
            const Chord& chord = chordAt(beat);
            int pitch = chord.bass;
            if (!onChord) {
                const int step = walk[rhythm.slot(slot)];
                if (step == 4)
                    pitch += chord.classes[2] >= chord.classes[0] ? chord.classes[2] - chord.classes[0]
                                                                  : chord.classes[2] - chord.classes[0] + 12;
                if (step == 5) pitch += 12;
            }
            const double toChord = (static_cast<double>(chordIndex(beat)) + 1) * beatsPerChord() - beat;
            const double length = std::min(beatsToNext(rhythm, slot, std::min(8.0, toChord)), toChord) * 0.92;
            const double accent = onChord ? 1 : (slot % rhythm.slotsPerBeat == 0 ? 0.85 : 0.7);
            add(Voice::bass, beat, length, pitch, loudness * accent, 0, random, {.softest = 0.92, .latest = 0.004});
        }
    }

    void arpeggios() {
        const double loudness = loudnessOf(style_[arpeggio]);
        if (loudness <= 0) return;
        const double rate = (2.0 + 6.4 * energy_) * busynessOf(style_[arpeggio]);
        const Pattern rhythm =
            pattern("arpeggio", 2, 4, rate, [](int, int slot) { return slot == 0 ? 0.0 : (slot == 2 ? 0.4 : 0.9); });
        Random taste(seed_, "arpeggio taste");
        // The order in which the chord's tones come: up, down, to and fro, broken, or free.
        std::vector<int> order;
        switch (taste.below(5)) {
            case 0: order = {0, 1, 2, 3, 4, 5, 6, 7}; break;
            case 1: order = {7, 6, 5, 4, 3, 2, 1, 0}; break;
            case 2: order = {0, 1, 2, 3, 4, 5, 4, 3, 2, 1}; break;
            case 3: order = {0, 2, 1, 3, 2, 4, 3, 5}; break;
            default:
                for (int i = 0; i < 8; ++i) order.push_back(static_cast<int>(taste.below(7)));
                break;
        }
        const int lift = taste.chance(0.5) ? 12 : 0;
        Random random(seed_, "arpeggio notes");
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            if (!rhythm.sounds[rhythm.slot(slot)]) continue;
            const double beat = beatOf(rhythm, slot);
            const Chord& chord = chordAt(beat);
            const int tone = order[static_cast<std::size_t>(slot) % order.size()];
            const int pitch = chord.voicing[static_cast<std::size_t>(tone % 4)] + 12 * (tone / 4) + lift;
            const double accent = slot % 4 == 0 ? 1 : (slot % 4 == 2 ? 0.82 : 0.68);
            // A long swell, so that the figure comes and goes.
            const double place = beat / static_cast<double>(score_.beats());
            const double swell = 0.8 + 0.2 * sine(place * (score_.bars >= 8 ? 3 : 1));
            add(Voice::arpeggio, beat, 0.9 * beatsToNext(rhythm, slot, 1), pitch, loudness * accent * swell,
                0.6 * sine(static_cast<double>(slot) * 0.19), random,
                {.softest = 0.85, .earliest = -0.003, .latest = 0.003});
        }
    }

    void pulses() {
        const double loudness = loudnessOf(style_[pulse]);
        if (loudness <= 0) return;
        const double rate = (1.0 + 3.6 * energy_) * busynessOf(style_[pulse]);
        const Pattern rhythm =
            pattern("pulse", 2, energy_ > 0.75 ? 4 : 2, rate, [](int, int slot) { return slot == 0 ? 0.0 : 0.6; });
        Random taste(seed_, "pulse taste");
        std::array<int, 8> tones{};
        for (int& tone : tones) tone = taste.chance(0.65) ? 0 : (taste.chance(0.6) ? 1 : 2);
        Random random(seed_, "pulse notes");
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            if (!rhythm.sounds[rhythm.slot(slot)]) continue;
            const double beat = beatOf(rhythm, slot);
            const Chord& chord = chordAt(beat);
            const int tone = tones[static_cast<std::size_t>(slot) % tones.size()];
            int pitch = chord.bass + 12;
            if (tone == 1) pitch = chord.voicing[0];
            if (tone == 2) pitch = chord.bass + 24;
            const bool isStrong = slot % rhythm.slotsPerBeat == 0;
            add(Voice::pulse, beat, 0.6 / rhythm.slotsPerBeat, pitch, loudness * (isStrong ? 0.95 : 0.72),
                isStrong ? -0.12 : 0.18, random, {.softest = 0.9});
        }
    }

    void chordHit(Voice voice, double beat, double length, double loudness, Random& random) {
        const Chord& chord = chordAt(beat);
        double lateness = random.between(0, 0.006);
        const double roll = random.between(0.004, 0.02);
        for (std::size_t v = 0; v < chord.voicing.size(); ++v) {
            const double pan = -0.35 + 0.23 * static_cast<double>(v);
            add(voice, beat, length, chord.voicing[v], loudness * 0.95, pan, random,
                {.softest = 0.75, .earliest = lateness, .latest = lateness}, v == 0);
            lateness += roll;
        }
    }

    void comping() {
        for (const auto& [feature, voice, name] :
             {std::tuple{piano, Voice::piano, "piano"}, std::tuple{electricPiano, Voice::electricPiano, "epiano"}}) {
            const double loudness = loudnessOf(style_[feature]);
            if (loudness <= 0) continue;
            const double rate = (0.2 + 1.5 * energy_) * busynessOf(style_[feature]);
            const Pattern rhythm = pattern(name, 2, 2, rate, [this](int beat, int slot) {
                if (slot == 0) return beat == 0 ? 0.0 : (2 * beat == score_.beatsPerBar ? 0.4 : 0.8);
                return beat == 1 ? 0.45 : 0.8;
            });
            Random random(seed_, name);
            for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
                const double beat = beatOf(rhythm, slot);
                const bool onChord = slot % rhythm.slotsPerBeat == 0 && isChordStart(beat);
                if (!onChord && !rhythm.sounds[rhythm.slot(slot)]) continue;
                const double toChord = (static_cast<double>(chordIndex(beat)) + 1) * beatsPerChord() - beat;
                const double length = std::min(toChord, beatsToNext(rhythm, slot, 6) + 0.5);
                chordHit(voice, beat, length, loudness * (onChord ? 0.8 : 0.62), random);
                if (onChord) {
                    add(voice, beat, toChord, chordAt(beat).bass + 12, loudness * 0.75, -0.4, random, {}, false);
                }
            }
        }
    }

    void picking() {
        const double loudness = loudnessOf(style_[plucks]);
        if (loudness <= 0) return;
        const double rate = (0.9 + 4.2 * energy_) * busynessOf(style_[plucks]);
        const Pattern rhythm = pattern("plucks", 2, energy_ > 0.7 ? 4 : 2, rate, [](int beat, int slot) {
            if (slot == 0) return beat == 0 ? 0.0 : 0.3;
            return slot == 2 ? 0.45 : 0.6;
        });
        Random taste(seed_, "plucks taste");
        std::array<std::size_t, 16> fingers{};
        for (std::size_t& finger : fingers) finger = 1 + taste.below(4);
        Random random(seed_, "plucks notes");
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            if (!rhythm.sounds[rhythm.slot(slot)]) continue;
            const double beat = beatOf(rhythm, slot);
            const Chord& chord = chordAt(beat);
            const bool isThumb = slot % (2L * rhythm.slotsPerBeat) == 0;
            const std::size_t finger = fingers[rhythm.slot(slot) % fingers.size()];
            int pitch = isThumb ? chord.bass + 12 : chord.voicing[finger % 4] + (finger >= 4 ? 12 : 0);
            while (pitch < 43) pitch += 12;
            add(Voice::pluck, beat, isThumb ? 3 : 2, pitch, loudness * (isThumb ? 0.9 : 0.75),
                0.3 - 0.12 * static_cast<double>(finger), random,
                {.softest = 0.8, .earliest = -0.004, .latest = 0.006});
        }
    }

    /// The voice of the melody: the most wanted instrument that can carry one.
    [[nodiscard]] std::pair<Voice, double> melodyVoice() const {
        std::pair<Voice, double> best = {Voice::glow, 0.36};
        for (const auto& [feature, voice] :
             {std::pair{flute, Voice::flute}, std::pair{mallets, Voice::mallet}, std::pair{piano, Voice::piano},
              std::pair{electricPiano, Voice::electricPiano}, std::pair{bells, Voice::bell}}) {
            if (style_[feature] > best.second) best = {voice, style_[feature]};
        }
        if (best.first == Voice::glow) {
            Random taste(seed_, "melody voice");
            constexpr std::array<Voice, 4> soft = {Voice::glow, Voice::glow, Voice::electricPiano, Voice::bell};
            best.first = soft[taste.below(soft.size())];
            best.second = mixed(0.32, 0.55, energy_);
        }
        return best;
    }

    void melody() {
        const auto [voice, level] = melodyVoice();
        const double loudness = loudnessOf(level) * 0.85;
        const double rate = 0.18 + 1.35 * energy_;
        const Pattern rhythm = pattern("melody", 4, 2, rate, [](int beat, int slot) {
            if (slot == 0) return beat == 0 ? 0.25 : 0.35;
            return 0.5;
        });

        // A contour in steps of a scale of five tones, which goes with every chord of the key.
        const bool isMinor = score_.key.scale == Scale::aeolian || score_.key.scale == Scale::dorian;
        constexpr std::array<int, 5> major = {0, 1, 2, 4, 5};
        constexpr std::array<int, 5> minor = {0, 2, 3, 4, 6};
        const auto& five = isMinor ? minor : major;
        Random taste(seed_, "melody contour");
        std::array<std::vector<int>, 2> contours;
        for (auto& contour : contours) {
            int place = static_cast<int>(taste.below(4)) + 5;
            for (std::size_t i = 0; i < rhythm.sounds.size(); ++i) {
                const std::size_t move = taste.below(8);
                constexpr std::array<int, 8> moves = {-2, -1, -1, 0, 1, 1, 2, 3};
                place += moves[move];
                if (place > 11) place -= 3;
                if (place < 3) place += 3;
                contour.push_back(place);
            }
        }
        const bool isLow = voice == Voice::piano || voice == Voice::electricPiano || voice == Voice::glow;
        Random random(seed_, "melody notes");
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            if (!rhythm.sounds[rhythm.slot(slot)]) continue;
            const double beat = beatOf(rhythm, slot);
            const std::int64_t bar = slot / (static_cast<std::int64_t>(rhythm.slotsPerBeat) * score_.beatsPerBar);
            if (!plays("melody", bar)) continue;
            const std::int64_t round = slot / static_cast<std::int64_t>(rhythm.sounds.size());
            const bool isAnswer = round % 4 == 2;
            const int place = contours[isAnswer ? 1 : 0][rhythm.slot(slot)];
            int pitch = score_.key.pitch(five[static_cast<std::size_t>(place % 5)] + 7 * (place / 5));
            while (pitch > (isLow ? 79 : 84)) pitch -= 12;
            while (pitch < (isLow ? 62 : 67)) pitch += 12;
            if (slot % rhythm.slotsPerBeat == 0) pitch = chordAt(beat).nearestTone(pitch);
            const double accent = slot % (static_cast<std::int64_t>(rhythm.slotsPerBeat) * score_.beatsPerBar) == 0
                                      ? 1
                                      : random.between(0.7, 0.92);
            const double length = beatsToNext(rhythm, slot, voice == Voice::flute ? 3 : 4);
            const double pan = random.between(-0.25, 0.25);
            add(voice, beat, length, pitch, loudness * accent, pan, random, {.earliest = -0.004, .latest = 0.01});
        }
    }

    /// Single high tones of the chord, far between.
    void sparkles() {
        const double level = std::max(style_[bells], style_[mallets] * 0.8);
        const double loudness = loudnessOf(level) * 0.6;
        if (loudness <= 0) return;
        const Voice voice = style_[bells] >= style_[mallets] ? Voice::bell : Voice::mallet;
        const double rate = (0.25 + 1.3 * energy_) * busynessOf(level);
        const Pattern rhythm = pattern("sparkles", 4, 2, rate, [](int, int slot) { return slot == 0 ? 0.1 : 0.3; });
        Random random(seed_, "sparkles notes");
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            if (!rhythm.sounds[rhythm.slot(slot)]) continue;
            const double beat = beatOf(rhythm, slot);
            const std::size_t tone = random.below(4);
            const int lift = voice == Voice::bell && random.chance(0.6) ? 24 : 12;
            const double pan = random.between(-0.8, 0.8);
            add(voice, beat, 3, chordAt(beat).voicing[tone] + lift, loudness * 0.9, pan, random,
                {.softest = 0.55, .latest = 0.015});
        }
    }

    void hits(std::string_view name, Voice voice, int slotsPerBeat, double rate, double loudness, double pan,
              const std::function<double(int beat, int slot)>& weight) {
        if (loudness <= 0 || rate <= 0) return;
        const Pattern rhythm = pattern(name, 2, slotsPerBeat, rate, weight);
        Random random(seed_ ^ hashOf("hits"), name);
        for (std::int64_t slot = 0; slot < slotCount(rhythm); ++slot) {
            if (!rhythm.sounds[rhythm.slot(slot)]) continue;
            const double accent = slot % rhythm.slotsPerBeat == 0 ? 1 : 0.72;
            const double spread = random.between(-0.08, 0.08);
            add(voice, beatOf(rhythm, slot), 0.5, 60, loudness * accent, pan + spread, random,
                {.softest = 0.8, .earliest = -0.003, .latest = 0.005});
        }
    }

    void drumming() {
        const double full = loudnessOf(style_[drums]);
        const double soft = loudnessOf(style_[brushes]);
        const double level = std::max(style_[drums], style_[brushes] * 0.8);
        const double busy = busynessOf(level);
        const int half = score_.beatsPerBar / 2;
        const bool isFour = score_.beatsPerBar % 4 == 0;
        const auto backBeat = [isFour](int beat) { return isFour ? beat % 2 == 1 : beat != 0; };
        const auto backBeats = [&](int beat, int slot) { return slot == 0 ? (backBeat(beat) ? 0.0 : 1.3) : 1.0; };

        const bool isSteady = style_[drums] > 0.6 && energy_ > 0.6;
        hits("kick", Voice::kick, 2, (0.45 + 1.5 * energy_) * busy, std::max(full * 0.9, soft * 0.5), 0,
             [=](int beat, int slot) {
                 if (slot == 0) return beat == 0 ? 0.0 : (isSteady || beat == half ? 0.3 : 0.9);
                 return beat + 1 == half ? 0.6 : 1.1;
             });
        hits("snare", energy_ < 0.45 ? Voice::rim : Voice::snare, 2, (0.3 + 0.75 * energy_) * busy, full * 0.6, 0.08,
             backBeats);
        hits("hat", Voice::hat, energy_ > 0.6 ? 4 : 2, (0.7 + 5.2 * energy_) * busy, full * 0.34, 0.35,
             [](int, int slot) { return slot == 0 ? 0.25 : (slot == 2 ? 0.2 : 0.5); });
        hits("brush", Voice::brush, 2, (0.35 + 0.9 * energy_) * busy, soft * 0.6, -0.1, backBeats);
        hits("sweep", Voice::sweep, 1, (0.3 + 0.8 * energy_) * busy, soft * 0.4, 0.15,
             [=](int beat, int) { return backBeat(beat) ? 0.5 : 0.0; });
        hits("shaker", Voice::shaker, energy_ > 0.6 ? 4 : 2, (0.6 + 4.2 * energy_) * busy, soft * 0.26, -0.4,
             [](int, int slot) { return slot == 0 ? 0.3 : (slot == 2 ? 0.2 : 0.5); });
    }

    /// Scatters `rate` notes a second over the loop, without regard to the beat.
    void scatter(std::string_view name, Voice voice, double rate, double loudness, double lowest, double highest) {
        if (loudness <= 0) return;
        Random random(seed_, name);
        const double seconds = static_cast<double>(score_.frames) / static_cast<double>(sampleRate);
        const std::int64_t count = nearest(rate * seconds);
        for (std::int64_t i = 0; i < count; ++i) {
            const double beat = random.unit() * static_cast<double>(score_.beats());
            const double pitch = random.between(lowest, highest);
            const double strength = random.unit();
            const double pan = random.between(-0.9, 0.9);
            add(voice, beat, 0.1, pitch, loudness * (0.15 + 0.85 * strength * strength * strength), pan, random, {},
                false);
        }
    }

    void nature() {
        scatter("droplets", Voice::droplet, 5 + 9 * style_[rain], loudnessOf(style_[rain]) * 0.5, 84, 112);
        scatter("ticks", Voice::tick, 3 + 5 * style_[crackle], loudnessOf(style_[crackle]) * 0.6, 60, 96);
        const double loudness = loudnessOf(style_[birds]);
        if (loudness <= 0) return;
        Random random(seed_, "birds");
        const double seconds = static_cast<double>(score_.frames) / static_cast<double>(sampleRate);
        const std::int64_t songs = std::max<std::int64_t>(1, nearest(seconds / 4));
        for (std::int64_t song = 0; song < songs; ++song) {
            double beat = random.unit() * static_cast<double>(score_.beats());
            const std::size_t calls = 2 + random.below(5);
            const double pitch = random.between(98, 109);
            const double pan = random.between(-0.85, 0.85);
            const double gap = random.between(0.1, 0.28) * score_.tempo / 60;
            const double strength = random.between(0.25, 0.8);
            for (std::size_t call = 0; call < calls; ++call) {
                const double bend = random.between(-1.5, 1.5);
                add(Voice::chirp, beat, 0.1, pitch + bend, 0.45 * loudness * strength, pan, random, {}, false);
                beat += gap;
            }
        }
    }

    const Style& style_;
    const std::uint64_t seed_;
    Score& score_;
    const double energy_;
};

}  // namespace

double Score::onsetDensity() const noexcept {
    const auto onsets = std::ranges::count_if(notes, &Note::isOnset);
    return static_cast<double>(onsets) * static_cast<double>(sampleRate) / static_cast<double>(frames);
}

Score Score::composed(const Style& style, std::uint64_t seed, std::int64_t frames) {
    Score score;
    score.frames = frames;
    Composer(style, seed, score).compose();
    return score;
}

}  // namespace quillmere::tonebed
