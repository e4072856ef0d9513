#include "QuillmereKit/Moods/AudioUse.hpp"

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

namespace quillmere {

std::string AudioUse::fingerprint() const {
    try {
        return hexadecimal(SHA256::digest(encodeJSON(*this, JSONWriter::Form::sorted)));
    } catch (const EncodingError&) {
        return "invalid-audio-input";
    }
}

template <>
AudioUse::Kind decode<AudioUse::Kind>(const JSONValue& value) {
    return decodeRawValue<AudioUse::Kind>(value);
}

void encode(JSONWriter& writer, const AudioUse& use) {
    writer.beginObject();
    writer.member("guide", use.guide);
    writer.member("offset", use.offset);
    writer.member("kind", rawValue(use.kind));
    writer.endObject();
}

template <>
AudioUse decode<AudioUse>(const JSONValue& value) {
    return {
        .guide = value.member<SoundGuide>("guide"),
        .offset = value.member<std::int64_t>("offset"),
        .kind = value.member<AudioUse::Kind>("kind"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::AudioUse>::operator()(const quillmere::AudioUse& use) const noexcept {
    return quillmere::Hasher{}.add(use.guide).add(use.offset).add(use.kind).value();
}
