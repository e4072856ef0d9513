#include "QuillmereKit/Generation/GenerationStage.hpp"

#include <span>
#include <vector>

#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

// The longest break a renderer may announce; a longer one is not a short break, and the line is not believed.
constexpr std::int64_t longestBreakSeconds = 5;

struct Fraction {
    std::int64_t part, whole;
};

std::optional<Fraction> fraction(std::string_view word) {
    const auto slash = word.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const auto part = decimalInteger(word.substr(0, slash));
    const auto whole = decimalInteger(word.substr(slash + 1));
    if (!part || !whole || *part < 1 || *part > *whole) return std::nullopt;
    return Fraction{*part, *whole};
}

std::vector<std::string_view> wordsBetweenSpaces(std::string_view line) {
    std::vector<std::string_view> words;
    while (true) {
        const auto start = line.find_first_not_of(' ');
        if (start == std::string_view::npos) return words;
        line.remove_prefix(start);
        words.push_back(line.substr(0, line.find(' ')));
        line.remove_prefix(words.back().size());
    }
}

// The words after the fractions, all of them.
std::optional<GenerationActivity> activity(std::span<const std::string_view> words) {
    if (words.size() == 1 && words[0] == "loading") return GenerationActivity::Loading{};
    if (words.size() == 1 && words[0] == "running") return GenerationActivity::Running{};
    if (words.size() == 2 && words[0] == "waiting") {
        const auto seconds = decimalInteger(words[1]);
        if (seconds && *seconds >= 1 && *seconds <= longestBreakSeconds) return GenerationActivity::Waiting{*seconds};
    }
    return std::nullopt;
}

std::optional<GenerationStage> encodingBlock(std::span<const std::string_view> words) {
    if (words.size() < 2) return std::nullopt;
    const auto blocks = fraction(words[0]);
    const auto doing = activity(words.subspan(1));
    if (!blocks || !doing) return std::nullopt;
    return GenerationStage::EncodingBlock{blocks->part, blocks->whole, *doing};
}

template <class Case>
std::optional<GenerationStage> blockOfBlocks(std::span<const std::string_view> words) {
    if (words.size() < 3) return std::nullopt;
    const auto steps = fraction(words[0]);
    const auto blocks = fraction(words[1]);
    const auto doing = activity(words.subspan(2));
    if (!steps || !blocks || !doing) return std::nullopt;
    return Case{steps->part, steps->whole, blocks->part, blocks->whole, *doing};
}

std::string withBreak(std::string text, const GenerationActivity& activity) {
    if (activity.isWaiting()) text += " · taking a short break";
    return text;
}

std::string creating(std::int64_t step, std::int64_t total) {
    return "Creating music · " + std::to_string(step) + " of " + std::to_string(total);
}

struct Label {
    std::string operator()(const GenerationStage::Sampling& s) const { return creating(s.step, s.total); }
    std::string operator()(const GenerationStage::EncodingBlock& s) const {
        return withBreak("Getting ready", s.activity);
    }
    std::string operator()(const GenerationStage::SamplingBlock& s) const {
        return withBreak(creating(s.step, s.total), s.activity);
    }
    std::string operator()(const GenerationStage::DecodingBlock& s) const {
        return withBreak("Finishing the track", s.activity);
    }
    std::string operator()(GenerationStage::Preparing) const { return "Getting ready"; }
    std::string operator()(GenerationStage::Encoding) const { return "Getting ready"; }
    std::string operator()(GenerationStage::Decoding) const { return "Finishing the track"; }
    std::string operator()(GenerationStage::Processing) const { return "Checking and saving"; }
};

}  // namespace

std::optional<GenerationStage> GenerationStage::fromEngineLine(std::string_view line) {
    constexpr std::string_view sample = "sample ";
    constexpr std::string_view progress = "progress ";

    if (line == "text encoder" || line == "audio encoder") return Encoding{};
    if (line == "decoder") return Decoding{};
    if (line.starts_with(sample)) {
        const auto steps = fraction(line.substr(sample.size()));
        if (!steps) return std::nullopt;
        return Sampling{steps->part, steps->whole};
    }
    if (!line.starts_with(progress)) return std::nullopt;

    const auto words = wordsBetweenSpaces(line.substr(progress.size()));
    if (words.empty()) return std::nullopt;
    const auto rest = std::span(words).subspan(1);
    if (words[0] == "encoding") return encodingBlock(rest);
    if (words[0] == "sampling") return blockOfBlocks<SamplingBlock>(rest);
    if (words[0] == "decoding") return blockOfBlocks<DecodingBlock>(rest);
    return std::nullopt;
}

std::string GenerationStage::label() const { return std::visit(Label{}, value_); }

}  // namespace quillmere
