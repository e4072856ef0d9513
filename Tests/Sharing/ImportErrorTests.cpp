#include "QuillmereKit/Sharing/ImportError.hpp"

#include <gtest/gtest.h>

namespace quillmere {
namespace {

using E = ImportError;

constexpr std::string_view otherVersion =
    "This shared track was made by a different version of Quillmere. Ask the sender to use Export Audio.";
constexpr std::string_view damaged = "This shared file is damaged.";

TEST(ImportErrorTests, EachCaseHasItsNameAndItsMessageForTheUser) {
    struct Row {
        E::Value value;
        std::string_view name;
        std::string_view message;
    };
    const Row rows[] = {
        {E::UnsupportedSchema{"x"}, "unsupportedSchema", otherVersion},
        {E::FingerprintMismatch{"a", "b"}, "fingerprintMismatch", damaged},
        {E::UnknownMood{"m"}, "unknownMood", "This mood is not available on this Mac."},
        {E::UnsupportedRecipe{2}, "unsupportedRecipe", otherVersion},
        {E::UnavailableModel{"m"}, "unavailableModel",
         "This Mac can\u2019t recreate this shared track. Ask the sender to use Export Audio."},
        {E::InvalidMood{}, "invalidMood", damaged},
        {E::EngineBuildMismatch{}, "engineBuildMismatch", otherVersion},
        {E::MissingEngineBuild{}, "missingEngineBuild",
         "This older shared track can play from your library, but can\u2019t be recreated. Ask the sender to use "
         "Export Audio."},
        {E::InvalidInputs{}, "invalidInputs", damaged},
        {E::RequiresAudioExport{}, "requiresAudioExport",
         "This track uses a private sound source. Use Export Audio instead."},
    };
    ASSERT_EQ(std::size(rows), std::variant_size_v<E::Value>);

    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].name);
        const ImportError error(rows[i].value);
        EXPECT_EQ(error.value().index(), i);
        EXPECT_EQ(error.caseName(), rows[i].name);
        EXPECT_EQ(error.message(), rows[i].message);
        EXPECT_EQ(std::string_view(error.what()), rows[i].message);
    }
}

TEST(ImportErrorTests, EqualityIsByCaseAndPayload) {
    EXPECT_EQ(E(E::UnknownMood{"a"}), E(E::UnknownMood{"a"}));
    EXPECT_NE(E(E::UnknownMood{"a"}), E(E::UnknownMood{"b"}));
    EXPECT_NE(E(E::InvalidMood{}), E(E::InvalidInputs{}));
    EXPECT_NE(E(E::FingerprintMismatch{"a", "b"}), E(E::FingerprintMismatch{"b", "a"}));
}

}  // namespace
}  // namespace quillmere
