#pragma once

#include <cstdint>

namespace quillmere {

/// A small deterministic random generator: SplitMix64 (Steele, Lea and Flood, "Fast splittable pseudorandom number
/// generators", OOPSLA 2014). The same state always gives the same draws. A plain value.
struct SeededGenerator {
    std::uint64_t state = 0;  ///< Changed by every draw.

    /// The next 64 random bits.
    [[nodiscard]] std::uint64_t next() noexcept;

    /// A value below `bound` (at least 1, else the process stops), each equally likely: multiply and reject (Lemire,
    /// "Fast random integer generation in an interval", 2019). Takes one draw, rarely more.
    [[nodiscard]] std::uint64_t below(std::uint64_t bound) noexcept;

    friend bool operator==(const SeededGenerator&, const SeededGenerator&) = default;
};

}  // namespace quillmere
