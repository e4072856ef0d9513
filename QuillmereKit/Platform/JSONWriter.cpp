#include "QuillmereKit/Platform/JSONWriter.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace quillmere {
namespace {

constexpr std::size_t firstCapacity = 1024;
constexpr std::size_t step = std::size_t{16} * 1024;
constexpr std::size_t firstLevels = 8;
constexpr std::size_t blanksPerLevel = 2;
constexpr std::size_t blockSize = 16;
constexpr std::size_t longestEscape = 6;
constexpr std::size_t roomBehind = 8;      // for what follows a text: at most " : "
constexpr std::size_t longestNumber = 48;  // "-2.2250738585072014e-308" has 24 characters; copies go beyond
constexpr std::size_t slack = longestEscape + blockSize + roomBehind;  // what one step may write beyond its due

constexpr std::string_view notUTF8 = "A text cannot be written as JSON: it is not valid UTF-8.";
constexpr std::string_view outOfOrder =
    "JSON must be written in order: keys and values by turns, every end after its begin.";

/// Which bytes do not stand for themselves: 0 those that do, 1 those of longer UTF-8 sequences, else the letter
/// of the short escape, or 'u'.
constexpr std::array<char, 256> escapes = [] {
    std::array<char, 256> table{};
    for (std::size_t byte = 0; byte < 0x20; ++byte) table[byte] = 'u';
    for (std::size_t byte = 0x80; byte < 0x100; ++byte) table[byte] = 1;
    table['\b'] = 'b';
    table['\t'] = 't';
    table['\n'] = 'n';
    table['\f'] = 'f';
    table['\r'] = 'r';
    table['"'] = '"';
    table['\\'] = '\\';
    table['/'] = '/';
    return table;
}();

/// The length of the well-formed UTF-8 sequence of two to four bytes at `place`, or 0 (The Unicode Standard, table
/// 3-7).
std::size_t sequenceLength(const unsigned char* place, std::size_t left) noexcept {
    const auto continues = [&](std::size_t index, unsigned low = 0x80, unsigned high = 0xBF) {
        return place[index] >= low && place[index] <= high;
    };
    const unsigned first = place[0];
    if (first >= 0xC2 && first <= 0xDF) return left >= 2 && continues(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const unsigned low = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned high = first == 0xED ? 0x9F : 0xBF;
        return left >= 3 && continues(1, low, high) && continues(2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const unsigned low = first == 0xF0 ? 0x90 : 0x80;
        const unsigned high = first == 0xF4 ? 0x8F : 0xBF;
        return left >= 4 && continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

#if defined(__SSE2__)
using Block = __m128i;

Block blockOf(std::uint64_t low, std::uint64_t high) noexcept {
    return _mm_set_epi64x(static_cast<std::int64_t>(high), static_cast<std::int64_t>(low));
}

/// A bit for each byte of a block that does not stand for itself.
unsigned specials(Block block) noexcept {
    // Compared as signed bytes, those from 0x80 are below the blank, too.
    const Block low = _mm_cmplt_epi8(block, _mm_set1_epi8(' '));
    const Block quote = _mm_cmpeq_epi8(block, _mm_set1_epi8('"'));
    const Block backslash = _mm_cmpeq_epi8(block, _mm_set1_epi8('\\'));
    const Block slash = _mm_cmpeq_epi8(block, _mm_set1_epi8('/'));
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(low, quote), _mm_or_si128(backslash, slash))));
}
#else
using Block = std::array<unsigned char, blockSize>;

Block blockOf(std::uint64_t low, std::uint64_t high) noexcept {
    return std::bit_cast<Block>(std::array<std::uint64_t, 2>{low, high});
}

unsigned specials(const Block& block) noexcept {
    unsigned mask = 0;
    for (std::size_t index = 0; index < blockSize; ++index) mask |= (escapes[block[index]] != 0 ? 1U : 0U) << index;
    return mask;
}
#endif

template <class T>
T load(const char* place) noexcept {
    T value;
    std::memcpy(&value, place, sizeof(T));
    return value;
}
template <class T>
void store(char* place, const T& value) noexcept {
    std::memcpy(place, &value, sizeof(T));
}

/// Copies a block; returns a bit for each of its bytes that does not stand for itself.
unsigned copyBlock(char* out, const char* in) noexcept {
    const auto block = load<Block>(in);
    store(out, block);
    return specials(block);
}

/// Copies at most 15 bytes if all stand for themselves, as two halves that may overlap: a copy of variable length would
/// cost more than all the rest.
bool copyShort(char* out, const char* in, std::size_t count) noexcept {
    if (count >= sizeof(std::uint64_t)) {
        const auto first = load<std::uint64_t>(in);
        const auto last = load<std::uint64_t>(in + count - sizeof(first));
        if (specials(blockOf(first, last)) != 0) return false;
        store(out, first);
        store(out + count - sizeof(last), last);
        return true;
    }
    if (count >= sizeof(std::uint32_t)) {
        const auto first = load<std::uint32_t>(in);
        const auto last = load<std::uint32_t>(in + count - sizeof(first));
        const auto both = first | std::uint64_t{last} << 32;
        if (specials(blockOf(both, both)) != 0) return false;
        store(out, first);
        store(out + count - sizeof(last), last);
        return true;
    }
    if (count == 0) return true;
    const char first = in[0];
    const char middle = in[count / 2];
    const char last = in[count - 1];
    const auto escapeOf = [](char c) { return escapes[static_cast<unsigned char>(c)]; };
    if ((escapeOf(first) | escapeOf(middle) | escapeOf(last)) != 0) return false;
    out[0] = first;
    out[count / 2] = middle;
    out[count - 1] = last;
    return true;
}

/// Five to each power whose exponent is used, of the 2^-66 that the last place of 1e-4 is worth at least.
constexpr auto powersOfFive = [] {
    std::array<std::uint64_t, 21> powers{};
    powers[0] = 1;
    for (std::size_t exponent = 1; exponent < powers.size(); ++exponent) powers[exponent] = 5 * powers[exponent - 1];
    return powers;
}();

constexpr auto digitPairs = [] {
    std::array<std::array<char, 2>, 100> pairs{};
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        pairs[i] = {static_cast<char>('0' + i / 10), static_cast<char>('0' + i % 10)};
    }
    return pairs;
}();

