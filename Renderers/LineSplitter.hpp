#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere {

/// Cuts a stream of bytes into lines, in bounded memory: a line longer than the limit is skipped to its end, as if it
/// had not been there. Not thread-safe.
class LineSplitter {
public:
    /// `limit`: the most bytes of a line, its end not counted.
    explicit LineSplitter(std::size_t limit) : limit_(limit) {}

    /// Takes the next bytes and calls `take` with each line that they end, without its line feed. The view ends
    /// with the call. An exception from `take` passes through; the rest of `bytes` is then lost.
    template <class Take>
    void append(std::string_view bytes, Take&& take) {
        while (!bytes.empty()) {
            const auto end = bytes.find('\n');
            const auto part = bytes.substr(0, end);
            const bool fits = !isSkipping_ && part.size() <= limit_ - line_.size();
            if (end == std::string_view::npos) {
                if (fits) {
                    line_ += part;
                } else {
                    skip();
                }
                return;
            }
            bytes.remove_prefix(end + 1);
            if (!fits) {
                line_.clear();
            } else if (line_.empty()) {
                take(part);
            } else {
                line_ += part;
                const std::string whole = std::exchange(line_, {});
                take(std::string_view(whole));
            }
            isSkipping_ = false;
        }
    }

    /// The stream has ended: a last line without a line feed is a line too.
    template <class Take>
    void finish(Take&& take) {
        const std::string last = std::exchange(line_, {});
        isSkipping_ = false;
        if (!last.empty()) take(std::string_view(last));
    }

private:
    void skip() noexcept {
        line_.clear();
        isSkipping_ = true;
    }

    const std::size_t limit_;
    std::string line_;  // the beginning of the line that has not ended
    bool isSkipping_ = false;
};

}  // namespace quillmere
