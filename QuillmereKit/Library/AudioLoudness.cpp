#include "QuillmereKit/Library/AudioLoudness.hpp"

#include <algorithm>
#include <cmath>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

double AudioLoudness::gainDB() const {
    if (!(peak > 0) || !std::isfinite(peak)) return 0;
    const double toCeiling = 20 * std::log10(0.95 / peak);
    if (!integratedLUFS || !std::isfinite(*integratedLUFS)) return std::min(toCeiling, 0.0);
    const double toTarget = targetLUFS - *integratedLUFS;
    return std::min({toCeiling, toTarget, 6.0});
}

double AudioLoudness::streamGainDB(std::optional<double> previous, double totalSeconds) const {
    const double needed = std::min(std::max(totalSeconds - 0.1, 0.0), 30.0);
    if (seconds.value_or(0) >= needed) return gainDB();
    return std::min({gainDB() - 1.0, previous.value_or(0.0), -1.0});
}

void encode(JSONWriter& writer, const AudioLoudness& loudness) {
    writer.beginObject();
    writer.member("integratedLUFS", loudness.integratedLUFS);
    writer.member("peak", loudness.peak);
    writer.member("seconds", loudness.seconds);
    writer.endObject();
}

template <>
AudioLoudness decode<AudioLoudness>(const JSONValue& value) {
    return {
        .integratedLUFS = value.optionalMember<double>("integratedLUFS"),
        .peak = value.member<double>("peak"),
        .seconds = value.optionalMember<double>("seconds"),
    };
}

}  // namespace quillmere

std::size_t std::hash<quillmere::AudioLoudness>::operator()(const quillmere::AudioLoudness& loudness) const noexcept {
    return quillmere::Hasher{}.add(loudness.integratedLUFS).add(loudness.peak).add(loudness.seconds).value();
}
