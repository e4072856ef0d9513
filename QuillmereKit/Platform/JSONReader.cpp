#include "QuillmereKit/Platform/JSONReader.hpp"

#include <simdjson.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <new>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/HugePages.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace quillmere {
namespace {

/// The first byte of each word of the parser's tape (simdjson, doc/tape.md). After a number comes one more word.
enum class Tag : std::uint8_t {
    beginObject = '{',
    endObject = '}',
    beginArray = '[',
    endArray = ']',
    string = '"',
    integer = 'l',
    unsignedInteger = 'u',
    floating = 'd',
    isTrue = 't',
    isFalse = 'f',
    null = 'n',
    oddNumber = 'N',  // ours: a number that only its own text says rightly
};
constexpr int tagShift = 56;
constexpr std::uint64_t payloadMask = (std::uint64_t{1} << tagShift) - 1;

constexpr bool isDigit(char character) { return character >= '0' && character <= '9'; }
constexpr bool isInNumber(char character) {
    return isDigit(character) || character == '+' || character == '-' || character == '.' || character == 'e' ||
           character == 'E';
}

/// Whether `text` is one number of RFC 8259, section 6.
bool isNumber(std::string_view text) {
    const auto skip = [&text](auto accepts) {
        std::size_t count = 0;
        while (count < text.size() && accepts(text[count])) ++count;
        text.remove_prefix(count);
        return count;
    };
    if (text.starts_with('-')) text.remove_prefix(1);
    const bool beginsWithZero = text.starts_with('0');
    const auto digits = skip(isDigit);
    if (digits == 0 || (beginsWithZero && digits > 1)) return false;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (skip(isDigit) == 0) return false;
    }
    if (text.starts_with('e') || text.starts_with('E')) {
        text.remove_prefix(1);
        if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
        if (skip(isDigit) == 0) return false;
    }
    return text.empty();
}

/// Whether the parser takes a number for what it is: it refuses whole numbers beyond 64 bits and numbers beyond
/// a double, and forgets the sign of "-0".
bool isOddNumber(std::string_view token, simdjson::dom::parser& parser) {
    if (token == "-0") return true;
    constexpr std::size_t mostSafeDigits = 18;  // before the point; without an exponent
    const std::size_t digits = std::min(token.find_first_of(".eE"), token.size());
    if (digits <= mostSafeDigits && token.find_first_of("eE") == std::string_view::npos) return false;
    return isNumber(token) && parser.parse(token.data(), token.size()).error() == simdjson::NUMBER_ERROR;
}

/// Whether a "-0" stands in the text that could be a number. Others, such as one inside a string, only cost time.
bool mayHoldNegativeZero(std::string_view text) {
    const auto isNegativeZero = [text](std::size_t place) {
        if (text[place] != '-' || place + 1 >= text.size() || text[place + 1] != '0') return false;
        constexpr std::string_view blanks = " \t\n\r";
        const char before = place > 0 ? text[place - 1] : ' ';
        const char after = place + 2 < text.size() ? text[place + 2] : ' ';
        return (blanks.find(before) != std::string_view::npos || before == ':' || before == ',' || before == '[') &&
               (blanks.find(after) != std::string_view::npos || after == ',' || after == ']' || after == '}');
    };
    std::size_t place = 0;
#if defined(__SSE2__)
    const __m128i minus = _mm_set1_epi8('-');
    const __m128i zero = _mm_set1_epi8('0');
    for (; place + 17 <= text.size(); place += 16) {
        const auto here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + place));
        const auto next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + place + 1));
        auto found = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(here, minus), _mm_cmpeq_epi8(next, zero))));
        for (; found != 0; found &= found - 1) {
            if (isNegativeZero(place + static_cast<std::size_t>(std::countr_zero(found)))) return true;
        }
    }
#endif
    for (; place < text.size(); ++place) {
        if (isNegativeZero(place)) return true;
    }
    return false;
}

/// The place behind the quote that ends a string, `place` being in it.
std::size_t endOfString(std::string_view text, std::size_t place) {
    while (place < text.size()) {
#if defined(__SSE2__)
        constexpr std::size_t blockSize = 16;
        if (place + blockSize <= text.size()) {
            const auto block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + place));
            const auto found = _mm_movemask_epi8(
                _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('"')), _mm_cmpeq_epi8(block, _mm_set1_epi8('\\'))));
            if (found == 0) {
                place += blockSize;
                continue;
            }
            place += static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(found)));
        }
#endif
        if (text[place] == '"') return place + 1;
        place += text[place] == '\\' ? 2 : 1;
    }
    return text.size();
}

