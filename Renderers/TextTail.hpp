#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillmere {

/// Keeps the last bytes of a stream, and shows them as text that can stand in a message. Not thread-safe.
class TextTail {
public:
    explicit TextTail(std::size_t limit) : limit_(limit) {}

    void append(std::string_view bytes);

    /// The tail as UTF-8: bytes that are none became U+FFFD; control characters are gone, except that lines stay lines
    /// and tabs became blanks; without white space at its ends.
    [[nodiscard]] std::string text() const;

private:
    const std::size_t limit_;
    std::string bytes_;   // at most twice the limit
    bool isCut_ = false;  // whether more than the limit came; then the limit at least is there
};

}  // namespace quillmere
