#include "QuillmereKit/Platform/JSONReader.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <random>
#include <utility>

#include "Tests/Platform/UTF8.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere {

/// {"seed": integer, "gains": array of numbers, "name": text or absent}
struct SampleIdentity {
    std::int64_t seed = 0;
    std::vector<double> gains;
    std::optional<std::string> name;
};

template <>
SampleIdentity decode<SampleIdentity>(const JSONValue& value) {
    return {value.member<std::int64_t>("seed"), value.member<std::vector<double>>("gains"),
            value.optionalMember<std::string>("name")};
}

template <>
JSONValue decode<JSONValue>(const JSONValue& value) {
    return value;
}

/// {"identity": object}
struct SampleRecipe {
    SampleIdentity identity;
};

template <>
SampleRecipe decode<SampleRecipe>(const JSONValue& value) {
    return {value.member<SampleIdentity>("identity")};
}

/// {"value": integer}, and far more memory than text.
struct BulkySample {
    std::array<char, 65'536> room{};
};

template <>
BulkySample decode<BulkySample>(const JSONValue& value) {
    (void)value.member<std::int64_t>("value");
    return {};
}

namespace test {
namespace {

std::string repeated(std::string_view part, std::size_t count) {
    std::string text;
    text.reserve(part.size() * count);
    for (std::size_t index = 0; index < count; ++index) text += part;
    return text;
}

bool isAccepted(std::string_view text) {
    try {
        static_cast<void>(JSONDocument::parse(text));
        return true;
    } catch (const JSONError&) {
        return false;
    }
}

/// The message of refusing a text.
std::string parsingFailure(std::string_view text) {
    try {
        static_cast<void>(JSONDocument::parse(text));
        return "";
    } catch (const JSONError& error) {
        return error.what();
    }
}

/// The error of reading a text as a `T`.
template <class T>
std::pair<std::string, std::string> failure(std::string_view text) {
    try {
        static_cast<void>(decodeJSON<T>(text));
    } catch (const JSONError& error) {
        return {error.path(), error.reason()};
    }
    ADD_FAILURE() << "no error for " << text;
    return {};
}

TEST(JSONReaderTests, ValuesOfEachKindAreRead) {
    const auto document =
        JSONDocument::parse(R"( {"a":true,"b":false,"c":null,"d":"t","e":-3,"f":2.5,"g":[1],"h":{}} )");
    const auto root = document.root();

    EXPECT_TRUE(root.isObject());
    EXPECT_TRUE(root.member<bool>("a"));
    EXPECT_FALSE(root.member<bool>("b"));
    EXPECT_TRUE(root.find("c")->isNull());
    EXPECT_TRUE(root.find("d")->isString());
    EXPECT_EQ(root.member<std::string>("d"), "t");
    EXPECT_EQ(root.member<std::int64_t>("e"), -3);
    EXPECT_EQ(root.member<double>("f"), 2.5);
    EXPECT_TRUE(root.find("g")->isArray());
    EXPECT_EQ(root.member<std::vector<std::int64_t>>("g"), std::vector<std::int64_t>{1});
    EXPECT_TRUE(root.find("h")->isObject());
    EXPECT_TRUE(root.find("h")->members().empty());
}

TEST(JSONReaderTests, AnyValueMayBeTheWholeText) {
    EXPECT_EQ(decodeJSON<std::int64_t>("7"), 7);
    EXPECT_EQ(decodeJSON<std::int64_t>(" 7\n"), 7);
    EXPECT_EQ(decodeJSON<double>("-1.5e3"), -1500);
    EXPECT_EQ(decodeJSON<std::string>("\"x\""), "x");
    EXPECT_TRUE(decodeJSON<bool>("true"));
    EXPECT_TRUE(JSONDocument::parse("null").root().isNull());
    EXPECT_TRUE(JSONDocument::parse("[]").root().elements().empty());
}

TEST(JSONReaderTests, TextThatIsNotJSONIsRefused) {
    for (const std::string_view text : {"",
                                        " ",
                                        "{",
                                        "}",
                                        "[",
                                        "]",
                                        "[1",
                                        "[1,",
                                        "[1,]",
                                        "[,1]",
                                        "[1 2]",
                                        "{\"a\"}",
                                        "{\"a\":}",
                                        "{\"a\":1,}",
                                        "{\"a\" 1}",
                                        "{a:1}",
                                        "{'a':1}",
                                        "{1:2}",
                                        "{\"a\":1 \"b\":2}",
                                        "nul",
                                        "nulll",
                                        "True",
                                        "truefalse",
                                        "NaN",
                                        "Infinity",
                                        "-Infinity",
                                        "-",
                                        "+1",
                                        "01",
                                        "-01",
                                        "1.",
                                        ".5",
                                        "1.e2",
                                        "1e",
                                        "1e+",
                                        "0x10",
                                        "1_000",
                                        "1,2",
                                        "1 2",
                                        "{}{}",
                                        "[]x",
                                        "\"",
                                        "\"\\\"",
                                        "\"\\x\"",
                                        "\"\\u12\"",
                                        "\"\\u12G4\"",
                                        "\"a\nb\"",
                                        "\"\t\"",
                                        "// c\n1",
                                        "/**/1",
                                        "[1]//",
                                        "'a'",
                                        "\xFF",
                                        "\"\xC3\"",
                                        "\"\xC0\x80\"",
                                        "\"\xED\xA0\x80\"",
                                        "[\"a\",\"\xF5\x80\x80\x80\"]"}) {
        SCOPED_TRACE(text);

        EXPECT_FALSE(isAccepted(text));
    }
    EXPECT_FALSE(isAccepted(std::string_view("\"a\0b\"", 5)));
    EXPECT_FALSE(isAccepted(std::string_view("{}\0", 3)));
    EXPECT_FALSE(isAccepted(std::string_view("\0{}", 3)));
}

TEST(JSONReaderTests, TruncatedTextIsRefusedWhereverItEnds) {
    const std::string_view whole = R"({"a":[1,2.5,-3e2,{"b":"é\u00e9\n"}],"c":null,"d":true})";
    ASSERT_TRUE(isAccepted(whole));

    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);

