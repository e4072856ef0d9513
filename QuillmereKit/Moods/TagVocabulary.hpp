#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/TagCategory.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// The tags suggested to the user, by category. The application supplies the file. A plain value.
struct TagVocabulary {
    /// One suggestion.
    struct Entry {
        std::string tag;     ///< Becomes a prompt tag's value when chosen.
        std::string source;  ///< Where the suggestion comes from, free text.

        friend bool operator==(const Entry&, const Entry&) = default;
    };

    /// The suggestions of one category.
    struct Section {
        TagCategory category = TagCategory::genre;  ///< Of all tags in the section.
        std::vector<Entry> tags;                    ///< In the file's order.

        friend bool operator==(const Section&, const Section&) = default;
    };

    /// No vocabulary file may be larger, in bytes.
    static constexpr std::size_t mostBytes = std::size_t{16} << 20;

    std::vector<Section> sections;  ///< In the file's order.

    /// Reads a vocabulary file; a link to one will do. Throws `FileError` if it cannot be read, `JSONError` if it holds
    /// anything else. Blocks on disk.
    [[nodiscard]] static TagVocabulary load(const std::filesystem::path& file);

    /// The suggestions of the first section of this category; none where there is no such section.
    [[nodiscard]] std::vector<Entry> tags(TagCategory category) const;

    friend bool operator==(const TagVocabulary&, const TagVocabulary&) = default;
};

/// {"tag": text, "source": text}, both required.
void encode(JSONWriter& writer, const TagVocabulary::Entry& entry);
template <>
TagVocabulary::Entry decode<TagVocabulary::Entry>(const JSONValue& value);

/// {"category": text, "tags": [entry]}, both required.
void encode(JSONWriter& writer, const TagVocabulary::Section& section);
template <>
TagVocabulary::Section decode<TagVocabulary::Section>(const JSONValue& value);

/// {"sections": [section]}
void encode(JSONWriter& writer, const TagVocabulary& vocabulary);
template <>
TagVocabulary decode<TagVocabulary>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::TagVocabulary::Entry> {
    std::size_t operator()(const quillmere::TagVocabulary::Entry& entry) const noexcept;
};
template <>
struct std::hash<quillmere::TagVocabulary::Section> {
    std::size_t operator()(const quillmere::TagVocabulary::Section& section) const noexcept;
};
template <>
struct std::hash<quillmere::TagVocabulary> {
    std::size_t operator()(const quillmere::TagVocabulary& vocabulary) const noexcept;
};
