#pragma once

#include <string>
#include <string_view>

namespace quillmere::app {

/// `text` as it may go to a terminal: control characters, invisible direction marks and bytes that are no UTF-8 are
/// replaced, so that text from a file can neither move the cursor nor pretend to be something else.
[[nodiscard]] std::string safeForTerminal(std::string_view text);

/// JSON as it may go to a terminal: what `safeForTerminal` would replace is escaped (`\u009b`), which means the same to
/// every reader.
[[nodiscard]] std::string safeJSON(std::string_view json);

/// One line at the bottom of a terminal that is drawn over and over: a bar and a text. On anything but a
/// terminal every new text is a plain line of its own. Not thread-safe.
class ProgressLine {
public:
    /// Draws on standard error where that is a terminal.
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Shows `text` and, where it is known (0...1), how far the work is.
    void show(std::string_view text, double fraction);

    /// Removes the line, so that ordinary output can follow.
    void clear();

private:
    bool isTerminal_;
    bool isShown_ = false;
    std::string lastText_;
};

}  // namespace quillmere::app