        EXPECT_FALSE(isAccepted(whole.substr(0, length)));
    }
}

TEST(JSONReaderTests, ByteOrderMarkBeforeTheTextIsSkippedOnce) {
    EXPECT_EQ(decodeJSON<std::int64_t>("\xEF\xBB\xBF 1"), 1);
    EXPECT_FALSE(isAccepted("\xEF\xBB\xBF\xEF\xBB\xBF 1"));
    EXPECT_FALSE(isAccepted(" \xEF\xBB\xBF 1"));
    EXPECT_FALSE(isAccepted("\xEF\xBB\xBF"));
    EXPECT_EQ(decodeJSON<std::string>("\"\xEF\xBB\xBF\""), "\xEF\xBB\xBF");
}

TEST(JSONReaderTests, StringEscapesAreUndone) {
    EXPECT_EQ(decodeJSON<std::string>(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(decodeJSON<std::string>(R"("\u0041\u00e9\u20AC\ud83d\uDE00")"), "A\u00e9\u20ac\U0001F600");
    EXPECT_EQ(decodeJSON<std::string>(R"("a\u0000b")"), std::string("a\0b", 3));
    EXPECT_EQ(decodeJSON<std::string>(R"("\uFFFF\u007f")"), "\uFFFF\x7F");
}

TEST(JSONReaderTests, KeysMayHoldZeroAndEscapes) {
    const auto document = JSONDocument::parse(R"({"a\u0000b":1,"a":2,"\u0061b":3})");

    EXPECT_EQ(document.root().member<std::int64_t>(std::string_view("a\0b", 3)), 1);
    EXPECT_EQ(document.root().member<std::int64_t>("a"), 2);
    EXPECT_EQ(document.root().member<std::int64_t>("ab"), 3);
}

TEST(JSONReaderTests, SurrogateEscapeWithoutItsPartnerIsRefused) {
    for (const std::string_view text :
         {R"("\ud83d")", R"("\ude00")", R"("\ud83dx")", R"("\ud83d\n")", R"("\ud83d\u0041")", R"("\ud83d\ud83d")",
          R"("\ude00\ud83d")", R"("\ud83d\ude0")", R"(["\udfff"])", R"({"\udc00":1})", R"({"\ud800":1})"}) {
        SCOPED_TRACE(text);

        EXPECT_FALSE(isAccepted(text));
    }
}

TEST(JSONReaderTests, WholeNumbersMayBeWrittenWithPointOrExponent) {
    EXPECT_EQ(decodeJSON<std::int64_t>("2.0"), 2);
    EXPECT_EQ(decodeJSON<std::int64_t>("1e2"), 100);
    EXPECT_EQ(decodeJSON<std::int64_t>("-250e-1"), -25);
    EXPECT_EQ(decodeJSON<std::int64_t>("0.1e1"), 1);
}

TEST(JSONReaderTests, IntegersAreReadToTheLimitsOf64Bits) {
    EXPECT_EQ(decodeJSON<std::int64_t>("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(decodeJSON<std::int64_t>("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(decodeJSON<std::int64_t>("-9223372036854775808.0"), INT64_MIN);
    EXPECT_EQ(decodeJSON<std::int64_t>("1e18"), 1000000000000000000);
    for (const std::string_view text :
         {"9223372036854775808", "-9223372036854775809", "18446744073709551615", "18446744073709551616",
          "9223372036854775808.0", "1e19", "-1e19", "1e400", "2.5", "-0.5", "1e-1", "123456789012345678901234567890"}) {
        SCOPED_TRACE(text);

        EXPECT_EQ(failure<std::int64_t>(text).second, "must be a whole number of 64 bits");
    }
}

TEST(JSONReaderTests, AnyNumberInRangeIsADoubleNearestToIt) {
    EXPECT_EQ(decodeJSON<double>("18446744073709551615"), 18446744073709551615.0);
    EXPECT_EQ(decodeJSON<double>("18446744073709551616"), 18446744073709551616.0);
    EXPECT_EQ(decodeJSON<double>("-9223372036854775809"), -9223372036854775809.0);
    EXPECT_EQ(decodeJSON<double>("123456789012345678901234567890"), 123456789012345678901234567890.0);
    EXPECT_EQ(decodeJSON<double>("9007199254740993"), 9007199254740992.0);        // half way: to the even one
    EXPECT_EQ(decodeJSON<double>("36893488147419107329"), 0x1.0000000000001p65);  // just above half way, beyond 64 bits
    EXPECT_EQ(decodeJSON<double>("36893488147419107328"), 0x1p65);                // half way
    EXPECT_EQ(decodeJSON<double>("1.7976931348623157e308"), 1.7976931348623157e308);
    EXPECT_EQ(decodeJSON<double>("1" + std::string(308, '0')), 1e308);
    EXPECT_EQ(decodeJSON<double>("0." + std::string(400, '0') + "1e400"), 0.1);
    EXPECT_EQ(decodeJSON<double>("5e-324"), 5e-324);
    EXPECT_EQ(decodeJSON<double>("1e-400"), 0.0);
    EXPECT_EQ(decodeJSON<double>("0e99999999999999999999"), 0.0);
}

TEST(JSONReaderTests, NegativeZeroKeepsItsSign) {
    for (const std::string_view text : {"-0", " -0 ", "-0.0", "-0e5"}) {
        SCOPED_TRACE(text);

        EXPECT_TRUE(std::signbit(decodeJSON<double>(text)));
        EXPECT_EQ(decodeJSON<double>(text), 0.0);
        EXPECT_EQ(decodeJSON<std::int64_t>(text), 0);
    }
    const auto numbers = JSONDocument::parse("[-0,0,-0 ,1,\n-0\n,2,-0]").root().elements<double>();
    ASSERT_EQ(numbers.size(), 7U);
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        EXPECT_EQ(std::signbit(numbers[index]), index % 2 == 0) << index;
    }
    EXPECT_FALSE(std::signbit(decodeJSON<double>("0")));
}

TEST(JSONReaderTests, NegativeZeroIsFoundAtEveryPlace) {
    for (std::size_t blanks = 0; blanks < 70; ++blanks) {
        SCOPED_TRACE(blanks);
        const std::string text = "[" + std::string(blanks, ' ') + "-0" + std::string(blanks % 7, ' ') + ",\"-0\",1]";
        const auto document = JSONDocument::parse(text);

        EXPECT_TRUE(std::signbit(document.root().elements()[0].number()));
        EXPECT_EQ(document.root().elements()[1].string(), "-0");
        EXPECT_EQ(document.root().elements()[2].integer(), 1);
    }
}

TEST(JSONReaderTests, NumberBeyondTheRangeIsRefusedByEveryGetterButHarmsNothingElse) {
    for (const auto& number : std::vector<std::string>{"1e400", "-1e309", "1.8e308", "9" + std::string(400, '9'),
                                                       "-1E+999999999999999999999"}) {
        SCOPED_TRACE(number);
        const auto document = JSONDocument::parse("{\"before\":1,\"odd\":" + number + ",\"after\":[" + number + ",2]}");
        const auto odd = *document.root().find("odd");

        EXPECT_THROW(static_cast<void>(odd.number()), JSONError);
        EXPECT_THROW(static_cast<void>(odd.integer()), JSONError);
        EXPECT_THROW(static_cast<void>(odd.boolean()), JSONError);
        EXPECT_THROW(static_cast<void>(odd.string()), JSONError);
        EXPECT_THROW(static_cast<void>(odd.elements()), JSONError);
        EXPECT_THROW(static_cast<void>(odd.members()), JSONError);
        EXPECT_THROW(static_cast<void>(odd.find("x")), JSONError);
        EXPECT_FALSE(odd.isNull() || odd.isString() || odd.isArray() || odd.isObject());
        EXPECT_EQ(odd.text(), number);
        EXPECT_EQ(document.root().member<std::int64_t>("before"), 1);
        EXPECT_EQ(document.root().find("after")->elements()[1].integer(), 2);
    }
}

TEST(JSONReaderTests, ManyNumbersThatDoNotFitKeepTheirPlaces) {
    const auto document = JSONDocument::parse(
        R"([1, 99999999999999999999, "1e400,-0\"", {"99999999999999999999": -0, "x": 3.5}, [], 1e999, 7, -0, 2e2])");
    const auto values = document.root().elements();

    ASSERT_EQ(values.size(), 9U);
    EXPECT_EQ(values[0].integer(), 1);
    EXPECT_EQ(values[1].number(), 1e20);
    EXPECT_EQ(values[2].string(), "1e400,-0\"");
    EXPECT_TRUE(std::signbit(values[3].member<double>("99999999999999999999")));
    EXPECT_EQ(values[3].member<double>("x"), 3.5);
    EXPECT_THROW(static_cast<void>(values[5].number()), JSONError);
    EXPECT_EQ(values[6].integer(), 7);
    EXPECT_TRUE(std::signbit(values[7].number()));
    EXPECT_EQ(values[8].integer(), 200);
}

TEST(JSONReaderTests, MalformedNumberIsRefusedAlsoBesideOnesThatDoNotFit) {
    for (const std::string_view number : {"01e400", "1e400x", "1.e400", "1e4e4", "--0", "-00", "00", "1-0", "-",
                                          "99999999999999999999.", "+99999999999999999999", "0099999999999999999999"}) {
        SCOPED_TRACE(number);

        EXPECT_FALSE(isAccepted("[1e400,-0," + std::string(number) + "]"));
        EXPECT_FALSE(isAccepted(number));
    }
    EXPECT_FALSE(isAccepted("[1e400"));
    EXPECT_FALSE(isAccepted("[1e400 1e400]"));
    EXPECT_FALSE(isAccepted("[-0,\"\\"));
}

TEST(JSONReaderTests, ValueOfAnotherTypeIsAnError) {
    EXPECT_EQ(failure<double>("true").second, "must be a number");
    EXPECT_EQ(failure<double>("\"1\"").second, "must be a number");
    EXPECT_EQ(failure<double>("null").second, "must be a number");
    EXPECT_EQ(failure<std::int64_t>("false").second, "must be a whole number of 64 bits");
    EXPECT_EQ(failure<std::int64_t>("\"1\"").second, "must be a whole number of 64 bits");
    EXPECT_EQ(failure<std::string>("1").second, "must be text");
    EXPECT_EQ(failure<std::string>("null").second, "must be text");
    EXPECT_EQ(failure<bool>("1").second, "must be true or false");
    EXPECT_EQ(failure<bool>("null").second, "must be true or false");
    EXPECT_EQ(failure<SampleIdentity>("[]").second, "must be an object");
    EXPECT_EQ(failure<SampleIdentity>("null").second, "must be an object");
    EXPECT_THROW(static_cast<void>(JSONDocument::parse("{}").root().elements()), JSONError);
    EXPECT_THROW(static_cast<void>(JSONDocument::parse("{}").root().elements<double>()), JSONError);
    EXPECT_THROW(static_cast<void>(JSONDocument::parse("[]").root().members()), JSONError);
}

TEST(JSONReaderTests, FirstOfTwoEqualKeysCounts) {
    const auto document = JSONDocument::parse(R"({"a":1,"b":2,"a":"x","\u0061":3})");

    EXPECT_EQ(document.root().member<std::int64_t>("a"), 1);
    ASSERT_EQ(document.root().members().size(), 4U);
    EXPECT_EQ(document.root().members()[2].first, "a");
    EXPECT_EQ(document.root().members()[2].second.string(), "x");
}

TEST(JSONReaderTests, KeysAreComparedByteByByte) {
    const auto root = JSONDocument::parse("{\"A\":1,\"e\u0301\":2}");

    EXPECT_FALSE(root.root().find("a"));
    EXPECT_FALSE(root.root().find("\u00e9"));
    EXPECT_TRUE(root.root().find("e\u0301"));
}

TEST(JSONReaderTests, MissingOrNullOptionalMemberIsAbsent) {
    const auto read = [](std::string_view text) {
        return JSONDocument::parse(text).root().optionalMember<std::int64_t>("a");
    };

    EXPECT_EQ(read("{}"), std::nullopt);
    EXPECT_EQ(read(R"({"a":null})"), std::nullopt);
    EXPECT_EQ(read(R"({"a":null,"a":1})"), std::nullopt);
    EXPECT_EQ(read(R"({"a":5})"), 5);
    EXPECT_THROW(read(R"({"a":"5"})"), JSONError);
    EXPECT_THROW(read(R"({"a":1.5})"), JSONError);
}

TEST(JSONReaderTests, MembersReadOneAfterAnotherAreThoseOfTheObjectInWhateverOrder) {
    std::vector<std::string> texts = {R"("a":1)", R"("b":"x")", R"("c":null)", R"("d":2.5)", R"("a":9)"};
    std::ranges::sort(texts);
    do {
        std::string text = "{\"other\":[{}]";
        for (const auto& member : texts) text += "," + member;
        const auto document = JSONDocument::parse(text + "}");
        const auto object = document.root();
        std::vector<std::string> keys = {"a", "b", "c", "d"};
        do {
            SCOPED_TRACE(text + " asked for from " + keys[0] + keys[1] + keys[2] + keys[3]);
            JSONMembers members(object);
            std::int64_t whole = 0;
            std::string name = "a text that was there before";
            std::optional<std::int64_t> absent = 7;
            std::optional<double> number;
            for (const auto& key : keys) {
                if (key == "a") members.read("a", whole);
                if (key == "b") members.read("b", name);
                if (key == "c") members.readOptional("c", absent);
                if (key == "d") members.readOptional("d", number);
            }

            ASSERT_EQ(whole, object.member<std::int64_t>("a"));
            ASSERT_EQ(name, "x");
            ASSERT_EQ(absent, std::nullopt);
            ASSERT_EQ(number, 2.5);
        } while (std::ranges::next_permutation(keys).found);
    } while (std::ranges::next_permutation(texts).found);
}

TEST(JSONReaderTests, MembersReadOneAfterAnotherFailAsTheObjectsMembersDo) {
    const auto document = JSONDocument::parse(R"({"a":1,"b":{"name":true}})");
    const auto object = document.root();
    const auto errorOf = [](const auto& read) -> std::string {
        try {
            read();
        } catch (const JSONError& error) {
            return error.what();
        }
        return "none";
    };
    const auto sameFailure = [&](std::string_view key) {
        std::string text;
        std::optional<std::string> optional = "before";
        JSONMembers members(object);
        JSONMembers others(object);
        EXPECT_EQ(errorOf([&] { members.read(key, text); }),
                  errorOf([&] { static_cast<void>(object.member<std::string>(key)); }));
        EXPECT_EQ(errorOf([&] { others.readOptional(key, optional); }),
                  errorOf([&] { static_cast<void>(object.optionalMember<std::string>(key)); }));
    };

    sameFailure("a");
    sameFailure("b");
    sameFailure("missing");
    EXPECT_EQ(errorOf([&] { JSONMembers(object.member<JSONValue>("a")); }),
              errorOf([&] { static_cast<void>(object.member<JSONValue>("a").find("x")); }));
}

TEST(JSONReaderTests, ErrorNamesTheKeyPath) {
    using Path = std::pair<std::string, std::string>;
    const auto ofRecipes = [](std::string_view text) {
        try {
            static_cast<void>(JSONDocument::parse(text).root().member<std::vector<SampleRecipe>>("recipes"));
        } catch (const JSONError& error) {
            EXPECT_EQ(std::string(error.what()), error.path() + ": " + error.reason());
            return Path{error.path(), error.reason()};
        }
        return Path{};
    };
    const std::string good = R"({"identity":{"seed":1,"gains":[]}})";

    EXPECT_EQ(ofRecipes("{}"), Path("recipes", "is missing"));
    EXPECT_EQ(ofRecipes(R"({"recipes":null})"), Path("recipes", "must be an array"));
    EXPECT_EQ(ofRecipes(R"({"recipes":[1]})"), Path("recipes[0]", "must be an object"));
    EXPECT_EQ(
        ofRecipes("{\"recipes\":[" + good + "," + good + "," + good + R"(,{"identity":{"seed":"x","gains":[]}}]})"),
        Path("recipes[3].identity.seed", "must be a whole number of 64 bits"));
    EXPECT_EQ(ofRecipes("{\"recipes\":[" + good + R"(,{"identity":{"seed":1}}]})"),
              Path("recipes[1].identity.gains", "is missing"));
    EXPECT_EQ(ofRecipes(R"({"recipes":[{"identity":{"seed":1,"gains":[1,2,true]}}]})"),
              Path("recipes[0].identity.gains[2]", "must be a number"));
    EXPECT_EQ(ofRecipes(R"({"recipes":[{"identity":{"seed":1,"gains":[],"name":7}}]})"),
              Path("recipes[0].identity.name", "must be text"));
    EXPECT_EQ(failure<std::int64_t>("[]").first, "");
}

TEST(JSONReaderTests, ArraysOfArraysAreRead) {
    using Rows = std::vector<std::vector<double>>;

    EXPECT_EQ(JSONDocument::parse("{\"a\":[[1,2],[],[3]]}").root().member<Rows>("a"), (Rows{{1, 2}, {}, {3}}));
}

TEST(JSONReaderTests, DeepNestingIsReadTo512LevelsAndRefusedWhenAbsurd) {
    for (const std::size_t depth : {std::size_t{512}, std::size_t{1000}}) {
        const std::string arrays = repeated("[", depth) + repeated("]", depth);
        const std::string objects = repeated("{\"a\":", depth) + "1" + repeated("}", depth);
        EXPECT_EQ(JSONDocument::parse(arrays).root().text(), arrays);
        EXPECT_EQ(JSONDocument::parse(objects).root().text(), objects);
    }
    constexpr std::size_t absurd = 5'000'000;
    EXPECT_FALSE(isAccepted(repeated("[", absurd)));
    EXPECT_FALSE(isAccepted(repeated("[", absurd) + repeated("]", absurd)));
    EXPECT_FALSE(isAccepted(repeated("{\"a\":", absurd)));
    EXPECT_FALSE(isAccepted("[-0," + repeated("[", absurd)));
    EXPECT_FALSE(isAccepted(repeated("]", absurd)));
    EXPECT_FALSE(isAccepted(repeated("\"", absurd + 1)));
}

// An empty object or array at the bottom is one that the parser does not go into.
TEST(JSONReaderTests, NestingIsReadTo1023LevelsAndAnEmptyOneBelowThem) {
    constexpr std::size_t most = 1023;
    struct Kind {
        std::string open, empty, close;
    };
    for (const Kind& kind : {Kind{"[", "[]", "]"}, Kind{"{\"a\":", "{}", "}"}}) {
        SCOPED_TRACE(kind.open);
        const auto& empty = kind.empty;
        const auto nested = [&](std::size_t depth, const std::string& bottom) {
            return repeated(kind.open, depth) + bottom + repeated(kind.close, depth);
        };
        EXPECT_TRUE(isAccepted(nested(most, "1")));
        EXPECT_FALSE(isAccepted(nested(most + 1, "1")));
        EXPECT_TRUE(isAccepted(nested(most, empty)));
        EXPECT_FALSE(isAccepted(nested(most + 1, empty)));
        const std::string blanks(std::size_t{73} << 20, ' ');  // what is long is looked at before
        EXPECT_TRUE(isAccepted(nested(most, empty) + blanks));
        EXPECT_FALSE(isAccepted(nested(most + 1, "1") + blanks));
        EXPECT_FALSE(isAccepted(nested(most + 1, empty) + blanks));
    }
}

// Of a text of many megabytes the nesting is looked at before anything else.
TEST(JSONReaderTests, NestingOfALongTextIsJudgedAsThatOfAShortOne) {
    constexpr std::size_t length = std::size_t{73} << 20;
    const std::string brackets(length, '[');
    const std::string quoted = "\"\\\"" + brackets + "\\\\\"";
    const std::string deep = repeated("[", 1000) + quoted + repeated("]", 1000);

    EXPECT_EQ(parsingFailure("[" + quoted + "]]"),
              "not valid JSON: The JSON document has an improper structure: missing "
              "or superfluous commas, braces, missing keys, etc.");
    EXPECT_EQ(parsingFailure(brackets), parsingFailure(repeated("[", 1025) + repeated("]", 1025)));
    EXPECT_FALSE(isAccepted(brackets));
    EXPECT_FALSE(isAccepted(std::string(length, '{')));
    EXPECT_FALSE(isAccepted(std::string(length, ']')));
    EXPECT_FALSE(isAccepted("[" + quoted + "]]"));
    EXPECT_FALSE(isAccepted("[" + quoted + "}"));
    EXPECT_FALSE(isAccepted(quoted + "[" + quoted));
    EXPECT_FALSE(isAccepted("\"" + brackets));
    EXPECT_FALSE(isAccepted("[" + deep + "," + repeated("[", 1025) + repeated("]", 1025) + "]"));
    EXPECT_TRUE(isAccepted(quoted));
    EXPECT_TRUE(isAccepted(deep));
    EXPECT_TRUE(isAccepted("[" + deep + "," + repeated("[", 1000) + repeated("]", 1000) + "]"));
}

TEST(JSONReaderTests, LongArraysAndTextsAreReadWhole) {
    constexpr std::size_t count = 300'000;
    const std::string text = "[\"" + std::string(count, 'x') + "\"" + repeated(",1", count) + "]";
    const auto document = JSONDocument::parse(text);
    const auto values = document.root().elements();

    ASSERT_EQ(values.size(), count + 1);
    EXPECT_EQ(values[0].string().size(), count);
    EXPECT_EQ(values.back().integer(), 1);
}

TEST(JSONReaderTests, NoMemoryIsTakenForElementsThatAreNone) {
    std::string text = "[0";
    for (int i = 0; i < 4'000'000; ++i) text += ",0";  // 256 GB of them, were they any
    text += ']';
    const auto document = JSONDocument::parse(text);

    try {
        (void)document.root().elements<BulkySample>();
        FAIL() << "read";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "[0]");
    }
}

TEST(JSONReaderTests, TextParsedInPlaceIsReadAsACopyOfItWouldBe) {
    for (const std::string text :
         {"7", "\xEF\xBB\xBF[1,-0,18446744073709551616,1e999]", "[\"a\\nb\",{\"k\":[]}]", "\"\""}) {
        for (const std::size_t room : {std::size_t{0}, JSONDocument::roomBehind, std::size_t{4096}}) {
            std::string copy;
            copy.reserve(text.size() + room);
            copy = text;

            EXPECT_EQ(JSONDocument::parseInPlace(std::move(copy)).root().text(),
                      JSONDocument::parse(text).root().text());
        }
    }
    for (const std::string text : {"", "[", "[1]x", "\xEF\xBB\xBF"}) {
        EXPECT_THROW(static_cast<void>(JSONDocument::parseInPlace(text)), JSONError) << text;
    }
}

TEST(JSONReaderTests, EachElementIsVisitedAndAnErrorNamesIt) {
    const auto document = JSONDocument::parse(R"([1,2,"x",4])");
    std::vector<std::int64_t> seen;
    std::string message;
    try {
        document.root().forEachElement([&](const JSONValue& element) { seen.push_back(element.integer()); });
    } catch (const JSONError& error) {
        message = error.what();
    }

    EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2}));
    EXPECT_NE(message.find('2'), std::string::npos) << message;
}

