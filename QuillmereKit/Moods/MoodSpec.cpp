#include "QuillmereKit/Moods/MoodSpec.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <set>
#include <utility>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere {
namespace {

/// The calm end's tags, then the energetic end's, each once and none for the tempo; last the dominant end's tempo.
std::vector<PromptTag> mixedTags(const MoodEnd& calm, const MoodEnd& energetic, const MoodEnd& dominant) {
    std::vector<PromptTag> tags;
    std::set<std::pair<TagCategory, std::string_view>> seen;
    for (const MoodEnd* end : {&calm, &energetic}) {
        for (const auto& tag : end->tags) {
            if (tag.category == TagCategory::tempo) continue;
            if (seen.emplace(tag.category, tag.value).second) tags.push_back(tag);
        }
    }
    const auto tempo = std::ranges::find(dominant.tags, TagCategory::tempo, &PromptTag::category);
    if (tempo != dominant.tags.end()) tags.push_back(*tempo);
    return tags;
}

std::int64_t mixedTempo(std::int64_t calm, std::int64_t energetic, double weight) {
    const auto from = static_cast<double>(calm);
    const auto to = static_cast<double>(energetic);
    const double mixed = std::round(weight * (to - from) + from);  // halves away from zero
    if (mixed >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
    if (mixed < -0x1p63) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(mixed);
}

/// Both texts without blanks at their ends, joined by one; empty ones are left out.
std::string joinedTexts(std::string_view first, std::string_view second) {
    std::string text(trimmed(first));
    const auto rest = trimmed(second);
    if (!text.empty() && !rest.empty()) text += ' ';
    return text.append(rest);
}

}  // namespace

MoodSpec MoodSpec::blank(MoodGlyph glyph) {
    std::string suffix = UUID::random().text().substr(0, 8);
    for (char& c : suffix) {
        if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    }
    MoodSpec spec;
    spec.id = std::string(idPrefix) + suffix;
    spec.name = "Untitled mood";
    spec.glyph = glyph;
    return spec;
}

bool MoodSpec::isPlayable() const noexcept {
    if (calm.isEmpty() || energetic.isEmpty()) return false;
    return !soundGuide || (soundGuide->isValid() && soundGuide->storageID == id);
}

MoodSpec MoodSpec::tagsOnly() const {
    MoodSpec copy = *this;
    if (soundGuide) copy.id += "-tags";
    copy.soundGuide.reset();
    return copy;
}

MoodEnd MoodSpec::end(BlendStep step) const {
    if (step == BlendStep::calm) return calm;
    if (step == BlendStep::energetic) return energetic;

    const double weight = step.weight();
    const MoodEnd& dominant = weight < 0.5 ? calm : energetic;
    MoodEnd mixed;
    mixed.tags = mixedTags(calm, energetic, dominant);
    mixed.text = weight == 0.5 ? joinedTexts(calm.text, energetic.text) : dominant.text;
    if (calm.bpm && energetic.bpm) {
        mixed.bpm = mixedTempo(*calm.bpm, *energetic.bpm, weight);
    } else {
        mixed.bpm = calm.bpm ? calm.bpm : energetic.bpm;
    }
    return mixed;
}

std::string MoodSpec::prompt(BlendStep step) const { return end(step).prompt(); }

bool MoodSpec::rendersLike(const MoodSpec& other) const {
    return isPlayable() == other.isPlayable() && soundGuide == other.soundGuide &&
           std::ranges::all_of(BlendStep::all(), [&](BlendStep step) { return prompt(step) == other.prompt(step); });
}

void encode(JSONWriter& writer, const MoodSpec& spec) {
    writer.beginObject();
    writer.member("id", spec.id);
    writer.member("name", spec.name);
    writer.member("glyph", spec.glyph);
    writer.member("calm", spec.calm);
    writer.member("energetic", spec.energetic);
    writer.member("soundGuide", spec.soundGuide);
    if (!writer.isSet(omitLegacyMusicFields)) writer.member("lively", false);
    writer.endObject();
}

template <>
MoodSpec decode<MoodSpec>(const JSONValue& value) {
    return {
        .id = value.member<std::string>("id"),
        .name = value.member<std::string>("name"),
        .glyph = value.member<MoodGlyph>("glyph"),
        .calm = value.member<MoodEnd>("calm"),
        .energetic = value.member<MoodEnd>("energetic"),
        .soundGuide = value.optionalMember<SoundGuide>("soundGuide"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::MoodSpec>::operator()(const quillmere::MoodSpec& spec) const noexcept {
    return quillmere::Hasher{}
        .add(spec.id)
        .add(spec.name)
        .add(spec.glyph)
        .add(spec.calm)
        .add(spec.energetic)
        .add(spec.soundGuide)
        .value();
}
