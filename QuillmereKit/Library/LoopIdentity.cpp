#include "QuillmereKit/Library/LoopIdentity.hpp"

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

namespace quillmere {
namespace {

/// Puts a text of known greatest size together: on the stack, where a usual identity's text fits, since a library
/// computes fingerprints by the ten thousand.
class TextBuilder {
public:
    explicit TextBuilder(std::size_t mostBytes) {
        if (mostBytes > here_.size()) {
            there_.resize(mostBytes);
            begin_ = there_.data();
        }
        end_ = begin_;
    }
    TextBuilder(const TextBuilder&) = delete;
    TextBuilder& operator=(const TextBuilder&) = delete;

    TextBuilder& add(std::string_view text) noexcept {
        if (!text.empty()) std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
        return *this;
    }
    TextBuilder& add(std::int64_t number) noexcept {
        end_ = std::to_chars(end_, end_ + mostDigits, number).ptr;
        return *this;
    }
    /// Ends a part: the unit separator stands between parts only.
    TextBuilder& separate() noexcept { return add("\x1f"); }

    [[nodiscard]] std::string_view text() const noexcept { return {begin_, static_cast<std::size_t>(end_ - begin_)}; }

    static constexpr std::size_t mostDigits = 20;  // "-9223372036854775808"

private:
    std::array<char, 2048> here_;  // left uninitialised on purpose
    std::string there_;
    char* begin_ = here_.data();
    char* end_ = nullptr;
};

}  // namespace

std::string LoopIdentity::fingerprint() const {
    const std::string audioFingerprint = audio ? audio->fingerprint() : std::string();
    constexpr std::size_t labels = std::string_view("v|||blend=/5|seed=||||prompt=|audio=").size();
    TextBuilder parts(labels + 3 * TextBuilder::mostDigits + model.size() + moodID.size() + calmPrompt.size() +
                      energeticPrompt.size() + (prompt ? prompt->size() : 0) + audioFingerprint.size());
    parts.add("v").add(recipe).separate();
    parts.add(model).separate();
    parts.add(moodID).separate();
    // The number of steps is a constant of the format: it stays 5 even if there should once be more.
    parts.add("blend=").add(blend.index()).add("/5").separate();
    parts.add("seed=").add(seed).separate();
    parts.add(calmPrompt).separate();
    parts.add(energeticPrompt);
    if (prompt) parts.separate().add("prompt=").add(*prompt);
    if (audio) parts.separate().add("audio=").add(audioFingerprint);

    const auto digest = SHA256::digest(parts.text());
    // Written in place: a general text of hexadecimal digits would cost a twentieth of the whole.
    constexpr std::string_view digits = "0123456789abcdef";
    std::array<char, 16> name;
    for (std::size_t i = 0; i < 8; ++i) {
        name[2 * i] = digits[digest[i] >> 4];
        name[2 * i + 1] = digits[digest[i] & 0x0f];
    }
    return {name.data(), name.size()};
}

std::string LoopIdentity::filename() const {
    return moodID + "_b" + std::to_string(blend.index()) + "_" + fingerprint();
}

void encode(JSONWriter& writer, const LoopIdentity& identity) {
    writer.beginObject();
    writer.member("moodID", identity.moodID);
    writer.member("blend", identity.blend);
    writer.member("calmPrompt", identity.calmPrompt);
    writer.member("energeticPrompt", identity.energeticPrompt);
    writer.member("seed", identity.seed);
    writer.member("model", identity.model);
    writer.member("prompt", identity.prompt);
    writer.member("audio", identity.audio);
    writer.member("recipe", identity.recipe);
    writer.endObject();
}

template <>
LoopIdentity decode<LoopIdentity>(const JSONValue& value) {
    return {
        .moodID = value.member<std::string>("moodID"),
        .blend = value.member<BlendStep>("blend"),
        .calmPrompt = value.member<std::string>("calmPrompt"),
        .energeticPrompt = value.member<std::string>("energeticPrompt"),
        .seed = value.member<std::int64_t>("seed"),
        .model = value.member<std::string>("model"),
        .prompt = value.optionalMember<std::string>("prompt"),
        .audio = value.optionalMember<AudioUse>("audio"),
        .recipe = value.member<std::int64_t>("recipe"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::LoopIdentity>::operator()(const quillmere::LoopIdentity& identity) const noexcept {
    return quillmere::Hasher{}
        .add(identity.moodID)
        .add(identity.blend)
        .add(identity.calmPrompt)
        .add(identity.energeticPrompt)
        .add(identity.seed)
        .add(identity.model)
        .add(identity.prompt)
        .add(identity.audio)
        .add(identity.recipe)
        .value();
}
