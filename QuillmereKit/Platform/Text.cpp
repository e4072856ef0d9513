#include "QuillmereKit/Platform/Text.hpp"

#include <utf8proc.h>

#include <bit>
#include <charconv>
#include <cstring>

namespace quillmere {
namespace {

/// One scalar at the start of a text; `length` is 0 where no well-formed sequence begins.
struct Scalar {
    char32_t value = 0;
    std::size_t length = 0;
};

/// The Unicode Standard, table 3-7: what may follow a first byte.
Scalar firstScalar(std::string_view text) noexcept {
    const auto byte = [&](std::size_t index) -> char32_t {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;  // 0 continues nothing
    };
    const auto continues = [&](std::size_t index) { return (byte(index) & 0xC0) == 0x80; };
    const char32_t first = byte(0);
    if (text.empty()) return {};
    if (first < 0x80) return {first, 1};
    if (first < 0xC2 || first > 0xF4 || !continues(1)) return {};
    if (first < 0xE0) return {(first & 0x1F) << 6 | (byte(1) & 0x3F), 2};
    if (!continues(2)) return {};
    if (first < 0xF0) {
        const char32_t value = (first & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
        const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
        return value < 0x800 || isSurrogate ? Scalar{} : Scalar{value, 3};
    }
    if (!continues(3)) return {};
    const char32_t value = (first & 0x07) << 18 | (byte(1) & 0x3F) << 12 | (byte(2) & 0x3F) << 6 | (byte(3) & 0x3F);
    return value < 0x10000 || value > 0x10FFFF ? Scalar{} : Scalar{value, 4};
}

/// The last scalar of a text, by stepping back over at most three continuation bytes.
Scalar lastScalar(std::string_view text) noexcept {
    for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
        const auto tail = text.substr(text.size() - length);
        if ((static_cast<unsigned char>(tail.front()) & 0xC0) == 0x80) continue;
        const Scalar scalar = firstScalar(tail);
        return scalar.length == length ? scalar : Scalar{};
    }
    return {};
}

/// The property White_Space of the Unicode Character Database (PropList.txt).
bool isBlank(char32_t scalar) noexcept {
    return (scalar >= 0x09 && scalar <= 0x0D) || scalar == 0x20 || scalar == 0x85 || scalar == 0xA0 ||
           scalar == 0x1680 || (scalar >= 0x2000 && scalar <= 0x200A) || scalar == 0x2028 || scalar == 0x2029 ||
           scalar == 0x202F || scalar == 0x205F || scalar == 0x3000;
}

bool isLetterOrDigit(char32_t scalar) noexcept {
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(scalar))) {
        case UTF8PROC_CATEGORY_LU:
        case UTF8PROC_CATEGORY_LL:
        case UTF8PROC_CATEGORY_LT:
        case UTF8PROC_CATEGORY_LM:
        case UTF8PROC_CATEGORY_LO:
        case UTF8PROC_CATEGORY_ND:
        case UTF8PROC_CATEGORY_NL:
        case UTF8PROC_CATEGORY_NO: return true;
        default: return false;
    }
}

}  // namespace

std::string_view trimmed(std::string_view text) noexcept {
    for (Scalar first = firstScalar(text); first.length > 0 && isBlank(first.value); first = firstScalar(text)) {
        text.remove_prefix(first.length);
    }
    for (Scalar last = lastScalar(text); last.length > 0 && isBlank(last.value); last = lastScalar(text)) {
        text.remove_suffix(last.length);
    }
    return text;
}

bool isValidUTF8(std::string_view text) noexcept {
    while (!text.empty()) {
        if (text.size() >= sizeof(std::uint64_t)) {
            std::uint64_t eight = 0;
            std::memcpy(&eight, text.data(), sizeof(eight));
            if ((eight & 0x8080808080808080) == 0) {
                text.remove_prefix(sizeof(eight));
                continue;
            }
        }
        const auto length = firstScalar(text).length;
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

bool consistsOfLettersDigitsAndHyphens(std::string_view text) {
    // A cluster is what its first scalar is: marks and joiners after it change how it looks, not what it is.
    // Only the hyphen must stand alone.
    utf8proc_int32_t state = 0;
    char32_t before = 0;
    bool isFirst = true;
    while (!text.empty()) {
        const auto [scalar, length] = firstScalar(text);
        if (length == 0) return false;
        text.remove_prefix(length);
        const bool begins = isFirst || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(before),
                                                                        static_cast<utf8proc_int32_t>(scalar), &state);
        if (begins ? scalar != U'-' && !isLetterOrDigit(scalar) : before == U'-') return false;
        before = scalar;
        isFirst = false;
    }
    return true;
}

std::optional<std::int64_t> decimalInteger(std::string_view text) noexcept {
    if (text.empty() || text.front() == '-') return std::nullopt;
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace quillmere
