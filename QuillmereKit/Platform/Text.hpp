#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// `text` without the Unicode white-space and newline characters at its ends. Malformed UTF-8 is kept as it is.
[[nodiscard]] std::string_view trimmed(std::string_view text) noexcept;

/// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
[[nodiscard]] bool isValidUTF8(std::string_view text) noexcept;

/// Whether every user-perceived character (extended grapheme cluster, UAX #29) of `text` is a Unicode
/// letter or digit or "-". A cluster is a letter or digit when its first scalar is of the general categories L or N;
/// "-" counts only without marks. False for text that is not UTF-8; true for the empty text.
[[nodiscard]] bool consistsOfLettersDigitsAndHyphens(std::string_view text);

/// A whole text of one or more ASCII digits as a number, leading zeros allowed; nothing for any other
/// text and for values beyond 64 bits signed.
[[nodiscard]] std::optional<std::int64_t> decimalInteger(std::string_view text) noexcept;

}  // namespace quillmere
