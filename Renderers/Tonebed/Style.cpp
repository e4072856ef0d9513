#include "Renderers/Tonebed/Style.hpp"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Vocabulary.hpp"

namespace quillmere::tonebed {
namespace {

using enum Feature;

/// The share of energy and brightness by which the energetic end is above the calm one at least.
constexpr double leastRiseOfEnergy = 0.26;
constexpr double leastRiseOfBrightness = 0.36;

/// One word of a prompt in lower case, or a mark that ends a phrase (then `text` is that mark alone).
struct Word {
    std::string text;
    bool isMark = false;
    bool beginsUpperCase = false;
};

bool isLetterOrDigit(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

std::vector<Word> wordsOf(std::string_view text) {
    std::vector<Word> words;
    std::string word;
    bool beginsUpperCase = false;
    const auto finishWord = [&] {
        if (!word.empty()) words.push_back({word, false, beginsUpperCase});
        word.clear();
    };
    for (const char c : text) {
        const bool isUpperCase = c >= 'A' && c <= 'Z';
        if (isLetterOrDigit(c) || (c == '#' && word.size() == 1)) {
            if (word.empty()) beginsUpperCase = isUpperCase;
            word += isUpperCase ? static_cast<char>(c - 'A' + 'a') : c;
        } else if (c == '\'') {
            continue;  // "don't" is one word
        } else {
            finishWord();
            if (c == ',' || c == '.' || c == ';' || c == ':' || c == '/' || c == '(' || c == ')' || c == '\n') {
                words.push_back({std::string(1, c), true, false});
            }
        }
    }
    finishWord();
    return words;
}

/// Whether a word is the known one or its plural.
bool matches(std::string_view word, std::string_view known) noexcept {
    if (!word.starts_with(known)) return false;
    const std::string_view ending = word.substr(known.size());
    if (ending.empty() || ending == "s") return true;
    const bool hisses = known.ends_with('s') || known.ends_with('x') || known.ends_with("sh") || known.ends_with("ch");
    return ending == "es" && hisses;
}

/// How many words of the text, from `at` on, the phrase covers; 0 if it does not stand there.
std::size_t matchLength(const std::vector<Word>& words, std::size_t at, std::string_view phrase) noexcept {
    std::size_t covered = 0;
    while (true) {
        const std::size_t blank = phrase.find(' ');
        const std::string_view known = phrase.substr(0, blank);
        if (at + covered >= words.size() || words[at + covered].isMark) return 0;
        if (!matches(words[at + covered].text, known)) return 0;
        ++covered;
        if (blank == std::string_view::npos) return covered;
        phrase.remove_prefix(blank + 1);
    }
}

/// The length of the longest phrase of `rows` that stands at a place.
template <class Rows>
std::size_t longestMatch(const std::vector<Word>& words, std::size_t at, const Rows& rows) noexcept {
    std::size_t longest = 0;
    for (const auto& row : rows) longest = std::max(longest, matchLength(words, at, row.phrase));
    return longest;
}

std::optional<double> plainNumber(std::string_view text) noexcept {
    if (text.empty() || text.size() > 4) return std::nullopt;
    double value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

std::optional<double> explicitTempo(const std::vector<Word>& words) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i].text != "bpm") continue;
        if (i > 0) {
            if (const auto before = plainNumber(words[i - 1].text)) return before;
        }
        for (std::size_t after = i + 1; after < words.size() && after <= i + 2; ++after) {
            if (const auto number = plainNumber(words[after].text)) return number;
            if (words[after].text != ":") break;
        }
    }
    // "70bpm" is one word.
    for (const Word& word : words) {
        const std::string_view text = word.text;
        if (text.size() > 3 && text.ends_with("bpm")) {
            if (const auto number = plainNumber(text.substr(0, text.size() - 3))) return number;
        }
    }
    return std::nullopt;
}

/// The key that a word such as "C", "F#" or "Bb" names. Only with a capital, since "a" is a word too.
std::optional<int> keyOf(const Word& word) noexcept {
    if (!word.beginsUpperCase || word.text.empty() || word.text.size() > 2) return std::nullopt;
    constexpr std::array<int, 7> naturals = {9, 11, 0, 2, 4, 5, 7};  // A to G
    const char letter = word.text[0];
    if (letter < 'a' || letter > 'g') return std::nullopt;
    int key = naturals[static_cast<std::size_t>(letter - 'a')];
    if (word.text.size() == 2) {
        if (word.text[1] == '#') {
            ++key;
        } else if (word.text[1] == 'b') {
            --key;
        } else {
            return std::nullopt;
        }
    }
    return (key + 12) % 12;
}

bool isNegation(std::string_view word) noexcept {
    return word == "no" || word == "without" || word == "not" || word == "never";
}

}  // namespace

