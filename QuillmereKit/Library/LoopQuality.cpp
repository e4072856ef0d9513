#include "QuillmereKit/Library/LoopQuality.hpp"

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, const LoopQuality& quality) {
    writer.beginObject();
    writer.member("brightness", quality.brightness);
    writer.member("makeupDB", quality.makeupDB);
    writer.member("loudness", quality.loudness);
    if (!writer.isSet(omitLegacyMusicFields)) writer.member("eventfulness", 0);
    writer.endObject();
}

template <>
LoopQuality decode<LoopQuality>(const JSONValue& value) {
    return {
        .brightness = value.member<double>("brightness"),
        .makeupDB = value.member<double>("makeupDB"),
        .loudness = value.optionalMember<AudioLoudness>("loudness"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::LoopQuality>::operator()(const quillmere::LoopQuality& quality) const noexcept {
    return quillmere::Hasher{}.add(quality.brightness).add(quality.makeupDB).add(quality.loudness).value();
}