TEST(JSONReaderTests, DocumentOutlivesTheTextAndSurvivesMoving) {
    auto text = std::make_unique<std::string>(R"({"a":"some text that is longer than any small string"})");
    auto first = JSONDocument::parse(*text);
    text.reset();
    const auto value = *first.root().find("a");
    auto second = std::move(first);
    auto third = JSONDocument::parse("1");
    third = std::move(second);

    EXPECT_EQ(value.string(), "some text that is longer than any small string");
    EXPECT_EQ(third.root().find("a")->string(), value.string());
}

TEST(JSONReaderTests, ValueIsWrittenAgainInItsOwnOrder) {
    const auto document = JSONDocument::parse(
        R"({ "z" : [ 1 , 2.50 , -0 , 18446744073709551615 , 1e400 , 99999999999999999999 ] , "a" : { "\u0000" : null } ,)"
        R"( "t/u" : "\u00e9\n" , "e" : [ ] , "o" : { } , "b" : [ true , false , [ [ ] ] ] })");

    EXPECT_EQ(document.root().text(),
              R"({"z":[1,2.5,-0,18446744073709551615,1e400,99999999999999999999],"a":{"\u0000":null},)"
              "\"t\\/u\":\"\u00e9\\n\",\"e\":[],\"o\":{},\"b\":[true,false,[[]]]}");
    EXPECT_EQ(document.root().find("a")->text(), R"({"\u0000":null})");
    EXPECT_EQ(document.root().find("e")->text(), "[]");
    EXPECT_EQ(document.root().find("z")->elements()[1].text(), "2.5");
}

