#pragma once

#include <string>
#include <string_view>

#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::fuzz {

/// What was read can be written, in either form, and is then read as the same value, which is written as the same text.
template <class T>
void requireRoundTrip(const T& value) {
    for (const auto form : {JSONWriter::Form::compact, JSONWriter::Form::pretty}) {
        const std::string written = encodeJSON(value, form);
        const T again = decodeJSON<T>(written);
        require(again == value, "what was written is read as the same value");
        require(encodeJSON(again, form) == written, "the same value is written as the same text");
    }
}

/// Reads a value as a `T`. What is one goes the round trip; anything else is a `JSONError`.
template <class T>
void roundTripOrError(const JSONValue& value) {
    try {
        requireRoundTrip(decode<T>(value));
    } catch (const JSONError& error) {
        require(!std::string_view(error.what()).empty(), "an error says what is wrong");
    }
}

}  // namespace quillmere::fuzz
