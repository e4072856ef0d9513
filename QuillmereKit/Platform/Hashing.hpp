#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

namespace quillmere {

/// Feeds values into one hash, in order. Equal sequences hash equally.
///
///     return Hasher{}.add(tag.category).add(tag.value).value();
class Hasher {
public:
    /// One value, through `std::hash`.
    template <class T>
    constexpr Hasher& add(const T& value) {
        return mix(std::hash<T>{}(value));
    }
    /// Preceded by a marker of presence, so that absent differs from any value.
    template <class T>
    constexpr Hasher& add(const std::optional<T>& value) {
        mix(value.has_value() ? 1 : 0);
        return value ? add(*value) : *this;
    }
    /// The values and how many they are.
    template <class T>
    constexpr Hasher& add(const std::vector<T>& values) {
        mix(values.size());
        for (const auto& value : values) add(value);
        return *this;
    }
    /// The hash of everything added.
    [[nodiscard]] constexpr std::size_t value() const noexcept { return state_; }

private:
    // The finalising step of MurmurHash3, 64 bits (Austin Appleby, public domain).
    constexpr Hasher& mix(std::size_t value) noexcept {
        std::size_t h = state_ ^ (value + 0x9e3779b97f4a7c15ULL + (state_ << 6) + (state_ >> 2));
        h ^= h >> 33;
        h *= 0xff51afd7ed558ccdULL;
        h ^= h >> 33;
        state_ = h;
        return *this;
    }
    std::size_t state_ = 0;
};

}  // namespace quillmere
