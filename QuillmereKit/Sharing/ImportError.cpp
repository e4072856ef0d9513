#include "QuillmereKit/Sharing/ImportError.hpp"

#include <array>
#include <utility>

namespace quillmere {
namespace {

struct Row {
    std::string_view caseName;
    std::string_view message;
};

constexpr std::string_view otherVersion =
    "This shared track was made by a different version of Quillmere. Ask the sender to use Export Audio.";
constexpr std::string_view damaged = "This shared file is damaged.";

// In the order of the cases.
constexpr std::array<Row, std::variant_size_v<ImportError::Value>> rows{{
    {"unsupportedSchema", otherVersion},
    {"fingerprintMismatch", damaged},
    {"unknownMood", "This mood is not available on this Mac."},
    {"unsupportedRecipe", otherVersion},
    {"unavailableModel", "This Mac can’t recreate this shared track. Ask the sender to use Export Audio."},
    {"invalidMood", damaged},
    {"engineBuildMismatch", otherVersion},
    {"missingEngineBuild",
     "This older shared track can play from your library, but can’t be recreated. Ask the sender to use Export Audio."},
    {"invalidInputs", damaged},
    {"requiresAudioExport", "This track uses a private sound source. Use Export Audio instead."},
}};

}  // namespace

ImportError::ImportError(Value value) : Error(std::string(rows[value.index()].message)), value_(std::move(value)) {}

std::string_view ImportError::caseName() const noexcept { return rows[value_.index()].caseName; }

}  // namespace quillmere
