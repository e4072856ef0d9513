#include "Renderers/TextTail.hpp"

#include <algorithm>

#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";  // U+FFFD

/// The well-formed UTF-8 character at the beginning of `text`, or nothing.
std::string_view firstCharacter(std::string_view text) {
    constexpr std::size_t longest = 4;
    for (std::size_t size = 1; size <= std::min(longest, text.size()); ++size) {
        if (isValidUTF8(text.substr(0, size))) return text.substr(0, size);
    }
    return {};
}

bool isControl(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    // C0 and delete, and as two bytes C1.
    if (character.size() == 1) return first < 0x20 || first == 0x7F;
    return character.size() == 2 && first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

}  // namespace

void TextTail::append(std::string_view bytes) {
    isCut_ = isCut_ || bytes_.size() + bytes.size() > limit_;
    if (bytes.size() > limit_) bytes.remove_prefix(bytes.size() - limit_);
    bytes_ += bytes;
    if (bytes_.size() > 2 * limit_) bytes_.erase(0, bytes_.size() - limit_);
}

std::string TextTail::text() const {
    std::string_view rest = bytes_;
    if (isCut_) {
        rest.remove_prefix(rest.size() - limit_);
        // The cut may have gone through a character.
        for (int count = 0; count < 3 && !rest.empty() && isContinuation(rest.front()); ++count) rest.remove_prefix(1);
    }
    std::string text;
    while (!rest.empty()) {
        const auto character = firstCharacter(rest);
        if (character.empty()) {
            text += replacement;
            rest.remove_prefix(1);
            continue;
        }
        if (character == "\t") {
            text += ' ';
        } else if (character == "\n" || !isControl(character)) {
            text += character;
        }
        rest.remove_prefix(character.size());
    }
    return std::string(trimmed(text));
}

}  // namespace quillmere