/// What is wrong if brackets outside strings are nested deeper than the parser goes, or one closes what none opened.
/// The parser finds out as well, but only after it has noted the place of every bracket, in four bytes each and a copy
/// of the text.
simdjson::error_code nestingError(std::string_view text) {
    std::size_t depth = 0;
    for (std::size_t place = 0; place < text.size();) {
        const char character = text[place];
        if (character == '"') {
            place = endOfString(text, place + 1);
            continue;
        }
        if ((character == '[' || character == '{') && ++depth > simdjson::DEFAULT_MAX_DEPTH) {
            return simdjson::DEPTH_ERROR;
        }
        if ((character == ']' || character == '}') && depth-- == 0) return simdjson::TAPE_ERROR;
        ++place;
    }
    return simdjson::SUCCESS;
}

/// The numbers of a text that the parser would not take. A text may hold little else: they cost no more than itself.
struct OddNumbers {
    std::vector<bool> isOdd;  // for each number of the text, up to the last odd one
    std::string texts;        // those of the odd ones in turn, a blank behind each
};

/// Puts "0" and blanks in the place of each odd number outside strings, and hands the numbers over. Whether the
/// rest is JSON is the parser's business.
OddNumbers replaceOddNumbers(char* text, std::size_t size) {
    simdjson::dom::parser parser;
    OddNumbers odd;
    std::size_t ordinal = 0;
    for (std::size_t place = 0; place < size;) {
        const char character = text[place];
        if (character == '"') {
            place = endOfString(std::string_view(text, size), place + 1);
        } else if (character == '-' || isDigit(character)) {
            const std::size_t begin = place;
            while (place < size && isInNumber(text[place])) ++place;
            const std::string_view token(text + begin, place - begin);
            if (isOddNumber(token, parser)) {
                odd.isOdd.resize(ordinal + 1);
                odd.isOdd[ordinal] = true;
                odd.texts += token;
                odd.texts += ' ';
                std::memset(text + begin, ' ', token.size());
                text[begin] = '0';
            }
            ++ordinal;
        } else {
            ++place;
        }
    }
    return odd;
}

[[noreturn]] void failParsing(simdjson::error_code error) {
    if (error == simdjson::MEMALLOC) throw std::bad_alloc();
    throw JSONError(std::string("not valid JSON: ") + simdjson::error_message(error));
}

/// Where it matters: what is shorter, a library of a hundred thousand pieces too, the parser refuses in little memory.
void refuseWrongNesting(std::string_view text) {
    constexpr std::size_t longText = std::size_t{72} << 20;
    if (text.size() <= longText) return;
    if (const auto error = nestingError(text); error != simdjson::SUCCESS) failParsing(error);
}

[[noreturn]] void failType(const char* wanted) { throw JSONError(std::string("must be ") + wanted); }

}  // namespace

/// The parser's tape: the values of the document in the order of the text, each with its tag.
struct JSONTape {
    simdjson::dom::document document;
    std::string oddNumbers;  // their texts, a blank behind each

    [[nodiscard]] std::uint64_t word(std::size_t index) const noexcept { return document.tape[index]; }
    [[nodiscard]] Tag tag(std::size_t index) const noexcept { return static_cast<Tag>(word(index) >> tagShift); }
    [[nodiscard]] std::uint64_t payload(std::size_t index) const noexcept { return word(index) & payloadMask; }

    [[nodiscard]] std::string_view string(std::size_t index) const noexcept {
        const auto* place = document.string_buf.get() + payload(index);
        std::uint32_t length = 0;
        std::memcpy(&length, place, sizeof(length));
        return {reinterpret_cast<const char*>(place + sizeof(length)), length};
    }
    [[nodiscard]] std::string_view oddNumber(std::size_t index) const noexcept {
        const auto text = std::string_view(oddNumbers).substr(payload(index));
        return text.substr(0, text.find(' '));
    }

    /// The place behind the value at `index`.
    [[nodiscard]] std::size_t next(std::size_t index) const noexcept {
        switch (tag(index)) {
            case Tag::beginObject:
            case Tag::beginArray: return word(index) & 0xFFFFFFFF;
            case Tag::integer:
            case Tag::unsignedInteger:
            case Tag::floating:
            case Tag::oddNumber: return index + 2;
            default: return index + 1;
        }
    }
    /// The place of the closing tag of the object or array at `index`.
    [[nodiscard]] std::size_t last(std::size_t index) const noexcept { return next(index) - 1; }

