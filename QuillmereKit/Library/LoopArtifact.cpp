#include "QuillmereKit/Library/LoopArtifact.hpp"

#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

bool LoopArtifact::isPlayable() const { return MoodCatalog::isCurrent(identity, CustomMoodStore::shared()); }

bool LoopArtifact::isTrack() const noexcept {
    return identity.isRecording() || cachedModel(identity.model).has_value();
}

LoopArtifact LoopArtifact::withLoudness(AudioLoudness loudness) const {
    LoopArtifact copy = *this;
    if (!copy.quality) copy.quality.emplace();
    copy.quality->loudness = loudness;
    return copy;
}

LoopArtifact LoopArtifact::withURL(FileURL newURL) const {
    LoopArtifact copy = *this;
    copy.url = std::move(newURL);
    return copy;
}

void encode(JSONWriter& writer, const LoopArtifact& artifact) {
    writer.beginObject();
    writer.member("identity", artifact.identity);
    writer.member("url", artifact.url);
    writer.member("seconds", artifact.seconds);
    writer.member("seamDB", artifact.seamDB);
    writer.member("quality", artifact.quality);
    writer.member("leadIn", artifact.leadIn);
    writer.member("engineBuild", artifact.engineBuild);
    writer.member("origin", artifact.origin);
    writer.endObject();
}

template <>
LoopArtifact decode<LoopArtifact>(const JSONValue& value) {
    LoopArtifact artifact{.identity = {}, .url = FileURL::fromPath("/")};  // neither is ever left out
    decodeInto(value, artifact);
    return artifact;
}

void decodeInto(const JSONValue& value, LoopArtifact& into) {
    JSONMembers members(value);
    members.read("identity", into.identity);
    members.read("url", into.url);
    members.read("seconds", into.seconds);
    members.readOptional("seamDB", into.seamDB);
    members.readOptional("quality", into.quality);
    members.readOptional("leadIn", into.leadIn);
    members.readOptional("engineBuild", into.engineBuild);
    members.readOptional("origin", into.origin);
}

}  // namespace quillmere

std::size_t std::hash<quillmere::LoopArtifact>::operator()(const quillmere::LoopArtifact& artifact) const noexcept {
    return quillmere::Hasher{}
        .add(artifact.identity)
        .add(artifact.url)
        .add(artifact.seconds)
        .add(artifact.seamDB)
        .add(artifact.quality)
        .add(artifact.leadIn)
        .add(artifact.engineBuild)
        .add(artifact.origin)
        .value();
}
