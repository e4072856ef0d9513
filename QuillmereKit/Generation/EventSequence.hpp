#pragma once

#include <cstdint>
#include <limits>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {

/// Numbers the events of one sender: 1, 2, 3, ... Not thread-safe.
class EventSequence {
public:
    /// Goes on after `last`.
    explicit constexpr EventSequence(std::uint64_t last = 0) noexcept : last_(last) {}

    /// The next number. There is none after 2^64 - 1: asking for it stops the process.
    [[nodiscard]] std::uint64_t next() noexcept {
        precondition(last_ != std::numeric_limits<std::uint64_t>::max(), "the event numbers are used up");
        return ++last_;
    }

private:
    std::uint64_t last_;
};

}  // namespace quillmere
