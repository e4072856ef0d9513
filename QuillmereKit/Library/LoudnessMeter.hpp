#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "QuillmereKit/Library/AudioLoudness.hpp"

namespace quillmere {

// The owner of this file completes it: a value type, copyable, with
//   explicit LoudnessMeter(int channels);                                  // 1 or 2, else the process stops
//   void append(std::span<const float> interleaved, int channelCount);     // preconditions stop the process
//   void append(std::span<const float> interleaved);
//   double peak() const; std::int64_t frames() const;
//   std::optional<AudioLoudness> measurement() const;
class LoudnessMeter;

}  // namespace quillmere