    /// Gives the odd numbers their places, which hold a stand-in so far.
    void place(OddNumbers odd) noexcept {
        const auto isNumberAt = [this](std::size_t index) {
            const Tag here = tag(index);
            return here == Tag::integer || here == Tag::unsignedInteger || here == Tag::floating;
        };
        oddNumbers = std::move(odd.texts);
        std::size_t start = 0;
        std::size_t index = 1;
        for (const bool isOdd : odd.isOdd) {
            while (!isNumberAt(index)) ++index;
            if (isOdd) {
                document.tape[index] = std::uint64_t{static_cast<std::uint8_t>(Tag::oddNumber)} << tagShift | start;
                start = oddNumbers.find(' ', start) + 1;
            }
            index += 2;
        }
    }
};

bool JSONValue::isNull() const noexcept { return tape_->tag(index_) == Tag::null; }
bool JSONValue::isObject() const noexcept { return tape_->tag(index_) == Tag::beginObject; }
bool JSONValue::isArray() const noexcept { return tape_->tag(index_) == Tag::beginArray; }
bool JSONValue::isString() const noexcept { return tape_->tag(index_) == Tag::string; }

bool JSONValue::boolean() const {
    const Tag tag = tape_->tag(index_);
    if (tag != Tag::isTrue && tag != Tag::isFalse) failType("true or false");
    return tag == Tag::isTrue;
}

std::int64_t JSONValue::integer() const {
    switch (tape_->tag(index_)) {
        case Tag::integer: return static_cast<std::int64_t>(tape_->word(index_ + 1));
        case Tag::floating: {
            const auto value = std::bit_cast<double>(tape_->word(index_ + 1));
            constexpr double bound = 0x1p63;
            if (value >= -bound && value < bound && std::trunc(value) == value) return static_cast<std::int64_t>(value);
            break;
        }
        case Tag::oddNumber:
            if (tape_->oddNumber(index_) == "-0") return 0;
            break;
        default: break;
    }
    failType("a whole number of 64 bits");
}

double JSONValue::number() const {
    const std::uint64_t bits = tape_->word(index_ + 1);
    switch (tape_->tag(index_)) {
        case Tag::floating: return std::bit_cast<double>(bits);
        case Tag::integer: return static_cast<double>(static_cast<std::int64_t>(bits));
        case Tag::unsignedInteger: return static_cast<double>(bits);
        case Tag::oddNumber: {
            const std::string_view text = tape_->oddNumber(index_);
            double value = 0;
            if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc{}) return value;
            failType("a number in the range of a double");
        }
        default: failType("a number");
    }
}

std::string_view JSONValue::string() const {
    if (!isString()) failType("text");
    return tape_->string(index_);
}

std::optional<JSONValue> JSONValue::find(std::string_view key) const {
    if (!isObject()) failType("an object");
    const std::size_t last = tape_->last(index_);
    for (std::size_t index = index_ + 1; index != last; index = tape_->next(index + 1)) {
        if (tape_->string(index) == key) return JSONValue(tape_, index + 1);
    }
    return std::nullopt;
}

JSONMembers::JSONMembers(const JSONValue& value) : tape_(value.tape_), next_(value.index_ + 1), last_(0) {
    if (!value.isObject()) failType("an object");
    last_ = tape_->last(value.index_);
}

std::optional<JSONValue> JSONMembers::find(std::string_view key) {
    for (std::size_t index = next_; index != last_; index = tape_->next(index + 1)) {
        if (tape_->string(index) != key) continue;
        if (index == next_) next_ = tape_->next(index + 1);
        return JSONValue(tape_, index + 1);
    }
    return std::nullopt;
}

JSONValue::Elements JSONValue::elementRange() const {
    if (!isArray()) failType("an array");
    constexpr std::uint64_t countMask = 0xFFFFFF;
    // Two bytes of text are an element, and what it is read as may take a thousand: no more room is made before it is
    // known to be one.
    constexpr std::size_t mostAhead = 4096;
    const auto count = static_cast<std::size_t>(tape_->word(index_) >> 32 & countMask);
    return {index_ + 1, tape_->last(index_), std::min(count, mostAhead)};
}

std::size_t JSONValue::nextIndex() const noexcept { return tape_->next(index_); }

std::vector<JSONValue> JSONValue::elements() const {
    const auto range = elementRange();
    std::vector<JSONValue> result;
    result.reserve(range.count);
    for (std::size_t index = range.begin; index != range.end; index = tape_->next(index)) {
        result.push_back(JSONValue(tape_, index));
    }
    return result;
}

std::vector<std::pair<std::string_view, JSONValue>> JSONValue::members() const {
    if (!isObject()) failType("an object");
    std::vector<std::pair<std::string_view, JSONValue>> result;
    const std::size_t last = tape_->last(index_);
    for (std::size_t index = index_ + 1; index != last; index = tape_->next(index + 1)) {
        result.emplace_back(tape_->string(index), JSONValue(tape_, index + 1));
    }
    return result;
}

