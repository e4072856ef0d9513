#include "QuillmereKit/Moods/TagVocabulary.hpp"

#include <algorithm>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

TagVocabulary TagVocabulary::load(const std::filesystem::path& file) {
    return decodeJSON<TagVocabulary>(readFile(file, mostBytes, FinalLink::followed));
}

std::vector<TagVocabulary::Entry> TagVocabulary::tags(TagCategory category) const {
    const auto found = std::ranges::find(sections, category, &Section::category);
    return found != sections.end() ? found->tags : std::vector<Entry>();
}

void encode(JSONWriter& writer, const TagVocabulary::Entry& entry) {
    writer.beginObject();
    writer.member("tag", entry.tag);
    writer.member("source", entry.source);
    writer.endObject();
}

template <>
TagVocabulary::Entry decode<TagVocabulary::Entry>(const JSONValue& value) {
    return {
        .tag = value.member<std::string>("tag"),
        .source = value.member<std::string>("source"),
    };
}

void encode(JSONWriter& writer, const TagVocabulary::Section& section) {
    writer.beginObject();
    writer.member("category", section.category);
    writer.member("tags", section.tags);
    writer.endObject();
}

template <>
TagVocabulary::Section decode<TagVocabulary::Section>(const JSONValue& value) {
    return {
        .category = value.member<TagCategory>("category"),
        .tags = value.member<std::vector<TagVocabulary::Entry>>("tags"),
    };
}

void encode(JSONWriter& writer, const TagVocabulary& vocabulary) {
    writer.beginObject();
    writer.member("sections", vocabulary.sections);
    writer.endObject();
}

template <>
TagVocabulary decode<TagVocabulary>(const JSONValue& value) {
    return {.sections = value.member<std::vector<TagVocabulary::Section>>("sections")};
}

}  // namespace quillmere

std::size_t std::hash<quillmere::TagVocabulary::Entry>::operator()(
    const quillmere::TagVocabulary::Entry& entry) const noexcept {
    return quillmere::Hasher{}.add(entry.tag).add(entry.source).value();
}

std::size_t std::hash<quillmere::TagVocabulary::Section>::operator()(
    const quillmere::TagVocabulary::Section& section) const noexcept {
    return quillmere::Hasher{}.add(section.category).add(section.tags).value();
}

std::size_t std::hash<quillmere::TagVocabulary>::operator()(const quillmere::TagVocabulary& vocabulary) const noexcept {
    return quillmere::Hasher{}.add(vocabulary.sections).value();
}