/// Writes a whole number that is not negative. Most of those in a library are small.
char* appendWhole(char* out, std::uint64_t value) noexcept {
    if (value >= 1000) return std::to_chars(out, out + longestNumber, value).ptr;
    if (value >= 10) {
        *out = static_cast<char>('0' + value / 100);
        out += value >= 100 ? 1 : 0;
        store(out, digitPairs[value % 100]);
        return out + 2;
    }
    *out = static_cast<char>('0' + value);
    return out + 1;
}

/// Writes a number below 10^8 with all eight digits.
void storeEightDigits(char* out, std::uint32_t value) noexcept {
    const std::uint32_t high = value / 10000;
    const std::uint32_t low = value % 10000;
    store(out, digitPairs[high / 100]);
    store(out + 2, digitPairs[high % 100]);
    store(out + 4, digitPairs[low / 100]);
    store(out + 6, digitPairs[low % 100]);
}

/// Writes a number from 1e-4 to 2^53 that is not whole, with the fewest digits that read back equal, of equally short
/// ones the nearest, of equally near ones the even; null for powers of two, whose neighbours lie unequally far.
///
/// The number is m * 2^-e; all that read back equal lie within 2^-e / 2 of it, those on the border only if m is even.
/// With 10^-places the greatest power of ten not above 2^-e, at most one multiple of ten times that power lies there,
/// and it is then the shortest, its zeros left out; otherwise it is one of the power's own multiples to both sides (R.
/// Giulietti, "The Schubfach way to render doubles", 2020). In this range the number times 10^places is m * 5^places
/// over a power of two, whose numerator is below 2^100: everything here is exact.
char* appendShortest(char* out, double size) noexcept {
    constexpr int fractionBits = 52;
    constexpr int bias = 1023;
    constexpr std::uint64_t hidden = std::uint64_t{1} << fractionBits;
    const auto bits = std::bit_cast<std::uint64_t>(size);
    if ((bits & (hidden - 1)) == 0) return nullptr;
    const std::uint64_t m = (bits & (hidden - 1)) | hidden;
    const auto e = static_cast<unsigned>(bias + fractionBits - static_cast<int>(bits >> fractionBits));

    const unsigned places = (e * 1233 >> 12) + 1;  // 1233/4096 is log10(2) to within what 66 can show
    const unsigned shift = e - places;
    const std::uint64_t power = powersOfFive[places];

    // m * power, by halves, as `high` and `low`.
    constexpr std::uint64_t half = 0xFFFFFFFF;
    const std::uint64_t middle = (m >> 32) * (power & half) + (m & half) * (power >> 32);
    const std::uint64_t least = (m & half) * (power & half);
    const std::uint64_t low = least + (middle << 32);
    const std::uint64_t high = (m >> 32) * (power >> 32) + (middle >> 32) + (low < least ? 1 : 0);

    // In units of half of the numerator's one: `one` is 10^-places, `reach` is 2^-e / 2.
    const std::uint64_t below = shift == 0 ? low : high << (64 - shift) | low >> shift;
    const std::uint64_t rest = 2 * (low & ((std::uint64_t{1} << shift) - 1));
    const std::uint64_t one = std::uint64_t{2} << shift;
    const std::uint64_t reach = power - (m & 1);

    const std::uint64_t lastDigit = below % 10;
    std::uint64_t decimal = below;
    if (lastDigit * one + rest <= reach) {
        decimal -= lastDigit;
    } else if ((10 - lastDigit) * one - rest <= reach) {
        decimal += 10 - lastDigit;
    } else if (2 * rest > one || (2 * rest == one && below % 2 != 0)) {
        ++decimal;
    }

    // From 2^52 on and below 2^57: 16 to 18 digits. Copies are of a fixed length, as `longestNumber` allows.
    constexpr std::uint64_t eightDigits = 100'000'000;
    constexpr std::size_t mostDigits = 18;
    constexpr std::size_t copied = 24;
    std::array<char, mostDigits + copied> digits{};
    const std::uint64_t upper = decimal / eightDigits;
    const auto lower = static_cast<std::uint32_t>(decimal % eightDigits);
    store(digits.data(), digitPairs[upper / eightDigits]);
    storeEightDigits(digits.data() + 2, static_cast<std::uint32_t>(upper % eightDigits));
    storeEightDigits(digits.data() + 10, lower);
    const char* first = digits.data();
    while (*first == '0') ++first;
    const char* last = digits.data() + (lower == 0 ? mostDigits - 8 : mostDigits);
    while (last[-1] == '0') --last;

    const auto count = static_cast<std::size_t>(digits.data() + mostDigits - first);
    const auto used = static_cast<std::size_t>(last - first);
    if (count > places) {
        const std::size_t whole = count - places;
        std::memcpy(out, first, copied - 8);
        out[whole] = '.';
        std::memcpy(out + whole + 1, first + whole, copied);
        return out + used + 1;
    }
    const std::size_t zeros = 2 + places - count;
    std::memcpy(out, "0.000000", 8);
    std::memcpy(out + zeros, first, copied - 2);
    return out + zeros + used;
}

}  // namespace

