#include "QuillmereKit/Generation/GenerationService.hpp"

#include <utility>

namespace quillmere {

std::optional<std::string> GenerationService::engineBuild(const LoopIdentity&) { return std::nullopt; }

LoopArtifact GenerationService::render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                       const StageHandler&, std::stop_token stop) {
    return render(identity, seconds, onPartial, std::move(stop));
}

LoopArtifact GenerationService::render(const LoopIdentity& identity, double seconds, GenerationPace,
                                       const PartialHandler& onPartial, const StageHandler& onStage,
                                       std::stop_token stop) {
    return render(identity, seconds, onPartial, onStage, std::move(stop));
}

LoopArtifact GenerationService::render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                       const AudioHandler& onAudio, const StageHandler& onStage, std::stop_token stop) {
    const PartialHandler onPartial = [onAudio](const FileURL& url, double partSeconds) {
        onAudio({.url = url, .seconds = partSeconds, .loudness = std::nullopt});
    };
    return render(identity, seconds, pace, onPartial, onStage, std::move(stop));
}

}  // namespace quillmere
