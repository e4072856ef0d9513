#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

/// The one table of a closed enumeration: a row per case, in case order, with its raw value and texts.
///
/// A row type has the members `value` (the case) and `raw` (its raw value) and whatever texts the
/// enumeration has. Every enumeration `E` that is stored or shown specialises `enumTable<E>`:
///
///     struct AnchorRow { Anchor value; std::string_view raw; std::string_view label; };
///     template <> inline constexpr auto enumTable<Anchor> = EnumTable<AnchorRow, 2>{{{ ... }}};
///
/// Cases are numbered from 0 in row order; a static_assert on `isInCaseOrder()` holds that.
template <class Row, std::size_t Count>
struct EnumTable {
    /// The enumeration.
    using Case = decltype(Row::value);

    /// The rows, in case order.
    std::array<Row, Count> rows;

    /// The row of a case.
    [[nodiscard]] constexpr const Row& operator[](Case value) const noexcept {
        return rows[static_cast<std::size_t>(value)];
    }
    /// Whether each row stands at its case's place.
    [[nodiscard]] constexpr bool isInCaseOrder() const noexcept {
        for (std::size_t i = 0; i < Count; ++i) {
            if (static_cast<std::size_t>(rows[i].value) != i) return false;
        }
        return true;
    }
};

/// The table of `E`; specialised beside each enumeration.
template <class E>
inline constexpr auto enumTable = nullptr;

/// All cases of `E`, in declaration order.
template <class E>
[[nodiscard]] constexpr auto allCases() noexcept {
    std::array<E, enumTable<E>.rows.size()> cases{};
    for (std::size_t i = 0; i < cases.size(); ++i) cases[i] = enumTable<E>.rows[i].value;
    return cases;
}

/// The text by which a case is stored.
template <class E>
[[nodiscard]] constexpr std::string_view rawValue(E value) noexcept {
    return enumTable<E>[value].raw;
}

/// The case with exactly this raw value, or nothing.
template <class E>
[[nodiscard]] constexpr std::optional<E> fromRawValue(std::string_view raw) noexcept {
    for (const auto& row : enumTable<E>.rows) {
        if (row.raw == raw) return row.value;
    }
    return std::nullopt;
}

/// Reads a case from a JSON string. Throws `JSONError` for any other text or type.
template <class E>
[[nodiscard]] E decodeRawValue(const JSONValue& value) {
    const std::string_view raw = value.string();
    if (const auto found = fromRawValue<E>(raw)) return *found;
    throw JSONError("unknown value \"" + std::string(raw) + "\"");
}

}  // namespace quillmere
