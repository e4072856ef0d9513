#include "QuillmereKit/Generation/GenerationBackends.hpp"

#include <algorithm>
#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

constexpr std::string_view noNullService = "a generation service must not be null";

std::string text(const GenerationBackends::Failure::Value& value) {
    if (const auto* unsupported = std::get_if<GenerationBackends::Failure::UnsupportedIdentity>(&value)) {
        return "No generation engine supports " + unsupported->model + ".";
    }
    return std::string(unavailableReason(std::get<GenerationBackends::Failure::Unavailable>(value).engine));
}

}  // namespace

GenerationBackends::Failure::Failure(Value value) : Error(text(value)), value_(std::move(value)) {}

GenerationBackends::GenerationBackends(Services services) : services_(std::move(services)) {
    for (const auto& [engine, service] : services_) precondition(service != nullptr, noNullService);
}

void GenerationBackends::registerService(std::shared_ptr<GenerationService> service, GenerationEngine engine) {
    precondition(service != nullptr, noNullService);
    const std::lock_guard lock(mutex_);
    services_[engine].swap(service);  // a replaced service goes after the lock, with the parameter
}

bool GenerationBackends::isEmpty() const {
    const std::lock_guard lock(mutex_);
    return services_.empty();
}

bool GenerationBackends::isAvailable(GenerationEngine engine) const { return service(engine) != nullptr; }

std::shared_ptr<GenerationService> GenerationBackends::service(GenerationEngine engine) const {
    const std::lock_guard lock(mutex_);
    const auto found = services_.find(engine);
    return found == services_.end() ? nullptr : found->second;
}

std::optional<std::string> GenerationBackends::engineBuild(const LoopIdentity& identity) {
    const auto engine = engineOfIdentityModel(identity.model);
    if (!engine) return std::nullopt;
    const auto found = service(*engine);
    return found ? found->engineBuild(identity) : std::nullopt;
}

LoopArtifact GenerationBackends::render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                        std::stop_token stop) {
    const StageHandler ignored = [](const GenerationStage&) {};
    return render(identity, seconds, GenerationPace::fast, onPartial, ignored, std::move(stop));
}

LoopArtifact GenerationBackends::render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                        const StageHandler& onStage, std::stop_token stop) {
    return render(identity, seconds, GenerationPace::fast, onPartial, onStage, std::move(stop));
}

LoopArtifact GenerationBackends::render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                        const PartialHandler& onPartial, const StageHandler& onStage,
                                        std::stop_token stop) {
    const AudioHandler onAudio = [onPartial](const GenerationAudio& audio) { onPartial(audio.url, audio.seconds); };
    return render(identity, seconds, pace, onAudio, onStage, std::move(stop));
}

LoopArtifact GenerationBackends::render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                        const AudioHandler& onAudio, const StageHandler& onStage,
                                        std::stop_token stop) {
    const auto engine = engineOfIdentityModel(identity.model);
    if (!engine) throw Failure(Failure::UnsupportedIdentity{identity.model});
    const auto found = service(*engine);
    if (!found) throw Failure(Failure::Unavailable{*engine});
    return found->render(identity, std::min(seconds, trackSeconds), pace, onAudio, onStage, std::move(stop));
}

}  // namespace quillmere
