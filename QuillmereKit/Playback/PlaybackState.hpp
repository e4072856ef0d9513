#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "QuillmereKit/Playback/MenuBarIcon.hpp"

namespace quillmere {

/// What the player is doing, as the interface shows it. A plain value; equality by case and payload.
class PlaybackState {
public:
    /// The player failed: the user may try again, or not.
    class Failure {
    public:
        /// Playing may be tried again.
        struct Recoverable {
            std::string message;  ///< For the user.
            friend bool operator==(const Recoverable&, const Recoverable&) = default;
        };
        /// Nothing the user does here will help.
        struct Fatal {
            std::string message;  ///< For the user.
            friend bool operator==(const Fatal&, const Fatal&) = default;
        };

        /// A failure that the user may try to overcome.
        Failure(Recoverable value) : value_(std::move(value)) {}  // NOLINT: converts on purpose
        /// A failure that ends it.
        Failure(Fatal value) : value_(std::move(value)) {}  // NOLINT: converts on purpose

        /// Whether playing may be tried again.
        [[nodiscard]] bool isRecoverable() const noexcept { return std::holds_alternative<Recoverable>(value_); }
        /// The text for the user.
        [[nodiscard]] const std::string& message() const noexcept;
        friend bool operator==(const Failure&, const Failure&) = default;

    private:
        std::variant<Recoverable, Fatal> value_;
    };

    /// Model files are being fetched.
    struct DownloadingModel {
        double progress = 0;  ///< 0 to 1; a value whose percentage is no 64-bit integer stops the process.
        friend bool operator==(const DownloadingModel&, const DownloadingModel&) = default;
    };
    /// The player failed.
    struct Error {
        Failure failure;  ///< How.
        friend bool operator==(const Error&, const Error&) = default;
    };
    /// Nothing is loaded yet; starting.
    struct Cold {
        friend bool operator==(const Cold&, const Cold&) = default;
    };
    /// Loading and preparing audio.
    struct WarmingUp {
        friend bool operator==(const WarmingUp&, const WarmingUp&) = default;
    };
    /// Ready to play, not playing.
    struct Ready {
        friend bool operator==(const Ready&, const Ready&) = default;
    };
    /// Playing.
    struct Playing {
        friend bool operator==(const Playing&, const Playing&) = default;
    };
    /// Paused by the user.
    struct Paused {
        friend bool operator==(const Paused&, const Paused&) = default;
    };
    /// The cases, in order.
    using Value = std::variant<DownloadingModel, Error, Cold, WarmingUp, Ready, Playing, Paused>;

    /// The state of one of the cases.
    PlaybackState(Value value) : value_(std::move(value)) {}  // NOLINT: converts on purpose

    /// The case with its payload.
    [[nodiscard]] const Value& value() const noexcept { return value_; }

    /// The icon in the menu bar.
    [[nodiscard]] MenuBarIcon icon() const noexcept;
    /// Whether music is playing.
    [[nodiscard]] bool isPlaying() const noexcept { return std::holds_alternative<Playing>(value_); }
    /// Whether the play control is enabled.
    [[nodiscard]] bool canToggle() const noexcept;
    /// The status line; nothing where the interface shows none.
    [[nodiscard]] std::optional<std::string> status() const;

    friend bool operator==(const PlaybackState&, const PlaybackState&) = default;

private:
    Value value_;
};

}  // namespace quillmere
