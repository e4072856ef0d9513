#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

class JSONValue;
struct JSONTape;  // the parser's result, kept out of this header

/// Reads a `T` from a JSON value. Each type that has a JSON form specialises it beside its source:
/// `template <> BlendStep decode<BlendStep>(const JSONValue& value);`
/// Throws `JSONError` naming the key path below `value` if the value does not hold a `T`.
template <class T>
T decode(const JSONValue& value);

template <>
bool decode<bool>(const JSONValue& value);
template <>
std::int64_t decode<std::int64_t>(const JSONValue& value);
template <>
double decode<double>(const JSONValue& value);
template <>
std::string decode<std::string>(const JSONValue& value);

/// Reads a value over another one of its type, as `decode` would: whoever reads thousands lets each text use the room
/// of the one before. A type may have an overload that passes this on to its members. If it throws, `into` holds any
/// value.
template <class T>
void decodeInto(const JSONValue& value, T& into);
void decodeInto(const JSONValue& value, std::string& into);

/// One value inside a parsed `JSONDocument`: cheap to copy, valid as long as the document lives.
///
/// Typed access throws `JSONError` when the value is of another type: a boolean is not a number and a
/// number is not text; 2.0 and 1e2 are integers, 2.5 and 2^63 are not; for a double any number in
/// its range will do. Of a key given twice the first counts. Not bound to a thread.
class JSONValue {
public:
    /// Whether the value is null.
    [[nodiscard]] bool isNull() const noexcept;
    /// Whether the value is an object.
    [[nodiscard]] bool isObject() const noexcept;
    /// Whether the value is an array.
    [[nodiscard]] bool isArray() const noexcept;
    /// Whether the value is a text.
    [[nodiscard]] bool isString() const noexcept;

    /// The truth value.
    [[nodiscard]] bool boolean() const;
    /// The number, which must be whole and within 64 bits.
    [[nodiscard]] std::int64_t integer() const;
    /// The number, rounded to the nearest double.
    [[nodiscard]] double number() const;
    /// The text, valid UTF-8, may hold U+0000; lives as long as the document.
    [[nodiscard]] std::string_view string() const;

    /// The member of an object with exactly this key, or nothing. Throws if this is not an object.
    [[nodiscard]] std::optional<JSONValue> find(std::string_view key) const;

    /// A required member. Throws if it is missing, null or not a `T`; the error names the key path.
    template <class T>
    [[nodiscard]] T member(std::string_view key) const;

    /// An optional member: nothing when the key is missing or its value null; else as `member`.
    template <class T>
    [[nodiscard]] std::optional<T> optionalMember(std::string_view key) const;

    /// Calls `visit` with each element of an array in turn. Throws if this is not an array; a `JSONError` of `visit`
    /// goes on with the index named.
    template <class Visit>
    void forEachElement(const Visit& visit) const;

    /// Every element of an array, read as `T`. Throws if this is not an array; errors name the index.
    template <class T>
    [[nodiscard]] std::vector<T> elements() const;

    /// The elements of an array as they are. Throws if this is not an array.
    [[nodiscard]] std::vector<JSONValue> elements() const;

    /// The members of an object in the text's order, keys given twice included. Throws if not an object.
    [[nodiscard]] std::vector<std::pair<std::string_view, JSONValue>> members() const;

    /// The value written again as compact JSON in its own key order: what a caller keeps of a value it does not know.
    /// Numbers that neither 64 bits nor a double can hold keep their own text.
    [[nodiscard]] std::string text() const;

private:
    friend class JSONDocument;
    friend class JSONMembers;
    friend struct JSONTape;
    JSONValue(const JSONTape* tape, std::size_t index) noexcept : tape_(tape), index_(index) {}

    /// One run over an array's elements: the first, the next of each, and for how many to make room.
    struct Elements {
        std::size_t begin;
        std::size_t end;
        std::size_t count;
    };
    [[nodiscard]] Elements elementRange() const;
    [[nodiscard]] std::size_t nextIndex() const noexcept;
    template <class T>
    [[nodiscard]] T as() const;

    const JSONTape* tape_;
    std::size_t index_;
};

/// Reads the members of an object one after another: the quick way where keys are asked for in the order in which they
/// mostly stand; any other order gives the same. Each key may be asked for once. Lives no longer than the document.
class JSONMembers {
public:
    /// Throws `JSONError` if `value` is not an object.
    explicit JSONMembers(const JSONValue& value);

    /// A required member, read by `decodeInto`. Throws as `JSONValue::member` does.
    template <class T>
    void read(std::string_view key, T& into);

