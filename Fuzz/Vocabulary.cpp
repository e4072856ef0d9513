#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Moods/TagVocabulary.hpp"

// The tags that an application suggests.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    const auto text = fuzz::text(data, size);
    const auto file = fuzz::sandbox() / "tags.json";
    fuzz::write(file, text);

    try {
        const auto vocabulary = TagVocabulary::load(file);
        fuzz::requireRoundTrip(vocabulary);
        for (const auto category : allCases<TagCategory>()) {
            for (const auto& section : vocabulary.sections) {
                if (section.category != category) continue;
                fuzz::require(vocabulary.tags(category) == section.tags, "the first section of a category counts");
                break;
            }
        }
    } catch (const JSONError&) {
        return 0;
    }
    return 0;
}
