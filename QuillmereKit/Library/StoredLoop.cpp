#include "QuillmereKit/Library/StoredLoop.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

namespace quillmere {
namespace {

// An origin is kept as its one text; a second field would have to be kept too.
static_assert(sizeof(RecipeOrigin) == sizeof(std::string));

std::optional<std::string> textOf(const SharedTexts::Text& text) {
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

}  // namespace

LoopKey LoopKey::of(const LoopIdentity& identity) { return {identity.fingerprintNumber()}; }

std::string LoopKey::text() const {
    std::string digits(16, '0');
    char significant[16];
    const auto end = std::to_chars(std::begin(significant), std::end(significant), value, 16).ptr;
    const auto count = static_cast<std::size_t>(end - significant);
    return digits.replace(digits.size() - count, count, significant, count);
}

std::optional<LoopKey> LoopKey::fromText(std::string_view text) noexcept {
    constexpr std::size_t digits = 16;
    const auto isDigit = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    if (text.size() != digits || !std::ranges::all_of(text, isDigit)) return std::nullopt;
    LoopKey key;
    std::from_chars(text.data(), text.data() + text.size(), key.value, 16);
    return key;
}

SharedTexts::Text SharedTexts::share(std::string_view text) {
    auto& recent = recent_[text.size() % recent_.size()];
    if (recent && *recent == text) return recent;
    auto found = texts_.find(text);
    if (found == texts_.end()) found = texts_.insert(Held{std::string(text)}).first;
    recent = Text(&*found);
    return recent;
}

SharedTexts::Text SharedTexts::shareIfPresent(const std::optional<std::string>& text) {
    return text ? share(*text) : Text();
}

void SharedTexts::sweep() noexcept {
    recent_.fill({});
    std::erase_if(texts_, [](const Held& held) { return !std::exchange(held.isUsed, false); });
}

StoredLoop::StoredLoop(LoopKey loopKey, LoopArtifact&& artifact, SharedTexts& texts)
    : key(loopKey),
      moodID(texts.share(artifact.identity.moodID)),
      calmPrompt(texts.share(artifact.identity.calmPrompt)),
      energeticPrompt(texts.share(artifact.identity.energeticPrompt)),
      model(texts.share(artifact.identity.model)),
      prompt(texts.shareIfPresent(artifact.identity.prompt)),
      engineBuild(texts.shareIfPresent(artifact.engineBuild)),
      chip(artifact.origin ? texts.share(artifact.origin->chip) : SharedTexts::Text()),
      audio(artifact.identity.audio ? std::make_unique<const AudioUse>(std::move(*artifact.identity.audio)) : nullptr),
      blend(artifact.identity.blend),
      seed(artifact.identity.seed),
      recipe(artifact.identity.recipe),
      url(std::move(artifact.url)),
      seconds(artifact.seconds),
      seamDB(artifact.seamDB),
      leadIn(artifact.leadIn),
      quality(artifact.quality) {}

void StoredLoop::useTexts() const noexcept {
    for (const auto& text : {moodID, calmPrompt, energeticPrompt, model, prompt, engineBuild, chip}) {
        SharedTexts::use(text);
    }
}

LoopIdentity StoredLoop::identity() const {
    return {.moodID = *moodID,
            .blend = blend,
            .calmPrompt = *calmPrompt,
            .energeticPrompt = *energeticPrompt,
            .seed = seed,
            .model = *model,
            .prompt = textOf(prompt),
            .audio = audio ? std::optional<AudioUse>(*audio) : std::nullopt,
            .recipe = recipe};
}

LoopArtifact StoredLoop::artifact() const {
    return {.identity = identity(),
            .url = url,
            .seconds = seconds,
            .seamDB = seamDB,
            .quality = quality,
            .leadIn = leadIn,
            .engineBuild = textOf(engineBuild),
            .origin = chip ? std::optional(RecipeOrigin{*chip}) : std::nullopt};
}

}  // namespace quillmere
