#include "QuillmereKit/Generation/Horizon.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere::test {
namespace {

// A case names a raw value or a minute count, and of what follows from it as much as it likes.
QUILLMERE_VECTOR_TEST(Horizons, "horizons") {
    const auto horizon = vector.contains("raw") ? Horizon::fromRawValue(vector["raw"].get<std::string>())
                                                : Horizon(vector.at("fromMinutes").get<std::int64_t>());
    if (vector.at("horizon").is_null()) {
        EXPECT_FALSE(horizon);
        return;
    }
    ASSERT_TRUE(horizon);

    EXPECT_EQ(horizon->rawValue(), vector["horizon"].get<std::string>());
    EXPECT_EQ(horizon->label(), vector.at("label").get<std::string>());
    EXPECT_EQ(horizon->cost(), vector.at("cost").get<std::string>());
    if (vector.contains("note")) {
        EXPECT_EQ(horizon->note(), vector["note"].get<std::string>());
    }
    if (vector.contains("next")) {
        EXPECT_EQ(horizon->next().rawValue(), vector["next"].get<std::string>());
    }
    if (vector.contains("minutes")) {
        const auto& minutes = vector["minutes"];
        EXPECT_EQ(horizon->minutes(), minutes.is_null() ? std::nullopt : std::optional(minutes.get<std::int64_t>()));
    }
    if (vector.contains("satisfied1200")) {
        EXPECT_EQ(horizon->isSatisfied(1'200), vector["satisfied1200"].get<bool>());
    }
    if (vector.contains("satisfied86400")) {
        EXPECT_EQ(horizon->isSatisfied(86'400), vector["satisfied86400"].get<bool>());
    }
}

}  // namespace
}  // namespace quillmere::test
