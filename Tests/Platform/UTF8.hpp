#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::test {

/// Scalars, or surrogates and values beyond Unicode where a test wants them, in the bit patterns of UTF-8.
[[nodiscard]] inline std::string utf8(const std::vector<std::uint32_t>& scalars) {
    std::string text;
    const auto put = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
    const auto putContinued = [&](std::uint32_t bits) { put(0x80 | (bits & 0x3F)); };
    for (const auto scalar : scalars) {
        if (scalar < 0x80) {
            put(scalar);
        } else if (scalar < 0x800) {
            put(0xC0 | scalar >> 6), putContinued(scalar);
        } else if (scalar < 0x10000) {
            put(0xE0 | scalar >> 12), putContinued(scalar >> 6), putContinued(scalar);
        } else {
            put(0xF0 | scalar >> 18), putContinued(scalar >> 12), putContinued(scalar >> 6), putContinued(scalar);
        }
    }
    return text;
}

/// Whether `text` is UTF-8, found out in the slowest and plainest way: each sequence is decoded by its bit pattern and
/// must be what encoding its scalar gives.
[[nodiscard]] inline bool isUTF8ByReference(std::string_view text) {
    for (std::size_t place = 0; place < text.size();) {
        const auto lead = static_cast<unsigned char>(text[place]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xC0 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if (length == 0 || lead >= 0xF8 || place + length > text.size()) return false;
        std::uint32_t scalar = length == 1 ? lead : lead & (0x7FU >> length);
        for (std::size_t index = 1; index < length; ++index) {
            scalar = scalar << 6 | (static_cast<unsigned char>(text[place + index]) & 0x3FU);
        }
        if (scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) return false;
        if (utf8({scalar}) != text.substr(place, length)) return false;
        place += length;
    }
    return true;
}

/// Sequences of four bytes from those values at which the rules of UTF-8 change, for a first byte and for later ones.
template <class Check>
void forEachByteSequence(Check check) {
    constexpr unsigned char firstBytes[] = {0x00, 'a',  0x7F, 0x80, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1,
                                            0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF8, 0xFF};
    constexpr unsigned char laterBytes[] = {'a', 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC2};
    for (const auto first : firstBytes) {
        for (const auto second : laterBytes) {
            for (const auto third : laterBytes) {
                for (const auto fourth : laterBytes) {
                    const unsigned char sequence[] = {first, second, third, fourth};
                    check(std::string(sequence, sequence + 4));
                }
            }
        }
    }
}

}  // namespace quillmere::test