    /// An optional member, read by `decodeInto`. Throws as `JSONValue::optionalMember` does.
    template <class T>
    void readOptional(std::string_view key, std::optional<T>& into);

private:
    [[nodiscard]] std::optional<JSONValue> find(std::string_view key);

    const JSONTape* tape_;
    std::size_t next_;  // all members before it have been asked for
    std::size_t last_;
};

/// A parsed JSON text.
///
/// Takes strict JSON: UTF-8 only (a byte order mark before it is skipped), no text after the value,
/// no lone surrogate escapes, at least 512 levels deep, and no recursion while parsing. Numbers of
/// any size may stand where nobody asks for them. Movable; owns all text handed out.
class JSONDocument {
public:
    /// Throws `JSONError` if `text` is not JSON, is nested deeper than 1,023 levels (an empty object or array at the
    /// bottom not counted) or beyond 4 GiB. Takes time in proportion to the text's length, and up to 16 bytes of memory
    /// for each of the text while it runs; less than 1 for a text of more than 64 MiB that is nested too deep.
    [[nodiscard]] static JSONDocument parse(std::string_view text);

    /// The same for a text that nobody needs any more: it is parsed where it stands, without a copy if it has room for
    /// `roomBehind` bytes more.
    [[nodiscard]] static JSONDocument parseInPlace(std::string text);
    static constexpr std::size_t roomBehind = 64;  ///< What the parser may read beyond the end of a text.

    /// Reads and parses a regular file of at most `limit` bytes. Throws `FileError` or `JSONError`. Blocks on disk.
    [[nodiscard]] static JSONDocument read(const std::filesystem::path& file, std::size_t limit);

    JSONDocument(JSONDocument&&) noexcept;
    JSONDocument& operator=(JSONDocument&&) noexcept;
    ~JSONDocument();

    /// The whole text's value.
    [[nodiscard]] JSONValue root() const noexcept;

private:
    [[nodiscard]] static JSONDocument parseNested(std::string text);
    explicit JSONDocument(std::unique_ptr<JSONTape> tape) noexcept;
    std::unique_ptr<JSONTape> tape_;
};

/// Reads a whole text as one `T`. Throws `JSONError`.
template <class T>
[[nodiscard]] T decodeJSON(std::string_view text) {
    return decode<T>(JSONDocument::parse(text).root());
}

namespace implementation {
template <class T>
inline constexpr bool isVector = false;
template <class T>
inline constexpr bool isVector<std::vector<T>> = true;
}  // namespace implementation

template <class T>
T JSONValue::as() const {
    if constexpr (implementation::isVector<T>) {
        return elements<typename T::value_type>();
    } else {
        return decode<T>(*this);
    }
}

template <class T>
T JSONValue::member(std::string_view key) const {
    const auto found = find(key);
    if (!found) throw JSONError("is missing").inMember(key);
    try {
        return found->template as<T>();
    } catch (const JSONError& error) {
        throw error.inMember(key);
    }
}

template <class T>
std::optional<T> JSONValue::optionalMember(std::string_view key) const {
    const auto found = find(key);
    if (!found || found->isNull()) return std::nullopt;
    try {
        return found->template as<T>();
    } catch (const JSONError& error) {
        throw error.inMember(key);
    }
}

template <class T>
void decodeInto(const JSONValue& value, T& into) {
    into = decode<T>(value);
}

template <class T>
void JSONMembers::read(std::string_view key, T& into) {
    const auto found = find(key);
    if (!found) throw JSONError("is missing").inMember(key);
    try {
        decodeInto(*found, into);
    } catch (const JSONError& error) {
        throw error.inMember(key);
    }
}

template <class T>
void JSONMembers::readOptional(std::string_view key, std::optional<T>& into) {
    const auto found = find(key);
    if (!found || found->isNull()) {
        into.reset();
        return;
    }
    try {
        if (into) {
            decodeInto(*found, *into);
        } else {
            into = decode<T>(*found);
        }
    } catch (const JSONError& error) {
        throw error.inMember(key);
    }
}

template <class Visit>
void JSONValue::forEachElement(const Visit& visit) const {
    const auto range = elementRange();
    std::size_t ordinal = 0;
    for (JSONValue element(tape_, range.begin); element.index_ != range.end; element.index_ = element.nextIndex()) {
        try {
            visit(std::as_const(element));
        } catch (const JSONError& error) {
            throw error.inElement(ordinal);
        }
        ++ordinal;
    }
}

template <class T>
std::vector<T> JSONValue::elements() const {
    std::vector<T> result;
    result.reserve(elementRange().count);
    forEachElement([&](const JSONValue& element) { result.push_back(element.template as<T>()); });
    return result;
}

}  // namespace quillmere
