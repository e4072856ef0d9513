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

using namespace std::string_view_literals;

constexpr std::size_t mostDigits = 20;  // "-9223372036854775808"

// Each writes at a place and gives the place behind. That place is passed on by value: a library computes fingerprints
// by the ten thousand, and so it stays in a register.

[[gnu::always_inline]] inline char* put(char* place, std::string_view text) noexcept {
    if (!text.empty()) std::memcpy(place, text.data(), text.size());
    return place + text.size();
}

char* put(char* place, std::int64_t number) noexcept { return std::to_chars(place, place + mostDigits, number).ptr; }

// The unit separator stands between parts only.
char* separate(char* place) noexcept {
    *place = '\x1f';
    return place + 1;
}

SHA256::Digest digestOf(const LoopIdentity& identity) {
    const auto& [moodID, blend, calmPrompt, energeticPrompt, seed, model, prompt, audio, recipe] = identity;
    const std::string audioFingerprint = audio ? audio->fingerprint() : std::string();
    constexpr std::size_t labels = std::string_view("v|||blend=/5|seed=|||prompt=|audio=").size();
    const std::size_t mostBytes = labels + 3 * mostDigits + model.size() + moodID.size() + calmPrompt.size() +
                                  energeticPrompt.size() + (prompt ? prompt->size() : 0) + audioFingerprint.size();
    std::array<char, 2048> here;  // left uninitialised on purpose; a usual identity's text fits
    std::string there;
    if (mostBytes > here.size()) there.resize(mostBytes);
    char* const begin = there.empty() ? here.data() : there.data();
    char* end = separate(put(put(begin, "v"sv), recipe));
    end = separate(put(end, model));
    end = separate(put(end, moodID));
    // The number of steps is a constant of the format: it stays 5 even if there should once be more.
    end = separate(put(put(put(end, "blend="sv), blend.index()), "/5"sv));
    end = separate(put(put(end, "seed="sv), seed));
    end = separate(put(end, calmPrompt));
    end = put(end, energeticPrompt);
    if (prompt) end = put(put(separate(end), "prompt="sv), *prompt);
    if (audio) end = put(put(separate(end), "audio="sv), audioFingerprint);

    return SHA256::digest({begin, static_cast<std::size_t>(end - begin)});
}

constexpr std::size_t fingerprintBytes = 8;

}  // namespace

std::string LoopIdentity::fingerprint() const {
    const auto digest = digestOf(*this);
    return hexadecimal(std::span(digest).first(fingerprintBytes));
}

std::uint64_t LoopIdentity::fingerprintNumber() const {
    const auto digest = digestOf(*this);
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < fingerprintBytes; ++i) number = number << 8 | digest[i];
    return number;
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
    LoopIdentity identity;
    decodeInto(value, identity);
    return identity;
}

void decodeInto(const JSONValue& value, LoopIdentity& into) {
    JSONMembers members(value);
    members.read("moodID", into.moodID);
    members.read("blend", into.blend);
    members.read("calmPrompt", into.calmPrompt);
    members.read("energeticPrompt", into.energeticPrompt);
    members.read("seed", into.seed);
    members.read("model", into.model);
    members.readOptional("prompt", into.prompt);
    members.readOptional("audio", into.audio);
    members.read("recipe", into.recipe);
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
