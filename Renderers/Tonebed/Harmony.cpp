#include "Renderers/Tonebed/Harmony.hpp"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <span>

namespace quillmere::tonebed {
namespace {

using Phrase = std::array<int, 4>;

constexpr std::array<std::array<int, 7>, 5> steps = {{
    {0, 2, 4, 5, 7, 9, 11},  // ionian
    {0, 2, 3, 5, 7, 9, 10},  // dorian
    {0, 2, 4, 6, 7, 9, 11},  // lydian
    {0, 2, 4, 5, 7, 9, 10},  // mixolydian
    {0, 2, 3, 5, 7, 8, 10},  // aeolian
}};

// Phrases of four chords, by scale degree, that lead back to their first chord.
constexpr std::array<Phrase, 10> ionianPhrases = {{{0, 4, 5, 3},
                                                   {0, 5, 3, 4},
                                                   {0, 2, 3, 4},
                                                   {3, 0, 4, 5},
                                                   {0, 3, 1, 4},
                                                   {0, 2, 5, 3},
                                                   {5, 3, 0, 4},
                                                   {0, 3, 5, 4},
                                                   {3, 4, 5, 0},
                                                   {0, 5, 1, 3}}};
constexpr std::array<Phrase, 6> dorianPhrases = {
    {{0, 3, 0, 6}, {0, 2, 6, 3}, {0, 6, 3, 0}, {0, 3, 6, 3}, {0, 1, 2, 3}, {0, 4, 6, 3}}};
constexpr std::array<Phrase, 6> lydianPhrases = {
    {{0, 1, 0, 4}, {0, 1, 5, 4}, {0, 4, 1, 5}, {0, 2, 1, 4}, {0, 1, 4, 5}, {5, 1, 0, 4}}};
constexpr std::array<Phrase, 5> mixolydianPhrases = {
    {{0, 6, 3, 0}, {0, 4, 6, 3}, {0, 3, 6, 3}, {0, 6, 5, 3}, {0, 1, 3, 6}}};
constexpr std::array<Phrase, 9> aeolianPhrases = {{{0, 5, 2, 6},
                                                   {0, 3, 5, 4},
                                                   {0, 6, 5, 6},
                                                   {5, 6, 0, 2},
                                                   {0, 2, 6, 3},
                                                   {0, 4, 5, 3},
                                                   {0, 5, 3, 6},
                                                   {0, 2, 5, 6},
                                                   {5, 2, 6, 0}}};

std::span<const Phrase> phrasesOf(Scale scale) noexcept {
    switch (scale) {
        case Scale::ionian: return ionianPhrases;
        case Scale::dorian: return dorianPhrases;
        case Scale::lydian: return lydianPhrases;
        case Scale::mixolydian: return mixolydianPhrases;
        case Scale::aeolian: return aeolianPhrases;
    }
    return ionianPhrases;
}

int pitchClass(int pitch) noexcept { return ((pitch % 12) + 12) % 12; }

/// Root, third, fifth and a tone of colour: the ninth where it lies a whole tone above the root, else the seventh.
std::vector<int> classesOf(const Key& key, int degree, bool wantsNinth) {
    const auto at = [&](int step) { return pitchClass(key.pitch(degree + step)); };
    const bool hasSoftNinth = pitchClass(at(1) - at(0)) == 2;
    // A major seventh beside a fifth of its own is gentle; on the dominant of a major key it is a plain seventh and
    // wants to move on, so the ninth is taken there.
    const int interval = pitchClass(at(6) - at(0));
    const bool isDominant = interval == 10 && pitchClass(at(2) - at(0)) == 4;
    const bool takesNinth = hasSoftNinth && (wantsNinth || isDominant);
    return {at(0), at(2), at(4), at(takesNinth ? 1 : 6)};
}

/// How far the voices move, and how well the result lies.
int costOf(const std::array<int, 4>& voicing, const std::array<int, 4>& before, bool isFirst) noexcept {
    int cost = 0;
    for (std::size_t i = 0; i < voicing.size(); ++i) {
        if (!isFirst) cost += 2 * std::abs(voicing[i] - before[i]);
        if (i > 0) {
            const int gap = voicing[i] - voicing[i - 1];
            if (gap < 2) cost += 14;                         // a semitone rubs
            if (gap > 9) cost += 3 * (gap - 9);              // a hole in the middle
            if (voicing[i - 1] < 52 && gap < 5) cost += 10;  // mud below
        }
    }
    const int centre = (voicing[0] + voicing[1] + voicing[2] + voicing[3]) / 4;
    cost += 2 * std::abs(centre - 60);
    if (voicing[0] < 47) cost += 6 * (47 - voicing[0]);
    if (voicing[3] > 74) cost += 6 * (voicing[3] - 74);
    return cost;
}

/// Every way to lay four pitch classes out, rising, close or with the second voice from the top an octave lower.
std::array<int, 4> bestVoicing(const std::vector<int>& classes, const std::array<int, 4>& before, bool isFirst) {
    std::array<int, 4> best{};
    int bestCost = std::numeric_limits<int>::max();
    for (int lowest = 43; lowest <= 64; ++lowest) {
        const auto root = std::ranges::find(classes, pitchClass(lowest));
        if (root == classes.end()) continue;
        std::array<int, 4> close{};
        std::size_t count = 0;
        for (int pitch = lowest; count < 4; ++pitch) {
            if (std::ranges::find(classes, pitchClass(pitch)) != classes.end()) close[count++] = pitch;
        }
        std::array<int, 4> open = close;
        open[2] -= 12;
        std::ranges::sort(open);
        std::array<int, 4> wide = close;
        wide[1] += 12;
        std::ranges::sort(wide);
        for (const auto& candidate : {close, open, wide}) {
            const int cost = costOf(candidate, before, isFirst);
            if (cost < bestCost) {
                bestCost = cost;
                best = candidate;
            }
        }
    }
    return best;
}

}  // namespace

int Key::pitch(int step) const noexcept {
    const int octave = step >= 0 ? step / 7 : -((6 - step) / 7);
    const auto place = static_cast<std::size_t>(step - 7 * octave);
    return 48 + root + 12 * octave + steps[static_cast<std::size_t>(scale)][place];
}

Key Key::chosen(const Style& style, Random random) {
    Key key;
    const auto root = static_cast<int>(random.below(12));
    const double leaning = style[Feature::valence] + random.between(-0.55, 0.55);
    const double shade = random.unit();
    key.root = style.key.value_or(root);
    if (leaning < -0.45) {
        key.scale = Scale::aeolian;
    } else if (leaning < -0.1) {
        key.scale = shade < 0.5 ? Scale::dorian : Scale::aeolian;
    } else if (leaning < 0.25) {
        key.scale = shade < 0.35 ? Scale::lydian : shade < 0.7 ? Scale::ionian : Scale::dorian;
    } else {
        key.scale = shade < 0.6 ? Scale::ionian : shade < 0.8 ? Scale::lydian : Scale::mixolydian;
    }
    if (style.scale) key.scale = *style.scale;
    return key;
}

int Chord::nearestTone(int pitch) const noexcept {
    for (int distance = 0; distance < 12; ++distance) {
        for (const int candidate : {pitch - distance, pitch + distance}) {
            if (std::ranges::find(classes, pitchClass(candidate)) != classes.end()) return candidate;
        }
    }
    return pitch;
}

std::vector<Chord> progression(const Key& key, std::size_t count, Random random) {
    const auto phrases = phrasesOf(key.scale);
    const std::size_t first = random.below(phrases.size());
    const std::size_t other = (first + 1 + random.below(phrases.size() - 1)) % phrases.size();
    // Which phrase comes when: mostly the first, the other one as its answer.
    constexpr std::array<std::array<bool, 4>, 4> forms = {{{false, false, true, false},
                                                           {false, true, false, true},
                                                           {false, false, true, true},
                                                           {false, true, true, false}}};
    const auto& form = forms[random.below(forms.size())];
    std::array<bool, 8> ninths{};
    for (bool& ninth : ninths) ninth = random.chance(0.5);

    std::vector<Chord> chords(count);
    for (std::size_t i = 0; i < count; ++i) {
        const bool isAnswer = count >= 8 && form[(i / 4) % form.size()];
        Chord& chord = chords[i];
        chord.degree = phrases[isAnswer ? other : first][i % 4];
        // The end of a cut-off phrase leads back as the whole one does.
        if (count >= 4 && count % 4 != 0 && i + 1 == count) chord.degree = phrases[first][3];
        chord.classes = classesOf(key, chord.degree, ninths[(i % 4) + (isAnswer ? 4 : 0)]);
        int bass = key.pitch(chord.degree) - 12;
        while (bass > 43) bass -= 12;
        while (bass < 32) bass += 12;
        chord.bass = bass;
    }
    // Twice round, so that the first chord follows from the last.
    for (std::size_t round = 0; round < 2; ++round) {
        for (std::size_t i = 0; i < count; ++i) {
            const bool isFirst = round == 0 && i == 0;
            chords[i].voicing = bestVoicing(chords[i].classes, chords[(i + count - 1) % count].voicing, isFirst);
        }
    }
    return chords;
}

}  // namespace quillmere::tonebed
