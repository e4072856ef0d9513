#pragma once

#include <optional>

#include "QuillmereKit/Library/AudioLoudness.hpp"
#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere {

/// The audio that a running render has written so far. A plain value.
struct GenerationAudio {
    FileURL url;                                 ///< The audio written so far.
    double seconds = 0;                          ///< Its length, in seconds of music.
    std::optional<AudioLoudness> loudness = {};  ///< Absent when the renderer did not measure it.

    friend bool operator==(const GenerationAudio&, const GenerationAudio&) = default;
};

}  // namespace quillmere