Style Style::fromPrompt(std::string_view text) {
    Style style;
    style[energy] = 0.2;
    style[brightness] = 0.42;
    style[reverb] = 0.4;
    style[width] = 0.6;
    style[motion] = 0.35;

    const std::vector<Word> words = wordsOf(text);
    double tempoSum = 0;
    int tempoCount = 0;
    bool isNegated = false;
    bool isSolo = false;
    std::array<bool, layerCount> isUnwanted{};

    for (std::size_t i = 0; i < words.size();) {
        const Word& word = words[i];
        if (word.isMark) {
            isNegated = false;
            ++i;
            continue;
        }
        if (isNegation(word.text)) {
            isNegated = true;
            ++i;
            continue;
        }
        if (word.text == "solo") isSolo = true;
        if (word.text == "waltz" || (word.text == "3" && i + 2 < words.size() && words[i + 2].text == "4")) {
            style.beatsPerBar = 3;
        }
        if (i + 1 < words.size() && !isNegated) {
            const std::size_t scaleWord = words[i + 1].text == "sharp" || words[i + 1].text == "flat" ? i + 2 : i + 1;
            if (const auto key = keyOf(word);
                key && scaleWord < words.size() && longestMatch(words, scaleWord, scaleWords()) > 0) {
                const int shift = scaleWord == i + 1 ? 0 : (words[i + 1].text == "sharp" ? 1 : 11);
                style.key = (*key + shift) % 12;
            }
        }

        const std::size_t effectLength = longestMatch(words, i, wordEffects());
        const std::size_t tempoLength = longestMatch(words, i, tempoWords());
        const std::size_t scaleLength = longestMatch(words, i, scaleWords());
        const std::size_t length = std::max({effectLength, tempoLength, scaleLength, std::size_t{1}});
        for (const WordEffect& row : wordEffects()) {
            if (effectLength == 0 || matchLength(words, i, row.phrase) != effectLength) continue;
            const auto index = static_cast<std::size_t>(row.feature);
            if (index < layerCount) {
                if (isNegated) {
                    isUnwanted[index] = true;
                } else {
                    style[row.feature] = std::max(style[row.feature], row.amount);
                }
            } else {
                style[row.feature] += isNegated ? -row.amount : row.amount;
            }
        }
        for (const TempoWord& row : tempoWords()) {
            if (isNegated || tempoLength == 0 || matchLength(words, i, row.phrase) != tempoLength) continue;
            tempoSum += row.beatsPerMinute;
            ++tempoCount;
        }
        for (const ScaleWord& row : scaleWords()) {
            if (isNegated || scaleLength == 0 || matchLength(words, i, row.phrase) != scaleLength) continue;
            style.scale = row.scale;
        }
        i += length;
    }

    for (std::size_t i = 0; i < layerCount; ++i) {
        if (isUnwanted[i]) style.values[i] = 0;
    }
    // Without any harmony there is no music, and without something sustained little warmth.
    double sustained = std::max({style[pad], style[strings], style[choir]});
    const double harmony = std::max({sustained, style[arpeggio], style[pulse], style[piano], style[electricPiano],
                                     style[bells], style[mallets], style[plucks], style[flute]});
    if (harmony < 0.3) {
        style[isUnwanted[static_cast<std::size_t>(pad)] ? electricPiano : pad] = 0.8;
    } else if (sustained < 0.2 && !isSolo && !isUnwanted[static_cast<std::size_t>(pad)]) {
        style[pad] = 0.3;
    }
    if (!isSolo && style[bass] < 0.3 && !isUnwanted[static_cast<std::size_t>(bass)]) style[bass] = 0.3;

    style[energy] = clamped(style[energy], 0.02, 0.95);
    style[brightness] = clamped(style[brightness], 0.05, 0.95);
    style[reverb] = clamped(style[reverb], 0.08, 1);
    style[valence] = clamped(style[valence], -1, 1);
    style[motion] = clamped(style[motion], 0, 1);
    style[swing] = clamped(style[swing], 0, 1);
    style[width] = clamped(style[width], 0.25, 1);
    style.tempo = 60 + 62 * style[energy];
    if (tempoCount > 0) style.tempo = tempoSum / tempoCount;
    if (const auto explicitly = explicitTempo(words); explicitly && *explicitly > 0) {
        style.tempo = clamped(*explicitly, 30, 300);
        style.hasExplicitTempo = true;
    }
    return style;
}

Style Style::blended(const Style& calm, const Style& energetic, double weight) {
    Style low = calm;
    Style high = energetic;
    // Room at the top for the rise.
    low[energy] = std::min(low[energy], 1 - leastRiseOfEnergy);
    low[brightness] = std::min(low[brightness], 1 - leastRiseOfBrightness);
    high[energy] = std::max(high[energy], low[energy] + leastRiseOfEnergy);
    high[brightness] = std::max(high[brightness], low[brightness] + leastRiseOfBrightness);
    if (!low.hasExplicitTempo && !high.hasExplicitTempo) high.tempo = std::max(high.tempo, low.tempo * 1.06);

    const Style& dominant = weight < 0.5 ? calm : energetic;
    Style style = dominant;
    for (std::size_t i = 0; i < featureCount; ++i) {
        style.values[i] = clamped(mixed(low.values[i], high.values[i], weight), -1, 1);
    }
    style.tempo = clamped(mixed(low.tempo, high.tempo, weight), 30, 300);
    style.hasExplicitTempo = low.hasExplicitTempo && high.hasExplicitTempo;
    return style;
}

Style Style::shaded(double weight) const {
    Style style = *this;
    const double share = clamped(weight, 0, 1) - 0.5;
    style[energy] = clamped(mixed(0.5 * leastRiseOfEnergy, 1 - 0.5 * leastRiseOfEnergy, (*this)[energy]), 0, 1) +
                    share * leastRiseOfEnergy;
    style[brightness] =
        clamped(mixed(0.5 * leastRiseOfBrightness, 1 - 0.5 * leastRiseOfBrightness, (*this)[brightness]), 0, 1) +
        share * leastRiseOfBrightness;
    return style;
}

}  // namespace quillmere::tonebed
