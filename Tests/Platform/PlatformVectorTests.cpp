#include <bit>
#include <charconv>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/FileURL.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "Tests/Platform/UTF8.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere::test {
namespace {

QUILLMERE_VECTOR_TEST(JSONDoubles, "json-doubles") {
    const auto digits = vector["bits"].get<std::string>();
    std::uint64_t bits = 0;
    ASSERT_EQ(std::from_chars(digits.data(), digits.data() + digits.size(), bits, 16).ec, std::errc{});
    const auto value = std::bit_cast<double>(bits);
    const auto text = vector["text"].get<std::string>();

    EXPECT_EQ(encodeJSON(value, JSONWriter::Form::compact), text);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(decodeJSON<double>(text)), bits) << text;
}

QUILLMERE_VECTOR_TEST(JSONStrings, "json-strings") {
    const std::string string = utf8(vector["scalars"].get<std::vector<std::uint32_t>>());
    const auto text = vector["text"].get<std::string>();

    EXPECT_EQ(encodeJSON(string, JSONWriter::Form::compact), text);
    EXPECT_EQ(decodeJSON<std::string>(text), string);
}

QUILLMERE_VECTOR_TEST(FileURLs, "file-urls") {
    const auto path = vector["path"].get<std::string>();
    const auto url = FileURL::fromPath(path);

    EXPECT_EQ(url.text(), vector["text"].get<std::string>());
    EXPECT_EQ(url.path().native(), path);
    EXPECT_EQ(url.standardPath().native(), vector["standardizedPath"].get<std::string>());
    EXPECT_TRUE(url.isFile());
}

QUILLMERE_VECTOR_TEST(FileURLTexts, "file-url-texts") {
    const auto text = vector["text"].get<std::string>();
    const auto url = FileURL::fromText(text);

    if (vector["value"].is_null()) {
        EXPECT_EQ(url, std::nullopt);
        return;
    }
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->text(), vector["value"]["absolute"].get<std::string>());
    EXPECT_EQ(url->isFile(), vector["value"]["isFile"].get<bool>());
    EXPECT_EQ(url->path().native(), vector["value"]["path"].get<std::string>());
}

QUILLMERE_VECTOR_TEST(Trimming, "trimming") {
    const std::string blank = utf8({vector["scalar"].get<std::uint32_t>()});
    const std::string text = blank + "a" + blank + "b" + blank;

    EXPECT_EQ(trimmed(text), vector["trimmed"].get<bool>() ? "a" + blank + "b" : text) << vector["scalar"];
}

QUILLMERE_VECTOR_TEST(LettersAndDigits, "letters-and-digits") {
    const std::string character = utf8(vector["scalars"].get<std::vector<std::uint32_t>>());

    EXPECT_EQ(consistsOfLettersDigitsAndHyphens(character), vector["allowed"].get<bool>()) << character;
}

}  // namespace
}  // namespace quillmere::test
