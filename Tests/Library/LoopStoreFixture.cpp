#include "Tests/Library/LoopStoreFixture.hpp"

#include <algorithm>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {

void LoopStoreFixture::writeManifest(const std::vector<LoopArtifact>& artifacts) const {
    writeManifest(encodeJSON(artifacts, JSONWriter::Form::compact));
}

std::vector<LoopArtifact> byFingerprint(std::vector<LoopArtifact> artifacts) {
    std::ranges::sort(artifacts, {}, &LoopArtifact::id);
    return artifacts;
}

std::vector<std::string> fingerprints(const std::vector<LoopArtifact>& artifacts) {
    std::vector<std::string> result;
    for (const auto& artifact : artifacts) result.push_back(artifact.id());
    return result;
}

}  // namespace quillmere::test
