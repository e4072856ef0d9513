#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "QuillmereKit/Generation/EventSequence.hpp"
#include "QuillmereKit/Generation/GenerationPace.hpp"
#include "QuillmereKit/Generation/GenerationService.hpp"
#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/SerialExecutor.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere {

/// Turns requests for music into stored pieces, one render at a time.
///
/// A newer request supersedes the older one, whose render is asked to stop; the new render starts only when the old
/// one has wound down, its clean-up included. What a cancelled render returns is deleted and never reaches the
/// library. Each change is told to the observers, numbered without gaps. Nothing is retried, and nothing waits between
/// pieces: when to ask for the next one is the caller's business.
///
/// Thread-safe. All operations run one at a time, in the order of their calls, on a thread of the queue's own; a
/// caller on another thread waits until its operation is done, the handlers' calls for its events included. So call
/// the queue under no lock that a handler takes. The render itself runs on a second thread and holds nobody up.
///
/// Handlers run on the queue's thread, and so does what a renderer hangs on its stop token. From there
/// - `request`, `observe`, `observeEvents` and `stopObserving` return at once; they take effect behind the operation
///   that is going on and those already waiting;
/// - `isBusy`, `isDraining` and `pending` answer at once;
/// - `cancelAll`, and destroying the queue, stop the process with a message.
/// A handler must not wait for a thread that waits for the queue. An exception that leaves a handler stops the process.
class GenerationQueue {
public:
    /// What the queue tells. A plain value; equality by case and payload.
    class Progress {
    public:
        /// The current render has come to this stage.
        struct Stage {
            LoopIdentity identity;  ///< The piece asked for.
            GenerationStage stage;  ///< Where it is.
            friend bool operator==(const Stage&, const Stage&) = default;
        };
        /// A request was accepted (`seconds` 0, nothing else), or the current render has written this much audio.
        struct Rendering {
            LoopIdentity identity;                  ///< The piece asked for.
            double seconds = 0;                     ///< Length of the audio so far.
            std::optional<FileURL> audio;           ///< Where it lies.
            std::optional<AudioLoudness> loudness;  ///< Absent when the renderer did not measure it.
            friend bool operator==(const Rendering&, const Rendering&) = default;
        };
        /// The piece is in the library: just stored, or there already when it was asked for.
        struct Finished {
            LoopArtifact piece;  ///< The stored piece.
            friend bool operator==(const Finished&, const Finished&) = default;
        };
        /// The render failed, for another reason than cancellation, or memory ran out while its piece was stored: then
        /// the piece's file stays, and the message says where.
        struct Failed {
            LoopIdentity identity;  ///< The piece asked for.
            std::string message;    ///< The user's text.
            friend bool operator==(const Failed&, const Failed&) = default;
        };
        /// Nothing is rendering or winding down any more.
        struct Idle {
            friend bool operator==(const Idle&, const Idle&) = default;
        };
        /// A cancel was accepted; the cancelled render is still winding down.
        struct Stopping {
            friend bool operator==(const Stopping&, const Stopping&) = default;
        };
        /// The cases, in order.
        using Value = std::variant<Stage, Rendering, Finished, Failed, Idle, Stopping>;

        /// The progress of one of the cases.
        template <class Case>
        requires std::is_constructible_v<Value, Case> Progress(Case value)
            : value_(std::move(value)) {}  // NOLINT: converts on purpose

        /// The case with its payload, for `std::visit` and `std::get_if`.
        [[nodiscard]] const Value& value() const noexcept { return value_; }

        friend bool operator==(const Progress&, const Progress&) = default;

    private:
        Value value_;
    };

    /// A progress with its number and the token of the request that it answers.
    struct Event {
        Progress progress;                 ///< What happened.
        std::optional<UUID> requestToken;  ///< Of the request that the event answers.
        std::uint64_t sequence = 0;        ///< 1 for the queue's first event, one more for each after it.
        friend bool operator==(const Event&, const Event&) = default;
    };

    /// Hears of each progress.
    using ProgressHandler = std::function<void(const Progress& progress)>;
    /// Hears of each event.
    using EventHandler = std::function<void(const Event& event)>;

    /// A queue that asks `service` for renders of `seconds` seconds and files them in `store`. Neither may be null.
    GenerationQueue(std::shared_ptr<GenerationService> service, std::shared_ptr<LoopStore> store, double seconds);

