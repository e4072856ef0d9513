#include "QuillmereKit/Playback/PlaybackState.hpp"

#include <cstdint>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

std::string percentage(double progress) {
    const double percent = progress * 100;
    // 2^63 is the first double beyond the range; comparisons with NaN are false.
    precondition(percent >= -9223372036854775808.0 && percent < 9223372036854775808.0,
                 "a download's progress is a finite number within the 64-bit range");
    return std::to_string(static_cast<std::int64_t>(percent));
}

}  // namespace

const std::string& PlaybackState::Failure::message() const noexcept {
    if (const auto* recoverable = std::get_if<Recoverable>(&value_)) return recoverable->message;
    return std::get_if<Fatal>(&value_)->message;
}

MenuBarIcon PlaybackState::icon() const noexcept {
    if (isPlaying()) return MenuBarIcon::playing;
    const bool isPreparing = std::holds_alternative<DownloadingModel>(value_) || std::holds_alternative<Cold>(value_) ||
                             std::holds_alternative<WarmingUp>(value_);
    return isPreparing ? MenuBarIcon::generating : MenuBarIcon::idle;
}

bool PlaybackState::canToggle() const noexcept {
    if (const auto* failed = std::get_if<Error>(&value_)) return failed->failure.isRecoverable();
    return std::holds_alternative<Ready>(value_) || isPlaying() || std::holds_alternative<Paused>(value_);
}

std::optional<std::string> PlaybackState::status() const {
    if (const auto* download = std::get_if<DownloadingModel>(&value_)) {
        return "Downloading music files — " + percentage(download->progress) + "%";
    }
    if (const auto* failed = std::get_if<Error>(&value_)) return failed->failure.message();
    if (std::holds_alternative<Cold>(value_)) return "Starting up";
    if (std::holds_alternative<WarmingUp>(value_)) return "Warming up";
    return std::nullopt;
}

}  // namespace quillmere
