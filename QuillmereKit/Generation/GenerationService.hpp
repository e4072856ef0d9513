#pragma once

#include <functional>
#include <optional>
#include <stop_token>
#include <string>

#include "QuillmereKit/Generation/GenerationAudio.hpp"
#include "QuillmereKit/Generation/GenerationPace.hpp"
#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "QuillmereKit/Library/LoopArtifact.hpp"

namespace quillmere {

/// What every renderer offers.
///
/// A renderer overrides the most capable `render` it can and inherits the rest (with `using
/// GenerationService::render;`). A render blocks its caller, notices `stop` and then ends early, by throwing
/// `CancellationError` or by returning; what it returns after that is deleted. A callback on `stop` must only ask the
/// work to end and return at once. Any other failure is an exception whose `what()` is the user's text.
///
/// Callbacks are never empty, may be called from any thread, and only until `render` returns. Thread-safe:
/// `engineBuild` while a render runs.
class GenerationService {
public:
    /// Hears of audio written so far, and its length in seconds.
    using PartialHandler = std::function<void(const FileURL& url, double seconds)>;
    /// Hears of audio written so far.
    using AudioHandler = std::function<void(const GenerationAudio& audio)>;
    /// Hears of each new stage.
    using StageHandler = std::function<void(const GenerationStage& stage)>;

    virtual ~GenerationService() = default;

    /// The exact build of engine and model that would render this identity; nothing when unknown.
    [[nodiscard]] virtual std::optional<std::string> engineBuild(const LoopIdentity& identity);

    /// Renders into a new audio file of about `seconds` seconds; `onPartial` reports audio written so far.
    virtual LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                std::stop_token stop) = 0;

    /// As above, also reporting stages. Default: the first form, no stages.
    virtual LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                const StageHandler& onStage, std::stop_token stop);

    /// As above, also told the pace. Default: the second form.
    virtual LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                const PartialHandler& onPartial, const StageHandler& onStage, std::stop_token stop);

    /// As above, partial audio with its loudness. Default: the third form, each report without a loudness.
    virtual LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                const AudioHandler& onAudio, const StageHandler& onStage, std::stop_token stop);
};

}  // namespace quillmere