    /// Cancels what runs and waits until it has ended and is cleaned up; no handler is called any more.
    ~GenerationQueue();
    GenerationQueue(const GenerationQueue&) = delete;
    GenerationQueue& operator=(const GenerationQueue&) = delete;

    /// Asks for one piece; the outcome arrives as events that carry `requestToken`.
    ///
    /// A piece that the library holds is `finished` at once, and a render in progress goes on. A repeated request for
    /// the piece being rendered changes nothing, but with a token it takes over the render's events, beginning with
    /// another `rendering`. Any other request replaces what runs, beginning with `rendering`.
    ///
    /// The render's own events follow in the order of its reports, then `finished` or `failed`. A renderer that throws
    /// `CancellationError` although nobody cancelled it ends without an event; its request stays the current one until
    /// it is cancelled or replaced. The piece that a renderer returns is stored as what it says it is, also where that
    /// is not what was asked for.
    void request(const LoopIdentity& identity, GenerationPace pace, std::optional<UUID> requestToken = std::nullopt);

    /// Cancels the current render: `stopping`, then, when it has ended, `idle`. Without a token whatever runs; with a
    /// token only if the current request has it. Where nothing runs at all, only a call without a token does
    /// anything: it says `idle`.
    ///
    /// True if a cancelled render, of this token if one is given, is still winding down. Not from a handler.
    bool cancelAll(std::optional<UUID> requestToken = std::nullopt);

    /// Calls `handler`, which must not be empty, with each progress from now on. Returns the observer's id.
    UUID observe(ProgressHandler handler);
    /// The same with each event; of one event all progress handlers are called first.
    UUID observeEvents(EventHandler handler);
    /// Forgets an observer; an unknown id does no harm. Unless called from a handler, the observer's handler is not
    /// running and will not be called any more when this returns.
    void stopObserving(const UUID& observer);

    /// Whether a request is being rendered, or waits for a cancelled render to end.
    [[nodiscard]] bool isBusy() const;
    /// Whether a cancelled render is winding down and nothing else was asked for.
    [[nodiscard]] bool isDraining() const;
    /// What is being rendered, or about to be.
    [[nodiscard]] std::optional<LoopIdentity> pending() const;

private:
    struct Current {
        LoopIdentity identity;
        GenerationPace pace;
        UUID attempt;                      // accepts this render's reports, and no other's
        std::optional<UUID> requestToken;  ///< Of the request that the event answers.
        std::stop_source stop;
    };
    struct Cancelled {};
    struct Failure {
        std::string message;
    };
    using Outcome = std::variant<LoopArtifact, Failure, Cancelled>;

    // On a caller's thread: runs `operation` on the executor, now or, from there, later.
    void perform(std::function<void()> operation);
    void ask(const std::function<void()>& question) const;

    // On the executor.
    void accept(const LoopIdentity& identity, GenerationPace pace, std::optional<UUID> requestToken);
    bool cancel(const std::optional<UUID>& requestToken);
    void startRender();
    void reportAudio(const UUID& attempt, const GenerationAudio& audio);
    void reportStage(const UUID& attempt, const GenerationStage& stage);
    void endRender(const UUID& attempt, const Outcome& outcome);
    [[nodiscard]] Progress filed(const LoopArtifact& piece);
    void finish(const UUID& attempt, Progress progress);
    void finishedDraining(const UUID& drainID);
    void emit(Progress progress, std::optional<UUID> requestToken);

    // On the renders' thread.
    void render(const LoopIdentity& identity, GenerationPace pace, const UUID& attempt, const std::stop_token& stop);

    const std::shared_ptr<GenerationService> service_;
    const std::shared_ptr<LoopStore> store_;
    const double seconds_;

    // All state is touched on the executor only.
    std::optional<Current> current_;
    std::optional<UUID> drainingRequestToken_;
    std::optional<UUID> drainID_;  // set while a cancelled render winds down and nothing is current
    bool isRendering_ = false;     // from the start of a render until its outcome is dealt with
    bool isClosed_ = false;
    std::map<UUID, ProgressHandler> observers_;
    std::map<UUID, EventHandler> eventObservers_;
    EventSequence sequence_;

    // Last, so that the threads end before what they use; the renders' first, for it posts to the other.
    mutable SerialExecutor executor_;
    SerialExecutor renders_;
};

}  // namespace quillmere
