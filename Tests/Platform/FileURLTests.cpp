#include "QuillmereKit/Platform/FileURL.hpp"

#include <gtest/gtest.h>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {
namespace {

FileURL url(std::string_view text) { return FileURL::fromText(text).value(); }

TEST(FileURLTests, PathIsEncodedByteByByte) {
    EXPECT_EQ(FileURL::fromPath("/a b/\u00e9%.wav").text(), "file:///a%20b/%C3%A9%25.wav");
    EXPECT_EQ(FileURL::fromPath("/-._~!$&'()*+,;=:@/aZ09").text(), "file:///-._~!$&'()*+,;=:@/aZ09");
    EXPECT_EQ(FileURL::fromPath("/\xFF").text(), "file:///%FF");
    EXPECT_EQ(FileURL::fromPath("/").text(), "file:///");
}

TEST(FileURLTests, EveryByteOfAPathComesBack) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string path = std::string("/a") + static_cast<char>(byte) + "b";

        EXPECT_EQ(FileURL::fromPath(path).path().native(), path);
        EXPECT_TRUE(FileURL::fromPath(path).isFile());
    }
}

TEST(FileURLTests, RelativePathIsTakenFromTheCurrentFolder) {
    EXPECT_EQ(FileURL::fromPath("a.wav").path(), std::filesystem::current_path() / "a.wav");
}

TEST(FileURLTests, TextIsKeptUnchanged) {
    for (const std::string_view text : {"file:///a%2fb", "FILE:///A%c3%bc", "file:///a b", "file:a", "http://x/y", "x",
                                        "file:///%zz", "file:///a?b#c", "file://host/a"}) {
        EXPECT_EQ(url(text).text(), text);
    }
    EXPECT_EQ(FileURL::fromText(""), std::nullopt);
}

TEST(FileURLTests, SchemeIsComparedWithoutRegardToCase) {
    for (const std::string_view text : {"file:///a", "FILE:///a", "File:/a", "fIlE://host/a"}) {
        EXPECT_TRUE(url(text).isFile()) << text;
    }
    for (const std::string_view text : {"http://a/b", "files:///a", "fil:///a", "/a", "file", "file%3A///a",
                                        " file:///a", "1file:///a", "\x26ile:///a", "file /:a"}) {
        EXPECT_FALSE(url(text).isFile()) << text;
    }
}

TEST(FileURLTests, PathIsTheDecodedPathPartAlone) {
    EXPECT_EQ(url("file:///a%20b").path(), "/a b");
    EXPECT_EQ(url("file://localhost/a").path(), "/a");
    EXPECT_EQ(url("file://user@host:80/a/b").path(), "/a/b");
    EXPECT_EQ(url("file:/a").path(), "/a");
    EXPECT_EQ(url("file:///a?q/r#f").path(), "/a");
    EXPECT_EQ(url("file:///a#f?q").path(), "/a");
    EXPECT_EQ(url("file:///a%3Fb%23c").path(), "/a?b#c");
    EXPECT_EQ(url("file:///%C3%BC%c3%bc").path(), "/\u00fc\u00fc");
    EXPECT_EQ(url("file:///a%2Fb").path(), "/a/b");
    EXPECT_EQ(url("file://host").path(), "");
    EXPECT_EQ(url("file://host?x").path(), "");
    EXPECT_EQ(url("file:").path(), "");
    EXPECT_EQ(url("http://host/a").path(), "/a");
    EXPECT_EQ(url("a/b").path(), "a/b");
    EXPECT_EQ(url("a/b:c").path(), "a/b:c");
}

TEST(FileURLTests, PercentSignWithoutTwoDigitsStandsForItself) {
    EXPECT_EQ(url("file:///%").path(), "/%");
    EXPECT_EQ(url("file:///%4").path(), "/%4");
    EXPECT_EQ(url("file:///%4g%zz%%41").path(), "/%4g%zz%A");
    EXPECT_EQ(url("file:///%2541").path(), "/%41");
}

TEST(FileURLTests, PathWithAZeroByteNamesNothing) {
    EXPECT_EQ(url("file:///loops/a.wav%00.txt").path(), "");
    EXPECT_EQ(url("file:///loops/a.wav%00.txt").standardPath(), "");
    EXPECT_EQ(url(std::string_view("file:///a\0b", 11)).path(), "");
}

TEST(FileURLTests, StandardPathIsMadeByTextAlone) {
    const auto standard = [](std::string_view path) { return standardPath(std::filesystem::path(path)).native(); };

    EXPECT_EQ(standard("/a/b"), "/a/b");
    EXPECT_EQ(standard("//a///b//"), "/a/b");
    EXPECT_EQ(standard("/a/./b/."), "/a/b");
    EXPECT_EQ(standard("/a/../b/c/.."), "/b");
    EXPECT_EQ(standard("/../../a"), "/a");
    EXPECT_EQ(standard("/a/.."), "/");
    EXPECT_EQ(standard("/"), "/");
    EXPECT_EQ(standard("/..."), "/...");
    EXPECT_EQ(standard("/.a/..b"), "/.a/..b");
    EXPECT_EQ(standard("a/../../b"), "../b");
    EXPECT_EQ(standard("../../a"), "../../a");
    EXPECT_EQ(standard("a/.."), ".");
    EXPECT_EQ(standard("./a"), "a");
    EXPECT_EQ(standard(""), "");
    EXPECT_EQ(url("file:///a/%2e%2E/b").standardPath(), "/b");
    EXPECT_EQ(url("file:///a%2F..%2Fb").standardPath(), "/b");
}

TEST(FileURLTests, EqualityAndHashAreThoseOfTheText) {
    EXPECT_EQ(url("file:///a"), FileURL::fromPath("/a"));
    EXPECT_NE(url("file:///%61"), url("file:///a"));
    EXPECT_EQ(std::hash<FileURL>{}(url("file:///a")), std::hash<FileURL>{}(FileURL::fromPath("/a")));
}

TEST(FileURLTests, JSONHoldsTheText) {
    EXPECT_EQ(encodeJSON(url("file:///a%20b"), JSONWriter::Form::compact), R"("file:\/\/\/a%20b")");
    EXPECT_EQ(decodeJSON<FileURL>(R"("FILE:///a")").text(), "FILE:///a");
    EXPECT_THROW(static_cast<void>(decodeJSON<FileURL>(R"("")")), JSONError);
    EXPECT_THROW(static_cast<void>(decodeJSON<FileURL>("1")), JSONError);
    EXPECT_THROW(static_cast<void>(decodeJSON<FileURL>("null")), JSONError);
}

}  // namespace
}  // namespace quillmere::test
