#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Generation/GenerationEngine.hpp"
#include "QuillmereKit/Generation/GenerationMode.hpp"
#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Generation/GenerationPace.hpp"
#include "QuillmereKit/Generation/GenerationSchedule.hpp"
#include "QuillmereKit/Generation/Horizon.hpp"
#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Moods/MoodFamily.hpp"
#include "QuillmereKit/Moods/MoodSpec.hpp"
#include "QuillmereKit/Moods/Persona.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "QuillmereKit/Playback/PickerMode.hpp"
#include "QuillmereKit/Playback/RadioSet.hpp"

// Every type with a JSON form, each on the whole text; and what reads plain text: numbers, identifiers, restored
// settings of older versions, the name in a lock file.

namespace {

using namespace quillmere;

void readAsEverything(std::string_view text) {
    using fuzz::roundTripOrError;
    std::optional<JSONDocument> document;
    try {
        document = JSONDocument::parse(text);
    } catch (const JSONError&) {
        return;
    }
    const auto value = document->root();
    roundTripOrError<Anchor>(value);
    roundTripOrError<AudioLoudness>(value);
    roundTripOrError<AudioUse>(value);
    roundTripOrError<BlendStep>(value);
    roundTripOrError<FileURL>(value);
    roundTripOrError<GenerationEngine>(value);
    roundTripOrError<GenerationMode>(value);
    roundTripOrError<GenerationModel>(value);
    roundTripOrError<GenerationPace>(value);
    roundTripOrError<GenerationSchedule>(value);
    roundTripOrError<Horizon>(value);
    roundTripOrError<LoopArtifact>(value);
    roundTripOrError<LoopIdentity>(value);
    roundTripOrError<LoopQuality>(value);
    roundTripOrError<MoodEnd>(value);
    roundTripOrError<MoodFamily>(value);
    roundTripOrError<MoodGlyph>(value);
    roundTripOrError<MoodSpec>(value);
    roundTripOrError<PickerMode>(value);
    roundTripOrError<PromptTag>(value);
    roundTripOrError<RadioSet>(value);
    roundTripOrError<RecipeOrigin>(value);
    roundTripOrError<SoundGuide>(value);
    roundTripOrError<TagCategory>(value);
}

void readAsLockFile(std::string_view text) {
    using fuzz::require;
    const auto file = fuzz::sandbox() / "lock";
    fuzz::write(file, text);
    const auto holder = FolderLock::holder(file);
    require(!holder.empty() && isValidUTF8(holder) && trimmed(holder) == holder, "a holder can stand in a message");
    require(std::ranges::none_of(holder, [](char c) { return (c >= 0 && c < ' ') || c == 0x7F; }),
            "a holder steers no terminal");
    constexpr std::size_t longest = 512;
    require(holder.size() <= longest && (text.size() <= longest || holder != trimmed(text)), "a holder is short");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using fuzz::require;
    const auto text = fuzz::text(data, size);

    readAsEverything(text);
    readAsLockFile(text);
    if (const auto horizon = Horizon::fromRawValue(text)) {
        require(Horizon::fromRawValue(horizon->rawValue()) == horizon, "a horizon is its raw value");
    }
    if (const auto number = decimalInteger(text)) {
        require(decimalInteger(std::to_string(*number)) == number && *number >= 0, "a number is its digits");
    }
    if (const auto id = UUID::fromText(text)) require(UUID::fromText(id->text()) == id, "an identifier is its text");
    require(trimmed(trimmed(text)) == trimmed(text), "what is trimmed stays as it is");
    require(!consistsOfLettersDigitsAndHyphens(text) || isValidUTF8(text), "letters are UTF-8");
    static_cast<void>(cachedModel(text));
    static_cast<void>(restoredMode(text));
    return 0;
}