JSONWriter::JSONWriter(Form form, JSONUserInfo userInfo) : form_(form), userInfo_(std::move(userInfo)) {}

bool JSONWriter::isSet(std::string_view key) const {
    const auto found = userInfo_.find(key);
    if (found == userInfo_.end()) return false;
    const bool* setting = std::get_if<bool>(&found->second);
    return setting != nullptr && *setting;
}

std::string JSONWriter::take() {
    require(expected_ == Expected::nothing);
    text_.resize(size_);
    size_ = 0;
    expected_ = Expected::value;
    return std::exchange(text_, {});
}

void JSONWriter::clear() noexcept {
    size_ = 0;
    level_ = {};
    depth_ = 0;
    members_.clear();
    keys_.clear();
    expected_ = Expected::value;
}

void JSONWriter::failOrder() noexcept { fatalError(outOfOrder); }

void JSONWriter::grow(std::size_t count) {
    const std::size_t needed = size_ + count;
    if (needed > text_.capacity()) text_.reserve(std::max({firstCapacity, 2 * text_.capacity(), needed}));
    text_.resize(std::min(text_.capacity(), needed + step));  // not all at once: pages never written to cost nothing
}

inline void JSONWriter::append(std::string_view text) {
    std::memcpy(reserve(text.size()), text.data(), text.size());
    size_ += text.size();
}

void JSONWriter::appendLineStart(std::size_t level) {
    char* out = reserve(1 + blanksPerLevel * level);
    *out = '\n';
    std::memset(out + 1, ' ', blanksPerLevel * level);
    size_ += 1 + blanksPerLevel * level;
}

/// What stands before a member or an element.
inline void JSONWriter::separate() {
    if (expected_ == Expected::nextKey || expected_ == Expected::nextElement) {
        *reserve(1) = ',';
        ++size_;
    }
    if (form_ == Form::pretty) appendLineStart(depth_);
}