TEST(JSONReaderTests, FileIsReadUpToItsLimit) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("a.json", "\xEF\xBB\xBF{\"a\":1}");

    EXPECT_EQ(JSONDocument::read(file, 10).root().member<std::int64_t>("a"), 1);
    EXPECT_THROW(static_cast<void>(JSONDocument::read(file, 9)), FileError);
    EXPECT_THROW(static_cast<void>(JSONDocument::read(folder.path() / "none.json", 100)), FileError);
    EXPECT_THROW(static_cast<void>(JSONDocument::read(folder.path(), 100)), FileError);
    EXPECT_THROW(static_cast<void>(JSONDocument::read(folder.putFile("b.json", "{"), 100)), JSONError);
}

TEST(JSONReaderTests, StringsMustBeUTF8) {
    forEachByteSequence([](const std::string& bytes) {
        if (bytes.find('\0') != std::string::npos) return;  // refused for another reason

        EXPECT_EQ(isAccepted("\"" + bytes + "\""), isUTF8ByReference(bytes)) << testing::PrintToString(bytes);
    });
}

/// Makes texts that are JSON, or nearly so, out of a fixed sequence of random numbers.
class RandomTexts {
public:
    explicit RandomTexts(std::uint64_t seed) : random_(seed) {}

    std::string value(int depth) {
        switch (below(depth > 0 ? 9 : 7)) {
            case 0: return "null";
            case 1: return "true";
            case 2: return "false";
            case 3: return std::to_string(static_cast<std::int64_t>(random_()) >> below(64));
            case 4: return decimal();
            case 5:
            case 6: return string();
            case 7: {
                std::string text = "[" + blanks();
                for (std::size_t count = below(5), index = 0; index < count; ++index) {
                    text += (index > 0 ? "," : "") + blanks() + value(depth - 1) + blanks();
                }
                return text + "]";
            }
            default: {
                std::string text = "{" + blanks();
                for (std::size_t count = below(5), index = 0; index < count; ++index) {
                    // The number keeps keys apart.
                    text += (index > 0 ? "," : "") + blanks() + "\"" + std::to_string(index) + stringContent() + "\"";
                    text += blanks() + ":" + value(depth - 1) + blanks();
                }
                return text + "}";
            }
        }
    }

