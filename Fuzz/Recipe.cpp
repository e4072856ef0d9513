#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Sharing/LoopRecipe.hpp"

// One recipe as somebody sends it. One that is taken is what it says it is, and can be sent on.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;
    const auto text = fuzz::text(data, size);

    std::optional<LoopRecipe> read;
    try {
        read = decodeJSON<LoopRecipe>(text);
        fuzz::requireRoundTrip(*read);
    } catch (const JSONError&) {
        read.reset();
    }

    try {
        const auto recipe = LoopRecipe::decode(text);
        require(recipe == read, "both ways of reading agree");
        require(recipe.fingerprint == recipe.identity.fingerprint(), "a recipe that is taken was not tampered with");
        require(!recipe.identity.audio, "a recipe that is taken needs nobody's audio");
        require(LoopRecipe::decode(recipe.encoded()).identity == recipe.identity,
                "a recipe that was taken can be sent");
        try {
            recipe.validateRendering("build");
        } catch (const ImportError& error) {
            require(!error.message().empty(), "a refusal says why");
        }
    } catch (const JSONError&) {
        return 0;
    } catch (const ImportError& error) {
        require(read.has_value(), "only what is a recipe is refused as one");
        require(!error.message().empty(), "a refusal says why");
    }
    if (!read) return 0;
    try {
        const auto shared = read->forSharing();
        require(!shared.identity.audio, "nobody's audio is needed for what is shared");
        const bool isVariant = read->identity.audio.has_value();
        require(isVariant ? !shared.moodSpec->soundGuide : shared == *read, "what needs no audio is shared as it is");
    } catch (const ImportError&) {
        return 0;
    }
    return 0;
}