inline void JSONWriter::beginValue() {
    if (expected_ == Expected::value) return;
    require(expected_ == Expected::firstElement || expected_ == Expected::nextElement);
    separate();
}

inline void JSONWriter::endValue() noexcept {
    expected_ = level_.afterValue;
    if (form_ != Form::compact && expected_ == Expected::nextKey) members_.back().end = size_;
}

void JSONWriter::growLevels() { outer_.resize(2 * outer_.size() + firstLevels); }

inline void JSONWriter::begin(Expected first, Expected afterValue, char bracket) {
    beginValue();
    *reserve(1) = bracket;
    ++size_;
    if (depth_ == outer_.size()) [[unlikely]] {
        growLevels();
    }
    outer_[depth_++] = level_;
    level_ = {members_.size(), keys_.size(), afterValue};
    expected_ = first;
}

inline void JSONWriter::end(Expected first, Expected afterValue, char bracket) {
    require(expected_ == first || expected_ == afterValue);
    if (afterValue == Expected::nextKey && form_ != Form::compact) sortMembers();
    if (form_ == Form::pretty) {
        if (expected_ == first) append("\n");
        appendLineStart(depth_ - 1);
    }
    *reserve(1) = bracket;
    ++size_;
    level_ = outer_[--depth_];
    endValue();
}

void JSONWriter::beginObject() { begin(Expected::firstKey, Expected::nextKey, '{'); }
void JSONWriter::endObject() { end(Expected::firstKey, Expected::nextKey, '}'); }
void JSONWriter::beginArray() { begin(Expected::firstElement, Expected::nextElement, '['); }
void JSONWriter::endArray() { end(Expected::firstElement, Expected::nextElement, ']'); }

void JSONWriter::anyKey(std::string_view key) {
    require(isKeyNext());
    const std::size_t size = size_;
    separate();
    const std::size_t start = size_;
    char* out = nullptr;
    try {
        out = quote(key);
    } catch (const EncodingError&) {
        size_ = size;
        throw;
    }
    if (form_ == Form::pretty) *out++ = ' ';
    *out++ = ':';
    if (form_ == Form::pretty) *out++ = ' ';
    size_ = static_cast<std::size_t>(out - text_.data());
    if (form_ != Form::compact) {
        members_.push_back({keys_.size(), key.size(), start, start});
        keys_ += key;
    }
    expected_ = Expected::value;
}

void JSONWriter::string(std::string_view text) {
    const std::size_t size = size_;
    beginValue();
    try {
        size_ = static_cast<std::size_t>(quote(text) - text_.data());
    } catch (const EncodingError&) {
        size_ = size;
        throw;
    }
    endValue();
}

/// Writes a text in quotes, without counting it as written yet, and returns its end; `roomBehind` bytes may follow.
char* JSONWriter::quote(std::string_view text) {
    const char* in = text.data();
    std::size_t left = text.size();
    char* out = reserve(left + blockSize + slack);
    *out++ = '"';
    if (left < blockSize) {
        if (!copyShort(out, in, left)) return escape(in, left, out);
        out += left;
    } else {
        while (left >= blockSize) {
            if (copyBlock(out, in) != 0) return escape(in, left, out);
            in += blockSize;
            out += blockSize;
            left -= blockSize;
        }
        // The rest as a block that begins before it: one copy of a fixed length.
        const std::size_t again = blockSize - left;
        if (left > 0 && copyBlock(out - again, in - again) != 0) return escape(in, left, out);
        out += left;
    }
    *out++ = '"';
    return out;
}

