#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

#include "QuillmereKit/Generation/GenerationService.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/RecipeOrigin.hpp"
#include "Renderers/EngineFailure.hpp"

namespace quillmere {

/// How a `ProcessRenderer` treats its engine. The defaults suit any engine; tests shorten the times. A time below zero
/// counts as zero, one longer than a day as a day, also where it is longer only at a lower duty cycle.
struct ProcessRendererOptions {
    /// What an engine that was told to stop may take for it before it is killed.
    std::chrono::milliseconds grace = std::chrono::seconds(3);
    /// How long an engine at full pace may work without a line that means something; longer at a lower duty
    /// cycle, in proportion.
    std::chrono::milliseconds silenceLimit = std::chrono::minutes(10);
    /// How long an engine at full pace may take to end after its result or after it closed its output.
    std::chrono::milliseconds lingerLimit = std::chrono::seconds(10);
    /// How long the file of a delivered piece that the store does not list is taken for one that it is about to list;
    /// past that, the same piece may be delivered again.
    std::chrono::milliseconds filingLimit = std::chrono::minutes(1);
    /// How long an engine may take to answer which build it is.
    std::chrono::milliseconds buildLimit = std::chrono::seconds(10);
    /// The shortest time between two reports of stage and audio; of a burst only the newest is passed on.
    std::chrono::milliseconds reportInterval = std::chrono::milliseconds(100);
    /// The work that an engine may do without a rest before its duty cycle is enforced.
    std::chrono::milliseconds burst = std::chrono::seconds(5);
    /// A longer line of output, in bytes, is skipped.
    std::size_t lineLimit = std::size_t{64} * 1024;
    /// An engine that writes more bytes to its standard output and standard error is stopped.
    std::uint64_t outputLimit = std::uint64_t{256} * 1024 * 1024;
    /// The machine, for the artifacts.
    std::optional<RecipeOrigin> origin = std::nullopt;
    /// The supervisor program; empty: found beside the running program, in the build tree or the installation.
    std::filesystem::path supervisor = {};
};

/// Renders with any command that speaks the engine protocol (Documentation/engines.md), one process a render.
///
/// Safe against its engine: whatever the child does, the library keeps its files, and after `render` has returned or
/// thrown no process, descriptor or file of the render is left, the piece itself aside. The engine runs under
/// `quillmere-supervisor`, a small program that owns its process group and every process it makes, and ends all of
/// them, politely, then after `grace` hard, when the render is over, cancelled or failed, and also when this process is
/// gone in whatever way. Neither inherits a descriptor, a signal mask or a working folder from this process. Only an
/// engine that kills its supervisor gets around that: the render fails (lost), the engine and its process group are
/// killed, but what it moved elsewhere before lives on.
///
/// The engine works in a `Render-…` folder inside the store's folder. Its file is believed only after the whole family
/// has ended: it must lie there, not behind a link, and be a WAV file of exactly the frames asked for (48,000 Hz,
/// stereo, 16 bit). It is measured here, synced, and moved beside the others under the identity's file name, never over
/// anything. A file of that name that no piece uses is a crash's stray, or music whose entry was lost: it is kept,
/// under the name that the store's `moveUnstoredAside` gives it.
///
/// The pace is told to the engine, sets the family's priority (`gentle` and `background` stand behind everything else),
/// and the duty cycle is enforced on engines that do not rest by themselves: what has worked too long for its share of
/// the time is stopped for a while.
///
/// Thread-safe; renders may run at the same time. Of two that deliver the same piece the second fails (nameInUse) as
/// long as the first one's file lies there and the store does not list it yet, for up to `filingLimit`; so a store has
/// one renderer for a model.
/// Destruction cancels what runs and waits for it.
class ProcessRenderer final : public GenerationService {
public:
    using GenerationService::render;

    /// `command`: a program and its arguments, no shell. A program without "/" is looked for along `PATH` at each
    /// start; a path is taken from the folder that is current now. `store`: whose folder the pieces go to. An empty
    /// command stops the process.
    ProcessRenderer(std::vector<std::string> command, std::shared_ptr<LoopStore> store,
                    ProcessRendererOptions options = {});
    ~ProcessRenderer() override;
    ProcessRenderer(const ProcessRenderer&) = delete;
    ProcessRenderer& operator=(const ProcessRenderer&) = delete;

    /// The engine's own answer, asked for once for each model; nothing if it fails or takes too long, and then it is
    /// asked again the next time. Waits for the engine.
    [[nodiscard]] std::optional<std::string> engineBuild(const LoopIdentity& identity) override;

    /// Renders one piece of exactly round(`seconds` · 48,000) frames. Reports `Preparing` first, then what the engine
    /// reports, `Processing` while the result is checked; partial audio lies in the working folder and goes with it.
    /// The handlers are called on the calling thread, may be empty, and may throw to end the render.
    ///
    /// Throws `CancellationError` once everything is gone if `stop` asked for it, `EngineFailure`, or `FileError`.
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace, const AudioHandler& onAudio,
                        const StageHandler& onStage, std::stop_token stop) override;
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                        const PartialHandler& onPartial, const StageHandler& onStage, std::stop_token stop) override;
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                        const StageHandler& onStage, std::stop_token stop) override;
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                        std::stop_token stop) override;

private:
    class Work;
    class Cancellation;
    struct Delivery {
        LoopArtifact piece;
        std::chrono::steady_clock::time_point time;
    };

    [[nodiscard]] std::optional<std::string> build(const LoopIdentity& identity, const Cancellation& cancellation);
    [[nodiscard]] std::optional<std::string> askForBuild(const LoopIdentity& identity,
                                                         const Cancellation& cancellation) const;
    [[nodiscard]] bool deliver(const LoopArtifact& piece, const std::function<bool()>& moveOut);

    const std::vector<std::string> command_;
    const std::shared_ptr<LoopStore> store_;
    const ProcessRendererOptions options_;
    std::once_flag leftoversRemoved_;

    std::mutex mutex_;
    std::condition_variable_any changed_;
    int working_ = 0;                            // guarded by mutex_
    std::set<std::string> asking_;               // models whose build is being asked for; guarded by mutex_
    std::map<std::string, std::string> builds_;  // by model; guarded by mutex_
    std::stop_source lifetime_;

    std::mutex delivering_;
    std::vector<Delivery> delivered_;  // what the store may not list yet; guarded by delivering_
};

}  // namespace quillmere
