#include "QuillmereKit/Library/MaterialStatus.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

std::string twoDigits(std::int64_t number) { return (number < 10 ? "0" : "") + std::to_string(number); }

}  // namespace

std::string MaterialStatus::text() const {
    if (seconds <= 0) return isWriting ? "Creating the first track…" : "No saved music yet";
    const std::string saved = clock(seconds);
    if (!isPlaying) return "Paused · " + saved + " saved";
    if (horizon.isSatisfied(seconds)) return saved + " saved";
    const auto wanted = horizon.seconds();
    return saved + (wanted ? " of " + clock(*wanted) : "") + " saved" + (isWriting ? " · adding more…" : "");
}

std::string MaterialStatus::clock(double seconds) {
    const double rounded = std::round(seconds);
    precondition(rounded >= -0x1p63 && rounded < 0x1p63, "a clock shows a finite number of seconds below 2^63");
    const std::int64_t total = std::max<std::int64_t>(static_cast<std::int64_t>(rounded), 0);
    const std::string minutesAndSeconds = twoDigits(total % 3600 / 60) + ":" + twoDigits(total % 60);
    return total >= 3600 ? std::to_string(total / 3600) + ":" + minutesAndSeconds : minutesAndSeconds;
}

}  // namespace quillmere