    std::string damaged(std::string text) {
        constexpr std::string_view useful =
            "{}[]:,\"\\0123456789-+.eEtrufalsn /\n\t\x01\x7F\xC3\xA9\xED\xA0\x80\xF0\x9F";
        for (std::size_t count = 1 + below(3); count > 0 && !text.empty(); --count) {
            const std::size_t place = below(text.size());
            switch (below(4)) {
                case 0: text.erase(place, 1 + below(3)); break;
                case 1: text.insert(place, 1, useful[below(useful.size())]); break;
                case 2: text[place] = useful[below(useful.size())]; break;
                default: text.insert(place, text.substr(below(text.size()), 1 + below(6))); break;
            }
        }
        return text;
    }

private:
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }

    std::string blanks() {
        std::string text;
        while (below(4) == 0) text += " \n\t\r"[below(4)];
        return text;
    }
    std::string decimal() {
        std::string text = below(2) == 0 ? "-" : "";
        text += std::to_string(random_() >> (8 + below(56)));
        if (below(2) == 0) text += "." + std::to_string(random_() >> below(64));
        if (below(2) == 0)
            text += std::string(1, "eE"[below(2)]) + (below(2) == 0 ? "-" : "") + std::to_string(below(280));
        return text;
    }
    std::string string() { return "\"" + stringContent() + "\""; }
    std::string stringContent() {
        static const std::vector<std::string> parts = {"a",          "B",
                                                       " ",          "0",
                                                       "-0",         "1e400",
                                                       "\u00e9",     "\u20ac",
                                                       "\U0001F600", "\\n",
                                                       "\\u00e9",    "\\\"",
                                                       "\\\\",       "\\/",
                                                       "/",          "\\ud83d\\ude00",
                                                       "\\u0000",    "{",
                                                       "]",          ",",
                                                       "\x7F",       "abcdefghijklmnopqrstuvwxyz"};
        std::string text;
        for (std::size_t count = below(8); count > 0; --count) text += parts[below(parts.size())];
        return text;
    }

    std::mt19937_64 random_;
};

