#include "QuillmereKit/Platform/UUID.hpp"

#include <gtest/gtest.h>

#include <unordered_set>

namespace quillmere::test {
namespace {

constexpr std::string_view canonical = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

TEST(UUIDTests, CanonicalTextIsReadInEitherCaseAndWrittenInUpperCase) {
    EXPECT_EQ(UUID::fromText(canonical).value().text(), canonical);
    EXPECT_EQ(UUID::fromText("e621e1f8-c36c-495a-93fc-0c247a3e6e5f").value().text(), canonical);
    EXPECT_EQ(UUID::fromText(canonical).value().bytes[0], 0xE6);
    EXPECT_EQ(UUID::fromText(canonical).value().bytes[15], 0x5F);
}

TEST(UUIDTests, AnyOtherTextIsNoIdentifier) {
    for (const std::string_view text :
         {"", "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0",
          "E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5}",
          "G621E1F8-C36C-495A-93FC-0C247A3E6E5F", "E621E1F8-C36C-495A-93FC_0C247A3E6E5F",
          "E621E1F-8C36C-495A-93FC-0C247A3E6E5F", " 621E1F8-C36C-495A-93FC-0C247A3E6E5F",
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5\xC3"}) {
        EXPECT_EQ(UUID::fromText(text), std::nullopt) << text;
    }
}

TEST(UUIDTests, DefaultIsAllZeros) {
    EXPECT_EQ(UUID{}.text(), "00000000-0000-0000-0000-000000000000");
    EXPECT_EQ(UUID::fromText("00000000-0000-0000-0000-000000000000"), UUID{});
}

TEST(UUIDTests, RandomIdentifiersDifferAndAreOfVersion4) {
    std::unordered_set<UUID> seen;
    for (int round = 0; round < 10000; ++round) {
        const UUID id = UUID::random();
        EXPECT_EQ(id.bytes[6] >> 4, 4);
        EXPECT_EQ(id.bytes[8] >> 6, 2);
        EXPECT_EQ(UUID::fromText(id.text()), id);
        seen.insert(id);
    }

    EXPECT_EQ(seen.size(), 10000U);
}

TEST(UUIDTests, OrderIsThatOfTheBytes) {
    EXPECT_LT(UUID{}, UUID::fromText(canonical));
    EXPECT_LT(UUID::fromText("00000000-0000-0000-0000-000000000001"),
              UUID::fromText("01000000-0000-0000-0000-000000000000"));
}

}  // namespace
}  // namespace quillmere::test
