#include "QuillmereKit/Moods/MoodEnd.hpp"

#include <algorithm>
#include <string_view>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

/// Appends one item with all values of a category, "Moods: calm, warm"; nothing where there are none.
void appendValues(std::string& prompt, std::string_view label, const MoodEnd& end, TagCategory category) {
    std::string_view before = label;
    for (const auto& tag : end.tags) {
        if (tag.category != category) continue;
        prompt.append(before).append(tag.value);
        before = ", ";
    }
}

/// Appends an item for every tag of a category.
void appendItems(std::string& prompt, std::string_view label, const MoodEnd& end, TagCategory category) {
    for (const auto& tag : end.tags) {
        if (tag.category == category) prompt.append(label).append(tag.value);
    }
}

}  // namespace

bool MoodEnd::isEmpty() const noexcept { return tags.empty() && !bpm && trimmed(text).empty(); }

std::string MoodEnd::prompt() const {
    std::string prompt = "TrackType: Music, VocalType: Instrumental";
    appendItems(prompt, ", Genre: ", *this, TagCategory::genre);
    appendValues(prompt, ", Moods: ", *this, TagCategory::moods);
    appendValues(prompt, ", Instruments: ", *this, TagCategory::instruments);
    const auto tempo = std::ranges::find(tags, TagCategory::tempo, &PromptTag::category);
    if (tempo != tags.end()) prompt.append(", Tempo: ").append(tempo->value);
    if (bpm) prompt.append(", BPM: ").append(std::to_string(*bpm));
    appendItems(prompt, ", ", *this, TagCategory::texture);
    appendItems(prompt, ", ", *this, TagCategory::nature);
    prompt += '.';
    const auto words = trimmed(text);
    if (!words.empty()) prompt.append(" ").append(words);
    return prompt;
}

void encode(JSONWriter& writer, const MoodEnd& end) {
    writer.beginObject();
    writer.member("tags", end.tags);
    writer.member("text", end.text);
    writer.member("bpm", end.bpm);
    writer.endObject();
}

template <>
MoodEnd decode<MoodEnd>(const JSONValue& value) {
    return {
        .tags = value.member<std::vector<PromptTag>>("tags"),
        .text = value.member<std::string>("text"),
        .bpm = value.optionalMember<std::int64_t>("bpm"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::MoodEnd>::operator()(const quillmere::MoodEnd& end) const noexcept {
    return quillmere::Hasher{}.add(end.tags).add(end.text).add(end.bpm).value();
}
