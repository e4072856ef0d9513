#pragma once

#include <string>

#include "QuillmereKit/Generation/Horizon.hpp"

namespace quillmere {

/// How much music the library holds, as one line beside the player. A plain value.
struct MaterialStatus {
    double seconds = 0;      ///< Total length of the saved music; finite.
    Horizon horizon;         ///< How much music the user wants kept.
    bool isPlaying = false;  ///< Playback is running.
    bool isWriting = false;  ///< New music is being generated and saved.

    /// The line, such as "10:00 of 20:00 saved · adding more…". While paused it does not say that music is being
    /// written, nor once the horizon is reached.
    [[nodiscard]] std::string text() const;

    /// A duration as a clock shows it: "07:05", from one hour on "1:02:03", for negative values "00:00". Rounded to
    /// whole seconds, halves up. A value that is not finite, or beyond the signed 64-bit range, stops the process.
    [[nodiscard]] static std::string clock(double seconds);

    friend bool operator==(const MaterialStatus&, const MaterialStatus&) = default;
};

}  // namespace quillmere
