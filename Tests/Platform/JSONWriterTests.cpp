#include "QuillmereKit/Platform/JSONWriter.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

#include "QuillmereKit/Platform/Errors.hpp"
#include "Tests/Platform/UTF8.hpp"

namespace quillmere::test {
namespace {

using Form = JSONWriter::Form;

std::string written(Form form, const std::function<void(JSONWriter&)>& write) {
    JSONWriter writer(form);
    write(writer);
    return writer.take();
}

std::string compact(double value) { return encodeJSON(value, Form::compact); }

/// {"b": [1, {"z": "x", "y": []}], "a": {}, "c": true}
void writeSample(JSONWriter& writer) {
    writer.beginObject();
    writer.key("b");
    writer.beginArray();
    writer.integer(1);
    writer.beginObject();
    writer.member("z", "x");
    writer.member("y", std::vector<double>{});
    writer.endObject();
    writer.endArray();
    writer.key("a");
    writer.beginObject();
    writer.endObject();
    writer.member("c", true);
    writer.endObject();
}

TEST(JSONWriterTests, CompactFormKeepsTheOrderAndHasNoBlanks) {
    EXPECT_EQ(written(Form::compact, writeSample), R"({"b":[1,{"z":"x","y":[]}],"a":{},"c":true})");
}

TEST(JSONWriterTests, SortedFormHasKeysInByteOrderAtEveryLevel) {
    EXPECT_EQ(written(Form::sorted, writeSample), R"({"a":{},"b":[1,{"y":[],"z":"x"}],"c":true})");
}

TEST(JSONWriterTests, PrettyFormHasALineForEachMemberAndElement) {
    EXPECT_EQ(written(Form::pretty, writeSample),
              "{\n"
              "  \"a\" : {\n"
              "\n"
              "  },\n"
              "  \"b\" : [\n"
              "    1,\n"
              "    {\n"
              "      \"y\" : [\n"
              "\n"
              "      ],\n"
              "      \"z\" : \"x\"\n"
              "    }\n"
              "  ],\n"
              "  \"c\" : true\n"
              "}");
}

TEST(JSONWriterTests, EmptyArrayAndObjectHoldAnEmptyLineWhenPretty) {
    EXPECT_EQ(encodeJSON(std::vector<double>{}, Form::pretty), "[\n\n]");
    EXPECT_EQ(encodeJSON(std::vector<double>{}, Form::compact), "[]");
    EXPECT_EQ(encodeJSON(std::vector<double>{}, Form::sorted), "[]");
    EXPECT_EQ(written(Form::pretty, [](JSONWriter& writer) { writer.beginObject(), writer.endObject(); }), "{\n\n}");
}

TEST(JSONWriterTests, KeysAreOrderedAsTheyAreNotAsTheyAreEscaped) {
    // Escaped, "/" would come behind letters, a control character and a quote behind "0".
    const auto write = [](JSONWriter& writer) {
        writer.beginObject();
        for (const std::string_view key :
             {"aa", "a", "\u00e9", "b", "\xF0\x9F\x98\x80", "a/", "a\"", "a\x01", "", "\uFFFF"}) {
            writer.member(key, 1);
        }
        writer.endObject();
    };

    EXPECT_EQ(written(Form::sorted, write),
              "{\"\":1,\"a\":1,\"a\\u0001\":1,\"a\\\"\":1,\"a\\/"
              "\":1,\"aa\":1,\"b\":1,\"\u00e9\":1,\"\uFFFF\":1,\"\xF0\x9F\x98\x80\":1}");
}

TEST(JSONWriterTests, AbsentMembersAreLeftOut) {
    const auto write = [](JSONWriter& writer) {
        writer.beginObject();
        writer.member("a", std::optional<double>{});
        writer.member("b", std::optional<double>{2});
        writer.member("c", std::optional<std::string>{});
        writer.endObject();
    };

    EXPECT_EQ(written(Form::compact, write), R"({"b":2})");
}

TEST(JSONWriterTests, NumbersAreWrittenWhole) {
    EXPECT_EQ(encodeJSON(std::numeric_limits<std::int64_t>::min(), Form::compact), "-9223372036854775808");
    EXPECT_EQ(encodeJSON(std::numeric_limits<std::int64_t>::max(), Form::compact), "9223372036854775807");
    EXPECT_EQ(encodeJSON(-7, Form::compact), "-7");
    EXPECT_EQ(written(Form::compact, [](JSONWriter& writer) { writer.unsignedInteger(UINT64_MAX); }),
              "18446744073709551615");
    for (std::int64_t number = -12'000; number <= 12'000; ++number) {
        ASSERT_EQ(encodeJSON(number, Form::compact), std::to_string(number));
        if (number != 0) {
            ASSERT_EQ(encodeJSON(static_cast<double>(number), Form::compact), std::to_string(number));
        }
    }
}

TEST(JSONWriterTests, ObjectsAndArraysNestDeeply) {
    constexpr std::size_t depth = 100;
    JSONWriter writer(Form::compact);
    std::string begins;
    std::string ends;
    for (std::size_t level = 0; level < depth; ++level) {
        writer.beginArray();
        writer.beginObject();
        writer.endObject();
        writer.beginObject();
        writer.key("in");
        begins += R"([{},{"in":)";
        ends += "},7]";
    }
    writer.boolean(true);
    for (std::size_t level = 0; level < depth; ++level) {
        writer.endObject();
        writer.integer(7);
        writer.endArray();
    }

    EXPECT_EQ(writer.take(), begins + "true" + ends);
}

TEST(JSONWriterTests, DoublesArePlainBetweenTheirLimits) {
    EXPECT_EQ(compact(120), "120");
    EXPECT_EQ(compact(0.0), "0");
    EXPECT_EQ(compact(-0.0), "-0");
    EXPECT_EQ(compact(1e-4), "0.0001");
    EXPECT_EQ(compact(-1e-4), "-0.0001");
    EXPECT_EQ(compact(std::nextafter(1e-4, 0)), "9.999999999999999e-05");
    EXPECT_EQ(compact(0x1p53), "9007199254740992");
    EXPECT_EQ(compact(-0x1p53), "-9007199254740992");
    EXPECT_EQ(compact(0x1p53 + 2), "9.007199254740994e+15");
    EXPECT_EQ(compact(1e16), "1e+16");
    EXPECT_EQ(compact(1e100), "1e+100");
    EXPECT_EQ(compact(1e-5), "1e-05");
    EXPECT_EQ(compact(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(compact(4503599627370495.5), "4503599627370495.5");
    EXPECT_EQ(compact(5e-324), "5e-324");
    EXPECT_EQ(compact(1.7976931348623157e308), "1.7976931348623157e+308");
}

/// The text of a finite, positive double, made with `printf` alone: the fewest digits that read back equal.
std::string textByReference(double value) {
    char digits[64];
    int precision = 0;
    do {
        std::snprintf(digits, sizeof(digits), "%.*e", precision++, value);
    } while (std::strtod(digits, nullptr) != value);
    const std::string_view scientific = digits;
    if (value < 1e-4 || value > 0x1p53) return digits;
    const int exponent = std::atoi(digits + scientific.find('e') + 1);
    const int places = std::max(0, precision - 1 - exponent);
    std::snprintf(digits, sizeof(digits), "%.*f", places, value);
    return digits;
}

TEST(JSONWriterTests, RandomDoublesHaveTheFewestDigitsAndReadBackEqual) {
    std::mt19937_64 random(3);
    for (int round = 0; round < 20000; ++round) {
        double value = std::fabs(std::bit_cast<double>(random()));
        if (round % 2 == 0) value = std::ldexp(static_cast<double>(random() >> 11), -static_cast<int>(random() % 70));
        if (!std::isfinite(value) || value == 0) continue;
        const std::string text = textByReference(value);

        ASSERT_EQ(compact(value), text);
        ASSERT_EQ(compact(-value), "-" + text);
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), value);
    }
}

TEST(JSONWriterTests, DecimalsOfFewPlacesAreWrittenAsSomebodyWouldTypeThem) {
    std::mt19937_64 random(4);
    for (int round = 0; round < 20000; ++round) {
        const int places = static_cast<int>(random() % 9);
        const auto digits = static_cast<double>(random() % 10'000'000'000'000'000 >> random() % 50);
        const double value = digits / std::pow(10.0, places);
        if (value == 0) continue;

        ASSERT_EQ(compact(value), textByReference(value));
    }
    for (const double edge : {1e-4, 1e9, 0.000101, 999999999.999999, 1e6, 0.5e-6, 1000000000.5}) {
        for (double value = std::nextafter(std::nextafter(edge, 0), 0); value < edge * (1 + 1e-15);
             value = std::nextafter(value, 1e300)) {
            EXPECT_EQ(compact(value), textByReference(value));
        }
    }
}

TEST(JSONWriterTests, NumbersHalfwayBetweenTwoShortOnesAndBesidePowersOfTwoAreExact) {
    std::mt19937_64 random(7);
    for (int round = 0; round < 20000; ++round) {
        const double value =
            std::ldexp(static_cast<double>(random() >> (11 + random() % 50)), -static_cast<int>(random() % 20));
        if (value == 0) continue;
        ASSERT_EQ(compact(value), textByReference(value));
    }
    EXPECT_EQ(compact(0x1p50 + 0.25), "1125899906842624.2");
    EXPECT_EQ(compact(0x1p50 + 0.75), "1125899906842624.8");
    for (int exponent = -14; exponent < 53; ++exponent) {
        double value = std::ldexp(1.0, exponent);
        for (int step = 0; step < 3; ++step) value = std::nextafter(value, 0);
        for (int step = -3; step <= 3; ++step, value = std::nextafter(value, 1e300)) {
            EXPECT_EQ(compact(value), textByReference(value));
        }
    }
}

TEST(JSONWriterTests, KeysKnownInTheSourceAreWrittenLikeAnyOther) {
    for (const Form form : {Form::compact, Form::sorted, Form::pretty}) {
        const std::string known = written(form, [](JSONWriter& writer) {
            writer.beginObject();
            writer.member("moodID", 1);
            writer.member("", 2);
            writer.endObject();
        });
        const std::string any = written(form, [](JSONWriter& writer) {
            writer.beginObject();
            writer.member(std::string("moodID"), 1);
            writer.member(std::string_view(), 2);
            writer.endObject();
        });

        EXPECT_EQ(known, any);
    }
}

TEST(JSONWriterTests, NonFiniteNumberIsAnErrorAndLeavesNoTrace) {
    for (const double value : {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN()}) {
        JSONWriter writer(Form::compact);
        writer.beginArray();
        writer.number(1);

        EXPECT_THROW(writer.number(value), EncodingError);

        EXPECT_EQ(writer.text(), "[1");
        writer.number(2);
        writer.endArray();
        EXPECT_EQ(writer.take(), "[1,2]");
    }
}

TEST(JSONWriterTests, TextThatIsNotUTF8IsAnErrorAndLeavesNoTrace) {
    for (const Form form : {Form::compact, Form::sorted, Form::pretty}) {
        JSONWriter writer(form);
        EXPECT_THROW(writer.string("\xFF"), EncodingError);
        EXPECT_EQ(writer.text(), "");
        writer.beginArray();
        EXPECT_THROW(writer.string("a long text with a bad byte at its end\xC3"), EncodingError);
        writer.beginObject();
        EXPECT_THROW(writer.key(std::string_view("\xED\xA0\x80")), EncodingError);
        writer.key("k");
        EXPECT_THROW(writer.string("/////////////\x80"), EncodingError);
        writer.string("v");
        EXPECT_THROW(writer.key(std::string_view("k\xF8")), EncodingError);
        writer.key("a");
        writer.integer(1);
        writer.endObject();
        writer.endArray();

        const auto expected = nlohmann::json::parse(R"([{"k":"v","a":1}])");
        EXPECT_EQ(nlohmann::json::parse(writer.take()), expected);
    }
}

TEST(JSONWriterTests, StringsAreEscapedOnlyWhereTheFormSaysSo) {
    EXPECT_EQ(encodeJSON("\"\\/\b\t\n\f\r\x01\x1F\x7F", Form::compact), R"("\"\\\/\b\t\n\f\r\u0001\u001f)"
                                                                        "\x7F\"");
    EXPECT_EQ(encodeJSON(std::string("a\0b", 3), Form::compact), R"("a\u0000b")");
    EXPECT_EQ(encodeJSON("\u00e9\u2028\uFFFF\U0001F600", Form::compact), "\"\u00e9\u2028\uFFFF\U0001F600\"");
    EXPECT_EQ(encodeJSON("", Form::compact), "\"\"");
}

/// The same rules, one byte after the other.
std::string stringByReference(std::string_view text) {
    std::string result = "\"";
    for (const char character : text) {
        const auto place = std::string_view("\"\\/\b\t\n\f\r").find(character);
        if (place != std::string_view::npos) {
            result += '\\';
            result += "\"\\/btnfr"[place];
        } else if (static_cast<unsigned char>(character) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(character));
            result += code;
        } else {
            result += character;
        }
    }
    return result + "\"";
}

TEST(JSONWriterTests, EachCharacterIsWrittenAlikeAtEveryPlaceOfATextOfEveryLength) {
    std::vector<std::string> characters = {"\u00e9", "\u20ac", "\U0001F600"};
    for (char character = 0; character >= 0 && character < 0x7F; ++character) characters.emplace_back(1, character);
    for (const auto& character : characters) {
        for (std::size_t length = 0; length < 40; ++length) {
            for (const std::size_t place : {std::size_t{0}, length / 3, length / 2, length}) {
                std::string text(length, 'x');
                text.insert(place, character);

                ASSERT_EQ(encodeJSON(text, Form::compact), stringByReference(text));
            }
        }
    }
}

TEST(JSONWriterTests, TextsFullOfEscapesFindRoom) {
    for (const std::size_t length : {1U, 15U, 16U, 17U, 100U, 1000U, 4096U, 20000U, 100000U}) {
        for (const char character : {'\x01', '"', '/'}) {
            JSONWriter writer(Form::compact);
            const std::string text(length, character);
            writer.beginArray();
            writer.string(text);
            writer.string("x");
            writer.endArray();

            EXPECT_EQ(writer.take(), "[" + stringByReference(text) + ",\"x\"]");
        }
    }
}

TEST(JSONWriterTests, RandomTextsAreWrittenByTheRules) {
    std::mt19937_64 random(5);
    const std::vector<std::string> parts = {
        "a", "/", "\"", "\\", "\n", "\x02", "\u00e9", "\u20ac", "\U0001F600", "plain words ", "sixteen bytes ok"};
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        for (std::size_t count = random() % 20; count > 0; --count) text += parts[random() % parts.size()];

        ASSERT_EQ(encodeJSON(text, Form::compact), stringByReference(text));
    }
}

TEST(JSONWriterTests, ExactlyUTF8IsWritten) {
    forEachByteSequence([](const std::string& bytes) {
        for (const std::string& text : {bytes, "sixteen bytes ok" + bytes, bytes + "sixteen bytes ok"}) {
            bool isWritten = true;
            try {
                static_cast<void>(encodeJSON(text, Form::compact));
            } catch (const EncodingError&) {
                isWritten = false;
            }

            EXPECT_EQ(isWritten, isUTF8ByReference(text)) << testing::PrintToString(text);
        }
    });
}

/// Writes any value with its keys in the reverse of byte order.
void writeReversed(JSONWriter& writer, const nlohmann::json& value) {
    if (value.is_object()) {
        writer.beginObject();
        for (auto member = value.rbegin(); member != value.rend(); ++member) {
            writer.key(member.key());
            writeReversed(writer, member.value());
        }
        writer.endObject();
    } else if (value.is_array()) {
        writer.beginArray();
        for (const auto& element : value) writeReversed(writer, element);
        writer.endArray();
    } else if (value.is_string()) {
        writer.string(value.get<std::string>());
    } else {
        writer.integer(value.get<std::int64_t>());
    }
}

nlohmann::json randomValue(std::mt19937_64& random, int depth) {
    const auto text = [&] {
        constexpr std::string_view letters = "ab\"\\\n\x01z~";
        std::string result;
        for (std::size_t count = random() % 6; count > 0; --count) result += letters[random() % letters.size()];
        return result;
    };
    switch (random() % (depth > 0 ? 4 : 2)) {
        case 0: return static_cast<std::int64_t>(random());
        case 1: return text();
        case 2: {
            auto array = nlohmann::json::array();
            for (std::size_t count = random() % 4; count > 0; --count) array.push_back(randomValue(random, depth - 1));
            return array;
        }
        default: {
            auto object = nlohmann::json::object();
            for (std::size_t count = random() % 6; count > 0; --count) object[text()] = randomValue(random, depth - 1);
            return object;
        }
    }
}

/// Another writer's pretty text, brought to ours: blanks before colons, an empty line in what is empty.
std::string prettyByReference(const nlohmann::json& value) {
    const std::string text = value.dump(2);
    std::string result;
    bool isInString = false;
    std::size_t lineStart = 0;
    for (std::size_t place = 0; place < text.size(); ++place) {
        const char character = text[place];
        if (isInString && character == '\\') {
            result += text.substr(place++, 2);
            continue;
        }
        if (character == '"') isInString = !isInString;
        if (character == '\n') lineStart = place + 1;
        if (!isInString && character == ':') result += ' ';
        result += character;
        const bool isEmpty = !isInString && (character == '[' || character == '{') && text[place + 1] == character + 2;
        if (isEmpty) result += "\n\n" + std::string(text.find_first_not_of(' ', lineStart) - lineStart, ' ');
    }
    return result;
}

TEST(JSONWriterTests, RandomValuesAreSortedAsByAnotherWriter) {
    std::mt19937_64 random(6);
    for (int round = 0; round < 2000; ++round) {
        const auto value = randomValue(random, 5);

        ASSERT_EQ(written(Form::sorted, [&](JSONWriter& writer) { writeReversed(writer, value); }), value.dump());
        ASSERT_EQ(written(Form::pretty, [&](JSONWriter& writer) { writeReversed(writer, value); }),
                  prettyByReference(value));
        ASSERT_EQ(nlohmann::json::parse(written(Form::compact, [&](JSONWriter& w) { writeReversed(w, value); })),
                  value);
    }
}

TEST(JSONWriterTests, RawTextStandsWhereAValueMay) {
    const auto write = [](JSONWriter& writer) {
        writer.beginObject();
        writer.key("b");
        writer.raw("[1,2]");
        writer.key("a");
        writer.raw("null");
        writer.endObject();
    };

    EXPECT_EQ(written(Form::sorted, write), R"({"a":null,"b":[1,2]})");
}

TEST(JSONWriterTests, TextSoFarGrowsWithEachCall) {
    JSONWriter writer(Form::compact);
    EXPECT_EQ(writer.text(), "");
    writer.beginArray();
    EXPECT_EQ(writer.text(), "[");
    writer.integer(1);
    EXPECT_EQ(writer.text(), "[1");
    writer.endArray();
    EXPECT_EQ(writer.text(), "[1]");
    EXPECT_EQ(writer.take(), "[1]");
}

TEST(JSONWriterTests, WriterStartsAfreshAfterItsTextWasTaken) {
    JSONWriter writer(Form::pretty);
    writeSample(writer);
    const std::string first = writer.take();
    EXPECT_EQ(writer.text(), "");
    writeSample(writer);

    EXPECT_EQ(writer.take(), first);
}

TEST(JSONWriterTests, ClearedWriterStartsAfreshWhereverItWas) {
    for (const auto form : {Form::compact, Form::pretty, Form::sorted}) {
        JSONWriter fresh(form);
        writeSample(fresh);
        JSONWriter writer(form);
        writer.beginObject();
        writer.member("b", 1);
        writer.key("a");
        writer.beginArray();
        writer.clear();
        EXPECT_EQ(writer.text(), "");
        writeSample(writer);

        EXPECT_EQ(writer.take(), fresh.take());
    }
}

TEST(JSONWriterTests, CopyOfAWriterGoesItsOwnWay) {
    JSONWriter writer(Form::sorted);
    writer.beginObject();
    writer.member("b", 1);
    JSONWriter copy = writer;
    copy.member("a", 2);
    copy.endObject();
    writer.endObject();

    EXPECT_EQ(writer.take(), R"({"b":1})");
    EXPECT_EQ(copy.take(), R"({"a":2,"b":1})");
}

TEST(JSONWriterTests, SettingCountsOnlyAsTheTruthValueTrue) {
    const auto isSet = [](const JSONUserInfo& settings) {
        return JSONWriter(Form::compact, settings).isSet(omitLegacyMusicFields);
    };
    const std::string key = "Quillmere.omitLegacyMusicFields";

    EXPECT_TRUE(isSet({{key, true}}));
    EXPECT_FALSE(isSet({}));
    EXPECT_FALSE(isSet({{key, false}}));
    EXPECT_FALSE(isSet({{key, std::int64_t{1}}}));
    EXPECT_FALSE(isSet({{key, 1.0}}));
    EXPECT_FALSE(isSet({{key, std::string("true")}}));
    EXPECT_FALSE(isSet({{"omitLegacyMusicFields", true}}));
}

TEST(JSONWriterDeathTests, CallOutOfOrderStopsTheProcess) {
    const auto dies = [](const std::function<void(JSONWriter&)>& write) {
        JSONWriter writer(Form::compact);
        EXPECT_DEATH(write(writer), "JSON must be written in order");
    };

    dies([](JSONWriter& writer) { writer.key("a"); });
    dies([](JSONWriter& writer) { writer.endObject(); });
    dies([](JSONWriter& writer) { writer.beginArray(), writer.endObject(); });
    dies([](JSONWriter& writer) { writer.beginObject(), writer.endArray(); });
    dies([](JSONWriter& writer) { writer.beginArray(), writer.key("a"); });
    dies([](JSONWriter& writer) { writer.beginObject(), writer.integer(1); });
    dies([](JSONWriter& writer) { writer.beginObject(), writer.key("a"), writer.endObject(); });
    dies([](JSONWriter& writer) { writer.beginObject(), writer.key("a"), writer.key("b"); });
    dies([](JSONWriter& writer) { writer.integer(1), writer.integer(2); });
    dies([](JSONWriter& writer) { writer.beginArray(), static_cast<void>(writer.take()); });
}

}  // namespace
}  // namespace quillmere::test