void expectSame(const JSONValue& value, const nlohmann::json& expected) {
    if (expected.is_null()) {
        EXPECT_TRUE(value.isNull());
    } else if (expected.is_boolean()) {
        EXPECT_EQ(value.boolean(), expected.get<bool>());
    } else if (expected.is_string()) {
        EXPECT_EQ(value.string(), expected.get<std::string>());
    } else if (expected.is_number()) {
        if (expected.is_number_integer()) {
            EXPECT_EQ(value.integer(), expected.get<std::int64_t>());
        }
        EXPECT_EQ(value.number(), expected.get<double>());
    } else if (expected.is_array()) {
        const auto elements = value.elements();
        ASSERT_EQ(elements.size(), expected.size());
        for (std::size_t index = 0; index < elements.size(); ++index) expectSame(elements[index], expected[index]);
    } else {
        ASSERT_EQ(value.members().size(), expected.size());
        for (const auto& [key, member] : value.members()) expectSame(member, expected.at(std::string(key)));
    }
}

TEST(JSONReaderTests, RandomDocumentsAreReadAsByAnotherReader) {
    RandomTexts texts(1);
    for (int round = 0; round < 3000; ++round) {
        const std::string text = texts.value(5);
        SCOPED_TRACE(text);
        const auto document = JSONDocument::parse(text);

        expectSame(document.root(), nlohmann::json::parse(text));
        expectSame(JSONDocument::parse(document.root().text()).root(), nlohmann::json::parse(text));
        if (HasFailure()) return;
    }
}

TEST(JSONReaderTests, DamagedDocumentsAreAcceptedExactlyWhenAnotherReaderAcceptsThem) {
    RandomTexts texts(2);
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        const std::string text = texts.damaged(texts.value(4));
        bool expected = true;
        try {
            [[maybe_unused]] const auto value = nlohmann::json::parse(text);
        } catch (const nlohmann::json::out_of_range&) {
            continue;  // the other reader refuses numbers beyond a double's range
        } catch (const nlohmann::json::parse_error&) {
            expected = false;
        }
        accepted += expected ? 1 : 0;

        ASSERT_EQ(isAccepted(text), expected) << text;
    }
    EXPECT_GT(accepted, 1000);
}

}  // namespace
}  // namespace test
}  // namespace quillmere
