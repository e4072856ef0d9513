#include "App/Terminal.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere::app {
namespace {

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0.
std::size_t sequenceLength(std::string_view text) {
    for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
        if (isValidUTF8(text.substr(0, length))) return length;
    }
    return 0;
}

std::uint32_t scalar(std::string_view sequence) {
    const auto byte = [&](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(sequence[i]));
    };
    switch (sequence.size()) {
        case 1: return byte(0);
        case 2: return (byte(0) & 0x1f) << 6 | (byte(1) & 0x3f);
        case 3: return (byte(0) & 0x0f) << 12 | (byte(1) & 0x3f) << 6 | (byte(2) & 0x3f);
        default: return (byte(0) & 0x07) << 18 | (byte(1) & 0x3f) << 12 | (byte(2) & 0x3f) << 6 | (byte(3) & 0x3f);
    }
}

// What may change how a terminal shows the text around it.
bool isUnsafe(std::uint32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0) ||  // C0, delete, C1
           character == 0x00ad || character == 0x061c ||                   // soft hyphen, Arabic letter mark
           (character >= 0x200b && character <= 0x200f) ||                 // zero width, direction marks
           (character >= 0x2028 && character <= 0x202e) ||                 // separators, embeddings
           (character >= 0x2060 && character <= 0x206f) ||                 // invisible operators, isolates
           character == 0xfeff || (character >= 0xfff9 && character <= 0xfffb) ||
           (character >= 0xe0000 && character <= 0xe007f);  // tags
}

int columns() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

std::string safeForTerminal(std::string_view text) {
    std::string safe;
    safe.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        const std::string_view sequence = text.substr(0, std::max<std::size_t>(length, 1));
        if (length == 0 || isUnsafe(scalar(sequence))) {
            safe += sequence == "\n" || sequence == "\t" ? " " : "\xEF\xBF\xBD";
        } else {
            safe += sequence;
        }
        text.remove_prefix(sequence.size());
    }
    return safe;
}

std::string safeJSON(std::string_view json) {
    std::string safe;
    safe.reserve(json.size());
    while (!json.empty()) {
        const std::size_t length = std::max<std::size_t>(sequenceLength(json), 1);
        const std::uint32_t character = scalar(json.substr(0, length));
        // A line end can only stand between values: inside texts the writer has escaped it.
        if (character == '\n' || !isUnsafe(character)) {
            safe += json.substr(0, length);
        } else {
            char escape[16];
            if (character <= 0xffff) {
                std::snprintf(escape, sizeof escape, "\\u%04x", character);
            } else {
                const std::uint32_t rest = character - 0x10000;
                std::snprintf(escape, sizeof escape, "\\u%04x\\u%04x", 0xd800 + (rest >> 10), 0xdc00 + (rest & 0x3ff));
            }
            safe += escape;
        }
        json.remove_prefix(length);
    }
    return safe;
}

ProgressLine::ProgressLine() : isTerminal_(isatty(STDERR_FILENO) == 1) {}

ProgressLine::~ProgressLine() { clear(); }

void ProgressLine::show(std::string_view text, double fraction) {
    if (!isTerminal_) {
        if (text == lastText_) return;
        lastText_ = text;
        std::fprintf(stderr, "%s\n", lastText_.c_str());
        return;
    }
    constexpr int barWidth = 24;
    const double share = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0;
    const int filled = static_cast<int>(std::lround(share * barWidth));
    std::string line = "[";
    for (int i = 0; i < barWidth; ++i) line += i < filled ? "█" : "·";
    char percent[16];
    std::snprintf(percent, sizeof percent, "] %3d%% ", static_cast<int>(share * 100));
    line += percent;
    // The texts are one column a character; a terminal too narrow for the text shows the bar alone.
    if (columns() > barWidth + 8 + static_cast<int>(text.size())) line += text;
    std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
    std::fflush(stderr);
    isShown_ = true;
}

void ProgressLine::clear() {
    if (!isShown_) return;
    std::fprintf(stderr, "\r\x1b[K");
    std::fflush(stderr);
    isShown_ = false;
}

}  // namespace quillmere::app
