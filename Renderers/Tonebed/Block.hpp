#pragma once

#include <array>
#include <cstddef>

namespace quillmere::tonebed {

/// The most frames that are computed at a time: levels and filters are set anew for each block.
inline constexpr std::size_t blockFrames = 64;

/// One channel of one block.
using Channel = std::array<float, blockFrames>;

/// 0, 1, 2 ... as the compiler likes it best in a loop over a block.
inline constexpr Channel countingUp = [] {
    Channel values{};
    for (std::size_t i = 0; i < blockFrames; ++i) values[i] = static_cast<float>(i);
    return values;
}();

/// One block of stereo sound, silent only once it is cleared. Only the first frames count where a block is cut short.
struct Block {
    Channel left;
    Channel right;

    void clear() noexcept {
        left.fill(0);
        right.fill(0);
    }
};

}  // namespace quillmere::tonebed
