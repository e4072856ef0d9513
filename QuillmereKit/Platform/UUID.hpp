#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// A universally unique identifier (RFC 9562). A plain value; the default is all zeros.
struct UUID {
    std::array<std::uint8_t, 16> bytes{};  ///< The bits, most significant first.

    /// A fresh random identifier, version 4. Thread-safe. Stops the process if the system has no random numbers.
    [[nodiscard]] static UUID random();

    /// Reads the canonical form of 36 characters, in either case; anything else gives nothing.
    [[nodiscard]] static std::optional<UUID> fromText(std::string_view text) noexcept;

    /// The canonical text, in upper case: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
    [[nodiscard]] std::string text() const;

    friend auto operator<=>(const UUID&, const UUID&) = default;
};

}  // namespace quillmere

template <>
struct std::hash<quillmere::UUID> {
    std::size_t operator()(const quillmere::UUID& id) const noexcept;
};
