#include "QuillmereKit/Platform/UUID.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

constexpr bool hasHyphenBefore(std::size_t byte) { return byte == 4 || byte == 6 || byte == 8 || byte == 10; }

constexpr int digitValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

}  // namespace

UUID UUID::random() {
    UUID id;
    ssize_t count = 0;
    do {
        count = ::getrandom(id.bytes.data(), id.bytes.size(), 0);  // up to 256 bytes come whole
    } while (count < 0 && errno == EINTR);
    if (count != static_cast<ssize_t>(id.bytes.size())) fatalError("The system gives no random numbers.");
    id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x40);  // RFC 9562, section 5.4: version 4,
    id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80);  // variant 0b10
    return id;
}

std::optional<UUID> UUID::fromText(std::string_view text) noexcept {
    constexpr std::size_t length = 36;
    if (text.size() != length) return std::nullopt;
    UUID id;
    std::size_t place = 0;
    for (std::size_t byte = 0; byte < id.bytes.size(); ++byte) {
        if (hasHyphenBefore(byte) && text[place++] != '-') return std::nullopt;
        const int high = digitValue(text[place++]);
        const int low = digitValue(text[place++]);
        if (high < 0 || low < 0) return std::nullopt;
        id.bytes[byte] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return id;
}

std::string UUID::text() const {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t byte = 0; byte < bytes.size(); ++byte) {
        if (hasHyphenBefore(byte)) text += '-';
        text += digits[bytes[byte] >> 4];
        text += digits[bytes[byte] & 0x0F];
    }
    return text;
}

}  // namespace quillmere

std::size_t std::hash<quillmere::UUID>::operator()(const quillmere::UUID& id) const noexcept {
    std::array<std::size_t, 2> halves;
    static_assert(sizeof(halves) == sizeof(id.bytes));
    std::memcpy(halves.data(), id.bytes.data(), sizeof(halves));
    return quillmere::Hasher{}.add(halves[0]).add(halves[1]).value();
}
