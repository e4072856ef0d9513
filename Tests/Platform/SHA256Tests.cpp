#include "QuillmereKit/Platform/SHA256.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace quillmere::test {
namespace {

struct Example {
    std::string text;
    std::string_view digest;
};

/// Messages of NIST's examples for SHA-256 (FIPS 180-4), the empty one and the long one of the NESSIE set.
std::vector<Example> examples() {
    return {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1'000'000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
}

TEST(SHA256Tests, DigestIsThatOfTheStandard) {
    for (const auto& [text, digest] : examples()) EXPECT_EQ(hexadecimal(SHA256::digest(text)), digest);
}

TEST(SHA256Tests, TextMayComeInAnyPieces) {
    for (const auto& [text, digest] : examples()) {
        for (const std::size_t piece : {1U, 7U, 63U, 64U, 65U, 4096U}) {
            if (text.size() / piece > 20000) continue;
            SHA256 hash;
            for (std::size_t place = 0; place < text.size(); place += piece) {
                hash.update(std::string_view(text).substr(place, piece));
            }

            EXPECT_EQ(hexadecimal(hash.finish()), digest);
        }
    }
}

TEST(SHA256Tests, BytesAndTextAreAlike) {
    constexpr std::array<std::byte, 3> bytes{std::byte{'a'}, std::byte{'b'}, std::byte{'c'}};
    SHA256 hash;
    hash.update(bytes);

    EXPECT_EQ(hash.finish(), SHA256::digest("abc"));
}

TEST(SHA256Tests, StateStartsAfreshAfterFinishing) {
    SHA256 hash;
    hash.update("something else");
    static_cast<void>(hash.finish());
    EXPECT_EQ(hash.finish(), SHA256::digest(""));
    hash.update("abc");

    EXPECT_EQ(hash.finish(), SHA256::digest("abc"));
}

TEST(SHA256Tests, StateMovesWithItsOwner) {
    SHA256 first;
    first.update("ab");
    SHA256 second = std::move(first);
    second.update("c");
    SHA256 third;
    third = std::move(second);

    EXPECT_EQ(third.finish(), SHA256::digest("abc"));
}

TEST(SHA256Tests, ThreadsDoNotDisturbEachOther) {
    const auto all = examples();
    std::vector<std::jthread> threads;
    std::vector<int> wrong(4);
    for (std::size_t index = 0; index < wrong.size(); ++index) {
        threads.emplace_back([&all, &wrong, index] {
            for (std::size_t round = 0; round < 2000; ++round) {
                const auto& [text, digest] = all[(round + index) % 3];
                if (hexadecimal(SHA256::digest(text)) != digest) ++wrong[index];
            }
        });
    }
    threads.clear();

    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

TEST(SHA256Tests, HexadecimalIsTwoLowerCaseDigitsAByte) {
    EXPECT_EQ(hexadecimal(std::array<std::uint8_t, 4>{0x00, 0x0F, 0xA0, 0xFF}), "000fa0ff");
    EXPECT_EQ(hexadecimal({}), "");
}

}  // namespace
}  // namespace quillmere::test
