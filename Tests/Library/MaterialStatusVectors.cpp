#include "QuillmereKit/Library/MaterialStatus.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere::test {
namespace {

QUILLMERE_VECTOR_TEST(MaterialStatus, "material-status") {
    const auto horizon = Horizon::fromRawValue(vector.at("horizon").get<std::string>());
    ASSERT_TRUE(horizon);
    const MaterialStatus status{.seconds = vector.at("seconds").get<double>(),
                                .horizon = *horizon,
                                .isPlaying = vector.at("isPlaying").get<bool>(),
                                .isWriting = vector.at("isWriting").get<bool>()};

    EXPECT_EQ(status.text(), vector.at("text").get<std::string>());
    EXPECT_EQ(MaterialStatus::clock(status.seconds), vector.at("clock").get<std::string>());
}

}  // namespace
}  // namespace quillmere::test
