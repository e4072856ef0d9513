#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include "QuillmereKit/Generation/GenerationEngine.hpp"
#include "QuillmereKit/Generation/GenerationService.hpp"
#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// The renderers by engine, and itself one renderer: it passes each request to the service of the engine that the
/// identity names.
///
/// Thread-safe. The lock is held only to look a service up, never while a service works; a service that is replaced
/// while it renders lives until that render ends.
class GenerationBackends : public GenerationService {
public:
    /// A service for each engine that has one.
    using Services = std::map<GenerationEngine, std::shared_ptr<GenerationService>>;

    /// Why no renderer could be asked; `what()` is the user's text.
    class Failure : public Error {
    public:
        /// No engine has this identity-model string.
        struct UnsupportedIdentity {
            std::string model;  ///< The identity-model string.
            friend bool operator==(const UnsupportedIdentity&, const UnsupportedIdentity&) = default;
        };
        /// The engine has no service.
        struct Unavailable {
            GenerationEngine engine;  ///< The engine.
            friend bool operator==(const Unavailable&, const Unavailable&) = default;
        };
        /// The cases, in order.
        using Value = std::variant<UnsupportedIdentity, Unavailable>;

        /// A failure of one of the cases.
        explicit Failure(Value value);

        /// The case with its payload.
        [[nodiscard]] const Value& value() const noexcept { return value_; }

        /// The user's text, the same as `what()`.
        [[nodiscard]] std::string errorDescription() const { return what(); }

        friend bool operator==(const Failure& a, const Failure& b) noexcept { return a.value_ == b.value_; }

    private:
        Value value_;
    };

    /// Starts with these services; none may be null.
    explicit GenerationBackends(Services services = {});

    /// Makes `service` the engine's, in place of an earlier one. It must not be null.
    void registerService(std::shared_ptr<GenerationService> service, GenerationEngine engine);

    /// Whether no engine has a service.
    [[nodiscard]] bool isEmpty() const;

    /// Whether the engine has a service.
    [[nodiscard]] bool isAvailable(GenerationEngine engine) const;

    /// What the engine's service answers; nothing for an unknown identity-model string or an engine without a service.
    [[nodiscard]] std::optional<std::string> engineBuild(const LoopIdentity& identity) override;

    // Each asks the engine's service for at most `trackSeconds`, at pace `fast` where none is given. They throw
    // `Failure` if there is no service to ask; what the service throws passes through.
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                        std::stop_token stop) override;
    LoopArtifact render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                        const StageHandler& onStage, std::stop_token stop) override;
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                        const PartialHandler& onPartial, const StageHandler& onStage, std::stop_token stop) override;
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace, const AudioHandler& onAudio,
                        const StageHandler& onStage, std::stop_token stop) override;

private:
    [[nodiscard]] std::shared_ptr<GenerationService> service(GenerationEngine engine) const;

    mutable std::mutex mutex_;
    Services services_;  // guarded by mutex_
};

}  // namespace quillmere
