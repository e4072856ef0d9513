#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace quillmere {

/// A writer setting that travels with the writer to the types that look for it.
using JSONSetting = std::variant<bool, std::int64_t, double, std::string>;

/// The settings of one write, by key.
using JSONUserInfo = std::map<std::string, JSONSetting, std::less<>>;

/// The key under which the truth value true makes writers leave out fields that only older readers
/// need ("lively" of a mood specification, "eventfulness" of a quality record). A missing entry,
/// another value or another type keeps them.
inline constexpr std::string_view omitLegacyMusicFields = "Quillmere.omitLegacyMusicFields";

/// The key of a member. One that stands in the source is known while compiling to need no escape, so that writing it is
/// one copy. Refers to its text.
class JSONKey {
public:
    /// A key that stands in the source: printable ASCII without `"`, `\` and `/`; anything else does not compile.
    template <std::size_t size>
    consteval JSONKey(const char (&literal)[size]) : text_(literal, size - 1), isPlain_(true) {
        for (const char c : text_) {
            if (c < ' ' || c > '~' || c == '"' || c == '\\' || c == '/') throw "such a key has to be escaped";
        }
    }

    /// Any other text.
    template <std::convertible_to<std::string_view> Text>
    JSONKey(const Text& text) noexcept : text_(text) {}

    /// The key, unescaped.
    [[nodiscard]] std::string_view text() const noexcept { return text_; }
    /// Whether it is known to be written as it is.
    [[nodiscard]] constexpr bool isPlain() const noexcept { return isPlain_; }

private:
    std::string_view text_;
    bool isPlain_ = false;
};

/// Writes JSON in the one text form that all files of the library have, byte for byte.
///
/// Strings: `"` and `\` escaped, `/` as `\/`, `\b \t \n \f \r` by letter, other characters below
/// U+0020 as `\u00xx` in lower case, all else raw UTF-8. Doubles: the shortest digits that read back
/// equal; plain decimal from 1e-4 up to and including 2^53 in size (120.0 is `120`, negative zero
/// `-0`), outside it as in `1.5e-05`, `1e+16`. A value type, not thread-safe.
///
/// Calls must nest properly; a call out of order stops the process. A call that throws
/// `EncodingError` leaves the writer as it was before.
class JSONWriter {
public:
    /// How keys are ordered and lines broken.
    enum class Form {
        compact,  ///< No blanks, keys in the order they are written.
        sorted,   ///< No blanks, keys in byte order at every level.
        pretty,   ///< Keys in byte order, a line for each member and element, two blanks a level, `"key" : value`.
    };

    /// An empty writer; `userInfo` travels with it to the types that look for settings.
    explicit JSONWriter(Form form, JSONUserInfo userInfo = {});

    /// Begins an object as the next value.
    void beginObject();
    /// Ends the innermost object.
    void endObject();
    /// Begins an array as the next value.
    void beginArray();
    /// Ends the innermost array.
    void endArray();

    /// The key of the next value of the object. Throws `EncodingError` if it is not UTF-8.
    void key(JSONKey key) { key.isPlain() && form_ == Form::compact ? plainKey(key.text()) : anyKey(key.text()); }

    /// Throws `EncodingError` if `text` is not UTF-8.
    void string(std::string_view text);
    /// A whole number.
    void integer(std::int64_t value);
    /// A whole number that is not negative.
    void unsignedInteger(std::uint64_t value);
    /// Throws `EncodingError` if `value` is not finite.
    void number(double value);
    /// A truth value.
    void boolean(bool value);

    /// A value that is already JSON in this writer's form, at the writer's present level.
    void raw(std::string_view json);

    /// One member: its key, then its value through `encode`.
    template <class T>
    void member(JSONKey name, const T& value) {
        key(name);
        encode(*this, value);
    }
    /// One member that is left out when absent.
    template <class T>
    void member(JSONKey name, const std::optional<T>& value) {
        if (value) member(name, *value);
    }
    /// An array, each element through `encode`.
    template <class T>
    void array(const std::vector<T>& values) {
        beginArray();
        for (const auto& value : values) encode(*this, value);
        endArray();
    }

    /// True when `key` is set to the truth value true.
    [[nodiscard]] bool isSet(std::string_view key) const;