/// Writes the rest of a text, in which something may have to be escaped, and the quote behind it.
char* JSONWriter::escape(const char* in, std::size_t left, char* out) {
    const char* plain = in;  // from here on all bytes stood for themselves
    while (left > 0) {
        if (left >= blockSize) {
            const unsigned found = copyBlock(out, in);
            const auto safe = found == 0 ? blockSize : static_cast<std::size_t>(std::countr_zero(found));
            out += safe;
            in += safe;
            left -= safe;
            if (found == 0) continue;
        } else if (const auto done = static_cast<std::size_t>(in - plain); done + left >= blockSize) {
            const std::size_t again = blockSize - left;
            if (copyBlock(out - again, in - again) == 0) {
                out += left;
                break;
            }
        } else if (copyShort(out, in, left)) {
            out += left;
            break;
        }

        const auto byte = static_cast<unsigned char>(*in);
        const char letter = escapes[byte];
        if (letter == 0) {  // near the end, something special behind
            do {
                *out++ = *in++;
            } while (--left > 0 && escapes[static_cast<unsigned char>(*in)] == 0);
            continue;
        }
        if (letter == 1) {
            const std::size_t length = sequenceLength(reinterpret_cast<const unsigned char*>(in), left);
            if (length == 0) throw EncodingError(std::string(notUTF8));
            std::memcpy(out, in, length);
            out += length;
            in += length;
            left -= length;
        } else {
            store(out, std::array<char, 2>{'\\', letter});
            out += 2;
            if (letter == 'u') {
                constexpr std::string_view digits = "0123456789abcdef";
                store(out, std::array<char, 4>{'0', '0', digits[byte >> 4], digits[byte & 0x0F]});
                out += 4;
            }
            ++in;
            --left;
            // It was longer than the byte: see that there is room for the rest.
            const auto written = static_cast<std::size_t>(out - (text_.data() + size_));
            if (text_.size() - size_ < written + left + slack) out = reserve(written + 2 * left + slack) + written;
        }
        plain = in;
    }
    *out++ = '"';
    return out;
}

void JSONWriter::integer(std::int64_t value) {
    beginValue();
    char* out = reserve(longestNumber);
    char* const start = out;
    *out = '-';
    out += value < 0 ? 1 : 0;
    const auto bits = static_cast<std::uint64_t>(value);
    size_ += static_cast<std::size_t>(appendWhole(out, value < 0 ? 0 - bits : bits) - start);
    endValue();
}

void JSONWriter::unsignedInteger(std::uint64_t value) {
    beginValue();
    char* const out = reserve(longestNumber);
    size_ += static_cast<std::size_t>(appendWhole(out, value) - out);
    endValue();
}

void JSONWriter::number(double value) {
    constexpr double mostPlain = 0x1p53;
    constexpr double leastPlain = 1e-4;
    if (!std::isfinite(value)) throw EncodingError("A number cannot be written as JSON: it is not finite.");
    beginValue();
    char* out = reserve(longestNumber);
    char* const start = out;
    const double size = std::fabs(value);
    *out = '-';
    out += std::signbit(value) ? 1 : 0;
    const bool isPlain = size >= leastPlain && size <= mostPlain;
    if (size <= mostPlain && size == static_cast<double>(static_cast<std::int64_t>(size))) {
        out = appendWhole(out, static_cast<std::uint64_t>(size));
    } else if (char* const end = isPlain ? appendShortest(out, size) : nullptr) {
        out = end;
    } else {
        const auto format = isPlain ? std::chars_format::fixed : std::chars_format::scientific;
        out = std::to_chars(out, start + longestNumber, size, format).ptr;
    }
    size_ += static_cast<std::size_t>(out - start);
    endValue();
}

void JSONWriter::boolean(bool value) {
    beginValue();
    append(value ? "true" : "false");
    endValue();
}

void JSONWriter::raw(std::string_view json) {
    beginValue();
    append(json);
    endValue();
}

/// Puts the members of the innermost object in byte order of their keys. Their texts only change places.
void JSONWriter::sortMembers() {
    const auto first = members_.begin() + static_cast<std::ptrdiff_t>(level_.firstMember);
    const auto keyOf = [this](const Member& member) {
        return std::string_view(keys_).substr(member.key, member.keyLength);
    };
    if (!std::ranges::is_sorted(first, members_.end(), {}, keyOf)) {
        const std::size_t start = first->start;
        scratch_.assign(text_, start, size_ - start);
        const std::size_t gap = first->end - start;  // all gaps between two members are alike
        const std::string_view separator = std::string_view(scratch_).substr(gap, (first + 1)->start - first->end);
        std::sort(first, members_.end(), [&](const Member& a, const Member& b) {
            const int order = keyOf(a).compare(keyOf(b));
            return order != 0 ? order < 0 : a.start < b.start;
        });
        size_ = start;
        for (auto member = first; member != members_.end(); ++member) {
            if (member != first) append(separator);
            append(std::string_view(scratch_).substr(member->start - start, member->end - member->start));
        }
    }
    members_.resize(level_.firstMember);
    keys_.resize(level_.firstKey);
}

}  // namespace quillmere