std::string JSONValue::text() const {
    JSONWriter writer(JSONWriter::Form::compact);
    std::vector<bool> isInObject{false};  // a level each
    bool isKeyNext = false;
    const std::size_t end = tape_->next(index_);
    for (std::size_t index = index_; index != end;) {
        const Tag tag = tape_->tag(index);
        if (isKeyNext && tag == Tag::string) {
            writer.key(tape_->string(index++));
            isKeyNext = false;
            continue;
        }
        switch (tag) {
            case Tag::beginObject:
            case Tag::beginArray:
                isInObject.push_back(tag == Tag::beginObject);
                isInObject.back() ? writer.beginObject() : writer.beginArray();
                break;
            case Tag::endObject:
            case Tag::endArray:
                isInObject.back() ? writer.endObject() : writer.endArray();
                isInObject.pop_back();
                break;
            case Tag::string: writer.string(tape_->string(index)); break;
            case Tag::integer: writer.integer(static_cast<std::int64_t>(tape_->word(index + 1))); break;
            case Tag::unsignedInteger: writer.unsignedInteger(tape_->word(index + 1)); break;
            case Tag::floating: writer.number(std::bit_cast<double>(tape_->word(index + 1))); break;
            case Tag::oddNumber: writer.raw(tape_->oddNumber(index)); break;
            case Tag::isTrue: writer.boolean(true); break;
            case Tag::isFalse: writer.boolean(false); break;
            case Tag::null: writer.raw("null"); break;
        }
        const bool opens = tag == Tag::beginObject || tag == Tag::beginArray;
        index = opens ? index + 1 : tape_->next(index);
        isKeyNext = isInObject.back();
    }
    return writer.take();
}

JSONDocument JSONDocument::parse(std::string_view text) {
    refuseWrongNesting(text);
    std::string copy;
    copy.reserve(text.size() + roomBehind);
    copy = text;
    return parseNested(std::move(copy));
}

JSONDocument JSONDocument::parseInPlace(std::string text) {
    refuseWrongNesting(text);
    return parseNested(std::move(text));
}

JSONDocument JSONDocument::parseNested(std::string text) {
    static_assert(roomBehind >= simdjson::SIMDJSON_PADDING);
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    text.reserve(text.size() + roomBehind);
    const std::size_t skipped = text.starts_with(byteOrderMark) ? byteOrderMark.size() : 0;
    char* const begin = text.data() + skipped;
    const std::size_t size = text.size() - skipped;
    OddNumbers odd;
    if (mayHoldNegativeZero({begin, size})) odd = replaceOddNumbers(begin, size);

    auto tape = std::make_unique<JSONTape>();
    const auto run = [&] {
        auto& document = tape->document;
        if (const auto error = document.allocate(size); error != simdjson::SUCCESS) return error;
        preferHugePages(document.tape.get(), size * sizeof(document.tape[0]));
        preferHugePages(document.string_buf.get(), size);
        simdjson::dom::parser parser;
        return parser.parse_into_document(tape->document, begin, size, false).error();
    };
    auto error = run();
    if (error == simdjson::NUMBER_ERROR && odd.texts.empty()) {
        odd = replaceOddNumbers(begin, size);
        if (!odd.texts.empty()) error = run();
    }
    if (error != simdjson::SUCCESS) failParsing(error);
    tape->place(std::move(odd));
    return JSONDocument(std::move(tape));
}

JSONDocument JSONDocument::read(const std::filesystem::path& file, std::size_t limit) {
    return parseInPlace(readFile(file, limit));
}

JSONDocument::JSONDocument(std::unique_ptr<JSONTape> tape) noexcept : tape_(std::move(tape)) {}
JSONDocument::JSONDocument(JSONDocument&&) noexcept = default;
JSONDocument& JSONDocument::operator=(JSONDocument&&) noexcept = default;
JSONDocument::~JSONDocument() = default;

JSONValue JSONDocument::root() const noexcept {
    constexpr std::size_t firstValue = 1;  // behind the tape's own root word
    return {tape_.get(), firstValue};
}

void decodeInto(const JSONValue& value, std::string& into) { into = value.string(); }

template <>
bool decode<bool>(const JSONValue& value) {
    return value.boolean();
}
template <>
std::int64_t decode<std::int64_t>(const JSONValue& value) {
    return value.integer();
}
template <>
double decode<double>(const JSONValue& value) {
    return value.number();
}
template <>
std::string decode<std::string>(const JSONValue& value) {
    return std::string(value.string());
}

}  // namespace quillmere