    /// The text so far, until the next call. Whole when every object and array was ended.
    [[nodiscard]] std::string_view text() const noexcept { return {text_.data(), size_}; }

    /// The whole text. Every object and array must have been ended. The writer starts afresh.
    [[nodiscard]] std::string take();

    /// Begins anew, whatever was written so far, and keeps the room for it.
    void clear() noexcept;

private:
    /// What may come next.
    enum class Expected : std::uint8_t { value, firstKey, nextKey, firstElement, nextElement, nothing };

    /// An object or array that is not ended, or the whole text. Never changed while it is the innermost.
    struct Level {
        std::size_t firstMember = 0;  // in members_
        std::size_t firstKey = 0;     // in keys_
        Expected afterValue = Expected::nothing;
    };

    /// Where a member of an object that is not ended stands, for putting the keys in order.
    struct Member {
        std::size_t key;  // in keys_
        std::size_t keyLength;
        std::size_t start;  // in text_
        std::size_t end;
    };

    [[nodiscard]] char* reserve(std::size_t count) {
        if (text_.size() - size_ < count) [[unlikely]] {
            grow(count);
        }
        return text_.data() + size_;
    }
    void require(bool isInOrder) const noexcept {
        if (!isInOrder) [[unlikely]] {
            failOrder();
        }
    }
    [[noreturn]] static void failOrder() noexcept;
    [[nodiscard]] bool isKeyNext() const noexcept {
        return expected_ == Expected::firstKey || expected_ == Expected::nextKey;
    }
    void plainKey(std::string_view key);
    void anyKey(std::string_view key);
    void grow(std::size_t count);
    void beginValue();
    void endValue() noexcept;
    void growLevels();
    void begin(Expected first, Expected afterValue, char bracket);
    void end(Expected first, Expected afterValue, char bracket);
    void separate();
    void appendLineStart(std::size_t level);
    void append(std::string_view text);
    [[nodiscard]] char* quote(std::string_view text);
    [[nodiscard]] char* escape(const char* in, std::size_t left, char* out);
    void sortMembers();

    Form form_;
    Expected expected_ = Expected::value;
    JSONUserInfo userInfo_;
    std::string text_;  // longer than what is written, so that room need not be looked for at each call
    std::size_t size_ = 0;
    Level level_;                  // the innermost
    std::size_t depth_ = 0;        // how many are around it
    std::vector<Level> outer_;     // those, and room for more
    std::vector<Member> members_;  // of all objects that are not ended, in the forms with keys in order
    std::string keys_;             // their keys, unescaped
    std::string scratch_;
};

// The length of a key is a constant where this is inlined: no call copies it.
inline void JSONWriter::plainKey(std::string_view key) {
    constexpr std::size_t around = 4;  // a comma, two quotes and a colon
    require(isKeyNext());
    const std::size_t comma = expected_ == Expected::nextKey ? 1 : 0;
    char* out = reserve(key.size() + around);
    *out = ',';
    out += comma;
    *out = '"';
    std::memcpy(out + 1, key.data(), key.size());
    std::memcpy(out + 1 + key.size(), "\":", 2);
    size_ += comma + key.size() + 3;
    expected_ = Expected::value;
}

inline void encode(JSONWriter& writer, const std::string& value) { writer.string(value); }
inline void encode(JSONWriter& writer, std::string_view value) { writer.string(value); }
inline void encode(JSONWriter& writer, const char* value) { writer.string(value); }
inline void encode(JSONWriter& writer, std::int64_t value) { writer.integer(value); }
inline void encode(JSONWriter& writer, int value) { writer.integer(value); }
inline void encode(JSONWriter& writer, double value) { writer.number(value); }
inline void encode(JSONWriter& writer, bool value) { writer.boolean(value); }
template <class T>
void encode(JSONWriter& writer, const std::vector<T>& values) {
    writer.array(values);
}

/// A whole value as JSON text. Throws `EncodingError`.
template <class T>
[[nodiscard]] std::string encodeJSON(const T& value, JSONWriter::Form form, JSONUserInfo userInfo = {}) {
    JSONWriter writer(form, std::move(userInfo));
    encode(writer, value);
    return writer.take();
}

}  // namespace quillmere
